// The bridge and the fleet's tool with a real broker.

#include <gmock/gmock.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "servers/msgbridge/bridge_fixture.h"
#include "servers/msgbridge/broker.h"
#include "support/message_peer.h"
#include "support/network.h"
#include "support/process.h"

namespace {

namespace fs = std::filesystem;

using std::chrono::milliseconds;
using test::configure;
using test::kBridgeConfig;
using test::kBrokerAddress;
using test::kBrokerPort;
using test::kCountTopic;
using test::kStatusTopic;
using test::Process;
using test::RawClient;
using test::Received;
using test::start_broker;
using testing::HasSubstr;
using testing::Not;

constexpr uint32_t kOwnType = 0x4242;

class BridgeAndBroker : public test::BridgeTest {
 protected:
  void SetUp() override {
    if (::access(test::kBrokerProgram, X_OK) != 0) {
      GTEST_SKIP() << "no mosquitto here; './dev test' installs it";
    }
  }
};

TEST_F(BridgeAndBroker, SendsEventsAndItsStatus) {
  const auto broker = start_broker(kBrokerPort);
  test::Listener listener(kBrokerPort, "gw/#");
  configure();
  auto bridge = start_bridge();
  ASSERT_TRUE(listener.wait_for(kStatusTopic, "online"));
  constexpr int kEvents = 500;  // more than may be under way
  publish_numbers(1, kEvents);
  const auto number = [](int count) { return "\"number\":\"" + std::to_string(count) + '"'; };
  ASSERT_TRUE(listener.wait_for(kCountTopic, number(kEvents)));
  int count = 0;
  for (const Received &each : listener.all()) {
    if (each.topic != kCountTopic) continue;
    EXPECT_THAT(each.payload, HasSubstr(number(++count)));
  }
  EXPECT_EQ(kEvents, count);

  bridge->stop(SIGKILL);
  ASSERT_TRUE(listener.wait_for(kStatusTopic, "offline")) << "the will";
  bridge = start_bridge();
  ASSERT_TRUE(test::Listener(kBrokerPort, kStatusTopic).wait_for(kStatusTopic, "online"));
  EXPECT_EQ(0, bridge->stop(SIGTERM));
  test::Listener late(kBrokerPort, kStatusTopic);
  ASSERT_TRUE(late.wait_for(kStatusTopic, "offline")) << "the farewell";
  EXPECT_TRUE(late.all().at(0).retained);
}

// ---- TLS ----

void make_authority(const std::string &name) {
  test::run(
      "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 2 -subj "
      "/CN=" +
      name + " -keyout /var/" + name + ".key -out /var/" + name + ".pem");
}

void make_certificate(const std::string &authority, const std::string &name) {
  test::run("openssl req -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -subj /CN=" +
            name + " -keyout /var/" + name + ".key -out /var/" + name + ".csr");
  std::ofstream("/var/names") << "subjectAltName=DNS:" << name << "\n";
  test::run("openssl x509 -req -days 2 -in /var/" + name + ".csr -CA /var/" + authority +
            ".pem -CAkey /var/" + authority +
            ".key -CAcreateserial -extfile /var/names -out /var/" + name + ".pem");
}

TEST_F(BridgeAndBroker, TrustsOnlyTheRightCertificate) {
  make_authority("ours");
  make_authority("theirs");
  make_certificate("ours", "localhost");
  make_certificate("ours", "gateway");
  make_certificate("theirs", "stranger");
  const auto broker =
      start_broker(kBrokerPort,
                   "allow_anonymous true\ncafile /var/ours.pem\ncertfile /var/localhost.pem\n"
                   "keyfile /var/localhost.key\nrequire_certificate true\n");
  const std::string gateway = R"("certificate": "/var/gateway.pem", "key": "/var/gateway.key")";
  const std::string ours = R"("ca": "/var/ours.pem", )" + gateway;
  const struct {
    std::string tls;
    std::string host;
    const char *says;
    const char *why;
  } kCases[] = {
      {ours, "localhost", "Connected to mqtts", "it is the one"},
      {R"("ca": "/var/theirs.pem", )" + gateway, "localhost", "certificate verify failed",
       "they do not know it"},
      {ours, "127.0.0.1", "No connection to mqtts", "it is not its name"},
      {gateway, "localhost", "No connection to mqtts", "the system knows nobody"},
      {R"("ca": "/var/ours.pem", "certificate": "/var/stranger.pem", "key": "/var/stranger.key")",
       "localhost", "No connection to mqtts", "the broker does not know the gateway"},
      {ours + R"(, "verify": false)", "127.0.0.1", "Connected to mqtts",
       "as the configuration says"},
  };
  for (const auto &each : kCases) {
    configure(R"("up": [{}])", R"(, "tls": {)" + each.tls + "}",
              test::quoted("mqtts://" + each.host + ":" + std::to_string(kBrokerPort)));
    auto bridge = start_bridge();
    EXPECT_TRUE(bridge->wait_for(" to mqtts://") && bridge->wait_for("\n")) << each.why;
    EXPECT_THAT(bridge->output(), HasSubstr(each.says)) << each.why;
  }
}

// ---- Who the bridge is ----

TEST_F(BridgeAndBroker, ShowsItsCredentials) {
  std::ofstream("/var/passwords") << "";
  test::run("mosquitto_passwd -b /var/passwords me secret");
  const auto broker =
      start_broker(kBrokerPort, "allow_anonymous false\npassword_file /var/passwords\n");
  const auto with_password = [](const char *password) {
    std::ofstream("/var/credentials") << R"({"user": "me", "password": ")" << password << "\"}";
    fs::permissions("/var/credentials", fs::perms(0600));
  };
  with_password("wrong");
  configure(R"("up": [{}])", R"(, "credentials": "/var/credentials")");
  auto bridge = start_bridge();
  ASSERT_TRUE(bridge->wait_for("No connection to mqtt")) << bridge->output();
  EXPECT_THAT(bridge->output(), HasSubstr("the broker refuses"));
  EXPECT_THAT(bridge->output(), Not(HasSubstr("wrong")));
  with_password("secret");  // read for each connection
  EXPECT_TRUE(bridge->wait_for("Connected to mqtt")) << bridge->output();
}

