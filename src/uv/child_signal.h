// SIGCHLD: its handler must not run while what it reads is changed, and no wait may sleep through
// it.
//
// The handler looks for process watchers in the lists of the default loops. So these lists, and the
// choice of the default loop, change only with the signal blocked. That costs two system calls, and
// is done only after the process has installed the handler.
#pragma once

#include <csignal>

namespace msgapi::uv {

// From now on ChildSignalBlock blocks.
void enable_child_signal_block();

// Not 0: a child has been reaped since the reaper last looked at the process watchers.
extern volatile std::sig_atomic_t g_child_reaped;

// Blocks SIGCHLD in the calling thread for its scope. May be nested.
class ChildSignalBlock {
 public:
  ChildSignalBlock();
  ChildSignalBlock(const ChildSignalBlock &) = delete;
  ChildSignalBlock &operator=(const ChildSignalBlock &) = delete;
  ~ChildSignalBlock();

  // The signals that were blocked before, or null when the handler is not in use.
  const sigset_t *before() const { return blocked_ ? &saved_ : nullptr; }

 private:
  bool blocked_;
  sigset_t saved_;
};

}  // namespace msgapi::uv
