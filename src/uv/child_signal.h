// Keeping the SIGCHLD handler away from what it reads.
//
// The handler looks for process watchers in the default loop's list, so lists, and the choice of
// the default loop, change only with the signal blocked. That costs two system calls, and is done
// only once a process has installed the handler.
#pragma once

#include <csignal>

namespace msgapi::uv {

// From now on ChildSignalBlock blocks.
void enable_child_signal_block();

// Blocks SIGCHLD in the calling thread for its scope; keeps errno. May be nested.
class ChildSignalBlock {
 public:
  ChildSignalBlock();
  ChildSignalBlock(const ChildSignalBlock &) = delete;
  ChildSignalBlock &operator=(const ChildSignalBlock &) = delete;
  ~ChildSignalBlock();

 private:
  bool blocked_;
  sigset_t saved_;
};

}  // namespace msgapi::uv
