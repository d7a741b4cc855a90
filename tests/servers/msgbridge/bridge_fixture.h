// The bridge between a message server and a broker.
#pragma once

#include <gtest/gtest.h>

#include <fstream>
#include <memory>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "msgapi.h"
#include "servers/msgbridge/scripted_broker.h"
#include "support/process.h"

namespace test {

inline constexpr uint16_t kBrokerPort = 1883;
inline constexpr const char *kBrokerAddress = "mqtt://127.0.0.1:1883";
inline constexpr const char *kBridgeConfig = "/var/bridge.json";
inline constexpr const char *kCountTopic = "gw/me/event/wan/Count";
inline constexpr const char *kLostTopic = "gw/me/lost";
inline constexpr const char *kStatusTopic = "gw/me/status";

inline std::string quoted(const std::string &text) {
  return '"' + text + '"';
}

// `broker` are further members of the broker, `members` of the whole.
inline void configure(const std::string &members = R"("up": [{}])", const std::string &broker = "",
                      const std::string &addresses = quoted(kBrokerAddress)) {
  std::ofstream(kBridgeConfig) << R"({"broker": {"reconnect": {"least_ms": 20, "most_ms": 100},
      "addresses": [)" << addresses
                               << "]" << broker << R"(}, "gateway": "me", )" << members << "}";
}

class BridgeTest : public testing::Test {
 protected:
  BridgeTest() : bus_(std::make_unique<Process>("msgsvr")) {
    EXPECT_TRUE(bus_->wait_for("ready")) << bus_->output();
    EXPECT_EQ(ORP_OK, ORP_MSG_InitWithoutHandle("pub"));
  }
  ~BridgeTest() override { ORP_MSG_Destroy(); }

  static std::unique_ptr<Process> start_bridge() {
    auto bridge =
        std::make_unique<Process>("msgbridge", std::vector<std::string>{"--config", kBridgeConfig});
    EXPECT_TRUE(bridge->wait_for("Connected to the message server")) << bridge->output();
    return bridge;
  }
  static void publish(const std::string &number, const char *type = "Count") {
    ASSERT_EQ(ORP_OK, ORP_EVT_PublishEvent(ORP_MSG_EVENT_WAN, type, "number", number.c_str()));
  }
  static void publish_numbers(int first, int last) {
    for (int i = first; i <= last; ++i) publish(std::to_string(i));
  }

  std::unique_ptr<Process> bus_;
};

class ScriptedBrokerTest : public BridgeTest {
 protected:
  void take_connection() {
    broker_.welcome();
    broker_.read(kStatusTopic);
  }
  // Takes connections until the bridge says in its status that there are so many. Returns it.
  nlohmann::json welcome_when(const char *member, uint64_t count,
                              std::string_view properties = "") {
    for (int tries = 0; tries < 1000; ++tries) {
      broker_.welcome(properties);
      const Publication publication = broker_.read(kStatusTopic);
      broker_.acknowledge(publication);
      auto status = nlohmann::json::parse(publication.payload);
      if (status[member] == count) return status;
    }
    throw std::runtime_error("there are never so many");
  }

  ScriptedBroker broker_{kBrokerPort};
};

}  // namespace test
