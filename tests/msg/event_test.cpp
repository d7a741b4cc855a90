#include "msgapi/event.h"

#include <cJSON.h>
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "msg/dm_message.h"
#include "msgapi/dmmsg.h"
#include "support/allocation.h"
#include "support/message_block.h"

namespace {

using msgapi::msg::DmBody;

constexpr uint32_t kWan = 0x2DA65;
constexpr uint32_t kTessel = 0x2DA05;

struct DeleteJson {
  void operator()(cJSON *json) const { cJSON_Delete(json); }
};
using Message = test::MessageBlock;
using Json = std::unique_ptr<cJSON, DeleteJson>;

struct Item {
  const char *name;
  std::string value;
};

// A sealed DM event in a block that ends where the message ends.
Message dm_event(uint32_t type, const std::vector<Item> &items) {
  void *body;
  EXPECT_EQ(0u, ORP_DMMSG_Builder(&body, "", 0));
  for (const Item &item : items) {
    EXPECT_EQ(0u, ORP_DMMSG_AppendItem(&body, 0, item.name, item.value.data(),
                                       static_cast<uint32_t>(item.value.size())));
  }
  auto *dm = static_cast<DmBody *>(body);
  dm->capacity -= dm->free;
  dm->free = 0;
  ORP_MSG_HEADER_ST *head = ORP_MSG_GetMsgHead(body);
  head->ulMsgType = type;
  head->ulDataLen = dm->capacity;
  Message exact(ORP_MSG_Duplicate(head));
  ORP_DMMSG_Free(body);
  return exact;
}

std::string text(const char *value) {
  return {value, std::strlen(value) + 1};
}

struct Content {
  uint32_t status;
  std::string text;
};

Content content_of(const Message &message) {
  char *text = static_cast<char *>(std::malloc(8));  // an earlier text is freed
  uint32_t length = 0;
  const uint32_t status = ORP_EVT_GetEventContent(message.get(), &text, &length);
  EXPECT_EQ(status == 0, text != nullptr);
  Content content = {status, text == nullptr ? "" : std::string(text)};
  EXPECT_EQ(content.text.size(), length);
  std::free(text);
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
  const struct {
    uint32_t type;
    const char *name;
  } kRows[] = {{0x2DA65, "wan"},        {0x2DA66, "lan"},           {0x2DA67, "wlan"},
               {0x2DA68, "dhcp"},       {0x2DA69, "web"},           {0x2DA01, "device"},
               {0x2DA02, "monitor"},    {0x2DA03, "plugin_queues"}, {0x2DA04, "event_tracking"},
               {0x2DA6A, "webconsole"}, {0x2DA6B, "online_update"}, {0x2DA6C, "usb"},
               {0x2DA05, "tessel"},     {0x2DA6D, "behavior"},      {0x2DA06, "autoUpdate"},
               {0x2DA07, "network"},    {0x2DA08, "tesselproxy"},   {0x2DA09, "feed"},
               {0x2DA0A, "signal"}};
  for (const auto &row : kRows) {
    EXPECT_STREQ(row.name, ORP_EVT_GetEventModuleNameByEventType(row.type));
    EXPECT_EQ(row.type, ORP_EVT_GetMsgTypeByEventModuleName(row.name));
  }
  EXPECT_EQ(nullptr, ORP_EVT_GetEventModuleNameByEventType(0x2DA00));
  EXPECT_EQ(0x2DA00u, ORP_EVT_GetMsgTypeByEventModuleName("WLAN"));
  EXPECT_EQ(0x2DA00u, ORP_EVT_GetMsgTypeByEventModuleName(nullptr));
}

TEST(EventContent, IsTheWholeEventAsIndentedJson) {
  const Message event = dm_event(
      kWan, {{"EventType", text("A")}, {"N", text("V")}, {"n2", "unterminated"}, {"q", "a\"b\0c"}});

  const Content content = content_of(event);

  EXPECT_EQ(0u, content.status);
  EXPECT_EQ(
      "{\"Method\":\"notify\",\"Module\":\"wan\",\"EventType\":\"A\",\"Timestamp\":\"T\","
      "\"Payload\":{\"N\":\"V\",\"n2\":\"unterminated\",\"q\":\"a\\\"b\"}}",
      normal(content.text));
  EXPECT_NE(std::string::npos, content.text.find("\n\t\"Method\":\t\"notify\""));
}

TEST(EventContent, KeepsNumbersAsTheyWereWritten) {
  const Message event =
      dm_event(kWan, {{"EventType", text("1")}, {"n", text("12345678901234567890.10")}});
  EXPECT_NE(std::string::npos, content_of(event).text.find("\"n\":\t\"12345678901234567890.10\""));
}

TEST(EventContent, TakesTheLastEventTypeAndAnyOrder) {
  const Message event =
      dm_event(kWan, {{"N", text("V")}, {"EventType", text("A")}, {"EventType", text("B")}});
  EXPECT_NE(std::string::npos, content_of(event).text.find("\"EventType\":\t\"B\""));
}

TEST(EventContent, RefusesWhatIsNoWholeEvent) {
  const Item type = {"EventType", text("A")}, item = {"N", text("V")};
  EXPECT_EQ(1u, content_of(dm_event(kWan, {type})).status) << "nothing but the type";
  EXPECT_EQ(1u, content_of(dm_event(kWan, {item})).status) << "no type";
  EXPECT_EQ(1u, content_of(dm_event(kWan, {})).status);
  EXPECT_EQ(1u, content_of(dm_event(0x2DA64, {type, item})).status) << "no module";
  EXPECT_EQ(1u, content_of(dm_event(kWan, {type, item, {"x", ""}})).status) << "no value";
  EXPECT_EQ(1u, content_of(dm_event(kWan, {type, item, {nullptr, "x"}})).status) << "no name";
  EXPECT_EQ(1u, content_of(dm_event(kWan, {{"EventType", ""}, item})).status);

  Message event = dm_event(kWan, {type, item});
  --event->ulDataLen;
  EXPECT_EQ(1u, content_of(event).status) << "not all of it";
  event->ulDataLen = 23;
  EXPECT_EQ(1u, content_of(event).status) << "no head";
  event = dm_event(kWan, {type, item});
  reinterpret_cast<char *>(event.get() + 1)[0] = 0;
  EXPECT_EQ(1u, content_of(event).status) << "no magic";
  EXPECT_EQ(1u, ORP_EVT_GetEventContent(event.get(), nullptr, nullptr));
  char untouched[] = "text";
  char *in_out = untouched;
  EXPECT_EQ(1u, ORP_EVT_GetEventContent(nullptr, &in_out, nullptr));
  EXPECT_EQ(untouched, in_out);
}

// cJSON's own allocations are failed too.
void *tested_malloc(size_t size) {
  return msgapi::plain_alloc(size);
}

TEST(EventContent, LeavesNothingBehindWithoutMemory) {
  const Message event = dm_event(kWan, {{"EventType", text("A")}, {"N", "V"}});
  cJSON_Hooks hooks = {tested_malloc, std::free};
  cJSON_InitHooks(&hooks);

  const uint32_t failures = test::fail_every_allocation([&event] {
    char *json = nullptr;
    const uint32_t status = ORP_EVT_GetEventContent(event.get(), &json, nullptr);
    EXPECT_EQ(status == 0, json != nullptr);
    std::free(json);
    return status == 0;
  });

  EXPECT_GT(failures, 15u);
  cJSON_InitHooks(nullptr);
}

TEST(EventJson, IsBuiltInSteps) {
  cJSON *object = cJSON_CreateObject();  // is deleted
  cJSON *payload = nullptr;
  EXPECT_EQ(0u, ORP_EVT_JsonBeginProc(&object, "lan", "E"));
  EXPECT_EQ(0u, ORP_EVT_BuiderJsonProc(&payload, "a", "1"));
  EXPECT_EQ(0u, ORP_GenerateJsonItem(payload, "b", "2"));
  void *in_out = object;
  EXPECT_EQ(0u, ORP_EVT_EndJsonEndProc(&in_out, payload));

  EXPECT_EQ(
      "{\"Method\":\"notify\",\"Module\":\"lan\",\"EventType\":\"E\",\"Timestamp\":\"T\","
      "\"Payload\":{\"a\":\"1\",\"b\":\"2\"}}",
      normal(static_cast<char *>(in_out)));
  std::free(in_out);
}

TEST(EventJson, RefusesMissingArguments) {
  cJSON *object = nullptr;
  void *none = nullptr;
  const Json payload(cJSON_CreateObject());
  EXPECT_EQ(1u, ORP_EVT_JsonBeginProc(nullptr, "m", "e"));
  EXPECT_EQ(1u, ORP_EVT_JsonBeginProc(&object, nullptr, "e"));
  EXPECT_EQ(1u, ORP_EVT_JsonBeginProc(&object, "m", nullptr));
  EXPECT_EQ(1u, ORP_EVT_BuiderJsonProc(nullptr, "n", "v"));
  EXPECT_EQ(1u, ORP_EVT_BuiderJsonProc(&object, nullptr, "v"));
  EXPECT_EQ(1u, ORP_EVT_BuiderJsonProc(&object, "n", nullptr));
  EXPECT_EQ(nullptr, object);
  EXPECT_EQ(1u, ORP_GenerateJsonItem(nullptr, "n", "v"));
  EXPECT_EQ(1u, ORP_GenerateJsonItem(payload.get(), nullptr, "v"));
  EXPECT_EQ(1u, ORP_GenerateJsonItem(payload.get(), "n", nullptr));
  EXPECT_EQ(1u, ORP_EVT_EndJsonEndProc(&none, payload.get()));
  EXPECT_EQ(1u, ORP_EVT_EndJsonEndProc(nullptr, payload.get()));
  void *in_out = payload.get();
  EXPECT_EQ(1u, ORP_EVT_EndJsonEndProc(&in_out, nullptr));
}

TEST(Publish, SendsDmEventsTowardMic) {
  test::Connection connection("self");
  ORP_UTIL_NV_PAIR_ST third = {nullptr, const_cast<char *>("c"), const_cast<char *>("3")};
  ORP_UTIL_NV_PAIR_ST second = {&third, const_cast<char *>("b"), nullptr};
  ORP_UTIL_NV_PAIR_ST first = {&second, const_cast<char *>("a"), const_cast<char *>("1")};

  EXPECT_EQ(0u, ORP_EVT_PublishEvent(kWan, "Up", "name", "value"));
  EXPECT_EQ(0u, ORP_EVT_PublishEvent(kWan, "Up", "name", nullptr));
  EXPECT_EQ(0u, ORP_EVT_PublishEventWithNVPair(kWan, "Up", &first));
  EXPECT_EQ(0u, ORP_EVT_PublishEventWithNVPair(kWan, "Up", nullptr));
  EXPECT_EQ(1u, ORP_EVT_PublishEvent(kWan, nullptr, "name", "value"));
  EXPECT_EQ(1u, ORP_EVT_PublishEventWithNVPair(kWan, nullptr, &first));

  const Item type = {"EventType", text("Up")};
  for (const std::vector<Item> &items : {std::vector<Item>{type, {"name", text("value")}},
                                         {type},
                                         {type, {"a", text("1")}, {"c", text("3")}},
                                         {type}}) {
    const test::Frame frame = connection.peer.read();
    EXPECT_EQ("mic", frame.to());
    EXPECT_EQ(kWan, frame.type());
    const Message expected = dm_event(kWan, items);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(expected.get() + 1), expected->ulDataLen),
              frame.body);
  }
}

