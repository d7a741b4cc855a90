// A model of the loop: which watchers it has, and which callback comes next.
#pragma once

#include <algorithm>
#include <cstdint>
#include <map>
#include <ostream>
#include <utility>
#include <vector>

#include "msgapi/loop.h"

namespace msgapi {

constexpr uint32_t kNothing = UINT32_MAX;

struct Item {
  enum Kind { kIo, kTimer, kIdle, kProcess, kReaper } kind;
  OrpUvWatcher *watcher;
  bool active = true, deleted = false, freed = false;
  // I/O
  int fd = -1, peer = -1;
  bool readable = false;
  uint32_t armed = 0;
  // Timer
  bool due = false, ended = false, firing = false;
  uint32_t count = 0;
  // Process
  bool exited = false;

  void remove() {
    active = false;
    deleted = true;
  }
  template <typename T>
  T *as() const {
    return reinterpret_cast<T *>(watcher);
  }
};

// A callback, by its watcher's number. kNothing: the run ends.
struct Call {
  uint32_t id, event;
  bool operator==(const Call &) const = default;
};

inline std::ostream &operator<<(std::ostream &out, const Call &call) {
  return out << "watcher " << static_cast<int>(call.id) << " event " << call.event;
}

class ExpectedRun;

// What the loop's record holds. Items are in list order; freed ones are skipped.
struct Model {
  std::vector<Item> items;
  std::vector<Call> forced;
  bool skip = false, stop = false;
  std::vector<ExpectedRun *> runs;  // under way, the innermost last

  uint32_t successor(uint32_t id) const {
    while (++id < items.size() && items[id].freed) {
    }
    return id < items.size() ? id : kNothing;
  }

  // Frees deleted items that no run around the innermost one holds.
  void sweep();
};

// The calls of one run: an iteration and, because item 0 stops the loop in each later one, timers
// and idle procedures. An inner run that begins after that stop takes it: then further iterations
// follow.
class ExpectedRun {
 public:
  explicit ExpectedRun(Model *model) : model_(*model) { model_.runs.push_back(this); }
  ~ExpectedRun() { model_.runs.pop_back(); }

  bool is_first_iteration() const { return first_; }

  Call next() {
    settle_last();
    current_ = kNothing;
    for (; phase_ != kEnd; advance()) {
      const Call call = phase_ == kForced ? next_forced() : next_watcher();
      current_ = call.id;
      if (call.id != kNothing) return call;
    }
    return {kNothing, 0};
  }

  // During a call, a walk holds the watcher that is called and the next one. The reaper's walk
  // happens within the call of the reaper. Queued events hold their watchers, too.
  bool holds(uint32_t id) const {
    if (id == current_) return true;
    if (phase_ == kForced) {
      return std::ranges::any_of(batch_, [id](const Call &call) { return call.id == id; });
    }
    return id == position_ || (reporting_ && (id == reaper_ || id == exit_position_));
  }

 private:
  enum Phase { kTimers, kIdle, kForced, kRead, kWrite, kEnd };

  void enter(Phase phase) {
    phase_ = phase;
    in_pass_ = false;
    if (phase == kRead || phase == kWrite) {
      model_.skip = false;
      model_.sweep();  // every pass begins with a safe point
    }
    position_ = model_.successor(kNothing);
  }

  void advance() {
    switch (phase_) {
      case kTimers:
        return enter(kIdle);
      case kIdle:
        return model_.stop ? enter(kEnd) : select();
      case kForced:
        if (ready_.empty()) model_.sweep();
        if (!ready_.empty() && !delivered_) return enter(kRead);
        break;
      case kRead:
        model_.sweep();  // the exceptional pass, which has no calls
        return enter(kWrite);
      case kWrite:
      case kEnd:
        break;
    }
    first_ = false;
    enter(kTimers);
  }