TEST_F(BridgeAndBroker, IsKnownToTheBrokersRulesByItsNameInTopics) {
  std::ofstream("/var/rules") << "topic read gw/#\npattern write gw/%c/#\n";
  const auto broker = start_broker(kBrokerPort, "allow_anonymous true\nacl_file /var/rules\n");
  test::Listener listener(kBrokerPort, "gw/#");
  std::ofstream(kBridgeConfig) << R"({"broker": {"addresses": [")" << kBrokerAddress
                               << R"("]}, "gateway": "floor/1"})";
  auto bridge = start_bridge();
  EXPECT_TRUE(listener.wait_for("gw/floor%2F1/status", "online")) << bridge->output();
}

// ---- The fleet ----

class Fleet : public BridgeAndBroker {
 protected:
  void SetUp() override {
    BridgeAndBroker::SetUp();
    if (IsSkipped()) return;
    broker_ = start_broker(kBrokerPort);
    listener_ = std::make_unique<test::Listener>(kBrokerPort, "none");
  }

  static std::unique_ptr<Process> start_fleet(const std::vector<std::string> &words) {
    std::vector<std::string> all{"fleet", "--broker", kBrokerAddress};
    all.insert(all.end(), words.begin(), words.end());
    return std::make_unique<Process>("msgctl", all);
  }
  struct Output {
    int status;
    std::string text;
  };
  static Output fleet(const std::vector<std::string> &words) {
    const auto process = start_fleet(words);
    const int status = process->wait();
    return {status, process->output()};
  }

  // Publishes an event with that number again and again, as long as the thread lives.
  std::jthread greet(uint64_t sequence = 0) {
    return std::jthread([this, sequence](const std::stop_token &stop) {
      while (!stop.stop_requested()) {
        listener_->publish("gw/other/event/wan/Hello", R"({"Module": "wan", "EventType": "Hello"})",
                           sequence);
        std::this_thread::sleep_for(milliseconds(50));
      }
    });
  }
  // When the process has heard an event of its last topic, the broker has all its subscriptions.
  bool has_subscribed(Process *listening, uint64_t sequence = 0) {
    const auto greeter = greet(sequence);
    return listening->wait_for("Hello");
  }

