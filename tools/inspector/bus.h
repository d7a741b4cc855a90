// What all threads of the inspector share: the recording, and the state of its source.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>

#include "inspector/recording.h"

namespace inspector {

enum class SourceState {
  kWaiting,  // there is nothing to read yet
  kLive,     // a running server writes
  kEnded,    // the server that wrote it is gone
  kPast,     // a file, read to its end
  kDamaged,
};

// To be called between two pieces of long work on the bus, without its lock. The lock is not fair:
// other threads get it only while this one sleeps.
inline void let_others_in() {
  std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

struct Bus {
  Bus(const catalogue::Catalogue &catalogue, bool masked) : recording(catalogue, masked) {}

  mutable std::mutex mutex;
  std::condition_variable news;  // something below has changed
  Recording recording;
  std::string source;  // the file
  SourceState state = SourceState::kWaiting;
  std::string reason;         // of the state; "" for live and past
  uint32_t servers = 0;       // seen so far
  uint64_t server_at_us = 0;  // when the last of them was found
  bool ends = false;          // the inspector ends

  void set_state(SourceState to, std::string why = {}) {
    const std::lock_guard lock(mutex);
    if (state == to && reason == why) return;
    state = to;
    reason = std::move(why);
    news.notify_all();
  }
  void end() {
    const std::lock_guard lock(mutex);
    ends = true;
    news.notify_all();
  }
};

}  // namespace inspector
