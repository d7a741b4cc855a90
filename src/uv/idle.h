// Idle procedures of a loop.
#pragma once

#include "msgapi/loop.h"

namespace msgapi::uv {

// A new, started idle watcher, or null.
OrpUvIdle *start_idle(OrpUvLoop *loop, ORP_UV_IDLE_PROC proc);

// Calls every idle procedure once.
void run_idle_procedures(OrpUvLoop *loop);

}  // namespace msgapi::uv
