// A timer of the library's loop that fires once for each start.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <functional>
#include <utility>

#include "msgapi/loop.h"
#include "msgbridge/guard.h"

namespace msgbridge {

class Timer {
 public:
  // A procedure that throws, for example without memory, runs again after a second.
  explicit Timer(std::function<void()> procedure) : procedure_(std::move(procedure)) {}
  ~Timer() {
    stop();
    if (ended_ != nullptr) *ended_ = true;
  }
  Timer(const Timer &) = delete;
  Timer &operator=(const Timer &) = delete;

  // Fires after `ms`. An earlier start no longer counts.
  void start(uint32_t ms) {
    stop();
    due_ = Clock::now() + std::chrono::milliseconds(ms);
    timer_ = ORP_UTIL_TimerAdd(std::max(ms, 1u), 1, fire, reinterpret_cast<ORP_WORD>(this));
  }
  // Does nothing while it is running.
  void start_if_idle(uint32_t ms) {
    if (timer_ == nullptr) start(ms);
  }
  // Does nothing if it fires within `ms` already.
  void start_within(uint32_t ms) {
    if (timer_ == nullptr || due_ > Clock::now() + std::chrono::milliseconds(ms)) start(ms);
  }
  void stop() { OrpTimerSafeDel(&timer_); }

 private:
  using Clock = std::chrono::steady_clock;
  static constexpr uint32_t kAgain_ms = 1000;

  static void fire(ORP_WORD self) {
    auto *timer = reinterpret_cast<Timer *>(self);
    timer->timer_ = nullptr;  // the loop deletes its watcher after this call
    // The procedure may destroy this timer, and itself with it.
    bool ended = false;
    timer->ended_ = &ended;
    const bool done = guarded("A timer's work", [timer] {
      const std::function<void()> procedure = timer->procedure_;
      procedure();
    });
    if (ended) return;
    timer->ended_ = nullptr;
    if (!done) timer->start_within(kAgain_ms);
  }

  std::function<void()> procedure_;
  OrpUvTimer *timer_ = nullptr;
  Clock::time_point due_;
  bool *ended_ = nullptr;  // while the procedure runs: set when this is destroyed
};

}  // namespace msgbridge
