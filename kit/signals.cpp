// Signals as events of the loop.
//
// A handler notes the signal and wakes the loop through an eventfd. A blocked signal and a signalfd
// would need no handler, but a spawned child inherits the mask, so SIGTERM would not end it.

#include <signal.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>

#include "msgapi/kit.h"
#include "msgapi/sockbase.h"

namespace {

struct Watched {
  MSGKIT_SIGNAL_PROC procedure;
  struct sigaction former;
};

std::array<Watched, NSIG> g_watched;
std::array<std::atomic<bool>, NSIG> g_raised;
ORP_UTIL_SOCKBASE_ST *g_sock_base;
std::atomic<int> g_wake_fd = -1;
// A child made with fork() shares the descriptor, but its signals are not the parent's.
pid_t g_pid;

void note(int signal) {
  const int saved_errno = errno;
  if (::getpid() == g_pid) {
    const uint64_t one = 1;
    g_raised[static_cast<size_t>(signal)] = true;
    // When the counter is full, the loop is going to look anyway.
    [[maybe_unused]] const ssize_t written = ::write(g_wake_fd, &one, sizeof one);
  }
  errno = saved_errno;
}

void deliver(ORP_UTIL_SOCKBASE_ST * /*sock_base*/, uint32_t /*event*/) {
  uint64_t count;
  [[maybe_unused]] const ssize_t got = ::read(g_wake_fd, &count, sizeof count);
  for (size_t signal = 1; signal < NSIG; ++signal) {
    if (!g_raised[signal].exchange(false) || g_watched[signal].procedure == nullptr) continue;
    g_watched[signal].procedure(static_cast<int32_t>(signal));
  }
}

bool may_watch(int signal) {
  if (signal <= 0 || signal >= NSIG) return false;
  for (const int other : {SIGKILL, SIGSTOP, SIGCHLD, SIGSEGV, SIGBUS, SIGFPE, SIGILL}) {
    if (signal == other) return false;
  }
  return true;
}

// The loop may have been destroyed since, and with it the watcher.
bool is_watched_by_loop() {
  return g_sock_base != nullptr && reinterpret_cast<OrpUvIo *>(g_sock_base) ==
                                       OrpUvIoFindByFd(OrpUvLoopGetDefault(), g_wake_fd);
}

uint32_t open_wake_up() {
  if (is_watched_by_loop()) return ORP_OK;
  if (g_wake_fd < 0) g_wake_fd = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (g_wake_fd < 0) return ORP_ERR_SYSTEM;
  if (g_wake_fd < ORP_UV_MAX_DESCRIPTORS) {
    g_sock_base = ORP_UTIL_SockBaseRegNew(g_wake_fd, 0, deliver, ORP_UTIL_SOCKBASE_READ, 0);
    if (g_sock_base != nullptr) return ORP_OK;
  }
  const bool no_memory = g_wake_fd < ORP_UV_MAX_DESCRIPTORS;
  ::close(g_wake_fd.exchange(-1));
  return no_memory ? ORP_ERR_MEMORY : ORP_ERR_SYSTEM;
}

uint32_t watch(int signal, MSGKIT_SIGNAL_PROC procedure) {
  Watched &watched = g_watched[static_cast<size_t>(signal)];
  const uint32_t status = open_wake_up();
  if (status != ORP_OK) return status;

  g_pid = ::getpid();
  if (watched.procedure == nullptr) {
    struct sigaction action = {};
    action.sa_handler = note;
    action.sa_flags = SA_RESTART;
    ::sigfillset(&action.sa_mask);
    if (::sigaction(signal, &action, &watched.former) != 0) return ORP_ERR_ARGUMENT;
  }
  watched.procedure = procedure;
  return ORP_OK;
}

void unwatch(int signal) {
  Watched &watched = g_watched[static_cast<size_t>(signal)];
  if (watched.procedure == nullptr) return;
  ::sigaction(signal, &watched.former, nullptr);
  watched.procedure = nullptr;
  g_raised[static_cast<size_t>(signal)] = false;
}

}  // namespace

extern "C" uint32_t msgkit_on_signal(int32_t signal, MSGKIT_SIGNAL_PROC procedure) {
  if (!may_watch(signal)) return ORP_ERR_ARGUMENT;
  if (procedure != nullptr) return watch(signal, procedure);
  unwatch(signal);
  return ORP_OK;
}
