#include <gmock/gmock.h>

#include <array>
#include <cstring>
#include <string>
#include <variant>

#include "msgapi/dmmsg.h"
#include "msgapi/event.h"
#include "msgbridge/downward.h"
#include "msgbridge/json_text.h"
#include "msgbridge/upward.h"

namespace {

using msgbridge::AnswerStatus;
using msgbridge::CallRequest;
using msgbridge::Config;
using msgbridge::Event;
using msgbridge::Json;
using msgbridge::Publication;
using msgbridge::Refusal;
using msgbridge::Request;
using msgbridge::RestRequest;
using msgbridge::Spool;
using msgbridge::Upward;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

const catalogue::Catalogue &known_types() {
  static const auto *types = new catalogue::Catalogue;
  return *types;
}

Config config_of(const std::string &members) {
  return msgbridge::read_config(
      R"({"broker": {"addresses": ["mqtt://broker"]}, "gateway": "me", )" + members + "}",
      known_types());
}

Upward upward_of(const std::string &rules) {
  return {config_of("\"up\": " + rules).up, "gw", "me"};
}

std::string event(const std::string &type, const std::string &payload) {
  return "{\n\t\"Module\": \"wan\", \"EventType\": \"" + type + "\",\n\t\"Payload\": " + payload +
         "}";
}

constexpr Spool::Now kNow{"boot", 1000, 1'800'000'000'000};

std::string topic_of(const std::optional<Event> &event) {
  return event ? event->topic : "none";
}

TEST(BridgeUp, TheFirstRuleThatFitsDecides) {
  Upward upward = upward_of(R"([
      {"module": "wlan", "send": false},
      {"module": "wan", "event": "Link*", "payload": {"if": "eth?|wan?"}, "topic": "links"},
      {"event": "*Up|*Down"}])");
  const auto take = [&upward](uint32_t type, const std::string &text) {
    return topic_of(upward.take(type, text, kNow));
  };

  EXPECT_EQ("links", take(ORP_MSG_EVENT_WAN, event("LinkUp", R"({"if": "eth0"})")));
  EXPECT_EQ("gw/me/event/wan/LinkUp",
            take(ORP_MSG_EVENT_WAN, event("LinkUp", R"({"if": "ppp0"})")));
  EXPECT_EQ("gw/me/event/wan/LinkUp", take(ORP_MSG_EVENT_WAN, event("LinkUp", "{}")));
  EXPECT_EQ("gw/me/event/lan/LinkDown", take(ORP_MSG_EVENT_LAN, event("LinkDown", "{}")))
      << "the module is the type's, whatever the text says";
  EXPECT_EQ("none", take(ORP_MSG_EVENT_WLAN, event("LinkUp", "{}")));
  EXPECT_EQ("none", take(ORP_MSG_EVENT_WAN, event("Other", "{}")));
  EXPECT_EQ("none", take(ORP_MSG_EVENT_WAN, "no JSON"));
  EXPECT_EQ("none", take(ORP_MSG_EVENT_WAN, std::string(100, '[') + std::string(100, ']')));
  EXPECT_EQ("gw/me/event/device/Up", take(ORP_MSG_EVENT_DEVICE, event("Up", "{}")))
      << "text of a publisher";
  EXPECT_EQ(5u, upward.counters().taken);
  EXPECT_EQ(2u, upward.counters().no_rule);
  EXPECT_EQ(2u, upward.counters().unreadable);
}

TEST(BridgeUp, SubscribesToWhatIsSentAndNoMore) {
  const auto types = [](const char *rules) { return upward_of(rules).types(); };
  EXPECT_THAT(types(R"([{"module": "wlan", "send": false}, {"module": "wan"}, {"module": "wan"}])"),
              ElementsAre(ORP_MSG_EVENT_WAN));
  EXPECT_THAT(types(R"([{"event": "Debug*", "send": false}, {"module": "lan"}])"),
              ElementsAre(ORP_MSG_EVENT_LAN));
  EXPECT_THAT(types(R"([{"module": "wan"}, {"module": "w*"}])"), IsEmpty()) << "all of them";
}

TEST(BridgeUp, SendsWhatSubscribersGet) {
  Upward upward = upward_of("[{}]");
  const std::string text = event("LinkUp", R"({"if": "eth0", "n": 7})");
  EXPECT_EQ(text, upward.take(ORP_MSG_EVENT_WAN, text, kNow)->payload);
}