  // A gateway that has only a status and answers nothing.
  void add_silent(const std::string &name,
                  const std::string &status = R"({"state": "online", "sequence": 7})") {
    listener_->publish("gw/" + name + "/status", status, 0, true);
  }

  std::unique_ptr<Process> broker_;
  std::unique_ptr<test::Listener> listener_;
};

TEST_F(Fleet, ListsAsksAndNamesWhoIsMissing) {
  RawClient cms("cms");
  const std::jthread application([&cms](const std::stop_token &stop) {
    while (!stop.stop_requested()) {
      const auto frame = cms.receive(20);
      if (frame && frame->type == kOwnType) cms.answer(*frame, 2 * frame->data);
    }
  });
  configure(
      R"("down": {"rest": [{"path": "/dev/*"}], "calls": [{"app": "cms", "type": "0x4242"}]})");
  auto bridge = start_bridge();
  Output refused{5, ""};
  for (int tries = 0; refused.status == 5 && tries < 20; ++tries) {  // until it has subscribed
    refused = fleet({"--gateway", "me", "get", "/etc/passwd", "--json", "--timeout", "500"});
  }
  EXPECT_EQ(1, refused.status) << refused.text;
  EXPECT_THAT(refused.text, HasSubstr("\"errors\":1"));
  add_silent("mute");
  add_silent("gone", R"({"state": "offline"})");
  add_silent("evil", "\x1b[31mno JSON");

  const Output list = fleet({"list"});
  EXPECT_EQ(0, list.status) << list.text;
  EXPECT_THAT(list.text, HasSubstr("4 gateways, 2 online"));
  EXPECT_THAT(list.text, Not(HasSubstr("\x1b")));

  const Output one = fleet({"--gateway", "me", "call", "cms", "0x4242", "21"});
  EXPECT_EQ(0, one.status) << one.text;
  EXPECT_THAT(one.text, HasSubstr("me 200 42"));
  EXPECT_THAT(one.text, HasSubstr("1 asked, 1 answered, 0 of them errors, 0 missing"));
  EXPECT_THAT(one.text, HasSubstr("median"));

  const Output all = fleet({"call", "cms", "0x4242", "1", "--timeout", "3000"});
  EXPECT_EQ(5, all.status) << all.text;
  EXPECT_THAT(all.text, HasSubstr("me 200 2"));
  EXPECT_THAT(all.text, HasSubstr("2 asked, 1 answered, 0 of them errors, 1 missing"));
  EXPECT_THAT(all.text, HasSubstr("missing: mute"));
}

TEST_F(Fleet, ListensAndCountsWhatIsMissing) {
  configure();
  auto bridge = start_bridge();
  const auto listening =
      start_fleet({"listen", "--gateway", "me", "--gateway", "other", "-n", "200"});
  ASSERT_TRUE(has_subscribed(listening.get())) << listening->output();
  publish("1");
  ASSERT_TRUE(listening->wait_for("me wan Count {\"number\":\"1\"}")) << listening->output();
  listener_->publish("gw/me/lost", R"({"first": 900, "last": 904, "count": 5, "reason": "full"})");
  ASSERT_TRUE(listening->wait_for("me gave up 5 events: full")) << listening->output();
  publish_numbers(2, 300);
  EXPECT_EQ(8, listening->wait()) << listening->output();
}

TEST_F(Fleet, SaysWhatIsWrong) {
  EXPECT_EQ(2, fleet({"dance"}).status);
  EXPECT_EQ(2, fleet({"get", "dev"}).status);
  EXPECT_EQ(2, fleet({"call", "cms"}).status);
  EXPECT_EQ(6, fleet({"call", "cms", "0x4242", "1", "\xff"}).status);
  EXPECT_EQ(2, fleet({"--prefix", "a/#", "list"}).status);
  EXPECT_EQ(2, fleet({"--key", "/dev/null", "list"}).status);
  EXPECT_EQ(4, fleet({"--prefix", "nobody", "get", "/dev/info"}).status);
  EXPECT_EQ(6, fleet({"--credentials", "/nonexistent", "list"}).status);
  Process untrusting("msgctl",
                     {"fleet", "--broker", "mqtts://127.0.0.1", "--ca", "/nonexistent", "list"});
  EXPECT_EQ(2, untrusting.wait());
  EXPECT_THAT(untrusting.output(), HasSubstr("/nonexistent: No such file"));
  broker_->stop(SIGKILL);
  const Output none = fleet({"list"});
  EXPECT_EQ(3, none.status);
  EXPECT_THAT(none.text, HasSubstr("no connection to mqtt://127.0.0.1:1883"));
}

TEST_F(Fleet, SaysThatItsListIsNotComplete) {
  const std::jthread gateways([this](const std::stop_token &stop) {
    for (int i = 0; !stop.stop_requested(); ++i) {
      add_silent("new" + std::to_string(i % 20));
      std::this_thread::sleep_for(milliseconds(20));
    }
  });
  const Output list = fleet({"list", "--timeout", "2500"});
  EXPECT_EQ(5, list.status) << list.text;
  EXPECT_THAT(list.text, HasSubstr("new7"));
  EXPECT_THAT(list.text, HasSubstr("there may be more of them"));
}

TEST_F(Fleet, TakesWhateverAStatusHolds) {
  add_silent("deep", std::string(100'000, '['));
  add_silent("wide", "{\"state\": [" + std::string(70'000, '{'));
  const Output list = fleet({"list"});
  EXPECT_EQ(0, list.status) << list.text;
  EXPECT_THAT(list.text, HasSubstr("2 gateways, 0 online"));
}

TEST_F(Fleet, SaysThatItsOutputIsFull) {
  const auto greeter = greet();
  const int status = std::system(("${MSGAPI_BIN:-.}/msgctl fleet --broker " +
                                  std::string(kBrokerAddress) + " listen -n 1 >/dev/full")
                                     .c_str());
  ASSERT_TRUE(WIFEXITED(status)) << "signal " << WTERMSIG(status);
  EXPECT_NE(0, WEXITSTATUS(status));
}

TEST_F(Fleet, WhatIsMissingCountsOnce) {
  const auto listening = start_fleet({"listen", "-n", "6", "--json"});
  ASSERT_TRUE(has_subscribed(listening.get(), 1)) << listening->output();
  const auto event = [this](uint64_t sequence) {
    listener_->publish("gw/other/event/wan/Hello", "{}", sequence);
  };
  const auto lost = [this](const char *text) { listener_->publish("gw/other/lost", text); };
  lost(R"({"first": 2, "last": 5, "count": 2, "reason": "full"})");  // 3 and 4 come all the same
  event(3);
  event(4);
  event(7);                                                             // 6 is a gap,
  lost(R"({"first": 6, "last": 6, "count": 1, "reason": "refused"})");  // which this explains
  event(8);
  event(10);  // 9 is a gap that nobody explains
  EXPECT_EQ(8, listening->wait()) << listening->output();
  EXPECT_THAT(listening->output(), HasSubstr("4 events did not come"));
}

TEST_F(Fleet, WhatIsRetainedOrCalledLostIsNotMissing) {
  listener_->publish("gw/other/event/wan/State", "{}", 1, true);
  const auto listening = start_fleet({"listen", "-n", "3", "--json"});
  ASSERT_TRUE(has_subscribed(listening.get(), 100)) << listening->output();
  listener_->publish("gw/other/event/usb/lost", "{}", 101);
  listener_->publish("gw/other/event/wan/Hello", "{}", 102);
  EXPECT_EQ(0, listening->wait()) << listening->output();
  EXPECT_THAT(listening->output(), HasSubstr("\"topic\":\"gw/other/event/usb/lost\""));
}

TEST_F(Fleet, SaysThatItIsNotLetIn) {
  const auto strict = start_broker(kBrokerPort + 1, "allow_anonymous false\n");
  Process list("msgctl", {"fleet", "--broker", "mqtt://127.0.0.1:1884", "list"});
  EXPECT_EQ(7, list.wait()) << list.output();
  EXPECT_THAT(list.output(), HasSubstr("refuses: Not authorized"));
}

}  // namespace
