// Runs one of the project's programs next to a test.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "os/fd.h"

namespace test {

class Process {
 public:
  // Starts the program `name` of the build, or the one at that absolute path, with its output and
  // errors captured.
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

}  // namespace test