TEST(BridgeUp, MasksPersonalDataAndStaysJson) {
  Upward upward = upward_of("[{}]");
  const std::string text =
      event("Login", R"({"mac": "AA:BB:CC:DD:EE:FF", "ip": "192.168.1.10", "ssid": "\"é home",
                   "wifi_password": "hidden!", "list": [{"account": "admin"}], "imei": 123456789,
                   "\u0075ser": "some\u0062ody", "up": true, "pin": {"value": "4711"}})");
  const auto taken = upward.take(ORP_MSG_EVENT_WAN, text, kNow);
  ASSERT_TRUE(taken);
  const Json json = Json::parse(taken->payload);
  const Json &payload = json["Payload"];
  EXPECT_EQ("AA:**:**:DD:**:FF", payload["mac"]);
  EXPECT_EQ("192.***.*.10", payload["ip"]);
  EXPECT_EQ("\"******e", payload["ssid"]);
  EXPECT_EQ("*******", payload["wifi_password"]);
  EXPECT_EQ("a***n", payload["list"][0]["account"]);
  EXPECT_EQ(0, payload["imei"]);
  EXPECT_EQ("s******y", payload["user"]);
  EXPECT_EQ("****", payload["pin"]["value"]);
  EXPECT_EQ(true, payload["up"]);
  EXPECT_THAT(taken->payload, Not(HasSubstr("hidden")));

  Upward open = upward_of(R"([{"mask": false}])");
  EXPECT_EQ(text, open.take(ORP_MSG_EVENT_WAN, text, kNow)->payload);
}

