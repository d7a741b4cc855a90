// Counts the system calls that code makes.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

namespace test {

// Whether calls can be counted here: not if tracing is forbidden, and not under emulation.
bool can_count_system_calls();

struct SystemCall {
  long number;  // SYS_...
  uint64_t arguments[6];
};

// The system calls of action(), in order. It runs in a child process, a copy of this one: once to
// warm up caches, and once to be counted. prepare() runs before each and is not counted. Everything
// that the child does is lost with it, expectations included.
std::vector<SystemCall> system_calls(const std::function<void()> &prepare,
                                     const std::function<void()> &action);

}  // namespace test
