// Body files that nobody takes over: their receiver refused them, as all receivers do where the
// directory is reached through a link, or ended before it read.
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
  // From now on removes each that has been seen for `age`, and logs how many those were.
  LeftBodies(servers::EventLoop *loop, std::chrono::seconds age);

 private:
  using Clock = std::chrono::steady_clock;
  // A file by its number and when that was last given to one.
  using File = std::pair<ino_t, int64_t>;

  void sweep();
  void plan();

  servers::EventLoop *loop_;
  std::chrono::seconds age_;
  // Since when: dates of files say nothing on a device that gets the time of day after its start.
  std::map<File, Clock::time_point> seen_;
};

}  // namespace msgsvr
