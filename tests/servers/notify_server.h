// A notify server for a test, its modules, and messages between them.
#pragma once

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <cstdint>
#include <string>
#include <vector>

#include "support/notify_peer.h"
#include "support/process.h"

namespace test {

constexpr uint32_t kCms = 8;
constexpr uint32_t kWeb = 26;
constexpr uint32_t kNoticeType = 0x77;

inline NotifyMessage notice(uint32_t source, uint32_t destination,
                            const std::string &data = "data") {
  NotifyMessage message{{}, data};
  message.head.msg_type = kNoticeType;
  message.head.source_id = source;
  message.head.des_id = destination;
  message.head.ack_tag = ORP_NOTIFYCLT_REQUEST;
  return message;
}

inline NotifyMessage request(uint32_t source, uint32_t destination, const std::string &data) {
  NotifyMessage message = notice(source, destination, data);
  message.head.sync_tag = 1;
  return message;
}

inline NotifyMessage registration(uint32_t module) {
  const uint32_t values[] = {module, 0};
  NotifyMessage message =
      notice(0, ORP_NOTIFYCLT_SERVER, {reinterpret_cast<const char *>(values), sizeof values});
  message.head.msg_type = ORP_NOTIFYCLT_REGISTER;
  return message;
}

struct NotifyServer : Process {
  explicit NotifyServer(const std::vector<std::string> &arguments = {})
      : Process("notifyserver", arguments) {
    EXPECT_TRUE(wait_for("ready"));
    ::alarm(60);  // peers wait for messages without an end
  }

  std::string statistics_at_end() {
    EXPECT_EQ(0, stop(SIGTERM));
    return output().substr(output().rfind("received "));
  }
};

struct Module : NotifyPeer {
  Module(NotifyServer *server, uint32_t id) {
    send(registration(id));
    EXPECT_TRUE(server->wait_for("module " + std::to_string(id) + " ("));
    EXPECT_TRUE(server->wait_for("is registered"));
  }
};

}  // namespace test
