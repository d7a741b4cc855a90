#include "msgbridge/config.h"

#include <gmock/gmock.h>
#include <sys/stat.h>

#include <algorithm>
#include <fstream>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "cfmapi.h"
#include "msgbridge/backoff.h"
#include "msgbridge/identity.h"
#include "msgbridge/topics.h"
#include "support/store.h"

namespace {

using msgbridge::Config;
using msgbridge::TopicTemplate;
using testing::HasSubstr;

const catalogue::Catalogue &types() {
  static catalogue::Catalogue *types = [] {
    auto *made = new catalogue::Catalogue;
    EXPECT_EQ(std::nullopt, made->add(R"({"messages": [
        {"type": "0x1001", "name": "read-it", "from": "web", "to": "cms", "meaning": "reads it",
         "answer": {}, "timeout_ms": 1500},
        {"type": "0x1002", "name": "tell-it", "from": "web", "to": "cms", "meaning": "tells it"}
        ]})",
                                      "it.json"));
    return made;
  }();
  return *types;
}

// `members` are on line 2. They may be the broker.
std::string file_of(const std::string &members) {
  const char *broker = R"("broker": {"addresses": ["mqtt://broker"]},)";
  return "{" + std::string(members.starts_with("\"broker\"") ? "" : broker) + "\n" + members + "}";
}

TEST(BridgeConfig, TakesEverythingThatItsPageDescribes) {
  const Config config = msgbridge::read_config(R"({
    "broker": {
      "addresses": ["mqtts://broker.example.net", "mqtts://[2001:db8::1]:8884/"],
      "client_id": "me", "credentials": "/etc/secret", "keep_alive_s": 30, "in_flight": 10,
      "tls": {"ca": "/ca", "certificate": "/cert", "key": "/key", "verify": false},
      "reconnect": {"least_ms": 100, "most_ms": 2000}
    },
    "prefix": "fleet/north", "gateway": "gw-7", "metrics_s": 60,
    "up": [
      {"module": "wlan", "event": "Scan*", "send": false},
      {"comment": "all else", "payload": {"if": "eth?"}, "topic": "{prefix}/x/{event}", "qos": 0,
       "retain": true, "per_second": 5, "one_in": 3, "mask": false}
    ],
    "down": {
      "rest": [{"path": "/dev/*"}, {"method": "put", "path": "/dev/led", "mask": false}],
      "calls": [{"app": "cms", "type": "read-it"},
                {"app": "wifi", "type": "0x4242", "timeout_ms": 70}],
      "in_flight": 3, "largest": 1000, "timeout_ms": 900
    },
    "spool": {"path": "/data/spool.db", "bytes": 100000, "age_s": 60, "per_second": 10,
              "commit_ms": 5, "sync": false, "reserve": false}
  })",
                                               types());

  ASSERT_EQ(2u, config.brokers.size());
  EXPECT_EQ("mqtts://broker.example.net:8883", config.brokers[0].text());
  EXPECT_EQ("mqtts://[2001:db8::1]:8884", config.brokers[1].text());
  EXPECT_FALSE(config.tls.verify);
  EXPECT_EQ(2000u, config.reconnect.most_ms);
  ASSERT_EQ(2u, config.up.size());
  EXPECT_FALSE(config.up[0].send);
  EXPECT_TRUE(config.up[0].mask) << "personal data is masked unless told otherwise";
  EXPECT_FALSE(config.up[1].mask);
  EXPECT_EQ("eth?", config.up[1].payload.at(0).second);
  EXPECT_EQ("fleet/north/x/LinkUp",
            config.up[1].topic.expand({config.prefix, config.gateway, "wan", "LinkUp"}));
  ASSERT_EQ(2u, config.down.rest.size());
  EXPECT_EQ(2u, config.down.rest[1].code);
  ASSERT_EQ(2u, config.down.calls.size());
  EXPECT_EQ(1500u, config.down.calls[0].timeout_ms) << "the catalogue's";
  EXPECT_EQ(0x4242u, config.down.calls[1].type);
  EXPECT_EQ(100000u, config.spool.bytes);
}

