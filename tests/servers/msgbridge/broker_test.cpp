// The bridge between a real message server and a real broker: whatever is killed, cut or full in
// between, every event arrives at least once, in order, or is reported as given up.

#include <gmock/gmock.h>
#include <signal.h>
#include <sys/mount.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "msgapi.h"
#include "servers/msgbridge/broker.h"
#include "support/message_peer.h"
#include "support/process.h"
#include "support/soak.h"

namespace {

namespace fs = std::filesystem;

using std::chrono::milliseconds;
using std::chrono::seconds;
using test::Account;
using test::Frame;
using test::Process;
using test::RawClient;
using test::Received;
using testing::HasSubstr;
using testing::Not;

constexpr uint16_t kBrokerPort = 1883;
constexpr uint16_t kProxyPort = 1884;
constexpr uint32_t kOwnType = 0x4242;
constexpr const char *kConfig = "/var/bridge.json";
constexpr const char *kStatus = "gw/me/status";

class BridgeAndBroker : public testing::Test {
 protected:
  void SetUp() override {
    if (test::broker_program().empty()) {
      GTEST_SKIP() << "no mosquitto here; './dev test' installs it";
    }
    bus_ = std::make_unique<Process>("msgsvr");
    ASSERT_TRUE(bus_->wait_for("ready")) << bus_->output();
    ASSERT_EQ(ORP_OK, ORP_MSG_InitWithoutHandle("pub"));
  }
  ~BridgeAndBroker() override { ORP_MSG_Destroy(); }

  // The bridge connects through the proxy unless `address` says otherwise. `members` are the rest
  // of the configuration.
  static void configure(const std::string &members = "",
                        const std::string &address = "mqtt://127.0.0.1:" +
                                                     std::to_string(kProxyPort),
                        const std::string &broker = "") {
    std::ofstream(kConfig) << R"({"broker": {"addresses": [")" << address
                           << R"("], "reconnect": {"least_ms": 20, "most_ms": 100})" << broker
                           << R"(}, "gateway": "me", "up": [{}])" << (members.empty() ? "" : ", ")
                           << members << "}";
  }
  std::unique_ptr<Process> start_bridge() {
    auto bridge =
        std::make_unique<Process>("msgbridge", std::vector<std::string>{"--config", kConfig});
    EXPECT_TRUE(bridge->wait_for("Connected to the message server")) << bridge->output();
    return bridge;
  }

  // Publishes events with the numbers from 1 on.
  void publish(int count) {
    for (int i = 0; i < count; ++i) publish_one(std::to_string(++published_));
  }
  static void publish_one(const std::string &number, const char *type = "Count") {
    ASSERT_EQ(ORP_OK, ORP_EVT_PublishEvent(ORP_MSG_EVENT_WAN, type, "number", number.c_str()));
  }
  // Waits until the bridge has written everything that has come.
  static void settle(const std::string &file) {
    std::error_code none;
    auto before = fs::last_write_time(file, none);
    for (int quiet = 0; quiet < 20; ++quiet) {
      std::this_thread::sleep_for(milliseconds(50));
      const auto now = fs::last_write_time(file, none);
      if (now != before) quiet = 0;
      before = now;
    }
  }
  // Waits until the process has nothing left to do, however slow the machine is.
  static void wait_until_idle(pid_t pid) {
    const auto read = [pid] {
      std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
      std::string text{std::istreambuf_iterator<char>(file), {}};
      std::istringstream words(text.substr(text.rfind(')') + 1));
      std::vector<std::string> all{std::istream_iterator<std::string>(words), {}};
      return std::pair(all.at(0), all.at(11) + " " + all.at(12));  // state; time used
    };
    std::string before;
    for (int quiet = 0; quiet < 10; ++quiet) {
      std::this_thread::sleep_for(milliseconds(30));
      const auto [state, used] = read();
      if (state != "S" || used != before) quiet = 0;
      before = used;
    }
  }
  // Publishes a last event and returns its number; all others have come by then.
  uint64_t last_sequence(const std::string &name = "End") {
    publish_one("0", name.c_str());
    const std::string topic = "gw/me/event/wan/" + name;
    const auto is_end = [&](const Received &each) { return each.topic == topic; };
    EXPECT_TRUE(record_.wait([&](const auto &all) { return std::ranges::any_of(all, is_end); },
                             seconds(60)));
    const auto all = record_.all();
    const auto end = std::ranges::find_if(all, is_end);
    return end == all.end() ? 0 : end->sequence;
  }

  std::unique_ptr<Process> bus_;
  test::Record record_;
  int published_ = 0;
};