  void select() {
    ready_.clear();
    delivered_ = false;
    for (const Item &item : model_.items) {
      if (item.freed || item.fd < 0) continue;
      const uint32_t possible = ORP_UV_WRITABLE | (item.readable ? ORP_UV_READABLE : 0);
      if ((item.armed & possible) != 0) ready_[item.fd] = item.armed & possible;
    }
    batch_.swap(model_.forced);
    phase_ = kForced;
  }

  Call next_watcher() {
    for (;;) {
      const Call exit = next_exit();
      reporting_ = exit.id != kNothing;
      if (reporting_) return exit;
      const uint32_t id = position_;
      if (id == kNothing || (in_pass_ && model_.skip)) return {kNothing, 0};
      position_ = model_.successor(id);
      const uint32_t event = event_for(id);
      if (event != kNothing) return {id, event};
    }
  }

  // The event of the call that a watcher gets in this phase, or kNothing.
  uint32_t event_for(uint32_t id) {
    Item &item = model_.items[id];
    if (phase_ == kTimers && item.kind == Item::kTimer && !item.deleted && !item.firing) {
      if (item.ended) {
        item.remove();
      } else if (item.due) {
        item.firing = true;
        last_ = id;
        return 0;
      }
    }
    if (phase_ == kIdle) {
      if (item.kind == Item::kReaper) {
        reaper_ = id;
        exit_position_ = model_.successor(kNothing);
      }
      if (item.kind == Item::kIdle) return 0;
    }
    if ((phase_ == kRead || phase_ == kWrite) && item.kind == Item::kIo && !item.deleted) {
      const uint32_t event = phase_ == kRead ? ORP_UV_READABLE : ORP_UV_WRITABLE;
      const auto ready = ready_.find(item.fd);
      if (ready == ready_.end() || (ready->second & event) == 0) return kNothing;
      const auto same = std::ranges::find(model_.forced, Call{id, event});
      if (same != model_.forced.end()) model_.forced.erase(same);
      in_pass_ = true;
      return event;
    }
    return kNothing;
  }

  // The reaper's walk, within its call as an idle procedure.
  Call next_exit() {
    while (exit_position_ != kNothing) {
      const uint32_t id = exit_position_;
      exit_position_ = model_.successor(id);
      Item &item = model_.items[id];
      if (item.deleted || !item.exited) continue;
      item.exited = false;
      last_ = id;
      return {id, 0};
    }
    return {kNothing, 0};
  }

  Call next_forced() {
    while (!batch_.empty()) {
      const Call call = batch_.front();
      batch_.erase(batch_.begin());
      if (model_.items[call.id].deleted) continue;
      delivered_ = true;
      return call;
    }
    return {kNothing, 0};
  }

  // What the loop does with a timer or a process watcher after its call has returned.
  void settle_last() {
    if (last_ == kNothing) return;
    Item &item = model_.items[std::exchange(last_, kNothing)];
    if (item.kind == Item::kProcess) return item.remove();
    item.firing = false;
    if (item.count == 1) {
      item.ended = true;
      return;
    }
    item.due = false;
    if (item.count > 1) --item.count;
  }

  Model &model_;
  Phase phase_ = kTimers;
  uint32_t position_ = 0;  // item 0 is never freed
  uint32_t exit_position_ = kNothing, reaper_ = kNothing;
  uint32_t current_ = kNothing;
  uint32_t last_ = kNothing;
  bool first_ = true, delivered_ = false, in_pass_ = false, reporting_ = false;
  std::map<int, uint32_t> ready_;
  std::vector<Call> batch_;
};

inline void Model::sweep() {
  const auto is_held = [&](uint32_t id) {
    return std::any_of(runs.begin(), runs.end() - 1, [&](auto *run) { return run->holds(id); });
  };
  for (uint32_t id = 0; id < items.size(); ++id) {
    if (items[id].freed || !items[id].deleted || is_held(id)) continue;
    items[id].freed = true;
    std::erase_if(forced, [&](const Call &entry) { return entry.id == id; });
  }
}

}  // namespace msgapi
