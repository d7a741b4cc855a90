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

  const auto payload_of = [&upward](const std::string &sent) {
    const auto event = upward.take(ORP_MSG_EVENT_WAN, sent, kNow);
    return event ? Json::parse(event->payload)["Payload"].dump() : "nothing";
  };
  EXPECT_EQ(R"({"if":"eth0","n":7})", payload_of(event("LinkUp", R"({"if": "eth0", "n": 7})")));
  EXPECT_EQ(R"({"00:**:**:3C:**:5E":"online","00:**:**:3C:**:5E#1":"off","192.***.*.77":{"up":1}})",
            payload_of(event("Hosts", R"({"00:1A:2B:3C:4D:5E": "online",
                "00:FF:FF:3C:FF:5E": "off", "192.168.1.77": {"up": 1}})")));
  const auto twice =
      upward.take(ORP_MSG_EVENT_WAN,
                  R"({"Module": "wan", "EventType": "E", "Payload": {"password": "s"},
                                     "Payload": {"x": 1}})",
                  kNow);
  ASSERT_TRUE(twice);
  EXPECT_EQ(R"({"Module":"wan","EventType":"E","Payload":{"x":1}})", twice->payload);
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

  const Config config_ = config_of(R"("down": {
      "largest": 100,
      "rest": [{"path": "/*"}, {"path": "/dev/*"}, {"path": "/x/**"},
               {"method": "put", "path": "/dev/led"}, {"method": "delete", "path": "/dev/led"}],
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
  EXPECT_EQ(3u, std::get<RestRequest>(read("gw/me/rest/delete/dev/led")).code)
      << "a query needs no body";

  const Request by_number = read("gw/me/call/cms/0x4242", R"({"data": 7, "body": {"a": 1}})");
  const auto &call = std::get<CallRequest>(by_number);
  EXPECT_EQ("cms", call.app);
  EXPECT_EQ(7u, call.data);
  EXPECT_EQ(std::string("{\"a\":1}") + '\0', call.body);
  const auto body_of = [this](const char *payload) {
    return std::get<CallRequest>(read("gw/me/call/cms/16962", payload)).body;
  };
  EXPECT_EQ("", body_of(""));
  EXPECT_EQ("", body_of(R"({"body": null})"));
  EXPECT_EQ(std::string("7") + '\0', body_of(R"({"body": 7})"));
  EXPECT_EQ(std::string(1, '\0'), body_of(R"({"body": ""})"));
}

TEST_F(BridgeDown, RefusesTheRestInWords) {
  const std::string call = "gw/me/call/cms/0x4242", info = "gw/me/rest/get/dev/info";
  const struct {
    std::string topic;
    std::string payload;
    int status;
    const char *why;
  } kRefused[] = {
      {"gw/me/rest/get/etc/passwd", "", 403, "does not allow get /etc/passwd"},
      {"gw/me/rest/get/dev/a/b", "", 403, "does not allow"},
      {"gw/me/rest/post/dev/info", "{}", 403, "does not allow post"},
      {"gw/me/rest/steal/dev/info", "", 400, "'steal' is no method"},
      {"gw/me/rest/put/dev/led", "", 400, "the body is no JSON"},
      {info, "\xff", 400, "the body is not UTF-8"},
      {info, std::string("a\0b", 3), 400, "or holds a NUL"},
      {info, std::string(101, 'x'), 413, "the body has 101 bytes, 100 is the most"},
      {"gw/me/rest/get/dev/\x01", "", 400, "the path is none"},
      {"gw/me/rest/get/dev/" + std::string(64, 'x'), "", 404, "nobody can serve"},
      {"gw/me/rest/get/dev/", "", 404, "nobody can serve"},
      {"gw/me/rest/get/top", "", 404, "nobody can serve /top"},
      {"gw/me/rest/get/x/" + std::string(64, 'y') + "/z", "", 404, "nobody can serve"},
      {"gw/me/call/cms/0x4243", "", 403, "does not allow 0x4243 to cms"},
      {"gw/me/call/web/0x4242", "", 403, "does not allow 0x4242 to web"},
      {call, "[]", 400, "no JSON object"},
      {call, R"({"data": -1})", 400, "'data' is no number"},
      {call, R"({"data": 4294967296})", 400, "'data' is no number"},
      {call, R"({"data": "7"})", 400, "'data' is no number"},
      {call, R"({"body": "a\u0000b"})", 400, "'body' holds a NUL"},
      {call, R"({"dada": 1})", 400, "'dada' is not known"},
      {call, std::string(50, '[') + std::string(50, ']'), 400, "goes too deep"},
      {"gw/me/event/wan/x", "", 400, "requests are 'rest' or 'call'"},
      {"gw/you/call/cms/0x4242", "", 400, "not a topic of this gateway"},
      {"gw/meander/call/cms/0x4242", "", 400, "not a topic of this gateway"},
  };
  for (const auto &each : kRefused) {
    const Request request = read(each.topic, each.payload);
    const auto *refusal = std::get_if<Refusal>(&request);
    ASSERT_NE(nullptr, refusal) << each.topic;
    EXPECT_EQ(each.status, static_cast<int>(refusal->status)) << each.topic;
    EXPECT_THAT(refusal->why, HasSubstr(each.why));
  }
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

}  // namespace
