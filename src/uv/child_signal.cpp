#include "uv/child_signal.h"

namespace msgapi::uv {
namespace {

bool g_enabled;

}  // namespace

volatile std::sig_atomic_t g_child_reaped;

void enable_child_signal_block() {
  g_enabled = true;
}

ChildSignalBlock::ChildSignalBlock() : blocked_(g_enabled) {
  if (!blocked_) return;
  sigset_t child;
  ::sigemptyset(&child);
  ::sigaddset(&child, SIGCHLD);
  ::pthread_sigmask(SIG_BLOCK, &child, &saved_);
}

// pthread_sigmask() reports by its result and leaves errno alone.
ChildSignalBlock::~ChildSignalBlock() {
  if (blocked_) ::pthread_sigmask(SIG_SETMASK, &saved_, nullptr);
}

}  // namespace msgapi::uv
