// The bridge before a broker that refuses, limits, lies or stays silent: whatever is killed, cut or
// full in between, every event arrives at least once, in order, or is reported as given up. Also
// the mistakes in its configuration that it names before it connects anywhere.

#include <gmock/gmock.h>
#include <signal.h>
#include <sys/mount.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <random>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "msgapi.h"
#include "servers/msgbridge/scripted_broker.h"
#include "support/message_peer.h"
#include "support/process.h"

namespace {

namespace fs = std::filesystem;

using nlohmann::json;
using std::chrono::milliseconds;
using std::chrono::steady_clock;
using test::Frame;
using test::Packet;
using test::PacketType;
using test::Process;
using test::Publication;
using test::RawClient;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr uint16_t kPort = 1883;
constexpr uint32_t kCallType = 0x4242;
constexpr const char *kConfigFile = "/var/bridge.json";
constexpr const char *kAddress = "mqtt://127.0.0.1:1883";
constexpr const char *kCount = "gw/me/event/wan/Count";
constexpr const char *kLost = "gw/me/lost";
constexpr const char *kStatusTopic = "gw/me/status";

// MQTT 5, 2.4
constexpr uint8_t kNotAuthorized = 0x87, kServerUnavailable = 0x88, kShuttingDown = 0x8b,
                  kQuotaExceeded = 0x97, kPayloadInvalid = 0x99;

std::string quoted(const std::string &text) {
  return '"' + text + '"';
}

// `broker` are further members of the broker, `members` of the whole.
void configure(const std::string &members = R"("up": [{}])", const std::string &broker = "",
               const std::string &addresses = quoted(kAddress)) {
  std::ofstream(kConfigFile) << R"({"broker": {"reconnect": {"least_ms": 20, "most_ms": 100},
      "addresses": [)" << addresses
                             << "]" << broker << R"(}, "gateway": "me", )" << members << "}";
}

// What the broker has been told.
class Account {
 public:
  // Events that are new must come in order; others are what they were.
  void take(const Publication &publication) {
    if (publication.topic == kLost) {
      const json notice = json::parse(publication.payload);
      reasons.insert(notice["reason"]);
      for (uint64_t i = notice["first"]; i <= notice["last"]; ++i) noticed_.insert(i);
    } else if (publication.topic == kCount) {
      const auto [known, is_new] = heard.emplace(publication.sequence, publication.payload);
      twice += is_new ? 0 : 1;
      EXPECT_EQ(known->second, publication.payload);
      EXPECT_TRUE(!is_new || std::next(known) == heard.end()) << publication.sequence;
    }
  }
  uint64_t last() const { return heard.empty() ? 0 : heard.rbegin()->first; }
  // The numbers up to the last that were neither heard nor in a notice of loss.
  std::vector<uint64_t> missing() const {
    std::vector<uint64_t> numbers;
    for (uint64_t i = 1; i < last(); ++i) {
      if (!heard.contains(i) && !noticed_.contains(i)) numbers.push_back(i);
    }
    return numbers;
  }

  std::map<uint64_t, std::string> heard;
  uint64_t twice = 0;
  std::set<std::string> reasons;

 private:
  std::set<uint64_t> noticed_;
};

class BridgeAndScript : public testing::Test {
 protected:
  BridgeAndScript() : bus_(std::make_unique<Process>("msgsvr")) {
    EXPECT_TRUE(bus_->wait_for("ready")) << bus_->output();
    EXPECT_EQ(ORP_OK, ORP_MSG_InitWithoutHandle("pub"));
  }
  ~BridgeAndScript() override { ORP_MSG_Destroy(); }

