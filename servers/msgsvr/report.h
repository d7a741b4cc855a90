// What the server says about itself on its admin socket. The message loop gathers the facts in one
// go, and another thread makes texts of them.
#pragma once

#include <sys/socket.h>

#include <cstdint>
#include <string>
#include <vector>

#include "msgsvr/journal.h"

namespace msgsvr {

// What services keep for clients.
struct Inventory {
  struct Subscription {
    uint32_t event;
    uint32_t client;  // 0: by name
    AppName name;
  };
  struct Path {
    std::string path;
    uint32_t client;
  };
  struct Wait {
    std::string point;
    uint32_t client;
  };
  struct KeepAlive {
    uint32_t client;
    bool watched;
    bool missing;
    double last_s;  // ago
  };
  std::vector<Subscription> subscriptions;
  std::vector<Path> paths;
  std::vector<Wait> waits;
  std::vector<KeepAlive> keep_alives;
};

struct ClientFacts {
  uint32_t id;
  AppName name;
  ucred peer;
  std::string address;  // empty for a Unix connection
  double connected_at;  // seconds since 1970
  double connected_s;   // for so long
  bool swapped;
  bool slow;
  bool held;
  uint64_t frames_in;
  uint64_t bytes_in;
  uint64_t frames_out;
  uint64_t bytes_out;
  uint64_t queued;
  uint64_t queue_limit;
  uint64_t lost;
};

// Of one client.
struct Details {
  bool in_message;
  struct Limit {
    const char *what;
    uint64_t own;   // what the connection has
    uint64_t user;  // what its user has on all connections
    uint64_t limit;
  };
  std::vector<Limit> limits;
};

struct Totals {
  double started_at;
  double uptime_s;
  uint64_t clients;
  Statistics statistics;  // with what the living clients have got
  uint64_t failed_callbacks;
  uint64_t http_refused;
  std::vector<Culprit> culprits;  // most losses first
  uint64_t flight_size;           // 0: no recorder
  uint64_t flight_records;
};

// One answer each, as docs/admin-interface.md has them.
std::string clients_json(const std::vector<ClientFacts> &clients);
std::string client_json(const ClientFacts &client, const Details &details,
                        const Inventory &inventory);
std::string totals_json(const Totals &totals);
std::string subscriptions_json(const Inventory &inventory, const std::vector<ClientFacts> &clients);
std::string paths_json(const Inventory &inventory, const std::vector<ClientFacts> &clients);
std::string metrics_text(const Totals &totals, const std::vector<ClientFacts> &clients);
std::string error_json(std::string_view error);

}  // namespace msgsvr
