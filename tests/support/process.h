// Runs programs next to a test.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

#include "os/fd.h"

namespace test {

class Process {
 public:
  // Starts the project's program `name`, or any other by its path, with its output and errors
  // captured.
  explicit Process(const std::string &name, const std::vector<std::string> &arguments = {});
  // Kills the program if it is still running.
  ~Process();

  pid_t pid() const { return pid_; }

  // Reads on until the output has `text` somewhere after the last text that was waited for. False
  // when the program ends first or prints nothing for kPatience_ms.
  bool wait_for(const std::string &text);

  // Waits for the end of the program. Returns its exit status, or 128 plus the number of the signal
  // that ended it; -1 when it prints nothing for kPatience_ms.
  int wait();

  // Sends `signal` and waits like wait().
  int stop(int signal);

  // The output that has been read so far.
  const std::string &output() const { return output_; }

 private:
  bool read_more();

  pid_t pid_ = -1;
  msgapi::os::UniqueFd output_fd_;
  std::string output_;
  size_t seen_ = 0;
  bool ended_ = false;
};

// What a program has printed, and its exit status.
struct Output {
  int status;
  std::string text;
};

// Runs a program to its end. The output includes standard error.
Output run_program(const std::string &name, const std::vector<std::string> &arguments = {});

// Runs a command line of bash, for which the project's programs come first. Returns its standard
// output.
Output shell(const std::string &command);

// The path of the project's program `name`.
std::string path_of(const std::string &name);

// Waits until `holds` returns true; false when that takes longer than kPatience_ms.
bool eventually(const std::function<bool()> &holds);

}  // namespace test
