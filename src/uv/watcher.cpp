#include "uv/watcher.h"

#include "base/list.h"
#include "base/memory.h"
#include "uv/child_signal.h"
#include "uv/default_loop.h"
#include "uv/pending.h"
#include "uv/reaper.h"
#include "uv/redirect.h"
#include "uv/socket_base.h"
#include "uv/trace_point.h"

namespace msgapi::uv {
namespace {

static_assert(sizeof(void *) != 4 || sizeof(OrpUvWatcher) == 16);
static_assert(sizeof(void *) != 4 || sizeof(OrpUvForced) == 12);

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

// A record that is initialised twice must not tie a knot into the list, and walks that hold it go
// on doing so. Returns the count of those; what a record outside the list contains means nothing.
uint32_t unlink_if_chained(OrpUvLoop *loop, const OrpUvWatcher *watcher) {
  for (OrpUvWatcher **place = &loop->watchers; *place != nullptr; place = &(*place)->link) {
    if (*place == watcher) return list_unlink_at(place)->status & kHeldMask;
  }
  return 0;
}

Status defer_free(OrpUvLoop *loop, void *data) {
  // The watcher would be created behind this check, so never is. Callers rely on keeping the block.
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

Status init_watcher(OrpUvLoop *loop, OrpUvWatcher *watcher, uint32_t type) {
  loop = loop_or_default(loop);
  if (watcher == nullptr) return Status::kBadArgument;

  const ChildSignalBlock block;
  const uint32_t held = unlink_if_chained(loop, watcher);
  *watcher = {.link = nullptr, .loop = loop, .status = type | ORP_UV_COUNTED | held, .data = 0};
  list_append(loop->watchers, watcher);
  return Status::kOk;
}

Status start_watcher(OrpUvWatcher *watcher) {
  if (watcher == nullptr || watcher->loop == nullptr) return Status::kBadArgument;
  if ((watcher->status & ORP_UV_ACTIVE) != 0) return Status::kOk;

  watcher->status = (watcher->status | ORP_UV_ACTIVE) & ~ORP_UV_DELETED;
  if ((watcher->status & ORP_UV_COUNTED) != 0) ++watcher->loop->activeCount;
  return Status::kOk;
}

Status delete_watcher(OrpUvWatcher *watcher) {
  if (watcher == nullptr || watcher->loop == nullptr) return Status::kBadArgument;

  OrpUvLoop *loop = watcher->loop;
  if ((watcher->status & ORP_UV_ACTIVE) != 0) {
    watcher->status &= ~ORP_UV_ACTIVE;
    if ((watcher->status & ORP_UV_COUNTED) != 0 && loop->activeCount > 0) --loop->activeCount;
  }
  watcher->status |= ORP_UV_DELETED;
  loop->flags |= kLoopHasDeleted;
  return Status::kOk;
}

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
  // Somebody walks the list. What is left in it are records of no type for the next safe point.
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

extern "C" uint32_t OrpUvWatcherInit(OrpUvLoop *loop, OrpUvWatcher *watcher, uint32_t type) {
  return code(init_watcher(loop, watcher, type));
}

extern "C" uint32_t OrpUvWatcherStart(OrpUvWatcher *watcher) {
  return code(start_watcher(watcher));
}

extern "C" uint32_t OrpUvWatcherDelete(OrpUvWatcher *watcher) {
  return code(delete_watcher(watcher));
}

extern "C" uint32_t OrpUvWatcherIterateItem(OrpUvLoop *loop, ORP_WORD argument,
                                            ORP_UV_ITERATE_PROC procedure) {
  if (procedure == nullptr) return code(Status::kSystem);

  loop = loop_or_default(loop);
  const WalkScope walk(loop);
  for (OrpUvWatcher *watcher = loop->watchers, *next; watcher != nullptr; watcher = next) {
    next = watcher->link;
    const HoldScope held(watcher, next);
    procedure(watcher, argument);
  }
  return code(Status::kOk);
}
