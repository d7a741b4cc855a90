#include "uv/watcher.h"

#include "base/list.h"
#include "uv/child_signal.h"
#include "uv/default_loop.h"

namespace msgapi::uv {
namespace {

static_assert(sizeof(void *) != 4 || sizeof(OrpUvWatcher) == 16);
static_assert(sizeof(void *) != 4 || sizeof(OrpUvForced) == 12);

// A record that is initialised twice must not close the list to a circle. Walks that hold it go on
// holding it: their count is returned. A record that is not in the list may contain anything.
uint32_t unlink_if_chained(OrpUvLoop *loop, const OrpUvWatcher *watcher) {
  for (OrpUvWatcher **place = &loop->watchers; *place != nullptr; place = &(*place)->link) {
    if (*place == watcher) return list_unlink_at(place)->status & kHeldMask;
  }
  return 0;
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

}  // namespace msgapi::uv

using namespace msgapi;
using namespace msgapi::uv;

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
