// The loop: timers, idle procedures, one select(), callbacks.
//
// The order of an iteration is fixed and documented in docs/loop.md. Watchers are freed between the
// passes only; walks hold what they need across callbacks (uv/watcher.h).

#include "uv/loop.h"

#include <sys/select.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <cstdio>

#include "base/list.h"
#include "base/memory.h"
#include "msgapi/sockbase.h"
#include "os/clock.h"
#include "uv/child_signal.h"
#include "uv/console.h"
#include "uv/default_loop.h"
#include "uv/descriptor_set.h"
#include "uv/freeing.h"
#include "uv/idle.h"
#include "uv/io.h"
#include "uv/timer.h"
#include "uv/trace_point.h"
#include "uv/watcher.h"

namespace msgapi::uv {
namespace {

// What one select() waits for, and then what is ready.
struct Waiting {
  WorkingSet read, error, write;
};

// The descriptors that live watchers wait for. Any other bit in a set was left there by a watcher
// that lost its descriptor, was freed without being stopped, or has read the end of its stream.
struct Wanted {
  OrpUvDescriptorSet read, error, write;
};

Wanted collect_wanted(const OrpUvLoop *loop) {
  Wanted wanted = {};
  for (OrpUvWatcher *watcher = loop->watchers; watcher != nullptr; watcher = watcher->link) {
    if (!has_type(watcher, ORP_UV_IO) || is_deleted(watcher)) continue;
    const auto *io = as<OrpUvIo>(watcher);
    const bool ended = (watcher->status & kEndOfStream) != 0;
    if ((io->armed & ORP_UV_READABLE) != 0 && !ended) set_add(wanted.read, io->fd);
    if ((io->armed & ORP_UV_EXCEPTION) != 0) set_add(wanted.error, io->fd);
    if ((io->armed & ORP_UV_WRITABLE) != 0) set_add(wanted.write, io->fd);
  }
  return wanted;
}

void copy_sets(OrpUvLoop *loop, Waiting *sets) {
  sets->read.copy(loop->readSet);
  sets->error.copy(loop->errorSet);
  sets->write.copy(loop->writeSet);
  if ((loop->flags & kLoopFilterSets) == 0) return;

  const Wanted wanted = collect_wanted(loop);
  bool filtered = sets->read.keep(wanted.read);
  filtered |= sets->error.keep(wanted.error);
  filtered |= sets->write.keep(wanted.write);
  if (!filtered) loop->flags &= ~kLoopFilterSets;
}

// A child has been reaped and the loop's reaper has not reported it yet: the next iteration will.
bool exit_waits(const OrpUvLoop *loop) {
  return loop->reaper != nullptr && g_child_reaped != 0;
}

int wait_for(OrpUvLoop *loop, Waiting *sets, timespec timeout) {
  const int count = loop->maxFd + 1;
  assert(count <= ORP_UV_MAX_DESCRIPTORS);  // select() looks at that many bits
  fd_set *read = sets->read.native(), *write = sets->write.native(), *error = sets->error.native();
  // Without a time-out the kernel does not read the clock.
  const timespec *limit = timeout.tv_sec == kNoTimeout_s ? nullptr : &timeout;
  if (loop->reaper == nullptr) return ::pselect(count, read, write, error, limit, nullptr);

  // A child may be reaped between the reaper's look and the wait; the wait must not sleep through
  // it.
  const ChildSignalBlock block;
  if (exit_waits(loop)) {
    timeout = {};
    limit = &timeout;
  }
  return ::pselect(count, read, write, error, limit, block.before());
}

// False for an event that has lost its watcher.
bool call_forced(const OrpUvForced *entry) {
  OrpUvIo *io = entry->watcher;
  if (!has_type(&io->head, ORP_UV_IO) || is_deleted(&io->head)) return false;

  ORP_TRACE_PrintInfo("UVLoopForcedHandleLoop", __LINE__, 0, "sockbase", kTraceLevel,
                      "Do sockbase %p evt for fd %d proc %p now ...", static_cast<void *>(io),
                      io->fd, address(io->callback));
  if (io->callback != nullptr) io->callback(io, entry->events);
  return true;
}

// Delivers queued events, instead of ready descriptors. True when one was delivered. What the
// callbacks queue waits for the next iteration.
bool deliver_forced(OrpUvLoop *loop) {
  OrpUvForced *batch = loop->forced;
  loop->forced = nullptr;
  for (const OrpUvForced *entry = batch; entry != nullptr; entry = entry->link) {
    hold(&entry->watcher->head);
  }

  bool delivered = false;
  while (batch != nullptr) {
    const Owned<OrpUvForced> entry(list_unlink_at(&batch));
    delivered |= call_forced(entry.get());
    let_go(&entry->watcher->head);
  }
  return delivered;
}

// A real event replaces the same event when that was queued for the watcher.
void drop_forced(OrpUvLoop *loop, const OrpUvIo *watcher, uint32_t event) {
  for (OrpUvForced **place = &loop->forced; *place != nullptr; place = &(*place)->link) {
    if ((*place)->watcher == watcher && (*place)->events == event) {
      std::free(list_unlink_at(place));
      return;
    }
  }
}

bool is_open(int fd) {
  struct stat unused;
  if (::fstat(fd, &unused) == 0) return true;

  ORP_TRACE_PrintInfo("UVLoopIsFdReady", __LINE__, 0, "sockbase", kTraceLevel,
                      "Invalid fd %d:%d detected.\n", fd, errno);
  ORP_TRACE_PrintInfo("UVLoopIsFdReady", __LINE__, 0, "sockbase", kTraceLevel,
                      "get pid %d in Invalid fd.\n", ::getpid());
  return false;
}

void call_io(OrpUvLoop *loop, OrpUvIo *io, uint32_t event) {
  const ORP_UV_IO_PROC callback = io->callback;
  const int fd = io->fd;
  ORP_TRACE_PrintInfo("UVLoopHandleLoop", __LINE__, 0, "track", kTraceLevel,
                      "[start io %lld:%u:%d] proc %p", static_cast<long long>(loop->iteration),
                      event, fd, address(callback));
  callback(io, event);
  ORP_TRACE_PrintInfo("UVLoopHandleLoop", __LINE__, 0, "track", kTraceLevel,
                      "[end io %lld:%u:%d] proc %p", static_cast<long long>(loop->iteration), event,
                      fd, address(callback));
}

// Calls the watchers whose descriptors are in `ready`. *called: a callback has run since select()
// returned, so descriptors may have been closed since.
void dispatch(OrpUvLoop *loop, const WorkingSet &ready, uint32_t event, bool *called) {
  skip_pass(loop, false);
  sweep_deleted(loop);
  if (ready.empty()) return;

  for (OrpUvWatcher *watcher = loop->watchers, *next; watcher != nullptr; watcher = next) {
    next = watcher->link;
    if (!has_type(watcher, ORP_UV_IO) || is_deleted(watcher)) continue;
    auto *io = as<OrpUvIo>(watcher);
    if (!ready.contains(io->fd) || io->callback == nullptr) continue;
    if (*called && !is_open(io->fd)) continue;

    drop_forced(loop, io, event);
    *called = true;
    const HoldScope held(watcher, next);
    call_io(loop, io, event);
    if ((loop->flags & ORP_UV_LOOP_SKIP) != 0) return;
  }
}

void dispatch_all(OrpUvLoop *loop, const Waiting &ready) {
  bool called = false;
  dispatch(loop, ready.read, ORP_UV_READABLE, &called);
  dispatch(loop, ready.error, ORP_UV_EXCEPTION, &called);
  dispatch(loop, ready.write, ORP_UV_WRITABLE, &called);
}

void check_descriptor(OrpUvWatcher *watcher) {
  if (!has_type(watcher, ORP_UV_IO)) return;
  auto *io = as<OrpUvIo>(watcher);
  const uint32_t status = watcher->status & kPublicStatus;
  if (!fits_set(io->fd)) {
    print_debug(360, "Why watcher is on status [0x%x]/[0x%x]", status, io->armed);
    return;
  }

  struct stat unused;
  if (::fstat(io->fd, &unused) == 0 || errno != EBADF) return;
  print_debug(367, "Find Process [%d] has a bogus fd [%d] on status [0x%x]", ::getpid(), io->fd,
              status);
  take_descriptor_away(io);
}

void sweep_orphans(OrpUvLoop *loop) {
  OrpUvDescriptorSet held = {};
  for (OrpUvWatcher *watcher = loop->watchers; watcher != nullptr; watcher = watcher->link) {
    if (has_type(watcher, ORP_UV_IO) && !is_deleted(watcher)) {
      set_add(held, as<OrpUvIo>(watcher)->fd);
    }
  }
  for (int fd = 0; fd <= loop->maxFd && fits_set(fd); ++fd) {
    if (!set_contains(loop->readSet, fd) || set_contains(held, fd)) continue;
    print_debug(485, "Fd [%d] in set but not in watcher", fd);
    if (!set_remove(loop->readSet, fd)) print_debug(488, "Clear fd set failed on [%d]", fd);
  }
}

// select() met a descriptor that is not open: whoever holds one loses it.
void recover_from_bad_descriptors(OrpUvLoop *loop) {
  for (OrpUvWatcher *watcher = loop->watchers; watcher != nullptr; watcher = watcher->link) {
    check_descriptor(watcher);
  }
  sweep_orphans(loop);
  loop->flags |= kLoopFilterSets;
}

// One wait, and delivery of what it found.
//
// Queued events, and skip_wait(), do not replace the wait; they shorten it to a look, so that a
// closed descriptor is noticed in every iteration. When one of them is delivered, ready descriptors
// are left alone. That loses nothing, because they are still ready in the next iteration. A run
// ends as idle only after a second look, so it never misses an event that came together with the
// time-out.
Status select_step(OrpUvLoop *loop) {
  Waiting sets;
  copy_sets(loop, &sets);

  ORP_TIME_ST *limit = &loop->selectTimeout;
  const bool only_look = loop->forced != nullptr || (loop->flags & kLoopLook) != 0;
  // A look does not count as idle time.
  const bool idle_due = !only_look && loop->idleTime != 0 &&
                        static_cast<int32_t>(loop->idleTime / 1000) <= limit->seconds;
  timespec timeout = {.tv_sec = 0, .tv_nsec = 1000};
  if (!only_look) {
    const int64_t seconds = int64_t{limit->seconds} + limit->microseconds / 1000000;
    limit->seconds = static_cast<int32_t>(std::min<int64_t>(seconds, INT32_MAX));
    limit->microseconds %= 1000000;
    timeout = {.tv_sec = limit->seconds, .tv_nsec = long{limit->microseconds} * 1000};
  }

  const int ready = wait_for(loop, &sets, timeout);
  if (ready > 0) {
    if (!deliver_forced(loop)) dispatch_all(loop, sets);
    return Status::kOk;
  }
  if (ready == 0) {
    if (idle_due && !exit_waits(loop)) {
      copy_sets(loop, &sets);
      if (wait_for(loop, &sets, {.tv_sec = 0, .tv_nsec = 100000}) == 0) return Status::kTimeout;
      // What this look saw is still there in the next iteration.
    }
    deliver_forced(loop);
    sweep_deleted(loop);
    return Status::kOk;
  }
  if (errno == EBADF) {
    recover_from_bad_descriptors(loop);
    return Status::kOk;
  }
  if (errno == EINTR) return Status::kOk;
  std::printf("Sock base select err %d.\n", errno);
  return Status::kSystem;
}

// In a synchronous spawn only pipes are worth a wait: the reaper reports the child's end.
bool has_to_wait(const OrpUvLoop *loop) {
  for (OrpUvWatcher *watcher = loop->watchers; watcher != nullptr; watcher = watcher->link) {
    if (has_type(watcher, ORP_UV_IO)) {
      if (!is_deleted(watcher)) return true;
    } else if (!has_type(watcher, ORP_UV_PROCESS | ORP_UV_IDLE)) {
      print_debug(713, "Spawn loop shouldn't have [0x%x] type watcher",
                  watcher->status & kPublicStatus);
      return true;
    }
  }
  return false;
}

bool is_stopped(const OrpUvLoop *loop) {
  return (loop->flags & (ORP_UV_LOOP_STOP | kLoopEnded)) != 0;
}

}  // namespace

Status run_loop(OrpUvLoop *loop, uint32_t idle_ms, RunMode mode) {
  const WalkScope walk(loop);
  loop->idleTime = idle_ms;
  loop->iteration = 0;
  Status result = Status::kOk;
  while (!is_stopped(loop)) {
    loop->flags &= ~kLoopLook;
    (void)os::read_monotonic(&loop->now);
    result = run_timers(loop, &loop->selectTimeout);
    run_idle_procedures(loop);
    if (is_stopped(loop)) break;

    if (mode == RunMode::kNormal || has_to_wait(loop)) {
      result = select_step(loop);
      if (result != Status::kOk) loop->flags |= ORP_UV_LOOP_STOP;
    }
    ++loop->iteration;
  }
  // There is one stop bit: the run that ends by it clears it, even if an outer run was meant.
  loop->flags &= ~ORP_UV_LOOP_STOP;

  // This inner run may have served what the pass around it still takes for ready, and it has left
  // the time-out of its own last wait.
  if (walk.is_inner()) {
    skip_pass(loop, true);
    skip_wait(loop);
  }
  return result;
}

}  // namespace msgapi::uv

