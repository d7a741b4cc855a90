// Starting children with the event loop, beside posix_spawn() and a bare fork() and execvp().
//
// ToExec: until the child has reached exec, which closes its close-on-exec end of a pipe.
// WholeLife: until its exit is known. The rate is children per second, one after the other.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>

#include "msgapi/process.h"

namespace {

char *const kArgs[] = {const_cast<char *>("/bin/true"), nullptr};
int g_probe = -1;  // the write end that the child holds until exec

void require(bool holds) {
  if (!holds) std::abort();
}

// A pipe whose reader learns when every writer is gone.
class ExecProbe {
 public:
  ExecProbe() {
    int ends[2];
    require(::pipe2(ends, O_CLOEXEC) == 0);
    read_ = ends[0];
    g_probe = ends[1];
  }
  ~ExecProbe() { ::close(read_); }

  void wait() const {
    ::close(g_probe);
    char unused;
    ssize_t count;
    do count = ::read(read_, &unused, 1);
    while (count < 0);
    require(count == 0);
  }

 private:
  int read_;
};

pid_t start_with_fork() {
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::execvp(kArgs[0], kArgs);
    ::_exit(127);
  }
  return pid;
}

pid_t start_with_posix_spawn() {
  pid_t pid = -1;
  require(::posix_spawnp(&pid, kArgs[0], nullptr, nullptr, kArgs, environ) == 0);
  return pid;
}

pid_t start_with_loop() {
  OrpUvSpawnOptions options = {};
  options.file = kArgs[0];
  options.args = kArgs;
  options.keepFd = [](const OrpUvSpawnOptions *, int32_t fd) -> uint32_t { return fd == g_probe; };
  options.exitProc = [](OrpUvProcess *, int32_t, uint32_t, uint32_t) {
    OrpUvLoopStop(OrpUvLoopGetDefault());
  };
  OrpUvProcess *process = nullptr;
  require(OrpUvProcessSpawn(nullptr, &process, &options) == ORP_OK);
  return process->pid;
}

void wait_with_waitpid(pid_t pid) {
  require(::waitpid(pid, nullptr, 0) == pid);
}

void wait_with_loop(pid_t /*pid*/) {
  require(ORP_UV_LoopRun(nullptr, 0) == ORP_OK);
}

void to_exec(benchmark::State &state, pid_t (*start)(), void (*wait)(pid_t)) {
  for (auto _ : state) {
    const ExecProbe probe;
    const pid_t pid = start();
    probe.wait();
    state.PauseTiming();
    wait(pid);
    state.ResumeTiming();
  }
}

void whole_life(benchmark::State &state, pid_t (*start)(), void (*wait)(pid_t)) {
  for (auto _ : state) wait(start());
  state.SetItemsProcessed(state.iterations());
}

// The loop comes last, because its SIGCHLD handler stays and would reap the others' children.
BENCHMARK_CAPTURE(to_exec, Fork, start_with_fork, wait_with_waitpid)->UseRealTime();
BENCHMARK_CAPTURE(to_exec, PosixSpawn, start_with_posix_spawn, wait_with_waitpid)->UseRealTime();
BENCHMARK_CAPTURE(whole_life, Fork, start_with_fork, wait_with_waitpid)->UseRealTime();
BENCHMARK_CAPTURE(whole_life, PosixSpawn, start_with_posix_spawn, wait_with_waitpid)->UseRealTime();
BENCHMARK_CAPTURE(to_exec, Loop, start_with_loop, wait_with_loop)->UseRealTime();
BENCHMARK_CAPTURE(whole_life, Loop, start_with_loop, wait_with_loop)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
