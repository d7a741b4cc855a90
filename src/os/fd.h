// Descriptors that close themselves.
#pragma once

#include <unistd.h>
#include <cerrno>

namespace msgapi::os {

// Owns one descriptor; -1 is none. Closing keeps errno and is never retried: on Linux the
// descriptor is gone even when close() reports EINTR.
class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : fd_(fd) {}
  UniqueFd(UniqueFd &&other) noexcept : fd_(other.release()) {}
  UniqueFd &operator=(UniqueFd &&other) noexcept {
    reset(other.release());
    return *this;
  }
  ~UniqueFd() { reset(); }

  int get() const { return fd_; }
  explicit operator bool() const { return fd_ >= 0; }

  int release() {
    const int fd = fd_;
    fd_ = -1;
    return fd;
  }

  void reset(int fd = -1) {
    if (fd_ >= 0 && fd_ != fd) {
      const int saved = errno;
      ::close(fd_);
      errno = saved;
    }
    fd_ = fd;
  }

 private:
  int fd_ = -1;
};

}  // namespace msgapi::os