using namespace msgapi;
using namespace msgapi::uv;

extern "C" void OrpUvLoopUpdateSelectTimeout(OrpUvLoop *loop, const ORP_TIME_ST *time) {
  if (time == nullptr) return;

  ORP_TIME_ST *limit = &loop_or_default(loop)->selectTimeout;
  if (time->seconds < limit->seconds) {
    *limit = *time;
  } else if (time->seconds == limit->seconds && time->microseconds < limit->microseconds) {
    limit->microseconds = time->microseconds;
  }
}

extern "C" void OrpUvLoopSetIdleTime(OrpUvLoop *loop, uint32_t idleMs) {
  loop_or_default(loop)->idleTime = idleMs;
}

extern "C" uint32_t OrpUvLoopGetIdleTime(OrpUvLoop *loop) {
  return loop_or_default(loop)->idleTime;
}

extern "C" void OrpUvLoopStop(OrpUvLoop *loop) {
  if (loop != nullptr) loop->flags |= ORP_UV_LOOP_STOP;
}

extern "C" uint32_t OrpUvLoopRun(OrpUvLoop *loop, uint32_t idleMs) {
  return code(run_loop(loop_or_default(loop), idleMs, RunMode::kNormal));
}

extern "C" uint32_t ORP_UV_LoopRun(OrpUvLoop *loop, uint32_t idleMs) {
  return code(run_loop(loop_or_default(loop), idleMs, RunMode::kNormal));
}

extern "C" uint32_t ORP_UTIL_SockBaseStart(uint32_t seconds) {
  return code(run_loop(default_loop(), seconds * 1000, RunMode::kNormal));
}

extern "C" int32_t OrpUvLoopGetMaxFd(OrpUvLoop *loop) {
  return loop_or_default(loop)->maxFd;
}

extern "C" uint64_t OrpUvLoopGetCurIdx(OrpUvLoop *loop) {
  return loop_or_default(loop)->iteration;
}
