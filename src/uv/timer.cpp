// Timers: {seconds, microseconds} of the monotonic clock, kept in the loop's watcher list like all
// other watchers and looked through once an iteration.

#include "uv/timer.h"

#include <algorithm>
#include <cassert>

#include "base/memory.h"
#include "base/text.h"
#include "os/clock.h"
#include "uv/trace_point.h"
#include "uv/watcher.h"

namespace msgapi::uv {
namespace {

static_assert(sizeof(void *) != 4 || sizeof(OrpUvTimer) == 52);

constexpr int32_t kNever_s = 0x7fffffff;     // expiry of a sleeping timer
constexpr int32_t kMicroseconds = 1000000;   // in a second
constexpr uint32_t kShortestChange_ms = 10;  // until the first expiry after a change of period

ORP_TIME_ST span_of(uint32_t ms) {
  return {static_cast<int32_t>(ms / 1000), static_cast<int32_t>(ms % 1000 * 1000)};
}

ORP_TIME_ST add(const ORP_TIME_ST &time, uint32_t ms) {
  const ORP_TIME_ST span = span_of(ms);
  const int64_t microseconds = int64_t{time.microseconds} + span.microseconds;
  return {static_cast<int32_t>(int64_t{time.seconds} + span.seconds + microseconds / kMicroseconds),
          static_cast<int32_t>(microseconds % kMicroseconds)};
}

ORP_TIME_ST difference(const ORP_TIME_ST &later, const ORP_TIME_ST &earlier) {
  const bool whole_seconds = later.seconds > earlier.seconds;
  ORP_TIME_ST span = {0, 0};
  if (whole_seconds) {
    span.seconds = static_cast<int32_t>(int64_t{later.seconds} - earlier.seconds);
  }
  if (later.microseconds >= earlier.microseconds) {
    span.microseconds = static_cast<int32_t>(int64_t{later.microseconds} - earlier.microseconds);
  } else if (whole_seconds) {
    span.seconds -= 1;
    span.microseconds =
        static_cast<int32_t>(int64_t{later.microseconds} + kMicroseconds - earlier.microseconds);
  }
  return span;
}

bool is_later(const ORP_TIME_ST &a, const ORP_TIME_ST &b) {
  return a.seconds != b.seconds ? a.seconds > b.seconds : a.microseconds > b.microseconds;
}

void lower(ORP_TIME_ST *best, const ORP_TIME_ST &candidate) {
  if (!is_later(candidate, *best)) *best = candidate;
}

void set_expiry(OrpUvTimer *timer, const ORP_TIME_ST &expiry) {
  timer->expirySec = expiry.seconds;
  timer->expiryUsec = expiry.microseconds;
}

// Arms the timer from the moment of this call, also for an inner run of its own procedure. A timer
// that is set after the timer pass, by an idle procedure say, must not wait for the next event, so
// this also shortens the coming wait.
void expire_in(OrpUvTimer *timer, uint32_t ms) {
  ORP_TIME_ST now;
  (void)os::read_monotonic(&now);
  set_expiry(timer, add(now, ms));
  timer->head.status &= ~kFiring;
  if (timer->head.loop != nullptr) lower(&timer->head.loop->selectTimeout, span_of(ms));
}

// Calls a due timer, schedules its next expiry, and lowers *timeout to it.
void fire(OrpUvLoop *loop, OrpUvTimer *timer, ORP_TIME_ST *timeout) {
  // The procedure may end the timer; the caller holds the record.
  const ORP_TIMER_PROC callback = timer->callback;
  assert(callback != nullptr);
  ORP_TRACE_PrintInfo("UVTimerLoop", __LINE__, 0, "track", kTraceLevel, "[start timer %lld:%p:%p]",
                      static_cast<long long>(loop->iteration),
                      reinterpret_cast<void *>(timer->head.data), address(callback));
  timer->head.status |= kFiring;
  callback(timer->head.data);
  timer->head.status &= ~kFiring;
  ORP_TRACE_PrintInfo("UVTimerLoop", __LINE__, 0, "track", kTraceLevel, "[end timer %lld:%p:%p]",
                      static_cast<long long>(loop->iteration),
                      reinterpret_cast<void *>(timer->head.data), address(callback));

  if (timer->count == 1) {
    end_timer(timer);
    return;
  }
  if (timer->count != 0) --timer->count;
  set_expiry(timer, add(loop->now, timer->interval));
  lower(timeout, span_of(timer->interval));
}

Status init_timer(OrpUvLoop *loop, OrpUvTimer *timer) {
  const Status status = init_watcher(loop, &timer->head, ORP_UV_TIMER);
  if (status != Status::kOk) return status;

  timer->callback = nullptr;
  timer->interval = 0;
  return Status::kOk;
}

Status start_timer(OrpUvTimer *timer, uint32_t interval_ms, uint32_t count, ORP_TIMER_PROC callback,
                   ORP_WORD data) {
  timer->interval = interval_ms;
  timer->count = count;
  timer->callback = callback;
  timer->head.data = data;
  if (interval_ms != 0) expire_in(timer, interval_ms);
  return start_watcher(&timer->head);
}

void change_period(OrpUvTimer *timer, uint32_t interval_ms) {
  // Only the first expiry is kept at least 10 ms away: the interval stays as it was given.
  timer->interval = interval_ms;
  if (interval_ms == 0) {
    set_expiry(timer, {kNever_s, 0});
  } else {
    expire_in(timer, std::clamp<uint32_t>(interval_ms, kShortestChange_ms, INT32_MAX));
  }
}

}  // namespace

OrpUvTimer *add_timer(uint32_t interval_ms, uint32_t count, ORP_TIMER_PROC callback, ORP_WORD data,
                      const char *name) {
  if (callback == nullptr) return nullptr;
  Owned<OrpUvTimer> timer = make<OrpUvTimer>();
  if (!timer) return nullptr;

  (void)init_timer(nullptr, timer.get());
  if (name != nullptr) copy_cut(timer->name, name);
  (void)start_timer(timer.get(), interval_ms, count, callback, data);
  return timer.release();
}

Status run_timers(OrpUvLoop *loop, ORP_TIME_ST *timeout) {
  const uint32_t idle_ms = loop->idleTime;
  *timeout = span_of(idle_ms);
  if (idle_ms == 0) timeout->seconds = kNoTimeout_s;

  for (OrpUvWatcher *watcher = loop->watchers, *next; watcher != nullptr; watcher = next) {
    next = watcher->link;
    if (!has_type(watcher, ORP_UV_TIMER) || (watcher->status & (ORP_UV_DELETED | kFiring)) != 0) {
      continue;
    }

    auto *timer = as<OrpUvTimer>(watcher);
    if (timer->callback == nullptr) {
      ORP_TRACE_PrintInfo("UVTimerLoop", __LINE__, 0, "timer", kTraceLevel,
                          "delete timer %p now ...", static_cast<void *>(timer));
      (void)delete_watcher(watcher);
      continue;
    }
    if (timer->interval == 0 || timer->expirySec < 1) continue;

    const ORP_TIME_ST expiry = {timer->expirySec, timer->expiryUsec};
    if (is_later(expiry, loop->now)) {
      lower(timeout, difference(expiry, loop->now));
    } else {
      const HoldScope held(watcher, next);
      fire(loop, timer, timeout);
    }
  }
  return Status::kOk;
}

}  // namespace msgapi::uv

