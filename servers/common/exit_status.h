// The exit statuses of our programs; the manual page of msgctl has the same table.
#pragma once

#include <stdexcept>
#include <string>

namespace servers {

enum class ExitStatus : int {
  kDone = 0,
  kAnswerError = 1,   // the receiver answered an error, or the program failed in another way
  kUsage = 2,         // a mistake in the command line
  kNoServer = 3,      // no server, or it left
  kNoSuch = 4,        // no such receiver, type or path
  kTimeout = 5,       // nothing came in time
  kBadBody = 6,       // a body or a file is malformed
  kNotPermitted = 7,  // the user may not do that
  kLost = 8,          // something was lost meanwhile
};

// Ends a program: what failed, why and what to do, and the status.
class Failure : public std::runtime_error {
 public:
  Failure(ExitStatus status, const std::string &text) : std::runtime_error(text), status_(status) {}
  ExitStatus status() const { return status_; }

 private:
  ExitStatus status_;
};

}  // namespace servers
