// Runs a program that makes an answer for msgctl.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace msgctl {

struct ChildResult {
  int status = 0;          // exit status, or 128 plus the number of the signal that ended it
  bool timed_out = false;  // it was ended because it took too long or wrote too much
  std::string output;
};

// Runs the program arguments[0], found in PATH, with the other arguments and with further variables
// in its environment; no shell is involved. It gets `input` on its standard input and shares our
// standard error. Throws a Failure when it cannot be started.
ChildResult run_child(const std::vector<std::string> &arguments,
                      const std::vector<std::pair<std::string, std::string>> &variables,
                      std::string_view input, uint32_t timeout_ms, size_t most_output);

}  // namespace msgctl
