// Hand-over files that nobody takes over: their receiver ended before it read, or refused them, as
// all receivers do where the directory is reached through a link.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <utility>

#include "common/event_loop.h"

namespace msgsvr {

class LeftBodies {
 public:
  // From now on removes each file that has been seen for `age`, and logs how many were removed.
  LeftBodies(servers::EventLoop *loop, std::chrono::seconds age);

 private:
  using Clock = std::chrono::steady_clock;
  // A file: its inode number, and when that number was last given to a file.
  using File = std::pair<ino_t, int64_t>;

  void sweep();
  void plan();

  servers::EventLoop *loop_;
  std::chrono::seconds age_;
  // Since when. Dates of files mean nothing on a device that learns the time of day after its
  // start.
  std::map<File, Clock::time_point> seen_;
};

}  // namespace msgsvr
