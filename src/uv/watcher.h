// The watchers of a loop: their list, deletion, and the freeing of what was deleted.
//
// Nothing is freed inside a callback or while anything walks the list: walks raise the loop's walk
// depth, and sweep_deleted() does nothing below another walk. A walk therefore may hold pointers to
// watchers across callbacks; it takes the successor before it calls.
#pragma once

#include "base/status.h"
#include "msgapi/loop.h"

// A queued event.
struct OrpUvForced {
  OrpUvForced *link;
  OrpUvIo *watcher;
  uint32_t events;
};

namespace msgapi::uv {

// Bits of OrpUvLoop.flags that only the library knows.
constexpr uint32_t kLoopHasDeleted = 0x100;   // a watcher may be waiting to be freed
constexpr uint32_t kLoopFilterSets = 0x200;   // sets may hold descriptors not to be waited for
constexpr uint32_t kWalkDepthUnit = 0x10000;  // the upper half counts walks under way

// Bits of OrpUvWatcher.status that only the library knows.
constexpr uint32_t kEndOfStream = 0x10000;   // the descriptor has reached the end of its stream
constexpr uint32_t kFiring = 0x20000;        // the timer's procedure is being called
constexpr uint32_t kPendingTimer = 0x40000;  // the timer ends a pending entry of a message watcher
constexpr uint32_t kSpawned = 0x80000;       // the process watcher was made by a spawn
constexpr uint32_t kPublicStatus = 0xffff;

constexpr uint32_t kWalkDepthMask = ~(kWalkDepthUnit - 1);

inline uint32_t walk_depth(const OrpUvLoop *loop) {
  return loop->flags / kWalkDepthUnit;
}

// Marks a walk over the loop's watchers for its scope.
class WalkScope {
 public:
  explicit WalkScope(OrpUvLoop *loop) : loop_(loop), outer_(loop->flags & kWalkDepthMask) {
    loop_->flags += kWalkDepthUnit;
  }
  WalkScope(const WalkScope &) = delete;
  WalkScope &operator=(const WalkScope &) = delete;
  // The depth is put back, not lowered: the loop may have been initialised anew meanwhile.
  ~WalkScope() { loop_->flags = (loop_->flags & ~kWalkDepthMask) | outer_; }

  bool is_inner() const { return outer_ != 0; }

 private:
  OrpUvLoop *loop_;
  uint32_t outer_;
};

inline bool has_type(const OrpUvWatcher *watcher, uint32_t type) {
  return (watcher->status & type) != 0;
}

inline bool is_deleted(const OrpUvWatcher *watcher) {
  return (watcher->status & ORP_UV_DELETED) != 0;
}

// The typed record of a watcher whose type is known.
template <typename T>
T *as(OrpUvWatcher *watcher) {
  return reinterpret_cast<T *>(watcher);
}

Status init_watcher(OrpUvLoop *loop, OrpUvWatcher *watcher, uint32_t type);
Status start_watcher(OrpUvWatcher *watcher);
Status delete_watcher(OrpUvWatcher *watcher);

// A safe point: frees the deleted watchers, unless an outer walk is under way.
void sweep_deleted(OrpUvLoop *loop);

// Procedure of the idle watcher in OrpUvLoop.deferredFree: frees the data that waits.
void free_deferred_data(OrpUvIdle *watcher);

// Frees every watcher or, inside a walk, leaves that to the walk's run, and empties the record.
void destroy_loop(OrpUvLoop *loop);

}  // namespace msgapi::uv
