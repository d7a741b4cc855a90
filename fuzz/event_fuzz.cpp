// DM bodies from other processes: walking them, adding to them, and converting them into JSON.
//
// The first byte chooses the event type and whether the body's head is made to fit its length, so
// that most inputs reach the items.

#include <cJSON.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "msg/dm_message.h"
#include "msgapi/dmmsg.h"
#include "msgapi/event.h"

namespace {

struct Free {
  void operator()(void *block) const { std::free(block); }
};
using Message = std::unique_ptr<ORP_MSG_HEADER_ST, Free>;

void require(bool condition) {
  if (!condition) std::abort();
}

// Makes a message in a block that ends with `tail` zeros behind it.
Message make_message(const uint8_t *data, size_t size, uint8_t choice, size_t tail = 0) {
  Message message(
      static_cast<ORP_MSG_HEADER_ST *>(std::calloc(1, ORP_MSG_HEADER_SIZE + size + tail)));
  *message = {};
  message->ulMsgType = ORP_MSG_ALL_EVENTS + (choice & 0x7F);
  message->ulDataLen = static_cast<uint32_t>(size);
  if (size > 0) std::memcpy(message.get() + 1, data, size);
  if ((choice & 0x80) != 0 && size >= sizeof(msgapi::msg::DmBody)) {
    auto *dm = reinterpret_cast<msgapi::msg::DmBody *>(message.get() + 1);
    dm->magic = ORP_DMMSG_MAGIC;
    dm->free %= 4096;
    dm->capacity = static_cast<uint32_t>(size) + dm->free;
  }
  return message;
}

// Makes a message as the library hands it to the application.
Message receive(const uint8_t *data, size_t size, uint8_t choice) {
  Message message = make_message(data, size, choice, msgapi::kZeroTail);
  msgapi::msg::hold_to_length(message.get());
  return message;
}

// Touches every byte.
uint32_t take(uint32_t, const void *data, uint32_t length) {
  const auto *bytes = static_cast<const char *>(data);
  uint32_t sum = 0;
  for (uint32_t i = 0; i < length; ++i) sum += static_cast<unsigned char>(bytes[i]);
  return sum == 0xFFFFFFFF ? 1 : 0;
}

void walk(const ORP_MSG_HEADER_ST *message) {
  const auto *dm = reinterpret_cast<const msgapi::msg::DmBody *>(message + 1);
  const char *start = reinterpret_cast<const char *>(dm);
  const uint64_t used = dm->capacity - dm->free;
  const char *end = start + used + 12;
  ORP_DMMSG_ITEM_ST item;
  const void *cursor = nullptr;
  uint32_t count = 0;
  while (ORP_DMMSG_GetItemEx(start, &item, &cursor) == 0) {
    ++count;
    require(count * 12 <= used);
    require((item.pValue == nullptr) == (item.ulValueLen == 0));
    if (item.pcName != nullptr) require(std::strlen(item.pcName) < item.ulNameLen);
    const auto *value = static_cast<const char *>(item.pValue);
    if (value == nullptr) continue;
    require(value >= start && value + item.ulValueLen <= end);
    (void)take(0, value, item.ulValueLen);
  }
}

void convert(ORP_MSG_HEADER_ST *message) {
  char *text = nullptr;
  uint32_t length = 0;
  if (ORP_EVT_GetEventContent(message, &text, &length) != 0) {
    require(text == nullptr);
    return;
  }
  require(std::strlen(text) == length);
  cJSON *json = cJSON_Parse(text);
  require(json != nullptr);
  require(cJSON_GetArraySize(json) == 5);
  require(cJSON_GetArraySize(cJSON_GetObjectItem(json, "Payload")) > 0);
  cJSON_Delete(json);
  std::free(text);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size == 0) return 0;
  ORP_EVT_SubscribeAllEventCallBack(take);
  const Message message = make_message(data + 1, size - 1, data[0]);
  if (message->ulDataLen < sizeof(msgapi::msg::DmBody)) {
    convert(message.get());
    return 0;
  }
  ORP_Evt_SubMsgProc(message.get());
  convert(message.get());
  const Message received = receive(data + 1, size - 1, data[0]);
  walk(received.get());

  // Bytes behind the last item may count as items once one is added; they stay within the body.
  void *body = receive(data + 1, size - 1, data[0]).release() + 1;
  if (ORP_DMMSG_AppendItem(&body, 7, "added", data, static_cast<uint32_t>(size)) == 0) {
    walk(ORP_MSG_GetMsgHead(body));
  }
  std::free(ORP_MSG_GetMsgHead(body));
  return 0;
}
