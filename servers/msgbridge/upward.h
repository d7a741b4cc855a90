// What happens to an event before it is put into the spool: finding its rule, limiting its rate,
// making its topic, and masking.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "msgbridge/config.h"
#include "msgbridge/spool.h"
#include "msgbridge/token_bucket.h"

namespace msgbridge {

class Upward {
 public:
  struct Counters {
    uint64_t taken = 0;       // put into the spool
    uint64_t no_rule = 0;     // without a rule, or with one that keeps them here
    uint64_t limited = 0;     // beyond their rule's rate
    uint64_t sampled = 0;     // left out by their rule's sampling
    uint64_t unreadable = 0;  // no JSON objects
  };

  Upward(std::vector<UpRule> rules, std::string prefix, std::string gateway);

  // The event to send for one that has arrived on the bus; none when it stays here.
  std::optional<Event> take(uint32_t type, std::string_view data, const Spool::Now &now);

  // The events to subscribe to; empty: all of them.
  std::vector<uint32_t> types() const;
  bool wants_any() const;
  const Counters &counters() const { return counters_; }

 private:
  struct Limiter {
    TokenBucket bucket;
    uint32_t skipped = 0;
  };

  bool passes(const UpRule &rule, Limiter *limiter, int64_t now_ms);

  std::vector<UpRule> rules_;
  std::vector<Limiter> limiters_;
  std::string prefix_;
  std::string gateway_;
  Counters counters_;
};

}  // namespace msgbridge
