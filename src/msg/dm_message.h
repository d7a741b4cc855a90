// The layout of DM bodies, for the files that build and read them.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>

#include "base/status.h"
#include "msg/header.h"
#include "msgapi/dmmsg.h"

namespace msgapi::msg {

struct DmBody {
  uint32_t magic;
  uint32_t capacity;  // sealed: bytes in use
  uint32_t free;      // sealed: 0
  uint32_t error;
  uint32_t user;
  uint32_t sub_type;
};
static_assert(sizeof(DmBody) == 24);

// What an item begins with; name and value follow, nothing is aligned.
struct DmItemHead {
  uint32_t type;
  uint32_t name_length;
  uint32_t value_length;
};
static_assert(sizeof(DmItemHead) == 12);

// A new message without items, the header in front of what is returned. Null without memory.
DmBody *build_dm(std::string_view destination, uint32_t sub_type);

// Appends an item to a sound body (see is_sound()); name and value may lie in the message itself.
// False, with the message freed and *dm null, when there is no room for it.
bool append_item(DmBody **dm, uint32_t type, const char *name, std::span<const char> value);

// Whether a body can be added to or sent.
inline bool is_sound(const DmBody &dm) {
  return dm.free <= dm.capacity && dm.capacity - dm.free >= sizeof dm;
}

inline Header *head_of(DmBody *dm) {
  return reinterpret_cast<Header *>(dm) - 1;
}

// Seals a sound body and sends its message, which stays the caller's.
Status send_dm(DmBody *dm);

// ORP_DMMSG_GetItemEx for a body of `carried` bytes, at least as many as the body says it uses. The
// value of an item that ends after them is cut to the bytes that are there. False when there is no
// further item, or none that can be read.
bool read_item(const void *body, uint64_t carried, ORP_DMMSG_ITEM_ST *out, const void **cursor);

// Whether messages of the type may have a DM body.
inline bool may_carry_dm(uint32_t type) {
  return type == ORP_DMMSG_TYPE || type >> 8 == ORP_MSG_EVENT_PAGE;
}

// Makes the received DM body of such a message fit the bytes that the message carries. A body that
// claims to use more loses its magic; one that claims free room after the end of the message is
// sealed. Other bodies stay as they are.
void hold_to_length(Header *message);

}  // namespace msgapi::msg
