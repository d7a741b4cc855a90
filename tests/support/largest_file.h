// A limit on what files may hold.
#pragma once

#include <csignal>

#include "support/resource_limit.h"

namespace test {

// While it lives, no file grows beyond `bytes`, and a write there fails.
class LargestFile {
 public:
  explicit LargestFile(rlim_t bytes) : limit_(RLIMIT_FSIZE, bytes) {}
  ~LargestFile() { std::signal(SIGXFSZ, handler_); }

 private:
  void (*handler_)(int) = std::signal(SIGXFSZ, SIG_IGN);
  ResourceLimit limit_;
};

}  // namespace test
