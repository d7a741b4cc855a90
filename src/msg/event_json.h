// Events as JSON: the module names and the object that subscribers receive.
#pragma once

#include <cJSON.h>

#include <cstdint>
#include <memory>

#include "base/memory.h"
#include "msg/header.h"

namespace msgapi::msg {

// The name of the type's item and member.
inline constexpr char kEventType[] = "EventType";

struct JsonDeleter {
  void operator()(cJSON *json) const { cJSON_Delete(json); }
};
using Json = std::unique_ptr<cJSON, JsonDeleter>;

// ORP_EVT_GetEventContent. Null when the message is no event that can be converted, and without
// memory.
Owned<char> convert_event(const Header &message);

// The module of an event type, or null.
const char *event_module(uint32_t type);

// A new object with everything but the payload, or null without a time stamp or memory.
Json begin_event(const char *module, const char *event_type);

// Adds `payload` to `event`; false without memory.
bool add_payload(cJSON *event, Json payload);

bool add_text(cJSON *object, const char *name, const char *value);

enum class Layout { kIndented, kOneLine };

// The object's text, or null without memory. It is in a block of the library's own, because an
// application may give cJSON an allocator whose blocks free() does not know.
Owned<char> print(const cJSON *json, Layout layout);

}  // namespace msgapi::msg
