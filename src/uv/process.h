// Process watchers.
#pragma once

#include "base/status.h"
#include "msgapi/process.h"

namespace msgapi::uv {

// Starts a child on the loop; see OrpUvProcessSpawn.
Status spawn(OrpUvLoop *loop, OrpUvProcess **process_out, const OrpUvSpawnOptions *options);

}  // namespace msgapi::uv
