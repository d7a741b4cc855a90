// Slow readers: whose input rests because somebody does not keep up, and for how long.
#pragma once

#include <cstddef>
#include <cstdint>

namespace msgsvr {

class Server;
struct Client;

class Flow {
 public:
  explicit Flow(Server *server) : server_(server) {}

  // Until end_routing() the input of `sender` is being routed, so that it rests when a queue that
  // it fills is more than half full.
  void begin_routing(Client &sender) { routed_ = &sender; }
  void end_routing() { routed_ = nullptr; }

  // Looks at the queue of `reader`, which has changed.
  void watch(Client &reader);
  // Nobody waits for `reader` any more.
  void release_all(Client &reader) noexcept;

  // Whether `reader` has read everything up to a long message of which `sender` owes the next
  // bytes.
  static bool is_owed(const Client &reader, const Client &sender);
  // By how much a message for `reader` may exceed the limit of its queue.
  static size_t reserve_of(const Client &reader);

 private:
  void hold(Client &sender, Client &reader);
  void release(Client &reader, uint32_t sender) noexcept;
  void check_patience(Client &reader);

  Server *server_;
  Client *routed_ = nullptr;
};

}  // namespace msgsvr
