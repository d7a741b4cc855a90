// Calls of the library that wait and print as they like, held to what the user asked for.
#pragma once

#include <cstdint>
#include <string>

#include "common/unique_fd.h"
#include "msgctl/context.h"

namespace msgctl {

// While it lives, the process ends with the status for a time-out, and that text on standard error,
// after `ms`. One at a time.
class PatienceAlarm {
 public:
  PatienceAlarm(const Context &context, uint32_t ms, const std::string &text);
  ~PatienceAlarm();
  PatienceAlarm(const PatienceAlarm &) = delete;
  PatienceAlarm &operator=(const PatienceAlarm &) = delete;

 private:
  servers::UniqueFd error_;
};

// While it lives, standard output and standard error go nowhere: the library says there what it
// cannot log, and what msgctl prints is for programs, too. What PatienceAlarm says still arrives.
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