using namespace msgapi;
using namespace msgapi::uv;

extern "C" OrpUvTimer *ORP_TIMER_AddWithName(uint32_t intervalMs, uint32_t count,
                                             ORP_TIMER_PROC callback, const char *name,
                                             ORP_WORD data) {
  return add_timer(intervalMs, count, callback, data, name);
}

extern "C" OrpUvTimer *OrpTimerAddWithName(uint32_t intervalMs, uint32_t count,
                                           ORP_TIMER_PROC callback, const char *name,
                                           ORP_WORD data) {
  return add_timer(intervalMs, count, callback, data, name);
}

extern "C" OrpUvTimer *ORP_UTIL_TimerAdd(uint32_t intervalMs, uint32_t count,
                                         ORP_TIMER_PROC callback, ORP_WORD data) {
  return add_timer(intervalMs, count, callback, data);
}

extern "C" OrpUvTimer *OrpUtilTimerAdd(uint32_t intervalMs, uint32_t count, ORP_TIMER_PROC callback,
                                       ORP_WORD data) {
  return add_timer(intervalMs, count, callback, data);
}

extern "C" void OrpUtilTimerDel(OrpUvTimer *timer) {
  end_timer(timer);
}

extern "C" void OrpTimerSafeDel(OrpUvTimer **timer) {
  if (timer == nullptr) return;

  end_timer(*timer);
  *timer = nullptr;
}

extern "C" uint32_t OrpUtilTimerChgPeriod(OrpUvTimer *timer, uint32_t intervalMs) {
  if (timer != nullptr) change_period(timer, intervalMs);
  return code(Status::kOk);
}

extern "C" void OrpUtilTimerGetIntv(const ORP_TIME_ST *later, const ORP_TIME_ST *earlier,
                                    ORP_TIME_ST *result) {
  if (later == nullptr || earlier == nullptr || result == nullptr) return;

  *result = difference(*later, *earlier);
}

extern "C" uint32_t OrpUvTimerInit(OrpUvLoop *loop, OrpUvTimer *timer) {
  if (timer == nullptr) return code(Status::kBadArgument);

  return code(init_timer(loop, timer));
}

extern "C" uint32_t OrpUvTimerStart(OrpUvTimer *timer, uint32_t intervalMs, uint32_t count,
                                    ORP_TIMER_PROC callback, ORP_WORD data) {
  if (timer == nullptr) return code(Status::kBadArgument);

  return code(start_timer(timer, intervalMs, count, callback, data));
}

extern "C" uint32_t OrpUvTimerDelete(OrpUvTimer *timer) {
  return code(delete_watcher(timer == nullptr ? nullptr : &timer->head));
}
