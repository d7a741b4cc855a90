// Freeing what was deleted: watchers, queued data, whole loops.
#pragma once

#include "msgapi/loop.h"

namespace msgapi::uv {

// A safe point of a run: frees the deleted watchers that no walk around the run holds.
void sweep_deleted(OrpUvLoop *loop);

// Procedure of the idle watcher in OrpUvLoop.deferredFree: frees the data that waits.
void free_deferred_data(OrpUvIdle *watcher);

// Frees every watcher or, inside a walk, leaves that to the walk's run, and empties the record.
void destroy_loop(OrpUvLoop *loop);

}  // namespace msgapi::uv
