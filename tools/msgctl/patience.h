// For calls of the library with a time-out and messages of their own: holds them to msgctl's.
#pragma once

#include <cstdint>
#include <string>

#include "common/unique_fd.h"
#include "msgctl/context.h"

namespace msgctl {

// Unless it is destroyed within `ms`, the process ends with the exit status for a time-out and
// `text` on standard error. Only one may live at a time.
class PatienceAlarm {
 public:
  PatienceAlarm(const Context &context, uint32_t ms, const std::string &text);
  ~PatienceAlarm();
  PatienceAlarm(const PatienceAlarm &) = delete;
  PatienceAlarm &operator=(const PatienceAlarm &) = delete;

 private:
  servers::UniqueFd error_;
};

// While it lives, standard output and standard error go to /dev/null: the library writes there what
// it cannot log, and programs read what msgctl prints. PatienceAlarm's text still gets through.
class QuietOutput {
 public:
  QuietOutput();
  ~QuietOutput();
  QuietOutput(const QuietOutput &) = delete;
  QuietOutput &operator=(const QuietOutput &) = delete;

 private:
  servers::UniqueFd output_;
  servers::UniqueFd error_;
};

}  // namespace msgctl
