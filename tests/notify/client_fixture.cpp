#include "notify/client_fixture.h"

#include <poll.h>

#include <ctime>

using namespace msgapi::notify;

// Replaces the C library's.
extern "C" int poll(pollfd *entries, nfds_t count, int timeout_ms) {
  timespec wait{};
  const int ready = ::ppoll(entries, count, &wait, nullptr);
  if (ready != 0 || timeout_ms == 0) return ready;
  if (g_before_waiting) std::exchange(g_before_waiting, nullptr)();
  const int64_t nanoseconds = int64_t{timeout_ms} * 1000000 / g_wait_divisor;
  wait.tv_sec = static_cast<time_t>(nanoseconds / 1000000000);
  wait.tv_nsec = static_cast<long>(nanoseconds % 1000000000);
  return ::ppoll(entries, count, timeout_ms < 0 ? nullptr : &wait, nullptr);
}
