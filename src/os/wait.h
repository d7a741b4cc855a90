// Waiting for one descriptor.
#pragma once

#include <cstdint>

namespace msgapi::os {

enum class Readiness {
  kReady,
  kTimeout,
  kFailed,  // errno says why; EBADF for a descriptor that is not open
};

// Wait up to `timeout_ms` (at most INT32_MAX) until the descriptor can be read or written without
// blocking. End of stream and errors count as ready. They answer as select() does, without its
// limit of 1024. A signal ends them with kFailed and EINTR.
Readiness wait_readable(int fd, uint32_t timeout_ms);
Readiness wait_writable(int fd, uint32_t timeout_ms);

// The same, but after a signal they go on waiting for what is left of the time.
Readiness wait_readable_through_signals(int fd, uint32_t timeout_ms);
Readiness wait_writable_through_signals(int fd, uint32_t timeout_ms);

}  // namespace msgapi::os