  std::unique_ptr<Process> start_bridge() {
    auto bridge =
        std::make_unique<Process>("msgbridge", std::vector<std::string>{"--config", kConfigFile});
    EXPECT_TRUE(bridge->wait_for("Connected to the message server")) << bridge->output();
    return bridge;
  }
  void take_connection() {
    broker_.welcome();
    broker_.read(kStatusTopic);
  }
  static void publish(const std::string &number, const char *type = "Count") {
    ASSERT_EQ(ORP_OK, ORP_EVT_PublishEvent(ORP_MSG_EVENT_WAN, type, "number", number.c_str()));
  }
  static void publish_numbers(int first, int last) {
    for (int i = first; i <= last; ++i) publish(std::to_string(i));
  }
  // Takes connections until the bridge says in its status that there are so many. Returns it.
  json welcome_when(const char *member, uint64_t count, std::string_view properties = "") {
    for (int tries = 0; tries < 1000; ++tries) {
      broker_.welcome(properties);
      const Publication publication = broker_.read(kStatusTopic);
      broker_.acknowledge(publication);
      const json status = json::parse(publication.payload);
      if (status[member] == count) return status;
    }
    throw std::runtime_error("there are never so many");
  }
  json welcome_when_waiting(uint64_t count, std::string_view properties = "") {
    return welcome_when("waiting", count, properties);
  }
  // Takes and acknowledges what comes until the last event has come.
  void take_until(uint64_t last) {
    while (account_.last() < last) {
      const Publication publication = broker_.read_publication();
      account_.take(publication);
      if (publication.qos > 0) broker_.acknowledge(publication);
    }
    EXPECT_EQ(last, account_.last());
    EXPECT_THAT(account_.missing(), IsEmpty());
  }

