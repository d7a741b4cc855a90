// The log server's end of the log client: what the code under test logs.
#pragma once

#include <string>

#include "os/fd.h"

namespace test {

// Listens in the place of the log server.
class LogLines {
 public:
  LogLines();

  // The text of the next line, without what the log client puts before it; "" when there is none.
  std::string next();

 private:
  msgapi::os::UniqueFd socket_;
};

}  // namespace test
