// Counts the messages that this process dropped on their way in, by reason. Tests use it to prove
// that every message was either delivered or counted. Not part of the interface.
#pragma once

#include <cstdint>

namespace msgapi {

struct DropCount {
  uint32_t too_long;    // announced a body that is too long to be read
  uint32_t no_memory;   // for the body
  uint32_t read;        // an error, silence, or the end of the stream inside a message
  uint32_t completion;  // the body could not be completed, usually from its hand-over file
  uint32_t name;        // refused at the gate: a name without NUL
  uint32_t oversize;    // dropped at the gate: body too long to be dispatched
  uint32_t queue;       // not queued, or in a queue that was given up
};

inline DropCount g_dropped;

}  // namespace msgapi
