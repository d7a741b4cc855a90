// Process watchers: spawning, redirected pipes, reporting the exit, and the synchronous spawn.

#include "uv/process.h"

#include <unistd.h>

#include <cstring>

#include "base/memory.h"
#include "uv/child.h"
#include "uv/child_signal.h"
#include "uv/default_loop.h"
#include "uv/freeing.h"
#include "uv/idle.h"
#include "uv/io.h"
#include "uv/loop.h"
#include "uv/reaper.h"
#include "uv/redirect.h"
#include "uv/trace_point.h"
#include "uv/watcher.h"

namespace msgapi::uv {
namespace {

static_assert(sizeof(void *) != 4 || sizeof(OrpUvProcess) == 60);
static_assert(sizeof(void *) != 4 || sizeof(OrpUvSpawnOptions) == 64);

constexpr uint32_t kRedirectFlags[3] = {ORP_UV_SPAWN_STDIN, ORP_UV_SPAWN_STDOUT,
                                        ORP_UV_SPAWN_STDERR};

// ---- Redirects ----

void delete_redirect(OrpUvIo *redirect) {
  disconnect(redirect);
  (void)delete_io(redirect);
}

bool has_redirects(const OrpUvProcess *process) {
  return process->redirects[0] != nullptr || process->redirects[1] != nullptr ||
         process->redirects[2] != nullptr;
}

void delete_redirects(OrpUvProcess *process) {
  for (OrpUvIo *redirect : process->redirects) {
    if (redirect != nullptr) delete_redirect(redirect);
  }
}

void handle_output(OrpUvIo *redirect, uint32_t event) {
  OrpUvProcess *process = process_of(redirect);
  if (event != ORP_UV_READABLE) return;
  if (process == nullptr) {
    // Nobody is left to read it, and it would be readable for ever.
    (void)delete_io(redirect);
    return;
  }
  if (process->outputProc == nullptr) return;
  const bool is_output = redirect == process->redirects[STDOUT_FILENO];
  process->outputProc(process, redirect, is_output ? ORP_UV_SPAWN_STDOUT : ORP_UV_SPAWN_STDERR);
}

void handle_input(OrpUvIo *redirect, uint32_t event) {
  OrpUvProcess *process = process_of(redirect);
  if (event != ORP_UV_WRITABLE) return;
  if (process == nullptr) {
    (void)delete_io(redirect);
    return;
  }
  if (process->stdinProc != nullptr) process->stdinProc(process, redirect);
}

// Makes the pipe for the standard descriptor `target`; without a pipe there is no redirect.
Status make_redirect(OrpUvProcess *process, int target, Child *child) {
  Pipe pipe = make_pipe();
  if (!pipe.read) return Status::kOk;
  Owned<OrpUvIo> redirect = make<OrpUvIo>();
  if (!redirect) return Status::kNoMemory;

  const bool is_input = target == STDIN_FILENO;
  os::UniqueFd ours = std::move(is_input ? pipe.write : pipe.read);
  child->set_standard(target, std::move(is_input ? pipe.read : pipe.write));
  OrpUvIo *io = redirect.release();
  (void)init_io(process->head.loop, io, ours.release(), is_input ? handle_input : handle_output);
  io->head.data = reinterpret_cast<ORP_WORD>(process);
  io->head.status |= ORP_UV_REDIRECT;
  process->redirects[target] = io;
  return start_io(io, is_input ? ORP_UV_WRITABLE : ORP_UV_READABLE);
}

Status make_redirects(OrpUvProcess *process, const OrpUvSpawnOptions &options, Child *child) {
  for (int target = 0; target < 3; ++target) {
    const bool served =
        target == STDIN_FILENO ? options.stdinProc != nullptr : options.outputProc != nullptr;
    if (!served || (options.flags & kRedirectFlags[target]) == 0) continue;
    const Status status = make_redirect(process, target, child);
    if (status != Status::kOk) return status;
  }
  return Status::kOk;
}

// ---- Reporting the exit ----

// The private loop of a synchronous spawn, and what its exit procedure needs.
struct SyncSpawn {
  OrpUvLoop loop;  // first, so that the process watcher's loop pointer leads to this record
  ORP_UV_EXIT_PROC user_exit;
  uint32_t result;
};

void sync_exit(OrpUvProcess *process, int32_t pid, uint32_t exit_code, uint32_t term_signal) {
  auto *sync = reinterpret_cast<SyncSpawn *>(process->head.loop);
  sync->result = term_signal == SIGKILL ? code(Status::kTimeout) : exit_code;
  if (sync->user_exit != nullptr) sync->user_exit(process, pid, exit_code, term_signal);
}

void drain(OrpUvProcess *process, int target) {
  // A pipe that its procedure removed in its own way, with OrpUvIoDelete, is gone as well.
  while (OrpUvIo *redirect = process->redirects[target]) {
    if (process->outputProc == nullptr) return;
    if (is_deleted(&redirect->head)) {
      disconnect(redirect);
    } else {
      handle_output(redirect, ORP_UV_READABLE);
    }
  }
}

void report_exit(OrpUvProcess *process) {
  constexpr char kFunction[] = "uvProcessDoExitCallback";
  const ExitStatus status = decode_status(process->waitStatus);
  const int32_t pid = process->pid;
  const auto iteration = [] { return static_cast<long long>(default_loop()->iteration); };
  if (default_loop_override() == nullptr && process->name != nullptr) {
    ORP_TRACE_PrintInfo(kFunction, __LINE__, 0, "track", kTraceLevel,
                        "[end spawn %d:%s] in loop %lld", pid, process->name, iteration());
    ORP_TRACE_PrintInfo(kFunction, __LINE__, 0, "track", kTraceLevel,
                        "[start exit-proc %lld:%d:%s] sig %d, status %d %p", iteration(), pid,
                        process->name, static_cast<int>(status.term_signal),
                        static_cast<int>(status.exit_code), address(process->exitProc));
  }
  {
    const ChildSignalBlock block;
    process->pid = -1;
    process->exited = 0;
  }

  // A callback of the report may begin a run, which would wait for what the report has taken.
  if (process->exitProc == sync_exit) process->head.loop->flags |= kLoopEnded;
  drain(process, STDOUT_FILENO);
  drain(process, STDERR_FILENO);
  delete_redirects(process);
  if (process->exitProc != nullptr) {
    process->exitProc(process, pid, status.exit_code, status.term_signal);
  }
  if (process->name != nullptr) {
    // The record says "start" at the end, too; that text is kept.
    ORP_TRACE_PrintInfo(kFunction, __LINE__, 0, "track", kTraceLevel,
                        "[start exit-proc %lld:%d:%s] %p", iteration(), pid, process->name,
                        address(process->exitProc));
  }
  (void)delete_watcher(&process->head);
}

void report_exits(OrpUvLoop *loop) {
  const WalkScope walk(loop);
  for (OrpUvWatcher *watcher = loop->watchers, *next; watcher != nullptr; watcher = next) {
    next = watcher->link;
    if (!has_type(watcher, ORP_UV_PROCESS) || is_deleted(watcher)) continue;
    auto *process = as<OrpUvProcess>(watcher);
    if (process->exited == 0) continue;
    const HoldScope held(watcher, next);
    report_exit(process);
  }
}

// The reaper of a loop, an idle procedure.
void reap_and_report(OrpUvIdle *reaper) {
  OrpUvLoop *loop = reaper->head.loop;
  (void)reap_children(nullptr);
  g_child_reaped = 0;
  report_exits(default_loop());
  if (loop != default_loop()) report_exits(loop);
}

bool ensure_reaper(OrpUvLoop *loop) {
  if (loop->reaper != nullptr) return true;
  enable_child_signal_block();
  install_child_handler();
  loop->reaper = start_idle(loop, reap_and_report);
  return loop->reaper != nullptr;
}

// ---- Spawning ----

// The arguments joined by blanks, in `name`, which has room for all of them.
void join_arguments(char *const *args, char *name) {
  for (char *const *arg = args; *arg != nullptr; ++arg) {
    const size_t length = std::strlen(*arg);
    if (arg != args) *name++ = ' ';
    std::memcpy(name, *arg, length + 1);
    name += length;
  }
}

SpawnedProcess *make_watcher(const OrpUvSpawnOptions &options) {
  uint64_t name_size = 3;
  for (char *const *arg = options.args; *arg != nullptr; ++arg) name_size += std::strlen(*arg) + 1;
  void *name = nullptr;
  auto *spawned = static_cast<SpawnedProcess *>(
      plain_zalloc_with_tail(sizeof(SpawnedProcess), name_size, &name));
  if (spawned == nullptr) return nullptr;

  spawned->process.name = static_cast<char *>(name);
  join_arguments(options.args, spawned->process.name);
  return spawned;
}

// Everything of a spawn that fails with kSystem.
Status start_child(OrpUvProcess *process, const OrpUvSpawnOptions &options,
                   OrpUvProcess **process_out) {
  OrpUvLoop *loop = process->head.loop;
  if (!ensure_reaper(loop)) return Status::kSystem;
  Child child(options);
  if (child.prepare() != Status::kOk) return Status::kSystem;
  const bool redirected = make_redirects(process, options, &child) == Status::kOk;
  const int highest_fd = loop->maxFd + (has_redirects(process) ? 1 : 0);
  if (!redirected || child.make(highest_fd, &process->pid) != Status::kOk) {
    delete_redirects(process);
    return Status::kSystem;
  }

  if (process_out != nullptr) *process_out = process;
  child.start();
  (void)start_watcher(&process->head);
  ORP_TRACE_PrintInfo("OrpUvProcessSpawn", __LINE__, 0, "track", kTraceLevel,
                      "[start spawn %d:%s] in loop %lld", process->pid, process->name,
                      static_cast<long long>(loop->iteration));
  return Status::kOk;
}

// ---- Synchronous spawn ----

// Cleans up after the run: after a time-out the child may go on, but its pipes are closed.
void end_sync(SyncSpawn *sync) {
  for (OrpUvWatcher *watcher = sync->loop.watchers; watcher != nullptr; watcher = watcher->link) {
    if (has_type(watcher, ORP_UV_REDIRECT)) delete_redirect(as<OrpUvIo>(watcher));
    if (!has_type(watcher, ORP_UV_PROCESS)) continue;
    const auto *process = as<OrpUvProcess>(watcher);
    ORP_TRACE_PrintInfo("OrpUvProcessSpawnSync", __LINE__, 0, "track", kTraceLevel,
                        "[end spawn %d:%s] in loop %lld", process->pid, process->name,
                        static_cast<long long>(sync->loop.iteration));
  }
}

uint32_t spawn_and_wait(const OrpUvSpawnOptions &user, uint32_t timeout_ms) {
  SyncSpawn sync = {.loop = {}, .user_exit = user.exitProc, .result = 0};
  OrpUvSpawnOptions options = user;
  options.exitProc = sync_exit;
  init_loop(&sync.loop);
  set_default_loop_override(&sync.loop);
  const Status status = spawn(&sync.loop, nullptr, &options);
  if (status == Status::kOk) {
    (void)run_loop(&sync.loop, timeout_ms, RunMode::kSynchronousSpawn);
    end_sync(&sync);
  }
  set_default_loop_override(nullptr);
  destroy_loop(&sync.loop);

  // Children of the overridden default loop may have been reaped meanwhile.
  g_child_reaped = 1;
  return status == Status::kOk ? sync.result : code(status);
}

}  // namespace

Status spawn(OrpUvLoop *loop, OrpUvProcess **process_out, const OrpUvSpawnOptions *options) {
  if (process_out != nullptr) *process_out = nullptr;
  if (options == nullptr || options->file == nullptr || options->args == nullptr ||
      options->args[0] == nullptr) {
    return Status::kBadArgument;
  }

  SpawnedProcess *spawned = make_watcher(*options);
  if (spawned == nullptr) return Status::kNoMemory;
  OrpUvProcess *process = &spawned->process;
  process->pid = -1;
  (void)init_watcher(loop, &process->head, ORP_UV_PROCESS);
  process->head.status |= kSpawned;
  process->head.data = options->data;
  process->exitProc = options->exitProc;
  process->reapProc = options->reapProc;
  process->outputProc = options->outputProc;
  process->stdinProc = options->stdinProc;
  enlist(spawned);
  const Status status = start_child(process, *options, process_out);
  if (status != Status::kOk) (void)delete_watcher(&process->head);
  return status;
}

}  // namespace msgapi::uv

using namespace msgapi;
using namespace msgapi::uv;

extern "C" uint32_t OrpUvProcessSpawn(OrpUvLoop *loop, OrpUvProcess **processOut,
                                      const OrpUvSpawnOptions *options) {
  return code(spawn(loop, processOut, options));
}

extern "C" uint32_t OrpUvProcessSpawnSync(const OrpUvSpawnOptions *options, uint32_t timeoutMs) {
  if (options == nullptr) return code(Status::kBadArgument);
  if (default_loop_override() != nullptr) return ORP_ERR_SPAWN_RUNNING;

  return spawn_and_wait(*options, timeoutMs);
}

extern "C" uint32_t OrpUvProcessKill(OrpUvProcess *process, int32_t signal) {
  // The number of a child that has been reaped may belong to somebody else.
  const ChildSignalBlock block;
  if (process == nullptr || process->pid <= 0 || process->exited != 0) return 0;

  return static_cast<uint32_t>(::kill(process->pid, signal));
}

extern "C" void OrpUvProcessDeleteRedirectIo(OrpUvProcess *process, OrpUvIo *io) {
  if (process == nullptr || io == nullptr || find_slot(process, io) == nullptr) return;

  delete_redirect(io);
}
