// Writes ring files, and runs the mlog program.
#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <time.h>

#include <cstdio>
#include <string>
#include <vector>

#include "msgapi/ringlog.h"
#include "support/process.h"

namespace test::mlog {

using test::Output;

inline std::string line(int64_t uptime_ms, const std::string &text,
                        const std::string &level = "INFO", const std::string &module = "wan") {
  char head[64];
  std::snprintf(head, sizeof head, "[%011lld]", static_cast<long long>(uptime_ms));
  return head + ("[" + module + "][" + level + "]:" + text + "\n");
}

// How long this machine has been running.
inline int64_t uptime_ms() {
  timespec now{};
  ::clock_gettime(CLOCK_BOOTTIME, &now);
  return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

// Adds to the ring file of a module.
inline void write_ring(const std::string &module, std::string text, uint32_t max_size = 100000) {
  ::mkdir("/var/mlogfile", 0700);
  MlogTarget target = {max_size,
                       MlogFileConstructor(("/var/mlogfile/" + module + ".log").c_str(), max_size)};
  EXPECT_EQ(0, MlogFileWrite(&target, text.data(), static_cast<uint32_t>(text.size())));
  MlogFileDestructor(target.file);
}

inline Output run(const std::vector<std::string> &arguments) {
  return run_program("mlog", arguments);
}

// The header of a ring file.
inline std::string header(int overturn, int offset) {
  char text[80];
  std::snprintf(text, sizeof text, "[overturn=%03d][offset=%010d][uploadoffset=%03d^%010d]\n",
                overturn, offset, overturn, 1023);
  return text;
}

}  // namespace test::mlog
