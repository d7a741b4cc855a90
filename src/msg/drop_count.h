// Counts the messages that the message core drops by its rules. Together with what the message
// watchers count (uv/message_watcher.h) this lets a test prove that what was sent is what was
// delivered and what was counted. Not part of the interface.
#pragma once

#include <cstdint>

namespace msgapi::msg {

struct DropCount {
  uint32_t name;        // refused at the gate: a name without NUL
  uint32_t oversize;    // dropped at the gate: body too long to be dispatched
  uint32_t read;        // header or body could not be read, or no memory for them
  uint32_t completion;  // the file that carries the body could not be taken over
  uint32_t queue;       // not queued, or in a queue that was given up
};

inline DropCount g_dropped;

}  // namespace msgapi::msg