TEST_F(BridgeAndBroker, SendsEventsAndItsStatus) {
  test::Broker broker(kBrokerPort);
  test::Listener listener(kBrokerPort, "gw/#", &record_);
  configure("", "mqtt://127.0.0.1:" + std::to_string(kBrokerPort));
  auto bridge = start_bridge();
  ASSERT_TRUE(record_.wait_for(kStatus, "online"));
  publish(3);
  EXPECT_EQ(4u, last_sequence());
  const Account account = test::account_of(record_.all(), 4);
  EXPECT_EQ(4u, account.heard);
  EXPECT_TRUE(account.in_order);
  EXPECT_THAT(account.payloads.at(2), HasSubstr("\"number\":\t\"2\""));

  bridge->stop(SIGKILL);
  ASSERT_TRUE(record_.wait_for(kStatus, "offline")) << "the will";
  test::Record later;
  bridge = start_bridge();
  test::Listener second(kBrokerPort, kStatus, &later);
  ASSERT_TRUE(later.wait_for(kStatus, "online"));
  EXPECT_EQ(0, bridge->stop(SIGTERM));
  ASSERT_TRUE(later.wait_for(kStatus, "offline")) << "the farewell";
  test::Record retained;
  test::Listener third(kBrokerPort, kStatus, &retained);
  ASSERT_TRUE(retained.wait_for(kStatus, "offline"));
  EXPECT_TRUE(retained.all().at(0).retained);
}

TEST_F(BridgeAndBroker, SurvivesBrokersThatAreKilled) {
  test::Broker broker(kBrokerPort);
  test::Proxy proxy(kProxyPort, kBrokerPort);
  configure();
  auto listener = std::make_unique<test::Listener>(kBrokerPort, "gw/#", &record_);
  auto bridge = start_bridge();
  for (int round = 0; round < 5; ++round) {
    std::thread killer([&broker, &proxy, round] {
      std::this_thread::sleep_for(milliseconds(10 + 15 * round));
      broker.kill();
      proxy.open(false);
    });
    publish(150);
    killer.join();
    publish(50);
    // The listener connects before the bridge does.
    listener->wait_for_end();
    listener.reset();
    broker.start();
    listener = std::make_unique<test::Listener>(kBrokerPort, "gw/#", &record_);
    proxy.open(true);
    publish(50);
  }
  const uint64_t last = last_sequence();
  const Account account = test::account_of(record_.all(), last);
  EXPECT_EQ(1251u, last);
  EXPECT_EQ(last, account.heard);
  EXPECT_TRUE(account.in_order);
}

TEST_F(BridgeAndBroker, SurvivesCutsInTheMiddleOfAcknowledgements) {
  test::Broker broker(kBrokerPort);
  test::Proxy proxy(kProxyPort, kBrokerPort);
  std::mt19937 random(test::seed());
  proxy.cut_after([&random] { return 20 + random() % 400; });
  configure();
  test::Listener listener(kBrokerPort, "gw/#", &record_);
  auto bridge = start_bridge();
  // Goes on until there have been some cuts, however slow the machine is.
  const int rounds = 10 * static_cast<int>(std::min(test::soak_factor(), 10u));
  int count = 0;
  for (int i = 0; i < rounds || (proxy.connections() <= 5 && i < 50 * rounds); ++i) {
    publish(100);
    count += 100;
    std::this_thread::sleep_for(milliseconds(20));
  }
  proxy.cut_after(nullptr);
  proxy.open(false);
  std::this_thread::sleep_for(milliseconds(100));
  proxy.open(true);
  const uint64_t last = last_sequence();
  const Account account = test::account_of(record_.all(), last);
  EXPECT_EQ(static_cast<uint64_t>(count) + 1, last);
  EXPECT_EQ(last, account.heard);
  EXPECT_TRUE(account.in_order);
  EXPECT_LT(3, proxy.connections());
  EXPECT_LT(0u, account.twice) << "no acknowledgement was lost: the test has tested nothing";
}

TEST_F(BridgeAndBroker, SurvivesItsOwnDeath) {
  test::Broker broker(kBrokerPort);
  configure("", "mqtt://127.0.0.1:" + std::to_string(kBrokerPort));
  test::Listener listener(kBrokerPort, "gw/#", &record_);
  std::atomic<bool> stop = false;
  std::thread publisher([this, &stop] {
    while (!stop) {
      publish(5);
      std::this_thread::sleep_for(milliseconds(1));
    }
  });
  const int rounds = test::soak_factor() > 1 ? 100 : 20;
  std::mt19937 random(test::seed());
  for (int round = 0; round < rounds; ++round) {
    auto bridge = start_bridge();
    std::this_thread::sleep_for(milliseconds(random() % 300));
    bridge->stop(SIGKILL);
  }
  stop = true;
  publisher.join();
  auto bridge = start_bridge();
  const uint64_t last = last_sequence();
  const Account account = test::account_of(record_.all(), last);
  EXPECT_EQ(0u, account.missing) << "of " << last;
  EXPECT_EQ(0u, account.given_up);
  EXPECT_TRUE(account.in_order);
  // Nobody took the events that were published while the bridge was dead. No others are missing.
  int before = 0, gaps = 0;
  for (const auto &[sequence, payload] : account.payloads) {
    if (sequence == last) break;
    const int number = std::stoi(payload.substr(payload.find("\"number\":\t\"") + 11));
    EXPECT_LT(before, number);
    gaps += number != before + 1 ? 1 : 0;
    before = number;
  }
  EXPECT_GE(rounds + 1, gaps);
  EXPECT_LT(static_cast<uint64_t>(rounds), account.heard);
}

