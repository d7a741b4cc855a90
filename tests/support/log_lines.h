// Plays the log server: gives the lines that the code under test logs.
#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <string>

#include "msgapi/log.h"
#include "os/fd.h"

namespace test {

// Listens in the place of the log server.
class LogLines {
 public:
  LogLines() {
    const sockaddr_un address = {AF_UNIX, MLOG_IPC_PATH MLOG_SERVER_NAME};
    EXPECT_EQ(0,
              ::bind(socket_.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address));
  }

  // The text of the next line, without what the log client puts before it; "" when there is none.
  std::string next() {
    MlogMsg record = {};
    const ssize_t size = ::recv(socket_.get(), &record, sizeof record - 1, 0);
    if (size <= static_cast<ssize_t>(MLOG_HEAD_SIZE)) return "";
    const std::string line(record.payload);
    return line.substr(line.find("]:") + 2);
  }

 private:
  msgapi::os::UniqueFd socket_{::socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)};
};

}  // namespace test
