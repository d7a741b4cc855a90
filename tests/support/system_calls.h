// Counts the system calls that code makes.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

namespace test {

// Whether calls can be counted here: not where tracing is forbidden or under emulation.
bool can_count_system_calls();

struct SystemCall {
  long number;  // SYS_...
  uint64_t arguments[6];
};

// The system calls of action(), in order. The action runs in a child
// process with a copy of everything, once to warm up caches and once to be counted; prepare() runs
// before each, uncounted. What the child does is lost with it, expectations included.
std::vector<SystemCall> system_calls(const std::function<void()> &prepare,
                                     const std::function<void()> &action);

}  // namespace test
