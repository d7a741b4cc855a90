// A message server for a test, and helpers for the tests of its services.
#pragma once

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "support/network.h"
#include "support/process.h"

namespace test {

// Types of the tests, which the server does not know.
constexpr uint32_t kType = 0x1234;
constexpr uint32_t kUnservedType = 0x7777;

class Services : public testing::Test {
 protected:
  void start(const std::vector<std::string> &arguments = {}) {
    server_ = std::make_unique<Process>("msgsvr", arguments);
    ASSERT_TRUE(server_->wait_for("ready")) << server_->output();
  }

  // A connection to a port of 127.0.0.1, or -1.
  static int connect_to(uint16_t port) {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_in address = loopback(port);
    if (::connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0) return fd;
    ::close(fd);
    return -1;
  }

  template <typename T>
  static std::string bytes_of(const T &record) {
    return std::string(reinterpret_cast<const char *>(&record), sizeof record);
  }

  std::unique_ptr<Process> server_;
};

}  // namespace test
