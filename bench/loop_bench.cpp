// The cost of one iteration of the event loop, beside a bare loop around select(), with and without
// the raw clock call with which every iteration begins.
//
// One of `descriptors` descriptors is always readable. Both loops find it and call a procedure.

#include <benchmark/benchmark.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdlib>
#include <ctime>
#include <vector>

#include "msgapi/loop.h"

namespace {

// Sockets that fit a descriptor set, the last of them readable.
class Sockets {
 public:
  explicit Sockets(size_t count) {
    const rlimit limit = {4096, 4096};
    ::setrlimit(RLIMIT_NOFILE, &limit);
    int pair[2];
    for (size_t i = 0; i < count; ++i) {
      if (i == 0 && ::socketpair(AF_UNIX, SOCK_STREAM, 0, pair) == 0) peer_ = pair[1];
      all.push_back(i == 0 ? pair[0] : ::socket(AF_UNIX, SOCK_DGRAM, 0));
    }
    if (::write(peer_, "x", 1) != 1) std::abort();
  }
  ~Sockets() {
    for (const int fd : all) ::close(fd);
    ::close(peer_);
  }

  std::vector<int> all;

 private:
  int peer_ = -1;
};

benchmark::State *g_state;
bool g_running;

void called(int fd) {
  benchmark::DoNotOptimize(fd);
  g_running = g_state->KeepRunning();
}

void bare_loop(benchmark::State &state, bool with_clock) {
  const Sockets sockets(static_cast<size_t>(state.range(0)));
  g_state = &state;
  g_running = state.KeepRunning();
  void (*procedure)(int) = called;
  benchmark::DoNotOptimize(procedure);
  fd_set watched;
  FD_ZERO(&watched);
  int highest = 0;
  for (const int fd : sockets.all) {
    FD_SET(fd, &watched);
    highest = std::max(highest, fd);
  }
  while (g_running) {
    timespec now;
    if (with_clock && ::syscall(SYS_clock_gettime, CLOCK_MONOTONIC, &now) != 0) std::abort();
    fd_set ready = watched;
    if (::select(highest + 1, &ready, nullptr, nullptr, nullptr) <= 0) std::abort();
    for (const int fd : sockets.all) {
      if (FD_ISSET(fd, &ready)) procedure(fd);
    }
  }
}

void BareSelect(benchmark::State &state) {
  bare_loop(state, false);
}

void BareSelectAndClock(benchmark::State &state) {
  bare_loop(state, true);
}

void run_loop(benchmark::State &state, const Sockets &sockets, size_t timers) {
  OrpUvLoop loop;
  OrpUvLoopInit(&loop);
  for (const int fd : sockets.all) {
    auto *io = static_cast<OrpUvIo *>(std::calloc(1, sizeof(OrpUvIo)));
    OrpUvIoInit(&loop, io, fd, [](OrpUvIo *self, uint32_t) {
      called(self->fd);
      if (!g_running) OrpUvLoopStop(self->head.loop);
    });
    OrpUvIoStart(io, ORP_UV_READABLE);
  }
  for (size_t i = 0; i < timers; ++i) {
    auto *timer = static_cast<OrpUvTimer *>(std::calloc(1, sizeof(OrpUvTimer)));
    OrpUvTimerInit(&loop, timer);
    OrpUvTimerStart(
        timer, 1000000, 0, [](ORP_WORD) {}, 0);
  }
  g_state = &state;
  g_running = state.KeepRunning();
  if (g_running) ORP_UV_LoopRun(&loop, 0);
  ORP_UV_LoopDestroy(&loop);
}

void LoopDescriptors(benchmark::State &state) {
  run_loop(state, Sockets(static_cast<size_t>(state.range(0))), 0);
}

void LoopTimers(benchmark::State &state) {
  run_loop(state, Sockets(1), static_cast<size_t>(state.range(0)));
}

BENCHMARK(BareSelect)->ArgName("descriptors")->Arg(1)->Arg(10)->Arg(100)->Arg(1000);
BENCHMARK(BareSelectAndClock)->ArgName("descriptors")->Arg(1)->Arg(10)->Arg(100)->Arg(1000);
BENCHMARK(LoopDescriptors)->ArgName("descriptors")->Arg(1)->Arg(10)->Arg(100)->Arg(1000);
BENCHMARK(LoopTimers)->ArgName("timers")->Arg(10)->Arg(100)->Arg(1000)->Arg(10000);

}  // namespace

BENCHMARK_MAIN();
