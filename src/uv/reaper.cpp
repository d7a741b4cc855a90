#include "uv/reaper.h"

#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

#include "uv/child_signal.h"
#include "uv/default_loop.h"
#include "uv/watcher.h"

namespace msgapi::uv {
namespace {

// Statuses of children without a watcher; the newest overwrites the oldest. Changed only with
// SIGCHLD blocked.
struct KnownStatus {
  pid_t pid;  // 0: free
  int status;
};
constexpr uint32_t kKnownStatuses = 64;
KnownStatus g_known[kKnownStatuses];
uint32_t g_next_known;

// All process watchers that spawns have made. Changed only with SIGCHLD blocked.
SpawnedProcess *g_spawned;

// The thread that runs the loops: the handler does its work only there.
pid_t g_owner;

pid_t this_thread() {
  return static_cast<pid_t>(::syscall(SYS_gettid));
}

KnownStatus *find_known(pid_t pid) {
  for (KnownStatus &known : g_known) {
    if (known.pid == pid) return &known;
  }
  return nullptr;
}

void remember(pid_t pid, int status) {
  KnownStatus *place = find_known(pid);
  if (place == nullptr) place = &g_known[g_next_known++ % kKnownStatuses];
  *place = {pid, status};
}

bool take_known(pid_t pid, int *status) {
  KnownStatus *known = find_known(pid);
  if (known == nullptr) return false;
  *status = known->status;
  known->pid = 0;
  return true;
}

// Whether this is the watcher of the child that runs or, with `exited`, of the one that was reaped:
// a number may be in use again before the exit of its last owner has been reported. Deleted
// watchers get no status any more, but keep theirs until they are freed.
bool is_of_child(const OrpUvProcess *process, pid_t pid, bool exited) {
  return process->pid == pid && (process->exited != 0) == exited &&
         (exited || !is_deleted(&process->head));
}

OrpUvProcess *find_process(const OrpUvLoop *loop, pid_t pid, bool exited) {
  for (OrpUvWatcher *watcher = loop->watchers; watcher != nullptr; watcher = watcher->link) {
    if (!has_type(watcher, ORP_UV_PROCESS)) continue;
    if (is_of_child(as<OrpUvProcess>(watcher), pid, exited)) return as<OrpUvProcess>(watcher);
  }
  return nullptr;
}

OrpUvProcess *find_process(pid_t pid, bool exited) {
  for (SpawnedProcess *spawned = g_spawned; spawned != nullptr; spawned = spawned->link) {
    if (is_of_child(&spawned->process, pid, exited)) return &spawned->process;
  }
  // Watchers that the application has made in records of its own. A synchronous spawn puts the
  // process's own default loop aside, but not its children.
  const OrpUvLoop *override_loop = default_loop_override();
  OrpUvProcess *found = nullptr;
  if (override_loop != nullptr) found = find_process(override_loop, pid, exited);
  return found != nullptr ? found : find_process(own_default_loop(), pid, exited);
}

void record_in_watcher(OrpUvProcess *process, int status) {
  const pid_t pid = process->pid;
  process->waitStatus = status;
  process->exited = 1;
  g_child_reaped = 1;
  if (process->reapProc == nullptr) return;
  const ExitStatus decoded = decode_status(status);
  process->reapProc(process, pid, decoded.term_signal, decoded.exit_code);
}

// Async-signal-safe.
void record_status(pid_t pid, int status, ORP_UV_WAIT_ST *record) {
  const ChildSignalBlock block;
  if (OrpUvProcess *process = find_process(pid, false)) {
    record_in_watcher(process, status);
    return;
  }
  if (record != nullptr && record->pid == pid) record->status = status;
  remember(pid, status);
  g_child_reaped = 1;
}

void on_child_signal(int /*signal*/) {
  const int saved_errno = errno;
  // The kernel may have picked another thread, which must not touch the lists beside their owner.
  const bool handed_on =
      this_thread() != g_owner && ::syscall(SYS_tgkill, ::getpid(), g_owner, SIGCHLD) == 0;
  if (!handed_on) {
    reap_children(nullptr);
    install_child_handler();
  }
  errno = saved_errno;
}

}  // namespace

ExitStatus decode_status(int status) {
  const auto bits = static_cast<uint32_t>(status);
  const uint32_t low = bits & 0xffff;
  return {.exit_code = bits >> 8 & 0xff, .term_signal = low >= 1 && low <= 255 ? bits & 0x7f : 0};
}

void install_child_handler() {
  g_owner = this_thread();
  struct sigaction action = {};
  action.sa_handler = on_child_signal;
  action.sa_flags = SA_NOCLDSTOP;
  ::sigaction(SIGCHLD, &action, nullptr);
}

pid_t reap_children(ORP_UV_WAIT_ST *record) {
  for (;;) {
    int status;
    const pid_t pid = ::waitpid(-1, &status, WNOHANG);
    if (pid <= 0) return pid;
    record_status(pid, status, record);
  }
}

ChildState look_at_child(pid_t pid, int *status) {
  const ChildSignalBlock block;
  const pid_t reaped = ::waitpid(pid, status, WNOHANG);
  if (reaped == pid) {
    if (OrpUvProcess *process = find_process(pid, false)) record_in_watcher(process, *status);
    return ChildState::kEnded;
  }
  if (reaped == 0) {
    forget_status(pid);
    return ChildState::kRunning;
  }

  // Somebody else, usually the handler, has reaped it.
  if (take_known(pid, status)) return ChildState::kEnded;
  const OrpUvProcess *process = find_process(pid, true);
  if (process == nullptr) return ChildState::kUnknown;
  *status = process->waitStatus;
  return ChildState::kEnded;
}

void forget_status(pid_t pid) {
  int unused;
  (void)take_known(pid, &unused);
}

void enlist(SpawnedProcess *spawned) {
  const ChildSignalBlock block;
  spawned->link = g_spawned;
  g_spawned = spawned;
}

void delist(SpawnedProcess *spawned) {
  const OrpUvProcess &process = spawned->process;
  if (process.exited != 0 && find_known(process.pid) == nullptr) {
    remember(process.pid, process.waitStatus);
  }

  SpawnedProcess **place = &g_spawned;
  while (*place != nullptr && *place != spawned) place = &(*place)->link;
  if (*place != nullptr) *place = spawned->link;
}

}  // namespace msgapi::uv

using namespace msgapi::uv;

extern "C" int32_t OrpUvProcessWaitpid(ORP_UV_WAIT_ST *record) {
  return reap_children(record);
}
