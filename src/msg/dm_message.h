// The layout of DM bodies, for the files that build and read them.
#pragma once

#include <cstdint>

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

}  // namespace msgapi::msg