TEST(BridgeUp, LimitsAndSamples) {
  Upward upward = upward_of(R"([{"module": "wan", "per_second": 10}, {"one_in": 4}])");
  const std::string text = event("Up", "{}");
  const auto taken = [&](uint32_t type, int count, int64_t at_ms) {
    int some = 0;
    for (int i = 0; i < count; ++i) {
      some += upward.take(type, text, {"boot", at_ms, 0}) ? 1 : 0;
    }
    return some;
  };
  EXPECT_EQ(10, taken(ORP_MSG_EVENT_WAN, 50, 5000));
  EXPECT_EQ(5, taken(ORP_MSG_EVENT_WAN, 50, 5500));
  EXPECT_EQ(10, taken(ORP_MSG_EVENT_WAN, 50, 60'000)) << "no more than a second's";
  EXPECT_EQ(25, taken(ORP_MSG_EVENT_LAN, 100, 5000));
  EXPECT_EQ(125u, upward.counters().limited);
  EXPECT_EQ(75u, upward.counters().sampled);
}

// ---- Down ----

constexpr const char *kBase = "gw/me";

class BridgeDown : public testing::Test {
 protected:
  Request read(const std::string &topic, const std::string &payload = "") const {
    return msgbridge::read_request({topic, payload}, kBase, config_.down, known_types());
  }
  int refused(const std::string &topic, const std::string &payload = "") const {
    const Request request = read(topic, payload);
    const auto *refusal = std::get_if<Refusal>(&request);
    return refusal == nullptr ? 0 : static_cast<int>(refusal->status);
  }

  const Config config_ = config_of(R"("down": {
      "largest": 100,
      "rest": [{"path": "/dev/*"}, {"method": "put", "path": "/dev/led"}, {"path": "/x/**"}],
      "calls": [{"app": "cms", "type": "0x4242"}]})");
};

TEST_F(BridgeDown, TakesWhatIsAllowed) {
  const Request get = read("gw/me/rest/get/dev/info", "verbose=1");
  const auto &rest = std::get<RestRequest>(get);
  EXPECT_EQ("/dev", rest.path);
  EXPECT_EQ("info", rest.handler);
  EXPECT_EQ("verbose=1", rest.text);
  EXPECT_EQ(0u, rest.code);
  EXPECT_TRUE(rest.mask);
  EXPECT_EQ("/x/a/b", std::get<RestRequest>(read("gw/me/rest/get/x/a/b/c")).path);
  EXPECT_EQ(2u, std::get<RestRequest>(read("gw/me/rest/put/dev/led", "{\"on\": true}")).code);

  const Request by_number = read("gw/me/call/cms/0x4242", R"({"data": 7, "body": {"a": 1}})");
  const auto &call = std::get<CallRequest>(by_number);
  EXPECT_EQ("cms", call.app);
  EXPECT_EQ(7u, call.data);
  EXPECT_EQ(std::string("{\"a\":1}") + '\0', call.body);
  EXPECT_EQ("", std::get<CallRequest>(read("gw/me/call/cms/16962")).body);
}

TEST_F(BridgeDown, RefusesTheRestInWords) {
  EXPECT_EQ(403, refused("gw/me/rest/get/etc/passwd"));
  EXPECT_EQ(403, refused("gw/me/rest/get/dev/a/b"));
  EXPECT_EQ(403, refused("gw/me/rest/post/dev/info", "{}"));
  EXPECT_EQ(400, refused("gw/me/rest/steal/dev/info"));
  EXPECT_EQ(400, refused("gw/me/rest/put/dev/led", "{on"));
  EXPECT_EQ(400, refused("gw/me/rest/get/dev/info", "\xff"));
  EXPECT_EQ(400, refused("gw/me/rest/get/dev/info", std::string("a\0b", 3)));
  EXPECT_EQ(404, refused("gw/me/rest/get/dev/" + std::string(64, 'x')));
  EXPECT_EQ(404, refused("gw/me/rest/get/dev/"));
  EXPECT_EQ(413, refused("gw/me/rest/get/dev/info", std::string(101, 'x')));
  EXPECT_EQ(403, refused("gw/me/call/cms/0x4243"));
  EXPECT_EQ(403, refused("gw/me/call/web/0x4242"));
  EXPECT_EQ(403, refused("gw/me/call/mic/0x701"));
  EXPECT_EQ(403, refused("gw/me/call//0x4242"));
  EXPECT_EQ(400, refused("gw/me/call/cms/0x4242", "[]"));
  EXPECT_EQ(400, refused("gw/me/call/cms/0x4242", "{\"data\": -1}"));
  EXPECT_EQ(400, refused("gw/me/call/cms/0x4242", "{\"data\": 4294967296}"));
  EXPECT_EQ(400, refused("gw/me/call/cms/0x4242", R"({"body": "a\u0000b"})"));
  EXPECT_EQ(400, refused("gw/me/call/cms/0x4242", R"({"dada": 1})"));
  EXPECT_EQ(400, refused("gw/me/call/cms/0x4242", std::string(50, '[') + std::string(50, ']')));
  EXPECT_EQ(400, refused("gw/me/event/wan/x"));
  EXPECT_EQ(400, refused("gw/you/call/cms/0x4242"));
}

TEST_F(BridgeDown, ReservedTypesAreRefusedWhateverTheRulesSay) {
  msgbridge::DownRules rules;
  rules.calls.push_back({"cms", ORP_MSG_REBOOT, 100});
  const Request request =
      msgbridge::read_request({"gw/me/call/cms/reboot", ""}, kBase, rules, known_types());
  EXPECT_EQ(AnswerStatus::kForbidden, std::get<Refusal>(request).status);
}

TEST_F(BridgeDown, AnswersGoElsewhere) {
  EXPECT_TRUE(msgbridge::may_answer_to("gw/answers/7", kBase));
  EXPECT_TRUE(msgbridge::may_answer_to("gw/me2/x", kBase));
  for (const char *topic :
       {"", "gw/me", "gw/me/status", "gw/me/call/cms/0x4242", "a/#", "$SYS/x", "a\nb"}) {
    EXPECT_FALSE(msgbridge::may_answer_to(topic, kBase)) << topic;
  }
}

TEST_F(BridgeDown, AnswersAreJsonAndMasked) {
  EXPECT_EQ(
      R"({"status":200,"body":{"mac":"AA:**:**:DD:**:FF"}})",
      msgbridge::rest_answer_text(std::string("{\"mac\": \"AA:BB:CC:DD:EE:FF\"}\0", 29), true));
  EXPECT_EQ(R"({"status":200,"body":"10.1.2.3"})", msgbridge::rest_answer_text("10.1.2.3", false));
  EXPECT_EQ(R"({"status":200,"data":5})", msgbridge::call_answer_text(5, "", true));
  EXPECT_EQ(R"({"status":200,"data":5,"hex":"00ff"})",
            msgbridge::call_answer_text(5, std::string("\0\xff", 2), false));
  EXPECT_EQ(R"({"status":200,"data":5,"masked_bytes":2})",
            msgbridge::call_answer_text(5, std::string("\0\xff", 2), true));
}

// ---- JSON that would take too long ----

std::string with_members(size_t count, const std::string &value) {
  std::string text = "{";
  for (size_t i = 0; i < count; ++i) {
    text += (i > 0 ? ",\"" : "\"") + std::to_string(i) + "\":" + value;
  }
  return text + "}";
}

TEST(BridgeJson, IsBoundedInDepthAndMembers) {
  const auto takes = [](const std::string &text) {
    return msgbridge::parse_json(text).has_value();
  };
  const std::string deep = std::string(32, '[') + std::string(32, ']');
  EXPECT_TRUE(takes(deep));
  EXPECT_FALSE(takes("[" + deep + "]"));
  EXPECT_TRUE(takes("[" + deep.substr(1, 62) + "," + deep.substr(1, 62) + "]"))
      << "a level that has been left counts no more";
  EXPECT_TRUE(takes(with_members(1024, "7")));
  EXPECT_FALSE(takes(with_members(1025, "7")));
  EXPECT_FALSE(takes("[{}, " + with_members(1025, "{}") + "]"));
  EXPECT_TRUE(takes("[" + with_members(600, "{\"a\": 1}") + "," + with_members(600, "1") + "]"))
      << "each object for itself";
  EXPECT_TRUE(takes("[\"" + std::string(5000, ':') + std::string(50, '[') + "\\\":\"]"))
      << "texts hold what they like";
  std::string list = "[0";
  for (int i = 0; i < 5000; ++i) list += ",0";
  EXPECT_TRUE(takes(list + "]"));
}

TEST(BridgeJson, OfTooManyMembersIsNoEventAndNoRequest) {
  Upward upward = upward_of("[{}]");
  EXPECT_FALSE(upward.take(ORP_MSG_EVENT_WAN, event("Up", with_members(20'000, "1")), kNow));
  EXPECT_EQ(1u, upward.counters().unreadable);

  const Config config = config_of(R"("down": {"calls": [{"app": "cms", "type": "0x4242"}]})");
  const Request request = msgbridge::read_request(
      {"gw/me/call/cms/0x4242", with_members(5000, "1")}, kBase, config.down, known_types());
  EXPECT_EQ(AnswerStatus::kBadRequest, std::get<Refusal>(request).status);
}

// ---- What publishers and askers may send --------------------------------------------------------

TEST(BridgeUp, RulesCompareMembersOfEveryKind) {
  Upward upward = upward_of(
      R"([{"payload": {"n": "7", "up": "true", "list": "[1,*"}, "topic": "fits"}, {"event": "Any"}])");
  const auto take = [&upward](const std::string &payload) {
    return topic_of(upward.take(ORP_MSG_EVENT_WAN, event("Up", payload), kNow));
  };
  EXPECT_EQ("fits", take(R"({"n": 7, "up": true, "list": [1, 2]})"));
  EXPECT_EQ("fits", take(R"({"n": "7", "up": "true", "list": "[1,"})"));
  EXPECT_EQ("none", take(R"({"n": 7, "up": true})")) << "a member that is not there fits nothing";
  EXPECT_EQ("none", take(R"({"n": 7, "up": false, "list": [1, 2]})"));
  EXPECT_EQ("none", take(R"("n")"));
  EXPECT_EQ("none", topic_of(upward.take(ORP_MSG_EVENT_WAN, R"({"EventType": "Up"})", kNow)));
  EXPECT_EQ("none", topic_of(upward.take(ORP_MSG_EVENT_WAN, "[7]", kNow)));
}

TEST(BridgeUp, ATypeWithoutAModuleGoesByWhatTheEventSays) {
  constexpr uint32_t kUnknown = ORP_MSG_EVENT_BEHAVIOR + 1;
  Upward upward = upward_of(R"([{"topic": "{module}/{event}"}])");
  const auto take = [&upward](const char *text) {
    return topic_of(upward.take(kUnknown, text, kNow));
  };
  EXPECT_EQ("usb2/Plugged", take(R"({"Module": "usb2", "EventType": "Plugged"})"));
  EXPECT_EQ("-/5", take(R"({"EventType": 5})"));
  EXPECT_EQ("null/-", take(R"({"Module": null})"));
}

// The body of an event with one member, as it reaches subscribers of the types whose publishers'
// form stays.
std::string items_of(const char *type, const char *name, const char *value) {
  void *body = nullptr;
  EXPECT_EQ(0u, ORP_DMMSG_Builder(&body, "", 0));
  const auto append = [&body](const char *item, const char *text) {
    EXPECT_EQ(0u, ORP_DMMSG_AppendItem(&body, 0, item, text,
                                       static_cast<uint32_t>(std::strlen(text) + 1)));
  };
  append("EventType", type);
  append(name, value);
  std::array<uint32_t, 3> words;  // magic, capacity, free
  std::memcpy(words.data(), body, sizeof words);
  words[1] -= words[2];
  words[2] = 0;
  std::string sealed(static_cast<const char *>(body), words[1]);
  sealed.replace(0, sizeof words, reinterpret_cast<const char *>(words.data()), sizeof words);
  ORP_DMMSG_Free(body);
  return sealed;
}

TEST(BridgeUp, NamedItemsBecomeJson) {
  Upward upward = upward_of("[{}]");
  const std::string items = items_of("LowBattery", "serial", "ABC-1234567");
  const auto taken = upward.take(ORP_MSG_EVENT_DEVICE, items, kNow);
  ASSERT_TRUE(taken);
  EXPECT_EQ("gw/me/event/device/LowBattery", taken->topic);
  const Json json = Json::parse(taken->payload);
  EXPECT_EQ("device", json["Module"]);
  EXPECT_TRUE(json["Payload"].contains("serial"));

  for (const size_t cut : {size_t{1}, items.size() - 1}) {
    EXPECT_FALSE(upward.take(ORP_MSG_EVENT_DEVICE, items.substr(0, items.size() - cut), kNow))
        << "without its last bytes: " << cut;
  }
  EXPECT_EQ(2u, upward.counters().unreadable);
}

TEST_F(BridgeDown, PathsAndBodiesAreReadToTheLetter) {
  const Config wide = config_of(R"("down": {
      "rest": [{"path": "/*"}, {"path": "/x/**"}, {"method": "delete", "path": "/dev/led"},
               {"method": "put", "path": "/dev/led"}],
      "calls": [{"app": "cms", "type": "0x4242"}]})");
  const auto ask = [&wide](const std::string &topic, const std::string &payload) {
    return msgbridge::read_request({topic, payload}, kBase, wide.down, known_types());
  };
  const struct {
    std::string topic;
    const char *payload;
    int status;
    const char *why;
  } kRefused[] = {
      {"gw/me/rest/get/top", "", 404, "nobody can serve /top"},
      {"gw/me/rest/get/x/" + std::string(64, 'y') + "/z", "", 404, "nobody can serve"},
      {"gw/me/rest/get/dev/\x01", "", 400, "the path is none"},
      {"gw/me/rest/get", "", 404, "nobody can serve /"},
      {"gw/me/rest/put/dev/led", "", 400, "the body is no JSON"},
      {"gw/meander/call/cms/0x4242", "", 400, "not a topic of this gateway"},
      {"gw/me", "", 400, "not a topic of this gateway"},
      {"gw/me/call/cms/0x4242", R"({"data": "7"})", 400, "'data' is no number"},
      {"gw/me/call/cms/0x4242", R"({"data": 1.5})", 400, "'data' is no number"},
  };
  for (const auto &each : kRefused) {
    const Request request = ask(each.topic, each.payload);
    const auto *refusal = std::get_if<Refusal>(&request);
    ASSERT_NE(nullptr, refusal) << each.topic;
    EXPECT_EQ(each.status, static_cast<int>(refusal->status)) << each.topic;
    EXPECT_THAT(refusal->why, HasSubstr(each.why));
  }

  EXPECT_EQ(3u, std::get<RestRequest>(ask("gw/me/rest/delete/dev/led", "")).code)
      << "a query needs no body";
  const auto body_of = [&ask](const char *payload) {
    return std::get<CallRequest>(ask("gw/me/call/cms/0x4242", payload)).body;
  };
  EXPECT_EQ("", body_of(R"({"body": null})"));
  EXPECT_EQ(std::string("7") + '\0', body_of(R"({"body": 7})"));
  EXPECT_EQ(std::string(1, '\0'), body_of(R"({"body": ""})"));
}

}  // namespace
