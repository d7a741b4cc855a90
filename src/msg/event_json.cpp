// Conversion of DM events into JSON.

#include "msg/event_json.h"

#include <cstring>
#include <string_view>

#include "base/text.h"
#include "msg/dm_message.h"
#include "msgapi/event.h"
#include "orputil.h"

namespace msgapi::msg {
namespace {

struct Module {
  uint32_t type;
  const char *name;
};

constexpr Module kModules[] = {
    {ORP_MSG_EVENT_WAN, "wan"},
    {ORP_MSG_EVENT_LAN, "lan"},
    {ORP_MSG_EVENT_WLAN, "wlan"},
    {ORP_MSG_EVENT_DHCP, "dhcp"},
    {ORP_MSG_EVENT_WEB, "web"},
    {ORP_MSG_EVENT_DEVICE, "device"},
    {ORP_MSG_EVENT_MONITOR, "monitor"},
    {ORP_MSG_EVENT_PLUGIN_QUEUES, "plugin_queues"},
    {ORP_MSG_EVENT_TRACKING, "event_tracking"},
    {ORP_MSG_EVENT_WEBCONSOLE, "webconsole"},
    {ORP_MSG_EVENT_ONLINE_UPDATE, "online_update"},
    {ORP_MSG_EVENT_USB, "usb"},
    {ORP_MSG_EVENT_TESSEL, "tessel"},
    {ORP_MSG_EVENT_BEHAVIOR, "behavior"},
    {ORP_MSG_EVENT_AUTO_UPDATE, "autoUpdate"},
    {ORP_MSG_EVENT_NETWORK, "network"},
    {ORP_MSG_EVENT_TESSEL_PROXY, "tesselproxy"},
    {ORP_MSG_EVENT_FEED, "feed"},
    {ORP_MSG_EVENT_SIGNAL, "signal"},
};

uint32_t module_type(std::string_view name) {
  for (const Module &module : kModules) {
    if (name == module.name) return module.type;
  }
  return ORP_MSG_ALL_EVENTS;
}

// The text of an item's value, which ends at its first NUL or at its length.
class ValueText {
 public:
  explicit ValueText(const ORP_DMMSG_ITEM_ST &item) {
    const auto *value = static_cast<const char *>(item.pValue);
    if (value == nullptr || std::memchr(value, '\0', item.ulValueLen) != nullptr) {
      text_ = value;
      return;
    }
    copy_.reset(static_cast<char *>(guarded_alloc(uint64_t{item.ulValueLen} + 1)));
    if (!copy_) return;
    copy_cut({copy_.get(), size_t{item.ulValueLen} + 1}, {value, item.ulValueLen});
    text_ = copy_.get();
  }

  // Null without a value and without memory.
  const char *c_str() const { return text_; }

 private:
  Owned<char> copy_;
  const char *text_ = nullptr;
};

// The event and its payload while its items are read.
struct Conversion {
  Json event;
  Json payload;
};

bool add_item(const ORP_DMMSG_ITEM_ST &item, const char *module, Conversion *conversion) {
  const ValueText value(item);
  if (item.pcName == nullptr || value.c_str() == nullptr) return false;
  if (std::strcmp(item.pcName, kEventType) == 0) {
    conversion->event = begin_event(module, value.c_str());
    return conversion->event != nullptr;
  }
  if (!conversion->payload) conversion->payload.reset(cJSON_CreateObject());
  return conversion->payload && add_text(conversion->payload.get(), item.pcName, value.c_str());
}

// From here on the lengths in the body can be trusted: they stay within the message.
bool is_whole_dm_body(const Header &message) {
  if (message.ulDataLen < sizeof(DmBody)) return false;
  const auto *dm = reinterpret_cast<const DmBody *>(body(&message));
  return dm->capacity - dm->free == message.ulDataLen;
}

}  // namespace

Owned<char> convert_event(const Header &message) {
  const char *module = event_module(message.ulMsgType);
  if (module == nullptr || !is_whole_dm_body(message)) return nullptr;

  Conversion conversion;
  ORP_DMMSG_ITEM_ST item;
  const void *cursor = nullptr;
  while (read_item(body(&message), message.ulDataLen, &item, &cursor)) {
    if (!add_item(item, module, &conversion)) return nullptr;
  }
  if (!conversion.event || !conversion.payload ||
      !add_payload(conversion.event.get(), std::move(conversion.payload))) {
    return nullptr;
  }
  return print(conversion.event.get(), Layout::kIndented);
}

const char *event_module(uint32_t type) {
  for (const Module &module : kModules) {
    if (module.type == type) return module.name;
  }
  return nullptr;
}

bool add_text(cJSON *object, const char *name, const char *value) {
  return cJSON_AddStringToObject(object, name, value) != nullptr;
}

Json begin_event(const char *module, const char *event_type) {
  const char *time_stamp = ORP_UTIL_GetUtcTimeWithFormat();
  Json event(cJSON_CreateObject());
  if (time_stamp == nullptr || !event || !add_text(event.get(), "Method", "notify") ||
      !add_text(event.get(), "Module", module) || !add_text(event.get(), kEventType, event_type) ||
      !add_text(event.get(), "Timestamp", time_stamp)) {
    return nullptr;
  }
  return event;
}

bool add_payload(cJSON *event, Json payload) {
  if (!payload || cJSON_AddItemToObject(event, "Payload", payload.get()) == 0) return false;
  (void)payload.release();
  return true;
}

Owned<char> print(const cJSON *json, Layout layout) {
  char *text = layout == Layout::kIndented ? cJSON_Print(json) : cJSON_PrintUnformatted(json);
  Owned<char> copy = duplicate_text(text);
  cJSON_free(text);
  return copy;
}

}  // namespace msgapi::msg

