// Publishing events, and delivering those that arrive to the application's callbacks.

#include "msg/event.h"

#include <cstdio>
#include <cstring>

#include "base/list.h"
#include "base/memory.h"
#include "msg/dm_message.h"
#include "msg/event_json.h"
#include "msg/send.h"
#include "msgapi/event.h"

namespace msgapi::msg {
namespace {

// The receiver of DM events, the server, which passes them on.
constexpr char kPublishTo[] = "mic";

// Never removed, so callbacks may add more while the list is walked.
struct Callback {
  Callback *next;
  uint32_t type;
  ORP_EVT_CALLBACK procedure;
};
Callback *g_callbacks;
ORP_EVT_CALLBACK g_default_callback;

void deliver(uint32_t type, const void *data, uint32_t length) {
  for (const Callback *each = g_callbacks; each != nullptr; each = each->next) {
    if (each->type != type) continue;
    const uint32_t status = each->procedure(type, data, length);
    if (status != 0) std::printf("Do Event CallBack Error %x", status);
  }
  if (g_default_callback == nullptr) return;
  const uint32_t status = g_default_callback(type, data, length);
  if (status != 0) std::printf("Do Default Event CallBack Error %x", status);
}

void deliver_converted(const Header &message) {
  const Owned<char> text = convert_event(message);
  if (!text) return;
  deliver(message.ulMsgType, text.get(), static_cast<uint32_t>(std::strlen(text.get())));
}

// A DM message under construction. A failure is one of the codes of DM messages, which callers of
// the interface get as they are.
class DmEvent {
 public:
  DmEvent() = default;
  DmEvent(const DmEvent &) = delete;
  DmEvent &operator=(const DmEvent &) = delete;
  ~DmEvent() {
    if (body_ != nullptr) std::free(head_of(body_));
  }

  uint32_t begin(const char *event_type) {
    body_ = build_dm(kPublishTo, 0);
    return body_ == nullptr ? ORP_DMMSG_ERR_MEMORY : add(kEventType, event_type);
  }

  uint32_t add(const char *name, const char *value) {
    const size_t size = std::strlen(value) + 1;
    // A failed item has freed the message; items after it find none.
    if (size > UINT32_MAX || body_ == nullptr) return ORP_DMMSG_ERR;
    return append_item(&body_, 0, name, {value, size}) ? 0 : ORP_DMMSG_ERR_GROW;
  }

  uint32_t send(uint32_t type) {
    if (body_ == nullptr) return ORP_EVT_ERR;
    head_of(body_)->ulMsgType = type;
    return code(send_dm(body_));
  }

 private:
  DmBody *body_ = nullptr;
};

uint32_t publish(uint32_t type, const char *event_type, const char *name, const char *value) {
  DmEvent event;
  uint32_t status = event.begin(event_type);
  if (status == 0 && name != nullptr && value != nullptr) status = event.add(name, value);
  return status == 0 ? event.send(type) : status;
}

// Only the status of the last pair counts: long-standing and kept.
uint32_t publish(uint32_t type, const char *event_type, const ORP_UTIL_NV_PAIR_ST *pairs) {
  DmEvent event;
  uint32_t status = event.begin(event_type);
  if (status != 0) return status;
  for (; pairs != nullptr; pairs = pairs->pstNext) {
    if (pairs->pcName == nullptr || pairs->pcValue == nullptr) continue;
    status = event.add(pairs->pcName, pairs->pcValue);
  }
  return status == 0 ? event.send(type) : status;
}

static_assert(ORP_EVT_ERR == code(Status::kFailed));

Status publish(uint32_t type, const char *module, const char *event_type, const cJSON *payload) {
  const Json event = begin_event(module, event_type);
  if (!event || !add_payload(event.get(), Json(cJSON_Duplicate(payload, 1)))) {
    return Status::kFailed;
  }
  const Owned<char> text = print(event.get(), Layout::kOneLine);
  if (!text) return Status::kFailed;
  const size_t size = std::strlen(text.get()) + 1;
  if (size > UINT32_MAX) return Status::kFailed;
  return send_content(kServer, type, {text.get(), size});
}

}  // namespace

void deliver_event(Header *message) {
  if (message->ulMsgType > ORP_MSG_ALL_EVENTS && message->ulMsgType < ORP_MSG_FIRST_JSON_EVENT) {
    deliver(message->ulMsgType, body(message), message->ulDataLen);
  } else {
    deliver_converted(*message);
  }
}

}  // namespace msgapi::msg

using namespace msgapi;
using namespace msgapi::msg;

extern "C" uint32_t ORP_EVT_PublishEvent(uint32_t msgType, const char *eventType, const char *name,
                                         const char *value) {
  return eventType == nullptr ? ORP_EVT_ERR : publish(msgType, eventType, name, value);
}

extern "C" uint32_t ORP_EVT_PublishEventWithNVPair(uint32_t msgType, const char *eventType,
                                                   const ORP_UTIL_NV_PAIR_ST *pairs) {
  return eventType == nullptr ? ORP_EVT_ERR : publish(msgType, eventType, pairs);
}

extern "C" uint32_t ORP_EVT_PublishEventWithJson(const char *moduleName, const char *eventType,
                                                 uint32_t msgType, const struct cJSON *payload) {
  if (moduleName == nullptr || eventType == nullptr || payload == nullptr) return ORP_EVT_ERR;
  return code(publish(msgType, moduleName, eventType, payload));
}

extern "C" uint32_t ORP_EVT_SubscribeAllEvent() {
  return code(send_header(kServer, ORP_MSG_SUBSCRIBE, ORP_MSG_ALL_EVENTS));
}

extern "C" void ORP_EVT_SubscribeSingelEventCallBack(uint32_t eventType,
                                                     ORP_EVT_CALLBACK callback) {
  if (eventType < ORP_MSG_ALL_EVENTS || callback == nullptr) return;
  Owned<Callback> record = make<Callback>(nullptr, eventType, callback);
  if (record) list_append(g_callbacks, record.release());
}

extern "C" void ORP_EVT_SubscribeAllEventCallBack(ORP_EVT_CALLBACK callback) {
  g_default_callback = callback;
}

extern "C" void ORP_Evt_SubMsgProc(ORP_MSG_HEADER_ST *message) {
  if (message != nullptr) deliver_event(message);
}
