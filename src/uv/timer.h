// Timers of a loop.
#pragma once

#include "base/status.h"
#include "msgapi/loop.h"

namespace msgapi::uv {

// Seconds of a time-out that stand for none at all.
constexpr int32_t kNoTimeout_s = 0x7fffffff;

// A new, started timer that fires `count` times (0: until it is ended); null without memory. The
// name is for debuggers only.
OrpUvTimer *add_timer(uint32_t interval_ms, uint32_t count, ORP_TIMER_PROC callback, ORP_WORD data,
                      const char *name = nullptr);

// Fires the due timers and stores in *timeout how long the loop may wait for the next one.
Status run_timers(OrpUvLoop *loop, ORP_TIME_ST *timeout);

// The timer does not fire again; the next timer pass deletes it.
inline void end_timer(OrpUvTimer *timer) {
  if (timer != nullptr) timer->callback = nullptr;
}

}  // namespace msgapi::uv
