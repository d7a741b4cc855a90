// A program that msgctl runs to learn an answer.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace msgctl {

struct ChildResult {
  int status = 0;          // exit status; 128 and its number after a signal
  bool timed_out = false;  // it was ended, for it took too long or wrote too much
  std::string output;
};

// Runs the program, found by PATH, with these arguments (the first is the program) and further
// variables in its environment; no shell is involved. It gets `input` on its standard input, and
// keeps our standard error. Throws a Failure when it cannot be started.
ChildResult run_child(const std::vector<std::string> &arguments,
                      const std::vector<std::pair<std::string, std::string>> &variables,
                      std::string_view input, uint32_t timeout_ms, size_t most_output);

}  // namespace msgctl
