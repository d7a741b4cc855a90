// msgctl policy says about a policy what the server does with it.

#include <gmock/gmock.h>
#include <signal.h>

#include <fstream>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "msgapi/messages.h"
#include "tools/msgctl_support.h"

namespace {

using nlohmann::json;
using test::kOwnType;
using test::Output;
using test::Process;
using test::RawClient;
using test::Words;
using testing::HasSubstr;
using testing::StartsWith;

constexpr const char *kFile = "/var/policy.json";

Output run_policy(Words words) {
  words.insert(words.begin(), "policy");
  return test::run(words);
}

Output ask(Words words) {
  words.insert(words.begin(), {"test", "--policy", kFile});
  return run_policy(std::move(words));
}

void write(const std::string &text) {
  std::ofstream(kFile) << text;
}

TEST(MsgctlPolicy, ChecksAFile) {
  write("{\"default\": \"allow\",\n \"rules\": [{\"deny\": \"own\"}]}");
  EXPECT_EQ("/var/policy.json: 1 rules\n", run_policy({"check", kFile}).text);

  write("{\"default\": \"allow\",\n \"rules\": [{\"deny\": \"owe\"}]}");
  const Output bad = run_policy({"check", kFile});
  EXPECT_EQ(6, bad.status);
  EXPECT_THAT(bad.text, StartsWith("msgctl: /var/policy.json:2: 'owe' is not one of"));

  EXPECT_EQ(4, run_policy({"check", "/var/none"}).status);
  EXPECT_EQ(2, run_policy({"check", kFile, kFile}).status);
  EXPECT_THAT(run_policy({"check"}).text,
              HasSubstr("/etc/msgapi/policy.json is not there: the built-in"));
}

TEST(MsgctlPolicy, SaysWhichRuleDecides) {
  write(R"({"default": "allow", "rules": [
    {"allow": "own", "names": "wifi", "user": "root"},
    {"deny": "own", "names": ["wifi", "b*"]},
    {"deny": "send", "to": "wifi", "types": "exit", "group": [7]},
    {"deny": "subscribe-others", "types": "event-wan"},
    {"deny": "http", "methods": "POST", "paths": "/x/*"},
    {"deny": "receive", "board": "10.*"}]})");
  const struct {
    Words words;
    int status;
    const char *text;
  } kAsked[] = {
      {{"own", "wifi", "--user", "root"}, 0, "yes: /var/policy.json:2 (rule 1)\n"},
      {{"own", "wifi", "--user", "65534"}, 7, "no: /var/policy.json:3 (rule 2)\n"},
      {{"own", "wifi"}, 0, "yes: /var/policy.json:2 (rule 1)\n"},
      {{"own", "other", "--user", "65534"}, 0, "yes: the default of /var/policy.json\n"},
      {{"send", "wifi", "exit", "--user", "0", "--group", "7"}, 7, "no: /var/policy.json:4"},
      {{"send", "wifi", "0x707", "--group", "7"}, 0, "yes: the default"},
      {{"subscribe-others", "wifi", "event-wan"}, 7, "no: /var/policy.json:5"},
      {{"http", "POST", "/x/y"}, 7, "no: /var/policy.json:6"},
      {{"receive", "wifi", "1", "--board", "10.0.0.1:50"}, 7, "no: /var/policy.json:7"},
      {{"service", "reboot", "--user", "65534"}, 7, "no: the built-in rules"},
      {{"service", "reboot", "--user", "65534", "--server-group", "65534", "--group", "65534"},
       0,
       "yes: the built-in rules"},
      {{"speak-for", "wifi", "--user", "0"}, 7, "no: the default"},
      {{"own"}, 2, "the form is: own NAME"},
      {{"fly"}, 2, "test own, send"},
      {{"service", "fly"}, 4, "there is no service 'fly'"},
      {{"send", "wifi", "fly"}, 4, "there is no message type 'fly'"},
      {{"own", "a", "--user", "no such"}, 2, "there is no user 'no such'"},
      {{"own", "a", "--user", "0", "--board", "x"}, 2, "no user and no group is known"},
  };
  for (const auto &asked : kAsked) {
    const Output output = ask(asked.words);
    EXPECT_EQ(asked.status, output.status) << testing::PrintToString(asked.words);
    EXPECT_THAT(output.text, HasSubstr(asked.text)) << testing::PrintToString(asked.words);
  }

  const json answer = json::parse(ask({"own", "wifi", "--user", "65534", "--json"}).text);
  EXPECT_EQ(json({{"allowed", false}, {"rule", 2}, {"line", 3}, {"source", "/var/policy.json:3"}}),
            answer);
}

TEST(MsgctlPolicy, LearnsWhatTheFlightRecorderHasSeen) {
  Process server("msgsvr", {"--flight-body", "16"});
  ASSERT_TRUE(server.wait_for("ready")) << server.output();
  {
    RawClient wifi("wifi");
    RawClient panel("pan*l");
    wifi.send({.type = ORP_MSG_SUBSCRIBE, .data = ORP_MSG_EVENT_WAN});
    wifi.send({.type = ORP_MSG_SUBSCRIBE, .body = test::padded("web"), .data = ORP_MSG_EVENT_LAN});
    wifi.send({.type = ORP_MSG_SYNC_POST, .body = "boot"});
    wifi.send({.type = ORP_MSG_REBOOT});
    wifi.drain();
    panel.send({.type = kOwnType, .to = "wifi"});
    panel.send({.type = ORP_MSG_EVENT_WAN});
    panel.send_bytes(test::Frame{.type = 0x1235, .to = "wifi"}.bytes("lamp"));
    panel.drain();
    EXPECT_EQ(3u, wifi.drain().size());
  }

  const Output policy = run_policy({"learn"});
  ASSERT_EQ(0, policy.status) << policy.text;
  write(policy.text);
  EXPECT_EQ(0, run_policy({"check", kFile}).status) << policy.text;

  for (const Words &allowed : std::vector<Words>{{"own", "wifi"},
                                                 {"own", "pan*l"},
                                                 {"send", "wifi", "0x1234"},
                                                 {"send", "wifi", "0x1235"},
                                                 {"send", "mic", "event-wan"},
                                                 {"receive", "whoever", "0x1234"},
                                                 {"speak-for", "lamp"},
                                                 {"subscribe", "event-wan"},
                                                 {"subscribe-others", "web", "event-lan"},
                                                 {"service", "sync-points"},
                                                 {"service", "reboot"}}) {
    EXPECT_EQ(0, ask(allowed).status) << testing::PrintToString(allowed) << policy.text;
  }
  for (const Words &refused : std::vector<Words>{{"own", "web"},
                                                 {"own", "wifi", "--user", "65534"},
                                                 {"send", "wifi", "0x1236"},
                                                 {"send", "panel", "0x1234"},
                                                 {"speak-for", "wifi"},
                                                 {"subscribe", "event-lan"},
                                                 {"subscribe-others", "wifi", "event-lan"},
                                                 {"service", "config-export"},
                                                 {"http", "GET", "/"}}) {
    EXPECT_EQ(7, ask(refused).status) << testing::PrintToString(refused) << policy.text;
  }
}

}  // namespace