TEST(Publish, ReportsWhatFailed) {
  EXPECT_EQ(ORP_ERR_NOT_CONNECTED, ORP_EVT_PublishEvent(kWan, "Up", "n", "v"));
  EXPECT_EQ(ORP_ERR_NOT_CONNECTED, ORP_EVT_SubscribeAllEvent());
  msgapi::fail_allocation(1);
  EXPECT_EQ(ORP_DMMSG_ERR_MEMORY, ORP_EVT_PublishEvent(kWan, "Up", "n", "v"));
  msgapi::fail_allocation(2);
  EXPECT_EQ(ORP_DMMSG_ERR_GROW,
            ORP_EVT_PublishEvent(kWan, "Up", "n", std::string(2000, 'v').c_str()));
  msgapi::fail_allocation(0);
}

TEST(Publish, SendsJsonOnOneLineToTheServer) {
  test::Connection connection("self");
  const Json payload(cJSON_Parse("{\"list\": [1.50, {\"deep\": null}]}"));

  EXPECT_EQ(0u, ORP_EVT_PublishEventWithJson("usb", "Plug", 0x2DA6C, payload.get()));
  EXPECT_EQ(1u, ORP_EVT_PublishEventWithJson(nullptr, "Plug", 0x2DA6C, payload.get()));
  EXPECT_EQ(1u, ORP_EVT_PublishEventWithJson("usb", nullptr, 0x2DA6C, payload.get()));
  EXPECT_EQ(1u, ORP_EVT_PublishEventWithJson("usb", "Plug", 0x2DA6C, nullptr));
  EXPECT_EQ(0u, ORP_EVT_SubscribeAllEvent());

  const test::Frame event = connection.peer.read();
  EXPECT_EQ("", event.to());
  EXPECT_EQ(0x2DA6Cu, event.type());
  EXPECT_EQ('\0', event.body.back());
  EXPECT_EQ(std::string::npos, event.body.find('\n'));
  EXPECT_EQ(
      "{\"Method\":\"notify\",\"Module\":\"usb\",\"EventType\":\"Plug\",\"Timestamp\":\"T\","
      "\"Payload\":{\"list\":[1.5,{\"deep\":null}]}}",
      normal(event.body.c_str()));
  const test::Frame subscription = connection.peer.read();
  EXPECT_EQ(ORP_MSG_SUBSCRIBE, subscription.type());
  EXPECT_EQ(0x2DA00u, subscription.header.ulMsgData);
  EXPECT_EQ("", subscription.body);
}