TEST_F(BridgeAndBroker, CountsWhatItGivesUpWhileTheBrokerIsAway) {
  test::Broker broker(kBrokerPort);
  test::Proxy proxy(kProxyPort, kBrokerPort);
  proxy.open(false);
  configure(R"("spool": {"path": "/var/small.db", "bytes": 100000, "per_second": 200})");
  test::Listener listener(kBrokerPort, "gw/#", &record_);
  auto bridge = start_bridge();
  publish(1000);
  settle("/var/small.db-wal");
  bridge->stop(SIGKILL);
  bridge = start_bridge();
  publish(1000);
  settle("/var/small.db-wal");
  const auto opened = std::chrono::steady_clock::now();
  proxy.open(true);
  const uint64_t last = last_sequence();
  const auto took = std::chrono::steady_clock::now() - opened;
  const Account account = test::account_of(record_.all(), last);
  EXPECT_EQ(0u, account.missing);
  EXPECT_EQ(last, account.heard + account.given_up);
  EXPECT_TRUE(account.in_order);
  EXPECT_EQ(2001u, last);
  EXPECT_LT(100u, account.heard);
  EXPECT_GT(600u, account.heard) << "a hundred kilobytes hold no more";
  EXPECT_LT(milliseconds(500), took) << "what waited is sent at a limited rate";
  EXPECT_TRUE(record_.wait_for("gw/me/lost", "\"reason\":\"full\""));
}

TEST_F(BridgeAndBroker, SurvivesAFullDisk) {
  fs::create_directories("/var/small");
  ASSERT_EQ(0, ::mount("small", "/var/small", "tmpfs", 0, "size=1m"));
  test::Broker broker(kBrokerPort);
  test::Proxy proxy(kProxyPort, kBrokerPort);
  proxy.open(false);
  configure(R"("spool": {"path": "/var/small/spool.db", "reserve": false})");
  test::Listener listener(kBrokerPort, "gw/#", &record_);
  auto bridge = start_bridge();
  publish(20);
  std::this_thread::sleep_for(milliseconds(200));
  {
    std::ofstream filler("/var/small/filler", std::ios::binary);
    const std::string block(4096, 'x');
    while (filler.write(block.data(), 4096) && filler.flush()) {
    }
  }
  publish(6000);
  ASSERT_TRUE(bridge->wait_for("database or disk is full")) << bridge->output();
  wait_until_idle(bridge->pid());  // more than memory may keep
  fs::remove("/var/small/filler");
  ASSERT_TRUE(bridge->wait_for("written again")) << bridge->output();
  proxy.open(true);
  const uint64_t last = last_sequence();
  const Account account = test::account_of(record_.all(), last);
  EXPECT_EQ(6021u, last) << bridge->output();
  EXPECT_EQ(0u, account.missing);
  EXPECT_EQ(last, account.heard + account.given_up);
  EXPECT_TRUE(account.in_order);
  EXPECT_LT(0u, account.given_up);
  bridge->stop(SIGTERM);
  ::umount2("/var/small", MNT_DETACH);
}

TEST_F(BridgeAndBroker, ReportsWhatTheBrokerRefuses) {
  std::ofstream("/var/acl") << "topic readwrite gw/#\ntopic deny gw/me/event/wan/Secret\n";
  test::Broker broker(kBrokerPort, "allow_anonymous true\nacl_file /var/acl\n");
  configure("", "mqtt://127.0.0.1:" + std::to_string(kBrokerPort));
  test::Listener listener(kBrokerPort, "gw/#", &record_);
  auto bridge = start_bridge();
  publish(1);
  publish_one("x", "Secret");
  publish(1);
  EXPECT_EQ(4u, last_sequence());
  EXPECT_TRUE(
      record_.wait_for("gw/me/lost", R"({"first":2,"last":2,"count":1,"reason":"refused"})"));
}

// ---- TLS ----

