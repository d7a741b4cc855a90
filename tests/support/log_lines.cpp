#include "support/log_lines.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cstddef>

#include "base/text.h"
#include "msgapi/log.h"

namespace test {

LogLines::LogLines() : socket_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  msgapi::copy_cut(address.sun_path, MLOG_IPC_PATH MLOG_SERVER_NAME);
  EXPECT_EQ(0, ::bind(socket_.get(), reinterpret_cast<sockaddr *>(&address), sizeof address));
}

std::string LogLines::next() {
  MlogMsg record = {};
  const ssize_t size = ::recv(socket_.get(), &record, sizeof record - 1, 0);
  if (size <= static_cast<ssize_t>(MLOG_HEAD_SIZE)) return "";
  const std::string line(record.payload);
  return line.substr(line.find("]:") + 2);
}

}  // namespace test
