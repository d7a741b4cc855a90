// Running a loop.
#pragma once

#include "base/status.h"
#include "msgapi/loop.h"

namespace msgapi::uv {

enum class RunMode {
  kNormal,
  kSynchronousSpawn,  // waits only while an I/O watcher lives, otherwise turns without pause
};

// Runs until the loop is stopped; see OrpUvLoopRun.
Status run_loop(OrpUvLoop *loop, uint32_t idle_ms, RunMode mode);

}  // namespace msgapi::uv
