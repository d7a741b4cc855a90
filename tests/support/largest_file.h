// A limit on what files may hold.
#pragma once

#include <sys/resource.h>

#include <csignal>

namespace test {

// While it lives, no file grows beyond `bytes`, and a write there fails. Afterwards it must not
// hold: a process that counts coverage writes its files at its end.
class LargestFile {
 public:
  explicit LargestFile(rlim_t bytes) : handler_(std::signal(SIGXFSZ, SIG_IGN)) {
    ::getrlimit(RLIMIT_FSIZE, &before_);
    const rlimit few{bytes, before_.rlim_max};
    ::setrlimit(RLIMIT_FSIZE, &few);
  }
  ~LargestFile() {
    ::setrlimit(RLIMIT_FSIZE, &before_);
    std::signal(SIGXFSZ, handler_);
  }
  LargestFile(const LargestFile &) = delete;
  LargestFile &operator=(const LargestFile &) = delete;

 private:
  void (*handler_)(int);
  rlimit before_{};
};

}  // namespace test
