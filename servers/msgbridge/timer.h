// A timer of the library's loop that fires once for each start.
#pragma once

#include <algorithm>
#include <cstdint>
#include <functional>
#include <utility>

#include "msgapi/loop.h"

namespace msgbridge {

class Timer {
 public:
  explicit Timer(std::function<void()> procedure) : procedure_(std::move(procedure)) {}
  ~Timer() { stop(); }
  Timer(const Timer &) = delete;
  Timer &operator=(const Timer &) = delete;

  // From now; an earlier start counts no more.
  void start(uint32_t ms) {
    stop();
    timer_ = ORP_UTIL_TimerAdd(std::max(ms, 1u), 1, fire, reinterpret_cast<ORP_WORD>(this));
  }
  // Unless it is running.
  void start_if_idle(uint32_t ms) {
    if (timer_ == nullptr) start(ms);
  }
  void stop() { OrpTimerSafeDel(&timer_); }

 private:
  static void fire(ORP_WORD self) {
    auto *timer = reinterpret_cast<Timer *>(self);
    timer->timer_ = nullptr;  // the loop ends it after this
    // The procedure may end the timer, and with it itself.
    const std::function<void()> procedure = timer->procedure_;
    procedure();
  }

  std::function<void()> procedure_;
  OrpUvTimer *timer_ = nullptr;
};

}  // namespace msgbridge
