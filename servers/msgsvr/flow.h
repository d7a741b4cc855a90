// Slow readers: which senders are not read from because a receiver does not keep up, and how long.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>

#include "common/event_loop.h"
#include "msgsvr/journal.h"

namespace msgsvr {

struct Client;

class Flow {
 public:
  // What Flow needs from the owner of the clients.
  class Clients {
   public:
    virtual Client *by_id(uint32_t id) = 0;
    // Decides anew what the loop should watch `client` for.
    virtual void update_interest(Client &client) noexcept = 0;
    virtual void flush() noexcept = 0;

   protected:
    ~Clients() = default;
  };

  // A reader that takes next to nothing for `patience` is slow.
  Flow(Clients *clients, servers::EventLoop *loop, Journal *journal,
       std::chrono::milliseconds patience)
      : clients_(clients), loop_(loop), journal_(journal), patience_(patience) {}

  // Until end_routing() the input of `sender` is being routed: it rests when it makes a queue more
  // than half full.
  void begin_routing(Client &sender) { routed_ = &sender; }
  void end_routing() { routed_ = nullptr; }

  // Looks at the queue of `reader`, which has changed.
  void watch(Client &reader);
  // Nobody waits for `reader` any more.
  void release_all(Client &reader) noexcept;

  // Whether `reader` has read everything up to a long message, and `sender` owes the next bytes of
  // that message.
  static bool is_owed(const Client &reader, const Client &sender);
  // By how much a message for `reader` may exceed the limit of its queue.
  static size_t reserve_of(const Client &reader);

 private:
  void hold(Client &sender, Client &reader);
  void release(Client &reader, uint32_t sender) noexcept;
  void check_patience(Client &reader);

  Clients *clients_;
  servers::EventLoop *loop_;
  Journal *journal_;
  std::chrono::milliseconds patience_;
  Client *routed_ = nullptr;
};

}  // namespace msgsvr
