// This file alone knows everything that can point to a watcher of any kind. Whoever adds such a
// pointer cuts it in release_watcher().

#include "uv/freeing.h"

#include <cassert>

#include "base/list.h"
#include "base/memory.h"
#include "base/status.h"
#include "uv/child_signal.h"
#include "uv/default_loop.h"
#include "uv/pending.h"
#include "uv/reaper.h"
#include "uv/redirect.h"
#include "uv/socket_base.h"
#include "uv/trace_point.h"
#include "uv/watcher.h"

namespace msgapi::uv {
namespace {

struct DeferredData {
  DeferredData *link;
  void *data;
};

void drop_forced_events(OrpUvLoop *loop, const OrpUvWatcher *watcher) {
  for (OrpUvForced **place = &loop->forced; *place != nullptr;) {
    if (&(*place)->watcher->head == watcher) {
      std::free(list_unlink_at(place));
    } else {
      place = &(*place)->link;
    }
  }
}

// Cuts every connection from elsewhere to a watcher that is about to be freed.
void release_watcher(OrpUvLoop *loop, OrpUvWatcher *watcher, bool loop_gone) {
  drop_forced_events(loop, watcher);
  if (has_type(watcher, ORP_UV_MSG)) orphan_pending(as<OrpUvMsg>(watcher));
  if (has_type(watcher, ORP_UV_REDIRECT)) disconnect(as<OrpUvIo>(watcher));
  if (has_type(watcher, kSpawned)) {
    disconnect_all(as<OrpUvProcess>(watcher));
    delist(as<SpawnedProcess>(watcher));
  }
  if (has_type(watcher, ORP_UV_SOCKBASE)) leave_response(as<OrpUvIo>(watcher));
  if (has_type(watcher, ORP_UV_TIMER)) {
    forget_pending_timer(as<OrpUvTimer>(watcher), loop_gone);
    leave_response(as<OrpUvTimer>(watcher));
  }

  OrpUvIdle *idle = as<OrpUvIdle>(watcher);
  if (loop->reaper == idle) loop->reaper = nullptr;
  if (loop->deferredFree == idle) {
    free_deferred_data(idle);
    loop->deferredFree = nullptr;
  }
}

Status defer_free(OrpUvLoop *loop, void *data) {
  // Nothing creates the watcher, so this fails in practice. Callers rely on keeping the block.
  if (loop->deferredFree == nullptr) return Status::kBadArgument;

  Owned<DeferredData> entry = make<DeferredData>();
  if (!entry) return Status::kNoMemory;
  entry->data = data;

  ORP_WORD &word = loop->deferredFree->head.data;
  auto *entries = reinterpret_cast<DeferredData *>(word);
  list_append(entries, entry.release());
  word = reinterpret_cast<ORP_WORD>(entries);
  return Status::kOk;
}

}  // namespace

void sweep_deleted(OrpUvLoop *loop) {
  if ((loop->flags & kLoopHasDeleted) == 0) return;

  const ChildSignalBlock block;
  const bool is_inner = walk_depth(loop) > 1;
  loop->flags &= ~kLoopHasDeleted;
  for (OrpUvWatcher **place = &loop->watchers; *place != nullptr;) {
    const bool spared = is_inner && is_held(*place);
    if (!is_deleted(*place) || spared) {
      if (is_deleted(*place)) loop->flags |= kLoopHasDeleted;
      place = &(*place)->link;
      continue;
    }
    OrpUvWatcher *watcher = list_unlink_at(place);
    // Nobody holds a watcher between the passes of the outermost run. (A count that has reached its
    // limit stays there and proves nothing.)
    assert(!is_held(watcher) || (watcher->status & kHeldMask) == kHeldMask);
    ORP_TRACE_PrintInfo("UVLoopSafeDelete", __LINE__, 0, "loop", kTraceLevel,
                        "Delete handle %p with flag %x data %p now ...",
                        static_cast<void *>(watcher), watcher->status,
                        reinterpret_cast<void *>(watcher->data));
    release_watcher(loop, watcher, false);
    std::free(watcher);
  }
}

void free_deferred_data(OrpUvIdle *watcher) {
  auto *entries = reinterpret_cast<DeferredData *>(watcher->head.data);
  watcher->head.data = 0;
  while (entries != nullptr) {
    const Owned<DeferredData> entry(list_unlink_at(&entries));
    if (entry->data != nullptr) {
      ORP_TRACE_PrintInfo("UVSafeFreeProc", __LINE__, 0, "loop", kTraceLevel,
                          "Safe free data %p now ...", entry->data);
    }
    std::free(entry->data);
  }
}

void destroy_loop(OrpUvLoop *loop) {
  const ChildSignalBlock block;
  for (OrpUvWatcher *watcher = loop->watchers; watcher != nullptr; watcher = watcher->link) {
    release_watcher(loop, watcher, true);
    watcher->status = ORP_UV_DELETED | (watcher->status & kHeldMask);
  }
  list_delete_all(loop->forced);

  if (walk_depth(loop) == 0) {
    list_delete_all(loop->watchers);
    init_loop(loop);
    return;
  }
  // Somebody walks the list: the records stay in it, without a type, until the next safe point.
  OrpUvWatcher *const watchers = loop->watchers;
  const uint32_t depth = loop->flags & kWalkDepthMask;
  init_loop(loop);
  loop->watchers = watchers;
  loop->flags |= depth | kLoopHasDeleted;
}

}  // namespace msgapi::uv

using namespace msgapi;
using namespace msgapi::uv;

extern "C" void ORP_UV_LoopDestroy(OrpUvLoop *loop) {
  if (loop != nullptr) destroy_loop(loop);
}

extern "C" uint32_t OrpUvLoopSafeFree(OrpUvLoop *loop, void *data) {
  return code(defer_free(loop_or_default(loop), data));
}