using namespace msgapi;
using namespace msgapi::msg;

extern "C" uint32_t ORP_EVT_GetEventContent(const ORP_MSG_HEADER_ST *message, char **textOut,
                                            uint32_t *lengthOut) {
  if (lengthOut != nullptr) *lengthOut = 0;
  if (textOut == nullptr) return ORP_EVT_ERR;
  std::free(*textOut);
  *textOut = nullptr;
  if (message == nullptr) return ORP_EVT_ERR;

  Owned<char> text = convert_event(*message);
  if (!text) return ORP_EVT_ERR;
  if (lengthOut != nullptr) *lengthOut = static_cast<uint32_t>(std::strlen(text.get()));
  *textOut = text.release();
  return ORP_EVT_OK;
}

extern "C" void ORP_EVT_GetEventBody(ORP_MSG_HEADER_ST *message, void **bodyOut) {
  if (message != nullptr && bodyOut != nullptr) *bodyOut = body(message);
}

extern "C" const char *ORP_EVT_GetEventModuleNameByEventType(uint32_t type) {
  return event_module(type);
}

extern "C" uint32_t ORP_EVT_GetMsgTypeByEventModuleName(const char *name) {
  return name == nullptr ? ORP_MSG_ALL_EVENTS : module_type(name);
}

extern "C" uint32_t ORP_GenerateJsonItem(struct cJSON *object, const char *name,
                                         const char *value) {
  if (object == nullptr || name == nullptr || value == nullptr) return ORP_EVT_ERR;
  return add_text(object, name, value) ? ORP_EVT_OK : ORP_EVT_ERR;
}

extern "C" uint32_t ORP_EVT_JsonBeginProc(struct cJSON **objectInOut, const char *module,
                                          const char *eventType) {
  if (objectInOut == nullptr || module == nullptr || eventType == nullptr) return ORP_EVT_ERR;
  cJSON_Delete(*objectInOut);
  *objectInOut = begin_event(module, eventType).release();
  return *objectInOut == nullptr ? ORP_EVT_ERR : ORP_EVT_OK;
}

extern "C" uint32_t ORP_EVT_BuiderJsonProc(struct cJSON **payloadHolder, const char *name,
                                           const char *value) {
  if (payloadHolder == nullptr || name == nullptr || value == nullptr) return ORP_EVT_ERR;
  if (*payloadHolder == nullptr) *payloadHolder = cJSON_CreateObject();
  if (*payloadHolder == nullptr) return ORP_EVT_ERR;
  return add_text(*payloadHolder, name, value) ? ORP_EVT_OK : ORP_EVT_ERR;
}

extern "C" uint32_t ORP_EVT_EndJsonEndProc(void **objectInOut, struct cJSON *payload) {
  if (objectInOut == nullptr || *objectInOut == nullptr || payload == nullptr) return ORP_EVT_ERR;
  const Json event(static_cast<cJSON *>(*objectInOut));
  *objectInOut = nullptr;
  if (!add_payload(event.get(), Json(payload))) return ORP_EVT_ERR;
  *objectInOut = print(event.get(), Layout::kIndented).release();
  return *objectInOut == nullptr ? ORP_EVT_ERR : ORP_EVT_OK;
}
