// What the message watchers of the loop dropped.
#pragma once

#include <cstdint>

namespace msgapi::uv {

// Messages that message watchers did not deliver, since the process started and by reason.
struct MessageDrops {
  uint32_t too_long;    // announced more than 0x8000000 bytes
  uint32_t incomplete;  // the completion procedure failed
  uint32_t no_memory;
  uint32_t read_failed;  // an error, silence, or the end of the stream inside a message
};
extern MessageDrops g_message_drops;

}  // namespace msgapi::uv