class BridgeAndTls : public BridgeAndBroker {
 protected:
  static void shell(const std::string &command) {
    EXPECT_EQ(0, std::system((command + " >/var/shell.log 2>&1").c_str())) << command;
  }
  static void make_authority(const std::string &name) {
    shell(
        "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 2 -subj "
        "/CN=" +
        name + " -keyout /var/" + name + ".key -out /var/" + name + ".pem");
  }
  static void make_certificate(const std::string &authority, const std::string &name) {
    shell("openssl req -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -subj /CN=" + name +
          " -keyout /var/" + name + ".key -out /var/" + name + ".csr");
    std::ofstream("/var/names") << "subjectAltName=DNS:" << name << "\n";
    shell("openssl x509 -req -days 2 -in /var/" + name + ".csr -CA /var/" + authority +
          ".pem -CAkey /var/" + authority + ".key -CAcreateserial -extfile /var/names -out /var/" +
          name + ".pem");
  }
  // Whether the bridge gets through with these settings of TLS.
  bool connects(const std::string &address, const std::string &tls) {
    configure("", address, R"(, "tls": {)" + tls + "}");
    auto bridge = start_bridge();
    const bool done = bridge->wait_for("Connected to mqtts");
    said_ = bridge->output();
    return done;
  }
  bool is_refused(const std::string &address, const std::string &tls) {
    configure("", address, R"(, "tls": {)" + tls + "}");
    auto bridge = start_bridge();
    const bool refused =
        bridge->wait_for("No connection to mqtts") && bridge->wait_for("No connection to mqtts");
    said_ = bridge->output();
    return refused && said_.find("Connected to mqtts") == std::string::npos;
  }

  std::string said_;
};

TEST_F(BridgeAndTls, TrustsOnlyTheRightCertificate) {
  make_authority("ours");
  make_authority("theirs");
  make_certificate("ours", "localhost");
  make_certificate("ours", "gateway");
  make_certificate("theirs", "stranger");
  test::Broker broker(kBrokerPort,
                      "allow_anonymous true\ncafile /var/ours.pem\ncertfile /var/localhost.pem\n"
                      "keyfile /var/localhost.key\nrequire_certificate true\n");
  const std::string port = ":" + std::to_string(kBrokerPort);
  const std::string gateway = R"("certificate": "/var/gateway.pem", "key": "/var/gateway.key")";
  const std::string ours = R"("ca": "/var/ours.pem", )" + gateway;

  EXPECT_TRUE(connects("mqtts://localhost" + port, ours)) << said_;
  EXPECT_TRUE(is_refused("mqtts://localhost" + port, R"("ca": "/var/theirs.pem", )" + gateway))
      << said_;
  EXPECT_THAT(said_, HasSubstr("certificate verify failed"));
  EXPECT_TRUE(is_refused("mqtts://127.0.0.1" + port, ours)) << "it is not its name" << said_;
  EXPECT_TRUE(is_refused("mqtts://localhost" + port, gateway))
      << "the system knows nobody" << said_;
  EXPECT_TRUE(is_refused("mqtts://localhost" + port,
                         R"("ca": "/var/ours.pem", "certificate": "/var/stranger.pem", )"
                         R"("key": "/var/stranger.key")"))
      << said_;
  EXPECT_TRUE(connects("mqtts://127.0.0.1" + port, ours + R"(, "verify": false)"))
      << "as the configuration says" << said_;
}

TEST_F(BridgeAndBroker, ShowsItsCredentials) {
  std::ofstream("/var/passwords") << "";
  ASSERT_EQ(0, std::system("mosquitto_passwd -b /var/passwords me secret"));
  test::Broker broker(kBrokerPort, "allow_anonymous false\npassword_file /var/passwords\n");
  const auto with_password = [](const char *password) {
    std::ofstream("/var/credentials") << R"({"user": "me", "password": ")" << password << "\"}";
    fs::permissions("/var/credentials", fs::perms(0600));
  };
  with_password("wrong");
  configure("", "mqtt://127.0.0.1:" + std::to_string(kBrokerPort),
            R"(, "credentials": "/var/credentials")");
  auto bridge = start_bridge();
  ASSERT_TRUE(bridge->wait_for("No connection to mqtt")) << bridge->output();
  EXPECT_THAT(bridge->output(), HasSubstr("the broker refuses"));
  EXPECT_THAT(bridge->output(), Not(HasSubstr("wrong")));
  with_password("secret");  // read for each connection
  EXPECT_TRUE(bridge->wait_for("Connected to mqtt")) << bridge->output();
}

TEST_F(BridgeAndBroker, IsKnownToTheBrokersRulesByItsNameInTopics) {
  std::ofstream("/var/rules") << "topic read gw/#\npattern write gw/%c/#\n";
  test::Broker broker(kBrokerPort, "allow_anonymous true\nacl_file /var/rules\n");
  test::Listener listener(kBrokerPort, "gw/#", &record_);
  std::ofstream(kConfig) << R"({"broker": {"addresses": ["mqtt://127.0.0.1:)" << kBrokerPort
                         << R"("]}, "gateway": "floor/1"})";
  auto bridge = start_bridge();
  EXPECT_TRUE(record_.wait_for("gw/floor%2F1/status", "online")) << bridge->output();
}

