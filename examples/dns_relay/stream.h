// DNS messages over TCP: each with its length before it (RFC 1035 section 4.2.2).
#pragma once

#include <cstdint>
#include <vector>

#include "message.h"
#include "msgapi/loop.h"

namespace dns_relay {

// One connection, watched by the default loop. The owner may destroy it at any time, also while it
// is being told something.
class Stream {
 public:
  class Owner {
   public:
    virtual void received(Stream *stream, Packet message) = 0;
    // The other side is gone, or reads or writes too slowly: the owner destroys the stream.
    virtual void ended(Stream *stream) = 0;

   protected:
    ~Owner() = default;
  };

  // Takes over the non-blocking socket `fd`, which may still be connecting. Ends when nothing
  // arrives for `idle_ms`. Throws when it cannot be watched.
  Stream(int fd, uint32_t idle_ms, Owner *owner);
  Stream(const Stream &) = delete;
  Stream &operator=(const Stream &) = delete;
  ~Stream();

  void send(const Packet &message);

 private:
  void ready(uint32_t event);
  void read();
  void flush();
  void restart_timer();

  OrpUvIo *watcher_;
  OrpUvTimer *timer_ = nullptr;
  const uint32_t idle_ms_;
  Owner *const owner_;
  std::vector<uint8_t> input_;
  std::vector<uint8_t> output_;
  bool *destroyed_ = nullptr;  // where the running callback wants to know
};

}  // namespace dns_relay
