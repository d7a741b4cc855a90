// A message server for a test, and helpers for the tests of its services.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "support/message_peer.h"
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

  static Frame notice(uint32_t type, const std::string &to) {
    return {.type = ORP_MSG_UNDELIVERABLE, .to = to, .data = type};
  }

  // Sends what brings a notice.
  static void expect_refusal(RawClient &client, const Frame &request,
                             const char *file = __builtin_FILE(), int line = __builtin_LINE()) {
    client.send(request);
    client.expect(notice(request.type & ORP_MSG_TYPE_MASK, client.name()), file, line);
  }

  template <typename T>
  static std::string bytes_of(const T &record) {
    return std::string(reinterpret_cast<const char *>(&record), sizeof record);
  }

  std::unique_ptr<Process> server_;
};

}  // namespace test
