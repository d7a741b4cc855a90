// Waiting for one descriptor, with poll(): for a set of one it answers as select() does, and it
// knows no limit on descriptor numbers. Hang-ups and errors count as ready; the read or write that
// follows says what happened.

#include "os/wait.h"

#include <poll.h>

#include <algorithm>
#include <cerrno>

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

}  // namespace

Readiness wait_readable(int fd, uint32_t timeout_ms) {
  return wait(fd, POLLIN, timeout_ms);
}

Readiness wait_writable(int fd, uint32_t timeout_ms) {
  return wait(fd, POLLOUT, timeout_ms);
}

}  // namespace msgapi::os
