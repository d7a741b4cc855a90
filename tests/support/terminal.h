// Programs on a terminal.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "support/process.h"

namespace test {

inline bool has_terminals() {
  return ::access("/dev/ptmx", R_OK | W_OK) == 0;
}

// What a command of the build writes to a terminal, with the line ends that it wrote. The command
// goes through a shell, in double quotes.
inline std::string on_terminal(const std::string &command) {
  const Output output =
      shell("set -o pipefail; script -qec \"" + command + "\" /dev/null </dev/null | tr -d '\\r'");
  EXPECT_EQ(0, output.status) << output.text;
  return output.text;
}

}  // namespace test