// ---- Down ----

class BridgeDownward : public BridgeAndBroker {
 protected:
  void SetUp() override {
    BridgeAndBroker::SetUp();
    if (IsSkipped()) return;
    broker_ = std::make_unique<test::Broker>(kBrokerPort);
    listener_ = std::make_unique<test::Listener>(kBrokerPort, "answers/#", &record_);
    begin(20000);
  }

  // Starts the bridge, or starts it again, with this time-out for an application's answer.
  void begin(int timeout_ms) {
    bridge_.reset();
    configure(R"("down": {"in_flight": 3, "timeout_ms": )" + std::to_string(timeout_ms) +
                  R"(, "largest": 1000, "rest": [{"path": "/dev/*"}],
                          "calls": [{"app": "cms", "type": "0x4242"}]})",
              "mqtt://127.0.0.1:" + std::to_string(kBrokerPort));
    bridge_ = start_bridge();
    test::Record online;
    test::Listener waiting(kBrokerPort, kStatus, &online);
    ASSERT_TRUE(online.wait_for(kStatus, "online"));
    // The bridge subscribes after it has published its status.
    const size_t before = record_.all().size();
    for (int tries = 0; tries < 200 && record_.all().size() == before; ++tries) {
      listener_->publish("gw/me/call/cms/0", "", "answers/ready");
      listener_->publish("gw/me/rest/get/none", "", "answers/ready");
      record_.wait([before](const auto &all) { return all.size() > before + 1; }, seconds(1));
    }
  }

  std::string ask(const std::string &topic, const std::string &payload = "") {
    const std::string to = "answers/" + std::to_string(++asked_);
    listener_->publish(topic, payload, to, "data-" + std::to_string(asked_));
    if (!record_.wait_for(to, "status")) return "no answer";
    const auto all = record_.all();
    const auto answer = std::ranges::find(all, to, &Received::topic);
    EXPECT_EQ("data-" + std::to_string(asked_), answer->correlation);
    return answer->payload;
  }

  std::unique_ptr<test::Broker> broker_;
  std::unique_ptr<test::Listener> listener_;
  std::unique_ptr<Process> bridge_;
  int asked_ = 0;
};

TEST_F(BridgeDownward, RequestsAreAnsweredByApplications) {
  RawClient cms("cms");
  std::atomic<bool> stop = false;
  std::thread application([&] {
    while (!stop) {
      const auto frame = cms.receive(20);
      if (frame && frame->type == kOwnType) cms.answer(*frame, 2 * frame->data, frame->body);
    }
  });
  EXPECT_EQ(R"({"status":200,"data":42,"body":{"mac":"AA:**:**:DD:**:FF"}})",
            ask("gw/me/call/cms/0x4242", R"({"data": 21, "body": {"mac": "AA:BB:CC:DD:EE:FF"}})"));
  EXPECT_EQ(R"({"status":200,"data":0})", ask("gw/me/call/cms/16962"));
  stop = true;
  application.join();
}

TEST_F(BridgeDownward, RestfulRequestsReachTheirHandler) {
  RawClient web("web");
  web.send({.type = ORP_MSG_RESTFUL_REGISTER, .body = std::string("/dev", 5)});
  web.drain();
  std::thread application([&web] {
    const Frame request = web.read();
    EXPECT_THAT(request.body, HasSubstr("/dev"));
    EXPECT_THAT(request.body, HasSubstr("verbose=1"));
    web.answer(request, 0, std::string("{\"model\": \"x\"}", 15));
  });
  EXPECT_EQ(R"({"status":200,"body":{"model":"x"}})", ask("gw/me/rest/get/dev/info", "verbose=1"));
  application.join();
}

TEST_F(BridgeDownward, WhatCannotBeDoneIsSaid) {
  EXPECT_THAT(ask("gw/me/call/cms/0x4242"), HasSubstr("404"));
  EXPECT_THAT(ask("gw/me/call/mic/reboot"), HasSubstr("403"));
  EXPECT_THAT(ask("gw/me/rest/get/dev/info"), HasSubstr("404"));
  EXPECT_THAT(ask("gw/me/rest/get/etc/passwd"), HasSubstr("403"));
  RawClient cms("cms");
  EXPECT_THAT(ask("gw/me/call/cms/0x4242", "{"), HasSubstr("400"));
  EXPECT_THAT(ask("gw/me/call/cms/0x4242", std::string(2000, ' ')), HasSubstr("413"));
  begin(400);
  EXPECT_THAT(ask("gw/me/call/cms/0x4242"), HasSubstr("504"));
  bus_->stop(SIGKILL);
  std::string answer;
  for (int i = 0; i < 20 && answer.find("503") == std::string::npos; ++i) {
    answer = ask("gw/me/call/cms/0x4242");
  }
  EXPECT_THAT(answer, HasSubstr("503"));
}

TEST_F(BridgeDownward, AFloodIsBounded) {
  RawClient cms("cms");  // answers nothing
  constexpr ptrdiff_t kFlood = 50;
  begin(400);
  for (ptrdiff_t i = 0; i < kFlood; ++i) {
    listener_->publish("gw/me/call/cms/0x4242", "", "answers/flood");
    listener_->publish("gw/me/call/cms/0x4242", "");                           // nobody to tell
    listener_->publish("gw/me/call/cms/0x4242", "", "gw/me/call/cms/0x4242");  // itself
  }
  EXPECT_TRUE(record_.wait([](const auto &all) {
    return std::ranges::count(all, "answers/flood", &Received::topic) == kFlood;
  }));
  const auto all = record_.all();
  const auto with = [&all](const char *status) {
    return std::ranges::count_if(all, [status](const Received &each) {
      return each.topic == "answers/flood" && each.payload.find(status) != std::string::npos;
    });
  };
  EXPECT_LE(3, with("504"));
  EXPECT_LT(0, with("429"));
  EXPECT_EQ(kFlood, with("504") + with("429"));
}

// ---- The fleet ----

class Fleet : public BridgeDownward {
 protected:
  struct Output {
    int status;
    std::string text;
  };
  static Output fleet(const std::vector<std::string> &words) {
    std::vector<std::string> all{"fleet", "--broker",
                                 "mqtt://127.0.0.1:" + std::to_string(kBrokerPort)};
    all.insert(all.end(), words.begin(), words.end());
    Process process("msgctl", all);
    const int status = process.wait();
    return {status, process.output()};
  }

  // Publishes until the process prints an event: by then it has subscribed to its last topic.
  bool heard_of_by(Process *listening) {
    std::atomic<bool> stop = false;
    std::thread publisher([&] {
      while (!stop) {
        listener_->publish("gw/other/event/wan/Hello",
                           R"({"Module": "wan", "EventType": "Hello"})");
        std::this_thread::sleep_for(milliseconds(50));
      }
    });
    const bool heard = listening->wait_for("Hello");
    stop = true;
    publisher.join();
    return heard;
  }

  // A gateway that has only a status and answers nothing.
  void add_silent(const std::string &name) {
    listener_->publish_retained("gw/" + name + "/status", R"({"state": "online", "sequence": 7})");
  }
};

TEST_F(Fleet, ListsAsksAndNamesWhoIsMissing) {
  RawClient cms("cms");
  std::atomic<bool> stop = false;
  std::thread application([&] {
    while (!stop) {
      const auto frame = cms.receive(20);
      if (frame && frame->type == kOwnType) cms.answer(*frame, 2 * frame->data);
    }
  });
  add_silent("mute");
  listener_->publish_retained("gw/gone/status", R"({"state": "offline"})");
  listener_->publish_retained("gw/evil/status", "\x1b[31mno JSON");

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

  const Output refused = fleet({"--gateway", "me", "get", "/etc/passwd", "--json"});
  EXPECT_EQ(1, refused.status) << refused.text;
  EXPECT_THAT(refused.text, HasSubstr("\"errors\":1"));
  stop = true;
  application.join();
}

TEST_F(Fleet, ListensAndCountsWhatIsMissing) {
  const std::vector<std::string> words{
      "fleet",     "--broker",  "mqtt://127.0.0.1:" + std::to_string(kBrokerPort),
      "listen",    "--gateway", "me",
      "--gateway", "other",     "-n",
      "200"};
  Process listening("msgctl", words);
  // When the process hears an event of its last topic, the broker has all its subscriptions.
  ASSERT_TRUE(heard_of_by(&listening)) << listening.output();
  publish(1);
  ASSERT_TRUE(listening.wait_for("Count")) << listening.output();
  listener_->publish("gw/me/lost", R"({"first": 900, "last": 904, "count": 5, "reason": "full"})");
  ASSERT_TRUE(listening.wait_for("me gave up 5 events: full")) << listening.output();
  publish(300);
  EXPECT_EQ(8, listening.wait()) << listening.output();
  EXPECT_THAT(listening.output(), HasSubstr("me wan Count {\"number\":\"1\"}"));
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
  broker_->kill();
  const Output none = fleet({"list"});
  EXPECT_EQ(3, none.status);
  EXPECT_THAT(none.text, HasSubstr("no connection to mqtt://127.0.0.1:1883"));
}

// ---- Straight to the broker, with other rules ----

class BridgeWithRules : public BridgeAndBroker {
 protected:
  // `members`: of the whole configuration.
  static void configure(const std::string &members) {
    std::ofstream(kConfig) << R"({"broker": {"addresses": ["mqtt://127.0.0.1:)" << kBrokerPort
                           << R"("], "reconnect": {"least_ms": 20, "most_ms": 100}},
                               "gateway": "me", )"
                           << members << "}";
  }
};

TEST_F(BridgeWithRules, WhatNeedsNoAcknowledgementLeavesTheSpool) {
  test::Broker broker(kBrokerPort);
  test::Listener listener(kBrokerPort, "gw/#", &record_);
  configure(R"("up": [{"qos": 0}])");
  auto bridge = start_bridge();
  ASSERT_TRUE(record_.wait_for(kStatus, "online"));
  publish(200);  // more than may be in flight
  EXPECT_EQ(201u, last_sequence());
  const Account account = test::account_of(record_.all(), 201);
  EXPECT_EQ(201u, account.heard);
  EXPECT_EQ(0u, account.twice);
  EXPECT_TRUE(account.in_order);
  for (const char *file : {"", "/spool.db", "/spool.db-wal"}) {
    const auto status = fs::status(std::string("/var/spool/msgbridge") + file);
    EXPECT_EQ(fs::perms::none,
              status.permissions() & (fs::perms::group_all | fs::perms::others_all))
        << "events are nobody else's: " << file;
  }
  EXPECT_EQ(0, bridge->stop(SIGTERM));
  EXPECT_THAT(bridge->output(), HasSubstr("0 events wait"));
}

// ---- More that goes wrong ----

TEST_F(BridgeAndBroker, GoesOnWhenItsSpoolIsDamaged) {
  test::Broker broker(kBrokerPort);
  test::Proxy proxy(kProxyPort, kBrokerPort);
  proxy.open(false);
  configure(R"("spool": {"path": "/var/spool.db", "reserve": false})");
  test::Listener listener(kBrokerPort, "gw/#", &record_);
  auto bridge = start_bridge();
  publish(3000);  // more than it keeps in memory
  settle("/var/spool.db-wal");
  for (const char *file : {"/var/spool.db", "/var/spool.db-wal"}) {
    std::fstream pages(file, std::ios::in | std::ios::out | std::ios::binary);
    pages.seekp(4096);
    const std::string garbage(fs::file_size(file) - 4096, '\x7f');
    ASSERT_TRUE(pages.write(garbage.data(), static_cast<std::streamsize>(garbage.size())).flush());
  }
  proxy.open(true);
  ASSERT_TRUE(record_.wait_for("gw/me/lost", "damaged")) << bridge->output();
  publish(10);
  const uint64_t last = last_sequence();
  const Account account = test::account_of(record_.all(), last);
  EXPECT_EQ(3011u, last);
  EXPECT_EQ(0u, account.missing);
  EXPECT_LE(11u, account.heard);
  EXPECT_TRUE(account.in_order);
  EXPECT_TRUE(bridge->wait_for("was damaged, is begun anew")) << bridge->output();
}

TEST_F(BridgeAndBroker, NoticesWhenNothingComesThroughAnyMore) {
  test::Broker broker(kBrokerPort);
  test::Proxy proxy(kProxyPort, kBrokerPort);
  configure("", "mqtt://127.0.0.1:" + std::to_string(kProxyPort), R"(, "keep_alive_s": 5)");
  test::Listener listener(kBrokerPort, "gw/#", &record_);
  auto bridge = start_bridge();
  ASSERT_TRUE(record_.wait_for(kStatus, "online"));
  publish(100);
  proxy.hold(true);  // every packet is dropped, and no connection ends
  publish(100);
  // The keep-alive and the wait for its answer take ten seconds, in which the bridge logs nothing.
  std::this_thread::sleep_for(milliseconds(5000));
  ASSERT_TRUE(bridge->wait_for("has ended")) << bridge->output();
  proxy.open(false);  // an attempt that has come in between need not wait
  proxy.hold(false);
  std::this_thread::sleep_for(milliseconds(100));
  proxy.open(true);
  const uint64_t last = last_sequence();
  const Account account = test::account_of(record_.all(), last);
  EXPECT_EQ(201u, last);
  EXPECT_EQ(last, account.heard);
  EXPECT_TRUE(account.in_order);
}

// ---- What the fleet's tool cannot do ----

class FleetInTrouble : public Fleet {
 protected:
  // Publishes an event with that number until the process has printed it: it has subscribed to all
  // its topics by then.
  static bool hears(Process *listening, test::Listener *gateway, uint64_t sequence) {
    std::atomic<bool> stop = false;
    std::thread publisher([&] {
      while (!stop) {
        gateway->publish_as("gw/other/event/wan/Hello", "{}", "stream", sequence);
        std::this_thread::sleep_for(milliseconds(50));
      }
    });
    const bool heard = listening->wait_for("sequence");
    stop = true;
    publisher.join();
    return heard;
  }
};

TEST_F(FleetInTrouble, SaysThatItsListIsNotComplete) {
  std::atomic<bool> stop = false;
  std::thread gateways([&] {
    for (int i = 0; !stop; ++i) {
      add_silent("new" + std::to_string(i % 20));
      std::this_thread::sleep_for(milliseconds(20));
    }
  });
  const Output list = fleet({"list", "--timeout", "2500"});
  EXPECT_EQ(5, list.status) << list.text;
  EXPECT_THAT(list.text, HasSubstr("new7"));
  EXPECT_THAT(list.text, HasSubstr("there may be more of them"));
  stop = true;
  gateways.join();
}

TEST_F(FleetInTrouble, TakesWhateverAStatusHolds) {
  listener_->publish_retained("gw/deep/status", std::string(100'000, '['));
  listener_->publish_retained("gw/wide/status", "{\"state\": [" + std::string(70'000, '{'));
  const Output list = fleet({"list"});
  EXPECT_EQ(0, list.status) << list.text;
  EXPECT_THAT(list.text, HasSubstr("3 gateways, 1 online"));
}

TEST_F(FleetInTrouble, SaysThatItsOutputIsFull) {
  const std::string command =
      "${MSGAPI_BIN:-.}/msgctl fleet --broker mqtt://127.0.0.1:" + std::to_string(kBrokerPort) +
      " listen -n 1 >/dev/full";
  std::atomic<bool> stop = false;
  std::thread publisher([&] {
    while (!stop) {
      listener_->publish("gw/other/event/wan/Hello", R"({"Module": "wan"})");
      std::this_thread::sleep_for(milliseconds(50));
    }
  });
  const int status = std::system(command.c_str());
  stop = true;
  publisher.join();
  ASSERT_TRUE(WIFEXITED(status)) << "signal " << WTERMSIG(status);
  EXPECT_NE(0, WEXITSTATUS(status));
}

TEST_F(FleetInTrouble, WhatIsMissingCountsOnce) {
  Process listening(
      "msgctl", {"fleet", "--broker", "mqtt://127.0.0.1:" + std::to_string(kBrokerPort), "listen",
                 "-n", "6", "--json"});
  test::Listener gateway(kBrokerPort, "none", &record_);
  const auto event = [&gateway](int sequence) {
    gateway.publish_as("gw/other/event/wan/Hello", "{}", "stream", sequence);
  };
  ASSERT_TRUE(hears(&listening, &gateway, 1)) << listening.output();
  const auto lost = [&gateway](const char *text) {
    gateway.publish_as("gw/other/lost", text, "stream", 0);
  };
  lost(R"({"first": 2, "last": 5, "count": 2, "reason": "full"})");  // 3 and 4 come all the same
  event(3);
  event(4);
  event(7);                                                             // 6 is a gap,
  lost(R"({"first": 6, "last": 6, "count": 1, "reason": "refused"})");  // which this explains
  event(8);
  event(10);  // 9 is a gap that nobody explains
  EXPECT_EQ(8, listening.wait()) << listening.output();
  EXPECT_THAT(listening.output(), HasSubstr("4 events did not come"));
}

TEST_F(FleetInTrouble, WhatIsRetainedOrCalledLostIsNotMissing) {
  test::Listener gateway(kBrokerPort, "none", &record_);
  gateway.publish_as("gw/other/event/wan/State", "{}", "stream", 1, true);
  Process listening(
      "msgctl", {"fleet", "--broker", "mqtt://127.0.0.1:" + std::to_string(kBrokerPort), "listen",
                 "-n", "3", "--json"});
  ASSERT_TRUE(hears(&listening, &gateway, 100)) << listening.output();
  gateway.publish_as("gw/other/event/usb/lost", "{}", "stream", 101);
  gateway.publish_as("gw/other/event/wan/Hello", "{}", "stream", 102);
  EXPECT_EQ(0, listening.wait()) << listening.output();
  EXPECT_THAT(listening.output(), HasSubstr("\"topic\":\"gw/other/event/usb/lost\""));
}

TEST_F(FleetInTrouble, SaysThatItIsNotLetIn) {
  test::Broker strict(kProxyPort, "allow_anonymous false\n");
  Process list("msgctl",
               {"fleet", "--broker", "mqtt://127.0.0.1:" + std::to_string(kProxyPort), "list"});
  EXPECT_EQ(7, list.wait()) << list.output();
  EXPECT_THAT(list.output(), HasSubstr("refuses: Not authorized"));
}

}  // namespace
