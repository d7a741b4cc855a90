// Waiting for one descriptor, with poll(): for a single descriptor it answers as select() does, and
// descriptor numbers are not limited. Hang-ups and errors count as ready; the read or write that
// follows says what happened.

#include "os/wait.h"

#include <poll.h>

#include <algorithm>
#include <cerrno>

#include "os/clock.h"

namespace msgapi::os {
namespace {

Readiness wait(int fd, short events, uint32_t timeout_ms) {
  if (fd < 0) {
    errno = EBADF;
    return Readiness::kFailed;
  }

  pollfd entry{.fd = fd, .events = events, .revents = 0};
  const int count = ::poll(&entry, 1, static_cast<int>(std::min<uint32_t>(timeout_ms, INT32_MAX)));
  if (count < 0) return Readiness::kFailed;
  if (count == 0) return Readiness::kTimeout;
  if ((entry.revents & POLLNVAL) != 0) {
    errno = EBADF;
    return Readiness::kFailed;
  }
  return Readiness::kReady;
}

int64_t now_ms() {
  RawTime now;
  return read_clock(CLOCK_MONOTONIC, &now) ? int64_t{now.seconds} * 1000 + now.nanoseconds / 1000000
                                           : 0;
}

Readiness wait_through_signals(int fd, short events, uint32_t timeout_ms) {
  const int64_t end_ms = now_ms() + timeout_ms;
  for (int64_t left_ms = timeout_ms;;) {
    const Readiness readiness = wait(fd, events, static_cast<uint32_t>(left_ms));
    if (readiness != Readiness::kFailed || (errno != EINTR && errno != EAGAIN)) return readiness;
    left_ms = std::clamp<int64_t>(end_ms - now_ms(), 0, timeout_ms);
  }
}

}  // namespace

Readiness wait_readable(int fd, uint32_t timeout_ms) {
  return wait(fd, POLLIN, timeout_ms);
}

Readiness wait_writable(int fd, uint32_t timeout_ms) {
  return wait(fd, POLLOUT, timeout_ms);
}

Readiness wait_readable_through_signals(int fd, uint32_t timeout_ms) {
  return wait_through_signals(fd, POLLIN, timeout_ms);
}

Readiness wait_writable_through_signals(int fd, uint32_t timeout_ms) {
  return wait_through_signals(fd, POLLOUT, timeout_ms);
}

}  // namespace msgapi::os