// What the callbacks saw, in order.
std::vector<std::string> g_seen;

template <char kName, uint32_t kStatus>
uint32_t callback(uint32_t type, const void *data, uint32_t length) {
  std::string seen = std::string(1, kName) + std::to_string(type & 0xFF) + ":";
  if (data != nullptr) seen += {static_cast<const char *>(data), length};
  g_seen.push_back(seen);
  return kStatus;
}

TEST(Delivery, CallsThoseOfTheTypeInOrderAndThenTheDefault) {
  ORP_EVT_SubscribeSingelEventCallBack(kTessel, callback<'a', 0>);
  ORP_EVT_SubscribeSingelEventCallBack(0x2DA06, callback<'x', 0>);
  ORP_EVT_SubscribeSingelEventCallBack(kTessel, callback<'b', 0x1F>);
  ORP_EVT_SubscribeSingelEventCallBack(0x2D9FF, callback<'y', 0>);
  ORP_EVT_SubscribeSingelEventCallBack(kTessel, nullptr);
  ORP_EVT_SubscribeAllEventCallBack(callback<'d', 2>);
  const Message event = test::make_block({.type = kTessel, .body = "raw\n"});

  testing::internal::CaptureStdout();
  ORP_Evt_SubMsgProc(event.get());
  event->ulDataLen = 0;
  ORP_Evt_SubMsgProc(event.get());
  ORP_Evt_SubMsgProc(nullptr);
  EXPECT_EQ(
      "Do Event CallBack Error 1fDo Default Event CallBack Error 2"
      "Do Event CallBack Error 1fDo Default Event CallBack Error 2",
      testing::internal::GetCapturedStdout());
  EXPECT_EQ((std::vector<std::string>{"a5:raw\n", "b5:raw\n", "d5:raw\n", "a5:", "b5:", "d5:"}),
            g_seen);
}

