// A descriptor that closes itself and keeps errno.
#pragma once

#include <unistd.h>

#include <cerrno>

namespace orputil {

class Fd {
 public:
  explicit Fd(int fd) : fd_(fd) {}
  Fd(Fd &&other) noexcept : fd_(other.release()) {}
  Fd(const Fd &) = delete;
  Fd &operator=(const Fd &) = delete;
  Fd &operator=(Fd &&other) noexcept {
    close();
    fd_ = other.release();
    return *this;
  }
  ~Fd() { close(); }

  int get() const { return fd_; }
  explicit operator bool() const { return fd_ >= 0; }

  int release() {
    const int fd = fd_;
    fd_ = -1;
    return fd;
  }

 private:
  void close() {
    if (fd_ < 0) return;
    const int saved = errno;
    ::close(fd_);
    errno = saved;
  }

  int fd_;
};

}  // namespace orputil
