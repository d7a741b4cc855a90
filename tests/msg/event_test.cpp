#include "msgapi/event.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "msg/dm_message.h"
#include "msg/event_json.h"
#include "msgapi/dmmsg.h"
#include "support/message_peer.h"

namespace {

using msgapi::msg::DmBody;

using Message = test::MessageBlock;
using msgapi::msg::Json;

struct Item {
  const char *name;
  std::string value;
};

std::string text(const char *value) {
  return {value, std::strlen(value) + 1};
}
const Item kType = {"EventType", text("A")}, kItem = {"N", text("V")};

// The sealed body of a DM event.
std::string dm_body(const std::vector<Item> &items) {
  void *body;
  EXPECT_EQ(0u, ORP_DMMSG_Builder(&body, "", 0));
  for (const Item &item : items) {
    EXPECT_EQ(0u, ORP_DMMSG_AppendItem(&body, 0, item.name, item.value.data(),
                                       static_cast<uint32_t>(item.value.size())));
  }
  auto *dm = static_cast<DmBody *>(body);
  dm->capacity -= dm->free;
  dm->free = 0;
  const std::string sealed(static_cast<char *>(body), dm->capacity);
  ORP_DMMSG_Free(body);
  return sealed;
}

Message dm_event(uint32_t type, const std::vector<Item> &items) {
  return test::make_block({.type = type, .body = dm_body(items)});
}

// The text of the event, or "" when it is refused.
std::string content_of(const Message &message) {
  char *text = static_cast<char *>(std::malloc(8));  // an earlier text is freed
  uint32_t length = 0;
  const uint32_t status = ORP_EVT_GetEventContent(message.get(), &text, &length);
  const msgapi::Owned<char> owner(text);
  EXPECT_EQ(status == 0 ? 0u : 1u, status);
  EXPECT_EQ(status == 0, text != nullptr);
  const std::string content = text == nullptr ? "" : text;
  EXPECT_EQ(content.size(), length);
  return content;
}

// The object with its time stamp checked and replaced by "T".
std::string normal(const std::string &json_text) {
  const Json json(cJSON_Parse(json_text.c_str()));
  if (!json) return "no JSON";
  const char *stamp = cJSON_GetStringValue(cJSON_GetObjectItem(json.get(), "Timestamp"));
  if (stamp == nullptr || std::strlen(stamp) != 20 || stamp[19] != 'Z') return "no time stamp";
  cJSON_ReplaceItemInObject(json.get(), "Timestamp", cJSON_CreateString("T"));
  char *printed = cJSON_PrintUnformatted(json.get());
  const std::string result = printed;
  cJSON_free(printed);
  return result;
}

TEST(EventModules, MapTypesAndNames) {
  std::string modules;
  for (uint32_t type = ORP_MSG_ALL_EVENTS; type <= 0x2DAFF; ++type) {
    const char *name = ORP_EVT_GetEventModuleNameByEventType(type);
    if (name == nullptr) continue;
    modules += std::to_string(type - ORP_MSG_ALL_EVENTS) + name + " ";
    EXPECT_EQ(type, ORP_EVT_GetMsgTypeByEventModuleName(name));
  }
  EXPECT_EQ(
      "1device 2monitor 3plugin_queues 4event_tracking 5tessel 6autoUpdate 7network 8tesselproxy "
      "9feed 10signal 101wan 102lan 103wlan 104dhcp 105web 106webconsole 107online_update 108usb "
      "109behavior ",
      modules);
  EXPECT_EQ(ORP_MSG_ALL_EVENTS, ORP_EVT_GetMsgTypeByEventModuleName("WLAN"));
  EXPECT_EQ(ORP_MSG_ALL_EVENTS, ORP_EVT_GetMsgTypeByEventModuleName(nullptr));
}

TEST(EventContent, IsTheWholeEventAsIndentedJson) {
  // The last type counts, wherever it is among the items, and numbers stay as they were written.
  const std::vector<Item> items = {kType,
                                   kItem,
                                   {"n2", "unterminated"},
                                   {"q", std::string("a\"b\0c", 5)},
                                   {"EventType", text("B")},
                                   {"number", text("12345678901234567890.10")}};
  const std::string content = content_of(dm_event(ORP_MSG_EVENT_WAN, items));

  EXPECT_EQ(
      "{\"Method\":\"notify\",\"Module\":\"wan\",\"EventType\":\"B\",\"Timestamp\":\"T\","
      "\"Payload\":{\"N\":\"V\",\"n2\":\"unterminated\",\"q\":\"a\\\"b\","
      "\"number\":\"12345678901234567890.10\"}}",
      normal(content));
  EXPECT_NE(std::string::npos, content.find("\n\t\"Method\":\t\"notify\""));
}

TEST(EventContent, RefusesWhatIsNoWholeEvent) {
  EXPECT_EQ("", content_of(dm_event(ORP_MSG_EVENT_WAN, {kType}))) << "nothing but the type";
  EXPECT_EQ("", content_of(dm_event(ORP_MSG_EVENT_WAN, {kItem}))) << "no type";
  EXPECT_EQ("", content_of(dm_event(ORP_MSG_EVENT_WAN, {})));
  EXPECT_EQ("", content_of(dm_event(ORP_MSG_FIRST_JSON_EVENT, {kType, kItem}))) << "no module";
  EXPECT_EQ("", content_of(dm_event(ORP_MSG_EVENT_WAN, {kType, kItem, {"x", ""}}))) << "no value";
  EXPECT_EQ("", content_of(dm_event(ORP_MSG_EVENT_WAN, {kType, kItem, {nullptr, "x"}})))
      << "no name";
  EXPECT_EQ("", content_of(dm_event(ORP_MSG_EVENT_WAN, {{"EventType", ""}, kItem})));

  Message event = dm_event(ORP_MSG_EVENT_WAN, {kType, kItem});
  --event->ulDataLen;
  EXPECT_EQ("", content_of(event)) << "not all of it";
  event->ulDataLen = 23;
  EXPECT_EQ("", content_of(event)) << "no head";
  event = dm_event(ORP_MSG_EVENT_WAN, {kType, kItem});
  reinterpret_cast<char *>(event.get() + 1)[0] = 0;
  EXPECT_EQ("", content_of(event)) << "no magic";
  EXPECT_EQ(1u, ORP_EVT_GetEventContent(event.get(), nullptr, nullptr));
  for (const Message &refused : {std::move(event), Message()}) {
    char *in_out = ::strdup("earlier");
    uint32_t length = 77;
    EXPECT_EQ(1u, ORP_EVT_GetEventContent(refused.get(), &in_out, &length));
    EXPECT_EQ(nullptr, in_out);
    EXPECT_EQ(0u, length);
  }
}

TEST(EventJson, IsBuiltInSteps) {
  cJSON *object = cJSON_CreateObject();  // is deleted
  cJSON *payload = nullptr;
  EXPECT_EQ(0u, ORP_EVT_JsonBeginProc(&object, "lan", "E"));
  EXPECT_EQ(1u, ORP_EVT_BuiderJsonProc(&payload, "n", nullptr));
  EXPECT_EQ(0u, ORP_EVT_BuiderJsonProc(&payload, "a", "1"));
  EXPECT_EQ(0u, ORP_GenerateJsonItem(payload, "b", "2"));
  void *in_out = nullptr;
  EXPECT_EQ(1u, ORP_EVT_EndJsonEndProc(&in_out, payload)) << "which stays the caller's";
  in_out = object;
  EXPECT_EQ(1u, ORP_EVT_EndJsonEndProc(&in_out, nullptr));
  EXPECT_EQ(0u, ORP_EVT_EndJsonEndProc(&in_out, payload));

  EXPECT_EQ(
      "{\"Method\":\"notify\",\"Module\":\"lan\",\"EventType\":\"E\",\"Timestamp\":\"T\","
      "\"Payload\":{\"a\":\"1\",\"b\":\"2\"}}",
      normal(static_cast<char *>(in_out)));
  std::free(in_out);
}

TEST(Publish, SendsDmEventsTowardMic) {
  EXPECT_EQ(ORP_ERR_NOT_CONNECTED, ORP_EVT_PublishEvent(ORP_MSG_EVENT_WAN, "Up", "n", "v"));
  test::Connection connection("self");
  ORP_UTIL_NV_PAIR_ST third = {nullptr, const_cast<char *>("c"), const_cast<char *>("3")};
  ORP_UTIL_NV_PAIR_ST second = {&third, const_cast<char *>("b"), nullptr};
  ORP_UTIL_NV_PAIR_ST first = {&second, const_cast<char *>("a"), const_cast<char *>("1")};

  EXPECT_EQ(0u, ORP_EVT_PublishEvent(ORP_MSG_EVENT_WAN, "Up", "name", "value"));
  EXPECT_EQ(0u, ORP_EVT_PublishEvent(ORP_MSG_EVENT_WAN, "Up", "name", nullptr));
  EXPECT_EQ(0u, ORP_EVT_PublishEventWithNVPair(ORP_MSG_EVENT_WAN, "Up", &first));
  EXPECT_EQ(0u, ORP_EVT_PublishEventWithNVPair(ORP_MSG_EVENT_WAN, "Up", nullptr));
  EXPECT_EQ(1u, ORP_EVT_PublishEventWithNVPair(ORP_MSG_EVENT_WAN, nullptr, &first));

  const Item type = {"EventType", text("Up")};
  for (const std::vector<Item> &items : {std::vector<Item>{type, {"name", text("value")}},
                                         {type},
                                         {type, {"a", text("1")}, {"c", text("3")}},
                                         {type}}) {
    connection.peer.expect({.type = ORP_MSG_EVENT_WAN, .to = "mic", .body = dm_body(items)});
  }
}

TEST(Publish, SendsJsonOnOneLineToTheServer) {
  test::Connection connection("self");
  const Json payload(cJSON_Parse("{\"list\": [1.50, {\"deep\": null}]}"));

  EXPECT_EQ(0u, ORP_EVT_PublishEventWithJson("usb", "Plug", ORP_MSG_EVENT_USB, payload.get()));
  EXPECT_EQ(1u, ORP_EVT_PublishEventWithJson(nullptr, "Plug", ORP_MSG_EVENT_USB, payload.get()));
  EXPECT_EQ(1u, ORP_EVT_PublishEventWithJson("usb", "Plug", ORP_MSG_EVENT_USB, nullptr));
  EXPECT_EQ(0u, ORP_EVT_SubscribeAllEvent());

  test::Frame event = connection.peer.read();
  EXPECT_EQ('\0', event.body.back());
  EXPECT_EQ(std::string::npos, event.body.find('\n'));
  EXPECT_EQ(
      "{\"Method\":\"notify\",\"Module\":\"usb\",\"EventType\":\"Plug\",\"Timestamp\":\"T\","
      "\"Payload\":{\"list\":[1.5,{\"deep\":null}]}}",
      normal(event.body.c_str()));
  event.body.clear();
  EXPECT_EQ((test::Frame{.type = ORP_MSG_EVENT_USB, .from = "self"}), event);
  connection.peer.expect({.type = ORP_MSG_SUBSCRIBE, .data = ORP_MSG_ALL_EVENTS});
}

// What the callbacks got, in order.
std::vector<std::string> g_seen;

template <char kName, uint32_t kStatus>
uint32_t callback(uint32_t type, const void *data, uint32_t length) {
  const std::string seen = std::string(1, kName) + std::to_string(type & 0xFF) + ":";
  g_seen.push_back(seen + std::string(static_cast<const char *>(data), length));
  return kStatus;
}

TEST(Delivery, CallsThoseOfTheTypeInOrderAndThenTheDefault) {
  msgapi::fail_allocation(1);
  ORP_EVT_SubscribeSingelEventCallBack(ORP_MSG_EVENT_TESSEL, callback<'m', 0>);  // is forgotten
  ORP_EVT_SubscribeSingelEventCallBack(ORP_MSG_EVENT_TESSEL, callback<'a', 0>);
  ORP_EVT_SubscribeSingelEventCallBack(ORP_MSG_EVENT_TESSEL, callback<'b', 0x1F>);
  ORP_EVT_SubscribeSingelEventCallBack(0x2D9FF, callback<'y', 0>);
  ORP_EVT_SubscribeSingelEventCallBack(ORP_MSG_EVENT_TESSEL, nullptr);
  ORP_EVT_SubscribeAllEventCallBack(callback<'d', 2>);
  const Message event = test::make_block({.type = ORP_MSG_EVENT_TESSEL, .body = "raw\n"});

  testing::internal::CaptureStdout();
  ORP_Evt_SubMsgProc(event.get());
  ORP_Evt_SubMsgProc(nullptr);
  EXPECT_EQ("Do Event CallBack Error 1fDo Default Event CallBack Error 2",
            testing::internal::GetCapturedStdout());
  EXPECT_EQ((std::vector<std::string>{"a5:raw\n", "b5:raw\n", "d5:raw\n"}), g_seen);
}

TEST(Delivery, ConvertsTheUpperTypes) {
  ORP_EVT_SubscribeAllEventCallBack(callback<'d', 0>);
  for (uint32_t type : {ORP_MSG_EVENT_DEVICE, 0x2DA63u, ORP_MSG_FIRST_JSON_EVENT,
                        ORP_MSG_ALL_EVENTS, 0x2DAFFu, ORP_MSG_EVENT_WAN}) {
    ORP_Evt_SubMsgProc(dm_event(type, {kType, kItem}).get());
  }
  ORP_Evt_SubMsgProc(dm_event(ORP_MSG_EVENT_WAN, {kType}).get());

  ASSERT_EQ(3u, g_seen.size());
  EXPECT_EQ("d1:" + dm_body({kType, kItem}), g_seen[0]);
  EXPECT_EQ("d99:" + dm_body({kType, kItem}), g_seen[1]);
  EXPECT_EQ("d101:{\n\t\"Method\"", g_seen[2].substr(0, 16));
  EXPECT_EQ('}', g_seen[2].back()) << "the length does not count the NUL";
}

}  // namespace
