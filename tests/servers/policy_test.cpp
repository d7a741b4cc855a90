#include "policy/policy.h"

#include <gmock/gmock.h>

#include <fstream>
#include <optional>
#include <string>
#include <utility>

#include "msgapi/dynapp.h"
#include "msgapi/messages.h"
#include "support/file.h"
#include "support/fuzz_target.h"

namespace {

using policy::Action;
using policy::BadPolicy;
using policy::Decision;
using policy::Policy;
using policy::Question;
using policy::Service;
using policy::Who;
using testing::HasSubstr;

constexpr gid_t kServersGroup = 500;

const Who kRoot{0, {0}, {}};
const Who kMember{1000, {1000, kServersGroup}, {}};
const Who kNobody{65534, {65534}, {}};
const Who kBoard{Who::kUnknown, {}, "192.168.7.1:5050"};

const catalogue::Catalogue &types() {
  static const catalogue::Catalogue types;
  return types;
}

Policy policy_of(const std::string &rules, const std::string &otherwise = "allow") {
  return Policy("{\"default\": \"" + otherwise + "\", \"rules\": [\n" + rules + "\n]}", "p.json",
                types(), kServersGroup);
}

Question service(Service what) {
  return {Action::kService, policy::word_of(what)};
}

TEST(Policy, WithoutAFileKeepsWhatIsSensitiveForRootAndTheServersGroup) {
  const Policy policy(kServersGroup);

  for (const Service what :
       {Service::kConfigExport, Service::kConfigImport, Service::kReboot, Service::kConfigRestore,
        Service::kApplicationStop, Service::kLoginLimits}) {
    EXPECT_TRUE(policy.decide(kRoot, service(what)).allowed) << policy::word_of(what);
    EXPECT_TRUE(policy.decide(kMember, service(what)).allowed);
    EXPECT_FALSE(policy.decide(kNobody, service(what)).allowed) << policy::word_of(what);
    EXPECT_FALSE(policy.decide(kBoard, service(what)).allowed);
  }
  for (const Service what :
       {Service::kConfigSave, Service::kConfigCheck, Service::kLogin, Service::kApplicationStart,
        Service::kExitOthers, Service::kSyncPoints}) {
    EXPECT_TRUE(policy.decide(kNobody, service(what)).allowed) << policy::word_of(what);
  }
  EXPECT_TRUE(policy.decide(kNobody, {Action::kOwn, "wifi"}).allowed);
  EXPECT_TRUE(policy.decide(kNobody, {Action::kSpeakFor, "wifi"}).allowed);
  EXPECT_FALSE(policy.limits(Action::kSend));
  EXPECT_FALSE(policy.limits(Action::kSpeakFor));
  EXPECT_EQ("the built-in rules",
            policy.source_of(policy.decide(kNobody, service(Service::kReboot))));
}

TEST(Policy, IsDecidedByTheFirstRuleThatFits) {
  const Policy policy = policy_of(R"(
      {"allow": "own", "names": ["wifi", "cms*"], "user": "root", "group": ["root", 1000]},
      {"deny": "own", "names": ["wifi", "cms*"],
       "comment": "everybody else"},
      {"deny": "own", "board": "192.168.7.*"})");

  EXPECT_TRUE(policy.decide(kRoot, {Action::kOwn, "wifi"}).allowed);
  EXPECT_TRUE(policy.decide(kMember, {Action::kOwn, "cmsd"}).allowed);
  const Decision refused = policy.decide(kNobody, {Action::kOwn, "cms"});
  EXPECT_FALSE(refused.allowed);
  EXPECT_EQ(2u, refused.rule);
  EXPECT_EQ("p.json:4", policy.source_of(refused));
  const Decision allowed = policy.decide(kNobody, {Action::kOwn, "cm"});
  EXPECT_TRUE(allowed.allowed);
  EXPECT_EQ("the default of p.json", policy.source_of(allowed));
  EXPECT_EQ(3u, policy.decide(kBoard, {Action::kOwn, "panel"}).rule);
  EXPECT_TRUE(policy.limits(Action::kOwn));
  EXPECT_FALSE(policy.limits(Action::kSend));
}

TEST(Policy, KnowsTypesByNameNumberAndRange) {
  const Policy policy = policy_of(R"(
      {"deny": "send", "to": "mic", "types": ["event-wan", 4660]},
      {"deny": "send", "to": "wifi", "types": "0x1000-0x10ff"},
      {"deny": "receive", "from": "cms", "types": ["exit", "0x20"]},
      {"deny": "subscribe", "types": "event"},
      {"deny": "subscribe-others", "names": "w*", "types": "ORP_MSG_EVENT_LAN"})");
  const auto allows = [&](Action action, const char *name, uint32_t type) {
    return policy.decide(kNobody, {action, name, type}).allowed;
  };

  EXPECT_FALSE(allows(Action::kSend, "mic", ORP_MSG_EVENT_WAN));
  EXPECT_FALSE(allows(Action::kSend, "mic", 0x1234));
  EXPECT_TRUE(allows(Action::kSend, "mic", ORP_MSG_EVENT_LAN));
  EXPECT_FALSE(allows(Action::kSend, "wifi", 0x1000));
  EXPECT_FALSE(allows(Action::kSend, "wifi", 0x10ff));
  EXPECT_TRUE(allows(Action::kSend, "wifi", 0x1100));
  EXPECT_TRUE(allows(Action::kSend, "wif", 0x1000));
  EXPECT_FALSE(allows(Action::kReceive, "cms", ORP_MSG_EXIT));
  EXPECT_FALSE(allows(Action::kReceive, "cms", 0x20));
  EXPECT_FALSE(allows(Action::kSubscribe, "", ORP_MSG_ALL_EVENTS));
  EXPECT_FALSE(allows(Action::kSubscribe, "", ORP_MSG_EVENT_USB)) << "of the range by its name";
  EXPECT_FALSE(allows(Action::kSubscribeOthers, "wifi", ORP_MSG_EVENT_LAN));
  EXPECT_TRUE(allows(Action::kSubscribeOthers, "wifi", ORP_MSG_EVENT_WAN));
}

TEST(Policy, MatchesPatternsInBoundedTime) {
  std::string pattern;
  for (int i = 0; i < 100; ++i) pattern += "*a";
  EXPECT_FALSE(policy::matches(pattern + "b", std::string(10000, 'a')));
}

TEST(Policy, NamesTheServiceOfAMessage) {
  EXPECT_EQ(Service::kApplicationStart, policy::service_of(ORP_MSG_DYNAPP_UPDATE, ORP_DYNAPP_ON));
  for (const uint32_t data : {ORP_DYNAPP_OFF, ORP_DYNAPP_RESTART, 77u}) {
    EXPECT_EQ(Service::kApplicationStop, policy::service_of(ORP_MSG_DYNAPP_UPDATE, data));
  }
  EXPECT_EQ(Service::kConfigRestore, policy::service_of(ORP_MSG_DELETE_APPDATA, 0));
  EXPECT_EQ(std::nullopt, policy::service_of(ORP_MSG_REGISTER, 0));
}

void expect_refusal(const std::string &text, size_t line, const char *what) {
  try {
    const Policy policy(text, "p\x1b.json", types(), 0);
    ADD_FAILURE() << text;
  } catch (const BadPolicy &error) {
    EXPECT_EQ("p?.json", error.problem.file);
    EXPECT_EQ(line, error.problem.line) << text;
    EXPECT_THAT(error.what(), HasSubstr(what)) << text;
  }
}

TEST(PolicyFile, WithAMistakeIsRefusedWholeWithTheLine) {
  const struct {
    std::string text;
    size_t line;
    const char *what;
  } kBad[] = {
      {"{\"default\": \"allow\",\n\"rules\": [", 2, "unexpected end of input"},
      {"[]", 1, "a policy must be an object"},
      {R"({"rules": []})", 1, "'default' is missing"},
      {"{\"default\": \"allow\"\n}", 1, "'rules' is missing"},
      {"{\"default\":\n\"perhaps\", \"rules\": []}", 2, "must be allow or deny"},
      {R"({"default": "allow", "rules": {}})", 1, "'rules' must be a list"},
      {"{\"default\": \"allow\", \"rules\": [],\n\"rule\": 1}", 2, "'rule' is not known"},
  };
  for (const auto &bad : kBad) expect_refusal(bad.text, bad.line, bad.what);

  const std::pair<const char *, const char *> kBadRules[] = {
      {"7", "a rule must be an object"},
      {"{}", "either 'allow' or 'deny'"},
      {R"({"allow": "own", "deny": "own"})", "either 'allow' or 'deny'"},
      {R"({"allow": "fly"})", "'fly' is not one of own, send"},
      {R"({"allow": "own", "types": "exit"})", "'types' is not known in such a rule"},
      {R"({"allow": "own", "names": []})", "'names' is an empty list"},
      {R"({"allow": "own", "names": ""})", "must be a text that is not empty"},
      {R"({"allow": "own", "names": "twelve-chars"})", "longer than a name can be"},
      {R"({"allow": "own", "user": "no such user"})", "there is no user no such user"},
      {R"({"allow": "own", "user": 4294967295})", "no number of a user"},
      {R"({"allow": "own", "user": "4294967296"})", "there is no user"},
      {R"({"allow": "own", "user": -1})", "must be a text"},
      {R"({"allow": "own", "group": "no such"})", "there is no group"},
      {R"({"allow": "send", "types": "no-such-type"})", "is no message type"},
      {R"({"allow": "send", "types": "0x20-0x10"})", "is no message type"},
      {R"({"allow": "send", "types": "0x100000"})", "is no message type"},
      {R"({"allow": "send", "types": [1, 2.5]})", "must be a text"},
      {R"({"allow": "service", "services": "fly"})", "'fly' is not one of config-save"},
      {R"({"allow": "http", "methods": "get"})", "'get' is not one of GET"},
      {R"({"allow": "subscribe", "names": "x"})", "'names' is not known"},
      {R"({"allow": "own", "user": []})", "'user' is an empty list"},
      {R"({"allow": "own", "user": "12x"})", "there is no user 12x"},
      {R"({"allow": "own", "group": "4294967295"})", "no number of a group"},
      {R"({"allow": "send", "types": []})", "'types' is an empty list"},
      {R"({"allow": "send", "types": 1048576})", "must be a text"},
      {R"({"allow": "send", "types": "0x10-last"})", "is no message type"},
      {R"({"allow": "send", "types": "first-0x20"})", "is no message type"},
  };
  for (const auto &[rule, what] : kBadRules) {
    expect_refusal(
        "{\"default\": \"allow\", \"rules\": [\n{\"allow\": \"own\"},\n" + std::string(rule) + "]}",
        3, what);
  }
  std::string most = R"({"allow": "own"})";
  for (int i = 1; i < 100000; ++i) most += R"(,{"allow": "own"})";
  EXPECT_EQ(100000u, policy_of(most).size());
  EXPECT_THROW(policy_of(most + R"(,{"allow": "own"})"), BadPolicy);
}

TEST(PolicyFile, OfThePackagesGuardsNamesAndWhatIsSensitive) {
  std::string text = test::contents(MSGAPI_SOURCE "/packaging/policy.json");
  const size_t group = text.find("\"msgapi\"");
  ASSERT_NE(std::string::npos, group);
  text.replace(group, 8, std::to_string(kServersGroup));  // which may not be there
  const Policy policy(text, "policy.json", types(), 0);

  for (const char *name : {"cms", "web", "datacli"}) {
    EXPECT_TRUE(policy.decide(kRoot, {Action::kOwn, name}).allowed);
    EXPECT_TRUE(policy.decide(kMember, {Action::kOwn, name}).allowed);
    EXPECT_FALSE(policy.decide(kNobody, {Action::kOwn, name}).allowed);
    EXPECT_FALSE(policy.decide(kBoard, {Action::kOwn, name}).allowed);
  }
  for (const Service what : {Service::kReboot, Service::kConfigImport, Service::kLoginLimits}) {
    EXPECT_TRUE(policy.decide(kRoot, service(what)).allowed);
    EXPECT_FALSE(policy.decide(kMember, service(what)).allowed);
    EXPECT_FALSE(policy.decide(kNobody, service(what)).allowed);
  }
  EXPECT_TRUE(policy.decide(kNobody, {Action::kOwn, "lamp"}).allowed);
  EXPECT_FALSE(policy.limits(Action::kSend));
  EXPECT_FALSE(policy.limits(Action::kSubscribe));
}

TEST(PolicyFile, IsARegularFile) {
  EXPECT_THROW(Policy::load("/var/none.json", types(), 0), BadPolicy);
  EXPECT_THROW(Policy::load("/dev/zero", types(), 0), BadPolicy);
  std::ofstream("/var/p.json") << R"({"default": "deny", "rules": []})";
  EXPECT_FALSE(Policy::load("/var/p.json", types(), 0).decide(kRoot, {Action::kOwn, "a"}).allowed);
}

// Patterns, users, groups, boards, methods, types, and what is sensitive.
TEST(Policy, DecidesRandomQuestionsAsTheFuzzTargetsModelDoes) {
  test::run_fuzz_target(4000, 60);
}

}  // namespace
