// The bridge before a broker that refuses, limits, lies or stays silent, and the mistakes in its
// configuration that it names before it connects anywhere.

#include <gmock/gmock.h>
#include <signal.h>
#include <sys/mount.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "servers/msgbridge/bridge_fixture.h"
#include "support/message_peer.h"
#include "support/process.h"

namespace {

namespace fs = std::filesystem;

using nlohmann::json;
using std::chrono::steady_clock;
using test::configure;
using test::Frame;
using test::kBridgeConfig;
using test::kBrokerAddress;
using test::kCountTopic;
using test::kLostTopic;
using test::kStatusTopic;
using test::Packet;
using test::PacketType;
using test::Process;
using test::Publication;
using test::quoted;
using test::RawClient;
using testing::AllOf;
using testing::HasSubstr;

constexpr uint32_t kCallType = 0x4242;

// MQTT 5, 2.4
constexpr uint8_t kNotAuthorized = 0x87, kServerUnavailable = 0x88, kShuttingDown = 0x8b,
                  kQuotaExceeded = 0x97, kPayloadInvalid = 0x99;

using BridgeAndScript = test::ScriptedBrokerTest;

// ---- Connecting ----

TEST_F(BridgeAndScript, TriesItsAddressesInTurnAndSaysWhatEachAnswers) {
  configure(R"("up": [{}])", "", R"("mqtt://127.0.0.1:1", )" + quoted(kBrokerAddress));
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
      {R"(, "credentials": "/var/no.json")", quoted(kBrokerAddress), ": /var/no.json:2: "},
      {R"(, "credentials": "/var/open.json")", quoted(kBrokerAddress), "chmod 600"},
      {R"(, "credentials": "/var/noncharacter.json")", quoted(kBrokerAddress),
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
  broker_.acknowledge(broker_.read(kCountTopic), kQuotaExceeded);
  EXPECT_TRUE(bridge->wait_for("has ended: the broker takes no more for now")) << bridge->output();
  broker_.welcome();
  const Publication again = broker_.read(kCountTopic);
  EXPECT_THAT(again.payload, HasSubstr("\"1\""));
  broker_.acknowledge(again, kPayloadInvalid);
  EXPECT_TRUE(bridge->wait_for("The broker refuses event 1: Payload format invalid"))
      << bridge->output();
  const Publication lost = broker_.read(kLostTopic);
  EXPECT_EQ(json::parse(R"({"first": 1, "last": 1, "count": 1, "reason": "refused"})"),
            json::parse(lost.payload));
  broker_.acknowledge(lost, kNotAuthorized);  // the notice is refused, too
  publish("2");
  broker_.acknowledge(broker_.read(kCountTopic));
  EXPECT_EQ(1u, welcome_when("waiting", 0)["given_up"]);
}

TEST_F(BridgeAndScript, KeepsBackWhatIsLargerThanTheBrokerTakes) {
  configure();
  auto bridge = start_bridge();
  broker_.welcome(std::string("\x27\0\0\x03\xe8", 5));  // packets of at most 1000 bytes
  broker_.read(kStatusTopic);
  publish("1");
  publish(std::string(1200, '7'));
  publish("3");
  EXPECT_THAT(broker_.read(kCountTopic).payload, HasSubstr("\"1\""));
  EXPECT_THAT(broker_.read(kCountTopic).payload, HasSubstr("\"3\""));
  EXPECT_TRUE(bridge->wait_for("Event 2 cannot be sent: ")) << bridge->output();
  EXPECT_THAT(broker_.read(kLostTopic).payload,
              HasSubstr(R"("first":2,"last":2,"count":1,"reason":"refused")"));
}

TEST_F(BridgeAndScript, HasNoMoreUnderWayThanTheBrokerAllows) {
  configure();
  auto bridge = start_bridge();
  for (int i = 1; i <= 6; ++i) publish(std::to_string(i));
  welcome_when("waiting", 6, std::string("\x21\0\x02", 3));
  for (int next = 1; next <= 6; next += 2) {
    const Publication one = broker_.read_publication(), other = broker_.read_publication();
    EXPECT_THAT(one.payload, HasSubstr(quoted(std::to_string(next))));
    EXPECT_THAT(other.payload, HasSubstr(quoted(std::to_string(next + 1))));
    EXPECT_EQ(std::nullopt, broker_.next(30)) << "before an acknowledgement";
    broker_.acknowledge(other);
    broker_.acknowledge(one);
  }
  EXPECT_EQ(0u, welcome_when("waiting", 0)["given_up"]);
}

TEST_F(BridgeAndScript, SendsAllThatMayBeUnderWay) {
  configure(R"("up": [{}], "spool": {"per_second": 0})", R"(, "in_flight": 1000)");
  auto bridge = start_bridge();
  constexpr int kEvents = 600;
  for (int i = 1; i <= kEvents; ++i) publish(std::to_string(i));
  welcome_when("waiting", kEvents);
  std::vector<Publication> all;
  for (int i = 1; i <= kEvents; ++i) {
    all.push_back(broker_.read_publication());
    ASSERT_THAT(all.back().payload, HasSubstr(quoted(std::to_string(i))));
  }
  for (auto each = all.rbegin(); each != all.rend(); ++each) broker_.acknowledge(*each);
  EXPECT_EQ(0u, welcome_when("waiting", 0)["given_up"]);
}

TEST_F(BridgeAndScript, WritesALargeBatchAtOnce) {
  configure(R"("up": [{}], "spool": {"commit_ms": 10000})");
  auto bridge = start_bridge();
  take_connection();
  const auto begin = steady_clock::now();
  for (int i = 0; i < 300; ++i) publish(std::string(1000, '7'));
  broker_.read(kCountTopic);
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
    std::ofstream(kBridgeConfig) << text;
    return bridge({"--config", kBridgeConfig, "--check"});
  };
  configure();
  const Output good = bridge({"--check", "--config", kBridgeConfig});
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
  const Output checked = bridge({"--check", "--config", kBridgeConfig});
  EXPECT_EQ(0, checked.status) << checked.text;
  EXPECT_THAT(checked.text, HasSubstr("msgbridge: /usr/share/msgapi/messages.d/a.json"));
  EXPECT_THAT(checked.text, HasSubstr("good, as gw/me"));
}

}  // namespace
