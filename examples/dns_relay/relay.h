// The relay: answers from the hosts file and the cache, and passes everything else on.
#pragma once

#include <sys/socket.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "cache.h"
#include "hosts.h"
#include "message.h"
#include "msgapi/loop.h"
#include "stream.h"

namespace dns_relay {

struct Address {
  // "192.0.2.1", "2001:db8::1", or either with "#PORT"; throws for anything else.
  static Address parse(const std::string &text, uint16_t default_port);

  sockaddr_storage storage{};
  socklen_t size = 0;

  const sockaddr *get() const { return reinterpret_cast<const sockaddr *>(&storage); }
  sockaddr *get() { return reinterpret_cast<sockaddr *>(&storage); }
};

struct Settings {
  std::string listen = "127.0.0.1#53";
  std::vector<std::string> upstreams;
  std::string hosts;
  uint32_t hosts_ttl_s = 60;
  uint32_t timeout_ms = 2000;
  uint32_t cache_size = 1000;
};

// Lives as long as the default loop runs.
class Relay final : public Stream::Owner {
 public:
  explicit Relay(const Settings &settings);
  Relay(const Relay &) = delete;
  Relay &operator=(const Relay &) = delete;

  void reload_hosts();

 private:
  // Who asked: by UDP from an address, or over a connection (0: by UDP).
  struct Client {
    Address address;
    uint64_t stream = 0;
  };
  // A query that an upstream server has not answered yet.
  struct Pending {
    Client client;
    uint16_t client_id;
    Question question;
    Packet query;  // as passed on
    size_t upstream;
    OrpUvTimer *timer;
    Relay *relay;
    uint16_t id;
    // The question once more over TCP, after a reply that was cut short.
    std::unique_ptr<Stream> connection;
  };

  void received(Stream *stream, Packet message) override;
  void ended(Stream *stream) override;
  void accept_clients();
  Pending *asked_over(const Stream *stream);

  void receive_queries();
  void receive_replies(int fd);
  void handle_query(Packet query, const Client &client);
  void handle_reply(const Packet &reply, int fd);
  Packet local_answer(const Question &question, const Packet &query);
  void pass_on(const Question &question, Packet query, const Client &client);
  void send_upstream(Pending *pending);
  void connect_upstream(Pending *pending);
  void answer(Pending *pending, const Packet &packet);
  void try_next_upstream(Pending *pending);
  void reply(const Packet &packet, const Client &client);
  uint16_t unused_id() const;

  const Settings settings_;
  Hosts hosts_;
  Cache cache_;
  int server_;
  int listener_;
  uint64_t last_stream_ = 0;
  std::map<uint64_t, std::unique_ptr<Stream>> streams_;  // of clients
  std::vector<int> upstreams_;                           // connected sockets, owned by the loop
  std::vector<Address> upstream_addresses_;
  std::map<uint16_t, std::unique_ptr<Pending>> pending_;
};

// Lets the loop watch `fd`, which becomes the loop's; `data` is for the callback.
void watch(int fd, ORP_UV_IO_PROC callback, void *data);

}  // namespace dns_relay
