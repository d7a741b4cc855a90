// The clock and the options of spools under test.
#pragma once

#include <cstdint>
#include <string>

#include "msgbridge/spool.h"

namespace test {

inline msgbridge::Spool::Now g_now{"boot-1", 1'000'000, 1'800'000'000'000};

inline msgbridge::Spool::Now now() {
  return g_now;
}

// Nothing reaches the disk before the kernel likes, and events expire after 100 s.
inline msgbridge::SpoolOptions spool_options(const std::string &path, uint64_t bytes) {
  msgbridge::SpoolOptions options;
  options.path = path;
  options.bytes = bytes;
  options.age_s = 100;
  options.sync = false;
  options.reserve = false;
  return options;
}

}  // namespace test
