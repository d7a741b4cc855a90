// The layout of DM bodies, for the files that build and read them.
#pragma once

#include <cstdint>

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

// ORP_DMMSG_GetItemEx for a body of `carried` bytes: of an item that ends behind them the value
// is what is there. `carried` is at least what the body says that it uses.
uint32_t read_item(const void *body, uint64_t carried, ORP_DMMSG_ITEM_ST *out, const void **cursor);

// Whether messages of the type may have a DM body.
inline bool may_carry_dm(uint32_t type) {
  return type == ORP_DMMSG_TYPE || type >> 8 == ORP_MSG_EVENT_PAGE;
}

// Makes the DM body of such a message, as it was received, fit what the message carries: one that
// claims to use more is no DM body any longer, and one that claims free room behind the message is
// sealed. Other bodies stay as they are.
void hold_to_length(Header *message);

}  // namespace msgapi::msg
