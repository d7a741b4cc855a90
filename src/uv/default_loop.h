// The process's default loop and its override.
#pragma once

#include "msgapi/loop.h"

namespace msgapi::uv {

// Makes the record an empty loop.
void init_loop(OrpUvLoop *loop);

// The override when it is set, else the process's own loop, initialised on first use.
OrpUvLoop *default_loop();

inline OrpUvLoop *loop_or_default(OrpUvLoop *loop) {
  return loop != nullptr ? loop : default_loop();
}

// The loop that stands in for the default one while a synchronous spawn runs, or null.
OrpUvLoop *default_loop_override();
void set_default_loop_override(OrpUvLoop *loop);

// The process's own loop, whether or not it is overridden or initialised.
OrpUvLoop *own_default_loop();

}  // namespace msgapi::uv