TEST(BridgeConfig, LetsNothingDownByItself) {
  const Config config = msgbridge::read_config(file_of("\"up\": [{}]"), types());

  EXPECT_TRUE(config.down.rest.empty());
  EXPECT_TRUE(config.down.calls.empty());
  EXPECT_TRUE(config.tls.verify);
  EXPECT_EQ("gw/name/event/wan/LinkUp",
            config.up[0].topic.expand({config.prefix, "name", "wan", "LinkUp"}));
}

TEST(BridgeConfig, PointsAtMistakes) {
  const struct {
    std::string members;
    const char *why;
  } kMistakes[] = {
      {R"("up": {})", "'up' must be a list"},
      {R"("upp": [])", "'upp' is not known here"},
      {R"("up": [{"module": "wann"}])", "no events are known of the module 'wann'"},
      {R"("up": [{"topic": "{prefix}/{serial}"}])", "{event} in braces"},
      {R"("up": [{"topic": "a/#"}])", "holds + or #"},
      {R"("up": [{"topic": "$SYS/x"}])", "begins with $"},
      {R"("up": [{"qos": 3}])", "'qos' must be a number from 0 to 2"},
      {R"("up": [{"mask": 1}])", "'mask' must be true or false"},
      {R"("up": [{"payload": {"if": 5}}])", "'if' must be a text"},
      {R"("prefix": "a/+")", "'prefix'"},
      {R"("prefix": "a/")", "'prefix'"},
      {R"("gateway": "answers")", "'gateway'"},
      {R"("gateway": "a", "gateway_item": 5)", "'gateway' already"},
      {R"("down": {"rest": [{"path": "dev"}]})", "'path' begins with /"},
      {R"("down": {"rest": [{"path": "/x", "method": "head"}]})", "get, post, put"},
      {R"("down": {"calls": [{"app": "cms", "type": "nothing"}]})", "'type'"},
      {R"("down": {"calls": [{"app": "cms", "type": "reboot"}]})", "nobody outside"},
      {R"("down": {"calls": [{"app": "cms", "type": "0x701"}]})", "nobody outside"},
      {R"("down": {"calls": [{"app": "cms", "type": "0x2dab7"}]})", "nobody outside"},
      {R"("down": {"calls": [{"app": "cms", "type": "tell-it"}]})", "not answered"},
      {R"("down": {"calls": [{"app": "mic", "type": "read-it"}]})", "'app'"},
      {R"("down": {"calls": [{"app": "", "type": "read-it"}]})", "'app'"},
      {R"("down": {"calls": [{"app": "twelve_chars", "type": "read-it"}]})", "'app'"},
      {R"("spool": {"path": "x"})", "'path' begins with /"},
      {R"("spool": {"bytes": 10})", "'bytes'"},
      {R"("broker": 5)", "'broker'"},
      {R"("broker": {})", "'addresses'"},
      {R"("broker": {"addresses": []})", "must name a broker"},
      {R"("broker": {"addresses": "mqtt://a"})", "'addresses' must be a list"},
      {R"("broker": {"addresses": [5]})", "'addresses'"},
      {R"("broker": {"addresses": ["http://a"]})", "mqtt:// or mqtts://"},
      {R"("broker": {"addresses": ["mqtts://a"], "tls": 5})", "'tls'"},
      {R"("broker": {"addresses": ["mqtt://a"], "tls": {}})", "mqtts://"},
      {R"("broker": {"addresses": ["mqtts://a"], "tls": {"key": "/k"}})", "together"},
      {R"("broker": {"addresses": ["mqtts://a"], "tls": {"verify": 1}})", "'verify'"},
      {R"("broker": {"addresses": ["mqtts://a"], "tls": {"certificate": "/c"}})", "together"},
      {R"("broker": {"addresses": ["mqtt://a"], "reconnect": 5})", "'reconnect'"},
      {R"("broker": {"addresses": ["mqtt://a"], "reconnect": {"least_ms": 20, "most_ms": 10}})",
       "more than"},
      {R"("broker": {"addresses": ["mqtt://a"], "client_id": "a\u0001b"})", "'client_id'"},
      {R"("broker": {"addresses": ["mqtt://a"], "in_flight": 0})", "'in_flight'"},
      {R"("broker": {"addresses": ["mqtt://a"], "keep_alive_s": 4})", "'keep_alive_s'"},
      {R"("up": [5])", "a rule of 'up'"},
      {R"("up": [{"payload": 5}])", "'payload'"},
      {R"("prefix": "$SYS")", "'prefix'"},
      {R"("prefix": ")" + std::string(201, 'p') + '"', "'prefix'"},
      {R"("gateway_item": 0)", "'gateway_item'"},
      {R"("down": [])", "'down'"},
      {R"("down": {"rest": {}})", "'rest' must be a list"},
      {R"("down": {"rest": [{}]})", "'path'"},
      {R"("down": {"calls": {}})", "'calls' must be a list"},
      {R"("down": {"calls": [{"app": "a/b", "type": "read-it"}]})", "'app'"},
      {R"("down": {"calls": [{"app": "cms", "type": 0}]})", "'type'"},
      {R"("down": {"calls": [{"app": "cms", "type": 4294967296}]})", "'type'"},
      {R"("down": {"calls": [{"app": "cms", "type": true}]})", "'type'"},
      {R"("down": {"calls": [{"app": "cms", "type": "0x4242", "timeout_ms": 0}]})", "'timeout_ms'"},
      {R"("spool": 5)", "'spool'"},
      {R"("metrics_s": 0)", "'metrics_s'"},
  };
  for (const auto &each : kMistakes) {
    try {
      msgbridge::read_config(file_of(each.members), types());
      ADD_FAILURE() << each.members;
    } catch (const catalogue::JsonError &error) {
      EXPECT_EQ(2u, error.line) << each.members;
      EXPECT_THAT(error.what(), HasSubstr(each.why)) << each.members;
    }
  }
  const std::string longest(200, 'p');
  EXPECT_EQ(longest,
            msgbridge::read_config(file_of("\"prefix\": \"" + longest + "\""), types()).prefix);
}

TEST(BridgeConfig, KnowsWhatAnAddressIs) {
  for (const char *text :
       {"broker", "http://broker", "mqtt://", "mqtt://a b", "mqtt://a:0", "mqtt://a:65536",
        "mqtt://a:", "mqtt://[::1", "mqtt://[::1]8883", "mqtt://a:1883/path", "mqtt://user@a"}) {
    EXPECT_THROW(mqtt::read_address(text), std::invalid_argument) << text;
  }
  for (const std::string &host : {std::string(254, 'a'), std::string("[]"), std::string("a?b")}) {
    EXPECT_THROW(mqtt::read_address("mqtt://" + host), std::invalid_argument) << host;
  }
  EXPECT_EQ("mqtt://[fe80::1%eth0]:1883", mqtt::read_address("mqtt://[fe80::1%eth0]").text());
}

TEST(BridgeConfig, CredentialsAreTheirOwnersAloneAndHaveAUser) {
  const std::string path = "/var/credentials";
  EXPECT_THROW(mqtt::read_credentials(path), catalogue::Unreadable);
  std::ofstream(path) << R"({"user": "gw"})";
  ASSERT_EQ(0, ::chmod(path.c_str(), 0640));
  EXPECT_THROW(mqtt::read_credentials(path), catalogue::Unreadable);
  ASSERT_EQ(0, ::chmod(path.c_str(), 0600));
  EXPECT_EQ("", mqtt::read_credentials(path).password);

  const auto with_password = [](const std::string &password) {
    return R"({"user": "gw", "password": ")" + password + "\"}";
  };
  const std::string token(65535, 'x');
  std::ofstream(path) << with_password(token);
  EXPECT_EQ(token, mqtt::read_credentials(path).password);
  for (const std::string &text :
       {with_password(token + "x"), with_password("a\\u0000b"), std::string("[]"),
        std::string(R"({"password": "x"})"), std::string(R"({"user": 5})"),
        std::string(R"({"user": "gw", "password": 5})"),
        std::string(R"({"user": "gw", "pass": "x"})")}) {
    std::ofstream(path) << text;
    EXPECT_THROW(mqtt::read_credentials(path), catalogue::JsonError) << text;
  }
}

TEST(BridgeTopics, KeepForeignTextInItsLevel) {
  const struct {
    const char *text;
    const char *level;
  } kTexts[] = {
      {"LinkUp", "LinkUp"},
      {"", "-"},
      {"a/b+c#d", "a%2Fb%2Bc%23d"},
      {"50%", "50%25"},
      {"\n\x1b", "%0A%1B"},
      {"\xc3\xa9", "\xc3\xa9"},
      {"\xff", "%FF"},
      {"\xc2\x9b", "%C2%9B"},
  };
  for (const auto &each : kTexts) {
    EXPECT_EQ(each.level, msgbridge::topic_level(each.text));
    EXPECT_TRUE(mqtt::is_topic(msgbridge::topic_level(each.text)));
  }
  EXPECT_GE(512u, msgbridge::topic_level(std::string(10000, '/')).size());
}

TEST(BridgeName, IsMadeOfTheMachinesIdAndDoesNotTellIt) {
  constexpr const char *kFile = "/var/machine-id";
  const auto name_with = [](const std::string &contents) {
    std::ofstream(kFile) << contents << "\n";
    return msgbridge::gateway_name(Config(), kFile);
  };
  const std::string id = "0123456789abcdef0123456789abcdef";
  const std::string name = name_with(id);
  EXPECT_EQ(32u, name.size());
  EXPECT_NE(id, name);
  EXPECT_EQ(name, name_with(id));
  EXPECT_NE(name, name_with("1" + id.substr(1)));

  // What every machine of a kind has is no name.
  for (const char *none : {"", "uninitialized", "00000000000000000000000000000000", "0123456789"}) {
    EXPECT_THROW(name_with(none), std::runtime_error) << none;
  }
  EXPECT_THROW(msgbridge::gateway_name(Config(), "/nonexistent"), std::runtime_error);
}

TEST(BridgeBackoff, SpreadsAFleetOverItsLimit) {
  const msgbridge::Reconnect reconnect{1000, 60'000};
  std::mt19937 random(1);
  for (const auto &[failures, limit_ms] :
       {std::pair(0u, 1000u), {3u, 8000u}, {6u, 60'000u}, {1000u, 60'000u}}) {
    // Ten thousand gateways that have lost their broker at the same moment.
    std::vector<int> tenths(11);
    for (int i = 0; i < 10'000; ++i) {
      const uint32_t delay =
          msgbridge::backoff_ms(reconnect, failures, static_cast<uint32_t>(random()));
      ASSERT_LE(10u, delay);
      ASSERT_GT(limit_ms + 10, delay);
      ++tenths[delay * 10 / (limit_ms + 10)];
    }
    EXPECT_GT(1200, *std::ranges::max_element(tenths)) << failures;
  }
}

TEST(BridgeName, IsTheItemOfEquipmentDataThatTheConfigurationNames) {
  Config config;
  config.gateway_item = CFM_EQUIP_SOFTWARE_VERSION;
  const auto why_not = [&config] {
    try {
      return "it is " + msgbridge::gateway_name(config, "/nonexistent");
    } catch (const std::runtime_error &error) {
      return std::string(error.what());
    }
  };
  EXPECT_THAT(why_not(), HasSubstr("item 0x80000337 of equipment data"));
  const auto put = [](std::string_view text) {
    test::define(CFM_AREA_EQUIPMENT, CFM_EQUIP_SOFTWARE_VERSION, CFM_TYPE_TEXT, 32, text);
  };
  put("");
  EXPECT_THAT(why_not(), HasSubstr("or is empty"));
  put("GW 0042/a");
  EXPECT_EQ("it is GW 0042/a", why_not());
  config.gateway = "named";
  EXPECT_EQ("it is named", why_not()) << "the configuration's own name comes first";
}

}  // namespace
