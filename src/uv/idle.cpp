// Idle procedures.

#include "uv/idle.h"

#include "base/memory.h"
#include "uv/watcher.h"

namespace msgapi::uv {
namespace {

static_assert(sizeof(void *) != 4 || sizeof(OrpUvIdle) == 20);

Status init_idle(OrpUvLoop *loop, OrpUvIdle *watcher) {
  const Status status = init_watcher(loop, &watcher->head, ORP_UV_IDLE);
  if (status == Status::kOk) watcher->proc = nullptr;
  return status;
}

}  // namespace

OrpUvIdle *start_idle(OrpUvLoop *loop, ORP_UV_IDLE_PROC proc) {
  if (proc == nullptr) return nullptr;
  Owned<OrpUvIdle> watcher = make<OrpUvIdle>();
  if (!watcher || init_idle(loop, watcher.get()) != Status::kOk) return nullptr;

  watcher->proc = proc;
  (void)start_watcher(&watcher->head);
  return watcher.release();
}

void run_idle_procedures(OrpUvLoop *loop) {
  for (OrpUvWatcher *watcher = loop->watchers, *next; watcher != nullptr; watcher = next) {
    next = watcher->link;
    // Stopped watchers are called until they are freed, on purpose.
    if (!has_type(watcher, ORP_UV_IDLE)) continue;
    auto *idle = as<OrpUvIdle>(watcher);
    if (idle->proc == nullptr) continue;
    const HoldScope held(watcher, next);
    idle->proc(idle);
  }
}

}  // namespace msgapi::uv

using namespace msgapi;
using namespace msgapi::uv;

extern "C" uint32_t ORP_UV_IdleInit(OrpUvLoop *loop, OrpUvIdle *watcher) {
  if (watcher == nullptr) return code(Status::kBadArgument);

  return code(init_idle(loop, watcher));
}

extern "C" OrpUvIdle *ORP_UV_IdleStart(OrpUvLoop *loop, ORP_UV_IDLE_PROC proc) {
  return start_idle(loop, proc);
}

extern "C" OrpUvIdle *OrpUvIdleStart(OrpUvLoop *loop, ORP_UV_IDLE_PROC proc) {
  return start_idle(loop, proc);
}

extern "C" uint32_t OrpUvIdleStop(OrpUvIdle *watcher) {
  return code(delete_watcher(watcher == nullptr ? nullptr : &watcher->head));
}
