// The watchers of a loop: their list, deletion, and walks over them.
//
// A walk over the list takes the successor before it calls, and holds both across the callback. A
// run of the loop inside that callback frees deleted watchers, but none that is held. Between the
// passes of the outermost run nobody holds anything, so its next safe point frees the rest.
#pragma once

#include <cassert>

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
constexpr uint32_t kLoopHasDeleted = 0x100;  // a watcher may be waiting to be freed
constexpr uint32_t kLoopFilterSets = 0x200;  // sets may hold descriptors not to be waited for
constexpr uint32_t kLoopEnded = 0x400;  // what the loop was run for has happened: no run goes on
constexpr uint32_t kLoopLook = 0x800;   // the wait of this iteration is only a look
constexpr uint32_t kWalkDepthUnit = 0x10000;  // the upper half counts walks under way

// Bits of OrpUvWatcher.status that only the library knows.
constexpr uint32_t kEndOfStream = 0x10000;    // the descriptor has reached the end of its stream
constexpr uint32_t kFiring = 0x20000;         // the timer's procedure runs and has not armed it
constexpr uint32_t kSpawned = 0x80000;        // the process watcher was made by a spawn
constexpr uint32_t kResponseWait = 0x100000;  // the socket base's data word is a response wait
constexpr uint32_t kHeldUnit = 0x400000;      // the upper bits count who holds the watcher
constexpr uint32_t kPublicStatus = 0xffff;

constexpr uint32_t kWalkDepthMask = ~(kWalkDepthUnit - 1);
constexpr uint32_t kHeldMask = ~(kHeldUnit - 1);

// The loop has something to do that no descriptor announces: it waits for nothing before its next
// iteration.
inline void skip_wait(OrpUvLoop *loop) {
  loop->flags |= kLoopLook;
}

inline uint32_t walk_depth(const OrpUvLoop *loop) {
  return loop->flags / kWalkDepthUnit;
}

// Marks a walk over the loop's watchers for its scope.
class WalkScope {
 public:
  explicit WalkScope(OrpUvLoop *loop) : loop_(loop), outer_(loop->flags & kWalkDepthMask) {
    assert(outer_ != kWalkDepthMask);
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

// Keeps an inner run from freeing a watcher (or null). A count that has reached its limit stays
// there: such a watcher is freed by the outermost run.
inline void hold(OrpUvWatcher *watcher) {
  if (watcher != nullptr && (watcher->status & kHeldMask) != kHeldMask) {
    watcher->status += kHeldUnit;
  }
}

inline void let_go(OrpUvWatcher *watcher) {
  if (watcher != nullptr && (watcher->status & kHeldMask) != kHeldMask) {
    watcher->status -= kHeldUnit;
  }
}

inline bool is_held(const OrpUvWatcher *watcher) {
  return (watcher->status & kHeldMask) != 0;
}

// What a walk holds during a callback.
class HoldScope {
 public:
  HoldScope(OrpUvWatcher *current, OrpUvWatcher *next) : current_(current), next_(next) {
    hold(current_);
    hold(next_);
  }
  HoldScope(const HoldScope &) = delete;
  HoldScope &operator=(const HoldScope &) = delete;
  ~HoldScope() {
    let_go(next_);
    let_go(current_);
  }

 private:
  OrpUvWatcher *current_, *next_;
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

}  // namespace msgapi::uv
