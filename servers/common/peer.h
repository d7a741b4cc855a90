// One connection of a server: its descriptor, what waits to be written to it, what the loop watches
// it for, and what was lost because it did not read.
#pragma once

#include <sys/socket.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "common/event_loop.h"
#include "common/output_queue.h"
#include "common/unique_fd.h"

namespace servers {

class Peer : public EventLoop::Watch {
 public:
  // The user where it is not known, over TCP.
  static constexpr uid_t kNobody = static_cast<uid_t>(-1);

  // Not while the loop watches it.
  ~Peer() override;
  Peer(const Peer &) = delete;
  Peer &operator=(const Peer &) = delete;

  // For log lines.
  virtual std::string label() const = 0;

  // The loop begins to watch it, for input. Throws std::system_error.
  void begin_watch();
  // Watches it for input if `input`, and for room in the socket while bytes wait. Throws
  // std::system_error, and has then changed nothing.
  void update_watch(bool input);
  void end_watch() noexcept;

  // `count` messages for it found no room in its queue. Logged once until it reads again.
  void note_overflow(uint64_t count) noexcept;
  // Its queue is empty: logs how many messages it has missed.
  void note_empty() noexcept;
  // Since its queue was last empty.
  uint64_t overflowed() const { return overflowed_; }

  const UniqueFd fd;
  const ucred peer;  // as it was when it connected
  OutputQueue out;
  uint64_t lost = 0;  // messages for it, for whatever reason

 protected:
  // For a connected, non-blocking stream socket.
  Peer(EventLoop *loop, UniqueFd connection, size_t queue_limit,
       OutputQueue::Observer *observer = nullptr);

 private:
  EventLoop *const loop_;
  uint32_t interest_ = 0;  // what the loop watches it for
  bool watched_ = false;
  uint64_t overflowed_ = 0;
};

}  // namespace servers