TEST(Delivery, ConvertsTheUpperTypes) {
  ORP_EVT_SubscribeSingelEventCallBack(kWan, callback<'a', 0>);
  const Message event = dm_event(kWan, {{"EventType", text("A")}, {"N", text("V")}});

  ORP_Evt_SubMsgProc(event.get());
  ORP_Evt_SubMsgProc(dm_event(kWan, {{"EventType", text("A")}}).get());
  ORP_Evt_SubMsgProc(dm_event(0x2DA00, {{"EventType", text("A")}, {"N", text("V")}}).get());
  ORP_Evt_SubMsgProc(dm_event(0x2DA64, {{"EventType", text("A")}, {"N", text("V")}}).get());

  ASSERT_EQ(1u, g_seen.size());
  EXPECT_EQ("a101:" + content_of(event).text.substr(0, 20), g_seen[0].substr(0, 25));
  EXPECT_EQ('}', g_seen[0].back()) << "the length does not count the NUL";
}

TEST(Delivery, RawTypesEndBelow0x2DA64) {
  ORP_EVT_SubscribeAllEventCallBack(callback<'d', 0>);
  for (uint32_t type : {0x2DA01u, 0x2DA63u, 0x2DA64u, 0x2DA00u, 0x2DAFFu}) {
    ORP_Evt_SubMsgProc(test::make_block({.type = type}).get());
  }
  EXPECT_EQ((std::vector<std::string>{"d1:", "d99:"}), g_seen);
}

TEST(Delivery, ForgetsACallbackThatThereIsNoMemoryFor) {
  msgapi::fail_allocation(1);
  ORP_EVT_SubscribeSingelEventCallBack(kTessel, callback<'a', 0>);
  ORP_Evt_SubMsgProc(test::make_block({.type = kTessel}).get());
  EXPECT_TRUE(g_seen.empty());
}

TEST(EventBody, IsBehindTheHeader) {
  ORP_MSG_HEADER_ST message = {};
  void *body = nullptr;
  ORP_EVT_GetEventBody(&message, &body);
  EXPECT_EQ(&message + 1, body);
  ORP_EVT_GetEventBody(nullptr, &body);
  EXPECT_EQ(&message + 1, body);
  ORP_EVT_GetEventBody(&message, nullptr);
}

}  // namespace
