// The server's socket and the messages that come through it.
#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include <array>
#include <cstdint>
#include <map>
#include <span>
#include <string>

#include "common/event_loop.h"
#include "common/unique_fd.h"
#include "msgapi/log.h"
#include "store.h"

namespace mlogserver {

struct Counters {
  uint64_t lines = 0;
  uint64_t requests = 0;
  uint64_t malformed = 0;      // datagrams that no client sends
  uint64_t unanswered = 0;     // replies that their client could not take
  uint64_t stats_refused = 0;  // statistics of modules beyond the limit
};

class Server final : public servers::EventLoop::Watch {
 public:
  // Throws std::runtime_error when the socket cannot be had, for instance from a running server.
  explicit Server(Store *store);
  Server(const Server &) = delete;
  Server &operator=(const Server &) = delete;
  // Removes the socket's file.
  ~Server() override;

  int fd() const { return fd_.get(); }
  const Counters &counters() const { return counters_; }

  // Handles every message that is queued, in order.
  void drain();
  void ready(uint32_t) override { drain(); }

 private:
  static constexpr size_t kBatch = 64;
  // One byte more than a message may have: a datagram that fills it was too long.
  static constexpr size_t kDatagramSize = sizeof(MlogMsg) + 1;

  void handle(std::span<const char> datagram, const sockaddr_un &peer, socklen_t peer_size);
  void set_statistics(std::span<const char> payload);
  void get_statistics(std::span<const char> payload, const sockaddr_un &peer, socklen_t peer_size);
  void reply(const MlogMsg &message, size_t payload_size, const sockaddr_un &peer,
             socklen_t peer_size);

  Store *store_;
  servers::UniqueFd fd_;
  Counters counters_;
  std::map<std::string, std::string> statistics_;
  std::array<std::array<char, kDatagramSize>, kBatch> datagrams_;
};

}  // namespace mlogserver
