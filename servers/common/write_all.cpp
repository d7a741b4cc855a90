#include "common/write_all.h"

#include <unistd.h>

#include <cerrno>

namespace servers {

bool write_all(int fd, std::span<const char> bytes) noexcept {
  while (!bytes.empty()) {
    const ssize_t count = ::write(fd, bytes.data(), bytes.size());
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return false;
    bytes = bytes.subspan(static_cast<size_t>(count));
  }
  return true;
}

}  // namespace servers
