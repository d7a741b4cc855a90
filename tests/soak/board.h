// The memory in which the driver and its clients tell each other what they do.
#pragma once

#include <sys/types.h>

#include <array>
#include <atomic>
#include <cstdint>

namespace soak {

// Clients by number. Regulars live as long as the run; every message between them is accounted for.
// Mayflies are killed at any moment. The giver passes descriptors to the taker, which gets nothing
// else, because other messages may come between a message and its descriptor. The browser asks by
// HTTP.
constexpr uint32_t kRegulars = 6;
constexpr uint32_t kMayflies = 2;
constexpr uint32_t kSpeakers = kRegulars + kMayflies;
constexpr uint32_t kGiver = kSpeakers;
constexpr uint32_t kTaker = kGiver + 1;
constexpr uint32_t kBrowser = kTaker + 1;
constexpr uint32_t kClients = kBrowser + 1;

// Application names and log modules. The notify client knows the first two.
constexpr std::array<const char *, kClients> kNames = {
    "cms", "web", "s2", "s3", "s4", "s5", "m0", "m1", "giver", "taker", "browser"};
constexpr uint32_t kCms = 0;
constexpr uint32_t kWeb = 1;

// In the place of a receiver: what goes to a name that nobody has.
constexpr uint32_t kNobody = kSpeakers;

constexpr bool is_regular(uint32_t client) {
  return client < kRegulars;
}
constexpr bool is_mayfly(uint32_t client) {
  return client >= kRegulars && client < kSpeakers;
}
constexpr bool is_notified(uint32_t client) {
  return client == kCms || client == kWeb;
}

// Events come as they are published, as DM items or as JSON. Each kind has subscribers of its own.
enum Event : uint32_t { kAsItems, kAsJson, kEvents };
constexpr bool subscribes(uint32_t client, uint32_t event) {
  return is_regular(client) && (event == kAsItems ? client % 2 == 1 : client % 3 == 0);
}

constexpr uint16_t kHttpPort = 8080;

class Counter {
 public:
  void add(uint64_t count = 1) { count_.fetch_add(count, std::memory_order_relaxed); }
  void set(uint64_t count) { count_ = count; }
  operator uint64_t() const { return count_.load(std::memory_order_relaxed); }

 private:
  std::atomic<uint64_t> count_ = 0;
};

// Counts since the client has connected to the message server.
struct Traffic {
  std::array<Counter, kSpeakers + 1> sent, received, told;  // by the other one
  Counter notices;                                          // every 0x108
  Counter failures;
  std::array<Counter, kEvents> published;
  std::array<std::array<Counter, kEvents>, kRegulars> events;  // by publisher
  Counter passed, taken;
};

// Counts since the client has connected to the notify server.
struct Notifications {
  Counter posted, received, failures;
};

// Lines from `first` to `last` that one log server has taken: a flush has confirmed it.
struct Flushed {
  uint64_t first = 0, last = 0;
};

struct Lines {
  Counter begun, done;
  std::array<Flushed, 256> flushed;
  Counter flushes;  // how many of these there are
};

// Counts since the beginning, for the table.
struct Totals {
  Counter sent, received, told;
  Counter waited_for, answered_later, unanswered;
  Counter published, events;
  Counter lines, flushes;
  Counter children;
  Counter notifications, notify_requests;
  Counter descriptors;
  Counter pages, pages_refused;
};

struct Slot {
  Counter epoch;         // number of the message server that it works with; 0: not connected
  Counter notify_epoch;  // the same of the notify server, only for clients that it knows
  Counter paused;        // the last pause in which the client has come to rest
  Traffic traffic;
  Notifications notifications;
  Lines lines;
  Totals totals;
};

struct Board {
  // The running servers' numbers, and those with which all regular clients work.
  Counter epoch, all_there;
  Counter notify_epoch, notify_all_there;
  Counter log_epoch;
  Counter serving;         // 0 from before the message server is killed until all are there again
  Counter pause, resumed;  // unequal: clients must come to rest
  Counter stop;
  Slot slots[kClients];
  std::atomic<bool> failed = false;
  char failure[400] = {};
};

}  // namespace soak