  std::unique_ptr<Process> bus_;
  test::ScriptedBroker broker_{kPort};
  Account account_;
};

// ---- Connecting ----

TEST_F(BridgeAndScript, TriesItsAddressesInTurnAndSaysWhatEachAnswers) {
  configure(R"("up": [{}])", "", R"("mqtt://127.0.0.1:1", )" + quoted(kAddress));
  auto bridge = start_bridge();
  EXPECT_TRUE(bridge->wait_for("No connection to mqtt://127.0.0.1:1: Connection refused"))
      << bridge->output();
  broker_.refuse(kServerUnavailable);
  EXPECT_TRUE(bridge->wait_for(
      "No connection to mqtt://127.0.0.1:1883: the broker refuses: Server unavailable"))
      << bridge->output();
  EXPECT_TRUE(bridge->wait_for("No connection to mqtt://127.0.0.1:1: ")) << bridge->output();
  broker_.welcome();
  EXPECT_TRUE(bridge->wait_for("Connected to mqtt://127.0.0.1:1883")) << bridge->output();
}

TEST_F(BridgeAndScript, WhatIsNoBrokerIsNotTakenForOne) {
  configure();
  auto bridge = start_bridge();
  broker_.accept();
  broker_.close();
  EXPECT_TRUE(bridge->wait_for("No connection to mqtt://127.0.0.1:1883")) << bridge->output();
  broker_.accept();
  broker_.send(
      "HTTP/1.1 400 Bad Request\r\nContent-Type: text/plain; charset=utf-8\r\n"
      "Connection: close\r\n\r\n400 Bad Request");
  EXPECT_TRUE(bridge->wait_for("No connection to mqtt://127.0.0.1:1883")) << bridge->output();
  EXPECT_TRUE(broker_.has_ended());
  broker_.accept();
  broker_.send(std::string("\x20\x03\x00", 3));  // the beginning of CONNACK
  broker_.close();
  EXPECT_TRUE(bridge->wait_for("No connection to mqtt://127.0.0.1:1883")) << bridge->output();
  broker_.welcome();
  EXPECT_TRUE(bridge->wait_for("Connected to mqtt")) << bridge->output();
}

TEST_F(BridgeAndScript, SaysWhyTheBrokerEndsAConnection) {
  configure();
  auto bridge = start_bridge();
  take_connection();
  broker_.send(PacketType::kDisconnect, std::string{static_cast<char>(kShuttingDown), '\0'});
  EXPECT_TRUE(bridge->wait_for("has ended: the broker ends it: Server shutting down; trying again"))
      << bridge->output();
  take_connection();
  broker_.close();
  EXPECT_TRUE(bridge->wait_for("has ended: The connection was lost; trying again"))
      << bridge->output();
  take_connection();
  broker_.send("\xf0\xff\xff\xff\xff\xff");  // no length is so long
  EXPECT_TRUE(bridge->wait_for("has ended")) << bridge->output();
  broker_.welcome();
  EXPECT_EQ(4u, json::parse(broker_.read(kStatusTopic).payload)["connection"]);
}

TEST_F(BridgeAndScript, SaysWhatIsWrongWithItsFiles) {
  const auto write = [](const char *path, const std::string &text) {
    std::ofstream(path) << text;
    fs::permissions(path, fs::perms(0600));
  };
  write("/var/no.json", "{\"user\": \"me\",\n\"password\": }");
  write("/var/open.json", R"({"user": "me"})");
  fs::permissions("/var/open.json", fs::perms(0644));
  write("/var/noncharacter.json", R"({"user": "a\ufffeb"})");
  write("/var/no.pem", "no certificate");
  const std::string tls = quoted("mqtts://127.0.0.1:1883");
  const struct {
    const char *broker;
    std::string address;
    const char *why;
  } kMistakes[] = {
      {R"(, "credentials": "/var/no.json")", quoted(kAddress), ": /var/no.json:2: "},
      {R"(, "credentials": "/var/open.json")", quoted(kAddress), "chmod 600"},
      {R"(, "credentials": "/var/noncharacter.json")", quoted(kAddress),
       ": the credentials: Malformed UTF-8"},
      {R"(, "tls": {"ca": "/var/none.pem"})", tls, ": /var/none.pem: No such file"},
      {R"(, "tls": {"ca": "/var/no.pem"})", tls, "check cafile \"/var/no.pem\""},
      {R"(, "tls": {"certificate": "/var/no.pem", "key": "/var/no.pem"})", tls,
       "client certificate \"/var/no.pem\"; OpenSSL"},
  };
  for (const auto &each : kMistakes) {
    configure(R"("up": [{}])", each.broker, each.address);
    auto bridge = start_bridge();
    EXPECT_TRUE(bridge->wait_for("No connection to " + each.address.substr(1, 15)));
    EXPECT_TRUE(bridge->wait_for("; trying again."));
    EXPECT_THAT(bridge->output(), HasSubstr(each.why));
    EXPECT_EQ(0, bridge->stop(SIGTERM));
  }
}

// ---- Sending ----

TEST_F(BridgeAndScript, SendsAgainAfterAFullQuotaAndReportsWhatIsRefused) {
  configure();
  auto bridge = start_bridge();
  take_connection();
  publish("1");
  broker_.acknowledge(broker_.read(kCount), kQuotaExceeded);
  EXPECT_TRUE(bridge->wait_for("has ended: the broker takes no more for now")) << bridge->output();
  broker_.welcome();
  const Publication again = broker_.read(kCount);
  EXPECT_THAT(again.payload, HasSubstr("\"1\""));
  broker_.acknowledge(again, kPayloadInvalid);
  EXPECT_TRUE(bridge->wait_for("The broker refuses event 1: Payload format invalid"))
      << bridge->output();
  const Publication lost = broker_.read(kLost);
  EXPECT_EQ(json::parse(R"({"first": 1, "last": 1, "count": 1, "reason": "refused"})"),
            json::parse(lost.payload));
  broker_.acknowledge(lost, kNotAuthorized);  // the notice is refused, too
  publish("2");
  broker_.acknowledge(broker_.read(kCount));
  EXPECT_EQ(1u, welcome_when_waiting(0)["given_up"]);
}

TEST_F(BridgeAndScript, KeepsBackWhatIsLargerThanTheBrokerTakes) {
  configure();
  auto bridge = start_bridge();
  broker_.welcome(std::string("\x27\0\0\x03\xe8", 5));  // packets of at most 1000 bytes
  broker_.read(kStatusTopic);
  publish("1");
  publish(std::string(1200, '7'));
  publish("3");
  EXPECT_THAT(broker_.read(kCount).payload, HasSubstr("\"1\""));
  EXPECT_THAT(broker_.read(kCount).payload, HasSubstr("\"3\""));
  EXPECT_TRUE(bridge->wait_for("Event 2 cannot be sent: ")) << bridge->output();
  EXPECT_THAT(broker_.read(kLost).payload,
              HasSubstr(R"("first":2,"last":2,"count":1,"reason":"refused")"));
}

TEST_F(BridgeAndScript, HasNoMoreUnderWayThanTheBrokerAllows) {
  configure();
  auto bridge = start_bridge();
  for (int i = 1; i <= 6; ++i) publish(std::to_string(i));
  welcome_when_waiting(6, std::string("\x21\0\x02", 3));
  for (int next = 1; next <= 6; next += 2) {
    const Publication one = broker_.read_publication(), other = broker_.read_publication();
    EXPECT_THAT(one.payload, HasSubstr(quoted(std::to_string(next))));
    EXPECT_THAT(other.payload, HasSubstr(quoted(std::to_string(next + 1))));
    EXPECT_EQ(std::nullopt, broker_.next(30)) << "before an acknowledgement";
    broker_.acknowledge(other);
    broker_.acknowledge(one);
  }
  EXPECT_EQ(0u, welcome_when_waiting(0)["given_up"]);
}

TEST_F(BridgeAndScript, SendsAllThatMayBeUnderWay) {
  configure(R"("up": [{}], "spool": {"per_second": 0})", R"(, "in_flight": 1000)");
  auto bridge = start_bridge();
  constexpr int kEvents = 600;
  for (int i = 1; i <= kEvents; ++i) publish(std::to_string(i));
  welcome_when_waiting(kEvents);
  std::vector<Publication> all;
  for (int i = 1; i <= kEvents; ++i) {
    all.push_back(broker_.read_publication());
    ASSERT_THAT(all.back().payload, HasSubstr(quoted(std::to_string(i))));
  }
  for (auto each = all.rbegin(); each != all.rend(); ++each) broker_.acknowledge(*each);
  EXPECT_EQ(0u, welcome_when_waiting(0)["given_up"]);
}

TEST_F(BridgeAndScript, WritesALargeBatchAtOnce) {
  configure(R"("up": [{}], "spool": {"commit_ms": 10000})");
  auto bridge = start_bridge();
  take_connection();
  const auto begin = steady_clock::now();
  for (int i = 0; i < 300; ++i) publish(std::string(1000, '7'));
  broker_.read(kCount);
  EXPECT_GT(std::chrono::seconds(8), steady_clock::now() - begin);
}

TEST_F(BridgeAndScript, EndsWithinASecondWhateverTheBrokerDoes) {
  configure();
  for (const bool is_silent : {true, false}) {
    auto bridge = start_bridge();
    broker_.welcome();
    broker_.acknowledge(broker_.read(kStatusTopic));
    ::kill(bridge->pid(), SIGTERM);
    const Publication farewell = broker_.read(kStatusTopic);
    EXPECT_THAT(farewell.payload, HasSubstr("offline"));
    EXPECT_TRUE(farewell.retain);
    if (is_silent) {
      EXPECT_EQ(PacketType::kDisconnect, broker_.read(PacketType::kDisconnect).type);
    } else {
      broker_.close();
    }
    EXPECT_EQ(0, bridge->wait()) << bridge->output();
  }
}

// ---- What goes wrong ----

TEST_F(BridgeAndScript, SurvivesCutsInTheMiddleOfAcknowledgements) {
  configure();
  auto bridge = start_bridge();
  std::mt19937 random(test::seed());
  int published = 0;
  for (uint32_t cut = 0; cut < 20 * test::soak_factor(); ++cut) {
    take_connection();
    publish_numbers(published + 1, published + 100);
    published += 100;
    for (auto count = random() % 100; count > 0; --count) {
      const Publication event = broker_.read(kCount);
      account_.take(event);
      if (random() % 4 > 0) broker_.acknowledge(event);
    }
  }
  take_connection();
  take_until(static_cast<uint64_t>(published));
  EXPECT_LT(0u, account_.twice);
  EXPECT_THAT(account_.reasons, IsEmpty());
}

TEST_F(BridgeAndScript, SurvivesItsOwnDeath) {
  configure(R"("up": [{}], "spool": {"per_second": 0})");
  std::atomic<int> published = 0;
  std::jthread publisher([&published](const std::stop_token &stop) {
    while (!stop.stop_requested()) {
      publish(std::to_string(++published));
      std::this_thread::sleep_for(milliseconds(1));
    }
  });
  std::mt19937 random(test::seed());
  const int rounds = test::soak_factor() > 1 ? 100 : 20;
  for (int round = 0; round < rounds; ++round) {
    auto bridge = start_bridge();
    take_connection();
    take_until(account_.last() + random() % 200);
    bridge->stop(SIGKILL);
  }
  publisher.request_stop();
  publisher.join();
  auto bridge = start_bridge();
  take_connection();
  publish(std::to_string(++published));
  const auto number_of = [](const std::string &payload) {
    return std::stoi(json::parse(payload)["Payload"]["number"].get<std::string>());
  };
  do take_until(account_.last() + 1);
  while (number_of(account_.heard.rbegin()->second) != published);
  // Nobody took the events that were published while the bridge was dead. No others are missing.
  int before = 0, gaps = 0;
  for (const auto &[sequence, payload] : account_.heard) {
    const int number = number_of(payload);
    EXPECT_LT(before, number);
    gaps += number != before + 1 ? 1 : 0;
    before = number;
  }
  EXPECT_GE(rounds + 1, gaps);
  EXPECT_THAT(account_.reasons, IsEmpty());
}

TEST_F(BridgeAndScript, CountsWhatItGivesUpWhileTheBrokerIsAway) {
  configure(R"("up": [{}], "spool": {"bytes": 100000, "per_second": 200})");
  auto bridge = start_bridge();
  publish_numbers(1, 1000);
  welcome_when("sequence", 1000);
  bridge->stop(SIGKILL);
  bridge = start_bridge();
  publish_numbers(1001, 2000);
  welcome_when("sequence", 2000);
  const auto begin = steady_clock::now();
  take_until(2000);
  EXPECT_LT(milliseconds(500), steady_clock::now() - begin) << "what waited has a limited rate";
  EXPECT_LT(100u, account_.heard.size());
  EXPECT_GT(600u, account_.heard.size()) << "a hundred kilobytes hold no more";
  EXPECT_THAT(account_.reasons, ElementsAre("full"));
}

TEST_F(BridgeAndScript, SurvivesAFullDisk) {
  fs::create_directories("/var/small");
  ASSERT_EQ(0, ::mount("small", "/var/small", "tmpfs", 0, "size=1m"));
  configure(R"("up": [{}], "spool": {"path": "/var/small/spool.db", "reserve": false})");
  auto bridge = start_bridge();
  publish_numbers(1, 20);
  welcome_when("sequence", 20);
  {
    std::ofstream filler("/var/small/filler", std::ios::binary);
    const std::string block(4096, 'x');
    while (filler.write(block.data(), 4096) && filler.flush()) {
    }
  }
  publish_numbers(21, 6000);  // more than memory may keep
  ASSERT_TRUE(bridge->wait_for("database or disk is full")) << bridge->output();
  fs::remove("/var/small/filler");
  ASSERT_TRUE(bridge->wait_for("written again")) << bridge->output();
  publish("6001");
  take_until(6001);
}

TEST_F(BridgeAndScript, GoesOnWhenItsSpoolIsDamaged) {
  configure(R"("up": [{}], "spool": {"path": "/var/spool.db", "reserve": false})");
  auto bridge = start_bridge();
  publish_numbers(1, 3000);  // more than it keeps in memory
  welcome_when("sequence", 3000);
  for (const char *file : {"/var/spool.db", "/var/spool.db-wal"}) {
    std::fstream pages(file, std::ios::in | std::ios::out | std::ios::binary);
    pages.seekp(4096);
    const std::string garbage(fs::file_size(file) - 4096, '\x7f');
    ASSERT_TRUE(pages.write(garbage.data(), static_cast<std::streamsize>(garbage.size())).flush());
  }
  while (const auto packet = broker_.next()) {
    if (packet->type != PacketType::kPublish) continue;
    const Publication event = test::ScriptedBroker::publication_of(*packet);
    account_.take(event);
    broker_.acknowledge(event);
  }
  EXPECT_TRUE(bridge->wait_for("was damaged, is begun anew")) << bridge->output();
  EXPECT_TRUE(bridge->wait_for("has ended: the spool has lost what was on its way"))
      << bridge->output();
  take_connection();
  publish("3001");
  take_until(3001);
  EXPECT_THAT(account_.reasons, ElementsAre("damaged"));
}

TEST_F(BridgeAndScript, NoticesWhenNothingComesThroughAnyMore) {
  configure(R"("up": [{}])", R"(, "keep_alive_s": 5)");
  auto bridge = start_bridge();
  take_connection();
  broker_.read(PacketType::kPingreq);
  EXPECT_TRUE(bridge->wait_for("has ended")) << bridge->output();
  take_connection();
}

TEST_F(BridgeAndScript, WhatNeedsNoAcknowledgementLeavesTheSpool) {
  configure(R"("up": [{"qos": 0}])");
  auto bridge = start_bridge();
  take_connection();
  publish_numbers(1, 200);  // more than may be under way
  take_until(200);
  EXPECT_EQ(0u, account_.twice);
  for (const char *file : {"", "/spool.db", "/spool.db-wal"}) {
    const auto status = fs::status(std::string("/var/spool/msgbridge") + file);
    EXPECT_EQ(fs::perms::none,
              status.permissions() & (fs::perms::group_all | fs::perms::others_all))
        << "events are nobody else's: " << file;
  }
  EXPECT_EQ(0, bridge->stop(SIGTERM));
  EXPECT_THAT(bridge->output(), HasSubstr("0 events wait"));
}

// ---- Requests ----

class BridgeAndAskers : public BridgeAndScript {
 protected:
  static constexpr const char *kCall = "gw/me/call/cms/0x4242";

  // Starts the bridge and takes its subscriptions. Returns that to calls.
  Packet begin(const std::string &down = "", const std::string &members = R"("up": [{}])") {
    configure(members + R"(, "down": {"rest": [{"path": "/dev/*"}],
                                      "calls": [{"app": "cms", "type": "0x4242"}])" +
              down + "}");
    bridge_ = start_bridge();
    broker_.welcome();
    broker_.answer_subscription(broker_.read(PacketType::kSubscribe), 1);
    return broker_.read(PacketType::kSubscribe);
  }
  json answer() {
    const Publication publication = broker_.read("answers");
    broker_.acknowledge(publication);
    return json::parse(publication.payload);
  }

  std::unique_ptr<Process> bridge_;
};

TEST_F(BridgeAndAskers, ARefusedSubscriptionIsSaid) {
  const Packet calls = begin();
  EXPECT_THAT(calls.body, HasSubstr("gw/me/call/+/+"));
  broker_.answer_subscription(calls, kNotAuthorized);
  EXPECT_TRUE(bridge_->wait_for("refuses the subscription to gw/me/call/+/+: Not authorized"))
      << bridge_->output();
  EXPECT_THAT(bridge_->output(), Not(HasSubstr("gw/me/rest")));
}

TEST_F(BridgeAndAskers, OnlyTheApplicationThatWasAskedAnswers) {
  begin(R"(, "timeout_ms": 20000)");
  RawClient cms("cms"), other("other");
  broker_.publish(kCall, R"({"data": 7, "body": {"a": 1}})", "answers");
  const Frame request = cms.read();
  EXPECT_EQ(7u, request.data);
  EXPECT_EQ(std::string("{\"a\":1}") + '\0', request.body);
  const auto says = [&request](RawClient *who, uint32_t type, uint32_t data) {
    who->send({.type = type, .to = "msgbridge", .data = data, .sequence = request.sequence});
    who->drain();
  };
  says(&other, kCallType, 1);
  says(&cms, kCallType + 1, 2);
  cms.send({.type = kCallType, .to = "msgbridge", .data = 3, .sequence = request.sequence + 1});
  cms.answer(request, 4, R"({"mac": "AA:BB:CC:DD:EE:FF"})");
  EXPECT_EQ(json::parse(R"({"status": 200, "data": 4, "body": {"mac": "AA:**:**:DD:**:FF"}})"),
            answer());
  cms.answer(request, 5);  // a second answer goes nowhere
  broker_.publish(kCall, R"({"data": 8})", "answers");
  cms.answer(cms.read(), 6);
  EXPECT_EQ(6u, answer()["data"]);
}

TEST_F(BridgeAndAskers, RestfulRequestsReachTheirHandler) {
  begin();
  RawClient web("web");
  web.send({.type = ORP_MSG_RESTFUL_REGISTER, .body = std::string("/dev", 5)});
  web.drain();
  broker_.publish("gw/me/rest/get/dev/info", "verbose=1", "answers");
  const Frame request = web.read();
  EXPECT_THAT(request.body, AllOf(HasSubstr("/dev"), HasSubstr("verbose=1")));
  web.answer(request, 0, std::string("{\"model\": \"x\"}", 15));
  EXPECT_EQ(json::parse(R"({"status": 200, "body": {"model": "x"}})"), answer());
}

TEST_F(BridgeAndAskers, WhatNobodyServesIsNotFound) {
  begin();
  const struct {
    const char *topic;
    const char *error;
  } kAsked[] = {
      {kCall, "there is no application cms, or it does not take messages"},
      {"gw/me/rest/get/dev/info", "nobody serves this path"},
  };
  for (const auto &each : kAsked) {
    broker_.publish(each.topic, "", "answers");
    EXPECT_EQ((json{{"status", 404}, {"error", each.error}}), answer());
  }
}

TEST_F(BridgeAndAskers, AFloodIsBounded) {
  begin(R"(, "in_flight": 3, "timeout_ms": 20000)");
  RawClient cms("cms");
  for (int i = 0; i < 50; ++i) broker_.publish(kCall, "", "answers");
  for (int i = 0; i < 47; ++i) EXPECT_EQ(429, answer()["status"]);
  for (int i = 0; i < 3; ++i) cms.answer(cms.read());
  for (int i = 0; i < 3; ++i) EXPECT_EQ(200, answer()["status"]);
}

TEST_F(BridgeAndAskers, ALateAnswerIsNobodys) {
  begin(R"(, "timeout_ms": 50)");
  RawClient cms("cms");
  broker_.publish(kCall, "", "answers");
  const Frame request = cms.read();
  EXPECT_EQ(504, answer()["status"]);
  cms.answer(request, 1);
  cms.drain();
  broker_.publish("gw/me/call/cms/0", "", "answers");
  EXPECT_EQ(403, answer()["status"]) << "the next answer is the next request's";
}

TEST_F(BridgeAndAskers, RequestsUnderWayEndWithTheMessageServer) {
  begin(R"(, "timeout_ms": 20000)");
  RawClient cms("cms");
  for (int i = 0; i < 3; ++i) broker_.publish(kCall, "", "answers");
  for (int i = 0; i < 3; ++i) EXPECT_EQ(kCallType, cms.read().type);
  bus_->stop(SIGTERM);
  for (int i = 0; i < 3; ++i) {
    const json answered = answer();
    EXPECT_EQ(503, answered["status"]);
    EXPECT_EQ("the connection to the message server ended", answered["error"]);
  }
  broker_.publish(kCall, "", "answers");
  EXPECT_EQ("the gateway has no connection to its message server", answer()["error"]);
}

TEST_F(BridgeAndAskers, MetricsCountWhatCameAndWhatNobodyWasTold) {
  begin("", R"("metrics_s": 1, "up": [{"event": "Here", "send": false},
            {"event": "Some", "one_in": 2}, {}])");
  for (const char *type : {"Here", "Some", "Some", "Some", "Count"}) {
    publish("1", type);
  }
  // Answers wait for their acknowledgements, of which none comes.
  for (int i = 0; i < 300; ++i) broker_.publish("gw/me/call/none/0x1", "", "answers");
  broker_.publish("gw/me/call/none/0x1", "", "");
  broker_.publish("gw/me/call/none/0x1", "", "gw/me/status");
  broker_.publish("gw/me/call/none/0x1", "", "answers", std::string(1025, 'c'));
  json metrics;
  for (int tries = 0; tries < 10 * test::kSlowness; ++tries) {
    Publication publication;
    do publication = broker_.read_publication();
    while (publication.topic != "gw/me/metrics");
    EXPECT_EQ(0, publication.qos);
    metrics = json::parse(publication.payload);
    if (metrics["down"]["unanswerable"] == 47 && metrics["sequence"] == 3) break;
  }
  EXPECT_EQ(json::parse(R"({"requests": 256, "refused": 256, "timed_out": 0, "unanswerable": 47,
                            "under_way": 0})"),
            metrics["down"]);
  EXPECT_EQ(json::parse(R"({"taken": 3, "no_rule": 1, "limited": 0, "sampled": 1,
                            "unreadable": 0})"),
            metrics["up"]);
  EXPECT_EQ(1u, metrics["connections"]);
  EXPECT_EQ(0u, metrics["given_up"]);
}

// ---- What is said before anything is connected ----

struct Output {
  int status;
  std::string text;
};

Output bridge(const std::vector<std::string> &arguments) {
  Process process("msgbridge", arguments);
  const int status = process.wait();
  return {status, process.output()};
}

TEST(BridgeProgram, ChecksItsConfiguration) {
  const auto check = [](const std::string &text) {
    std::ofstream(kConfigFile) << text;
    return bridge({"--config", kConfigFile, "--check"});
  };
  configure();
  const Output good = bridge({"--check", "--config", kConfigFile});
  EXPECT_EQ(0, good.status);
  EXPECT_EQ("/var/bridge.json: good, as gw/me\n", good.text);

  const Output wrong = check("{\"broker\": {\"addresses\": [\"mqtt://a\"]},\n\"upp\": []}");
  EXPECT_EQ(6, wrong.status);
  EXPECT_THAT(wrong.text, HasSubstr("msgbridge: /var/bridge.json:2: 'upp' is not known here"));

  EXPECT_EQ(6, check("no JSON").status);
  const Output none = bridge({"--config", "/var/no\x1bne.json", "--check"});
  EXPECT_EQ(6, none.status);
  EXPECT_THAT(none.text, HasSubstr("No such file"));
  EXPECT_THAT(none.text, Not(HasSubstr("\x1b")));

  const Output nameless = check(R"({"broker": {"addresses": ["mqtt://a"]}, "gateway_item": 5})");
  EXPECT_EQ(1, nameless.status);
  EXPECT_THAT(nameless.text, HasSubstr("item 0x5 of equipment data"));

  EXPECT_EQ(2, bridge({"--chekc"}).status);
  EXPECT_EQ(2, bridge({"--config"}).status);
  EXPECT_EQ(6, bridge({"--config", "/var"}).status) << "not with --check either";
}

TEST(BridgeProgram, NamesFilesOfTypesThatItCannotRead) {
  ASSERT_EQ(0, ::mount("types", "/usr/share", "tmpfs", 0, nullptr));
  fs::create_directories("/usr/share/msgapi/messages.d");
  std::ofstream("/usr/share/msgapi/messages.d/a.json") << "{";
  std::ofstream("/usr/share/msgapi/messages.d/b.json") << R"({"messages": [
      {"type": "0x4242", "name": "read-it", "from": "web", "to": "cms", "meaning": "reads it",
       "answer": {}}]})";
  configure(R"("down": {"calls": [{"app": "cms", "type": "read-it"}]})");
  const Output checked = bridge({"--check", "--config", kConfigFile});
  EXPECT_EQ(0, checked.status) << checked.text;
  EXPECT_THAT(checked.text, HasSubstr("msgbridge: /usr/share/msgapi/messages.d/a.json"));
  EXPECT_THAT(checked.text, HasSubstr("good, as gw/me"));
}

}  // namespace
