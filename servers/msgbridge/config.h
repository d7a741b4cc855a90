// The bridge's configuration, /etc/msgapi/bridge.json; docs/bridge.md describes it.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "catalogue/type_files.h"
#include "mqtt/address.h"
#include "msgbridge/topics.h"

namespace msgbridge {

inline constexpr const char *kConfigFile = "/etc/msgapi/bridge.json";

// Which events go up, and how. Texts that are matched may have the wildcards "*" and "?".
struct UpRule {
  std::string module;
  std::string event;
  std::vector<std::pair<std::string, std::string>> payload;  // members that must match
  bool send = true;                                          // false: the events stay here
  TopicTemplate topic;
  int qos = 1;
  bool retain = false;
  uint32_t per_second = 0;  // 0: no limit
  uint32_t one_in = 1;
  bool mask = true;
};

// Resources that may be asked for from outside.
struct RestRule {
  uint32_t code;     // of the method
  std::string path;  // a pattern, as in restful registrations
  bool mask = true;
};

// A message that may be sent from outside.
struct CallRule {
  std::string app;
  uint32_t type;
  uint32_t timeout_ms;
  bool mask = true;
};

struct DownRules {
  std::vector<RestRule> rest;
  std::vector<CallRule> calls;
  uint32_t in_flight = 16;
  uint32_t largest = 64 << 10;
  uint32_t timeout_ms = 5000;
};

struct SpoolOptions {
  std::string path = "/var/spool/msgbridge/spool.db";
  uint64_t bytes = 4 << 20;
  uint64_t age_s = uint64_t{7} * 24 * 60 * 60;
  uint32_t per_second = 1000;  // the rate of events that have waited; 0: no limit
  uint32_t commit_ms = 20;
  bool sync = true;     // each commit reaches the disk; otherwise only the kernel
  bool reserve = true;  // takes all space at once, so that a full disk does not matter
};

struct Reconnect {
  uint32_t least_ms = 1000;
  uint32_t most_ms = 120'000;
};

struct Config {
  std::vector<mqtt::Address> brokers;
  mqtt::Tls tls;
  std::string credentials;  // a file; empty: none
  std::string client_id;    // empty: the gateway's name
  uint16_t keep_alive_s = 60;
  uint16_t in_flight = 64;
  Reconnect reconnect;

  std::string prefix = "gw";
  std::string gateway;        // empty: from gateway_item, or else made of the machine's id
  uint32_t gateway_item = 0;  // the item of equipment data that holds the name; 0: none
  std::vector<UpRule> up;
  DownRules down;
  SpoolOptions spool;
  uint32_t metrics_s = 0;
};

// The codes of restful methods, as in requests that come to the message server by HTTP.
struct Method {
  std::string_view word;
  uint32_t code;
};
inline constexpr Method kMethods[] = {
    {"get", 0}, {"post", 1}, {"put", 2}, {"delete", 3}, {"patch", 4}};

// True for types that nobody outside may send: those of the library and the servers, and events.
bool is_reserved_type(uint32_t type);

// Whether a rule's pattern, of names as in restful registrations, covers `text`.
bool matches(const std::string &pattern, const std::string &text);

// Throws catalogue::JsonError. `types` has the names of message types.
Config read_config(std::string_view text, const catalogue::Catalogue &types);

}  // namespace msgbridge
