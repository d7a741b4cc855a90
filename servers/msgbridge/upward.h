// What happens to an event before it is put into the spool: which rule is for it, whether its rate
// lets it pass, where it goes and what of it is masked.
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

// The text that subscribers get of an event: `data` itself, or made of it where they get the
// publisher's DM body. None for what is no JSON object.
std::optional<std::string> event_text(uint32_t type, std::string_view data);

class Upward {
 public:
  struct Counters {
    uint64_t taken = 0;       // into the spool
    uint64_t no_rule = 0;     // no rule is for it, or one that keeps it here
    uint64_t limited = 0;     // beyond its rule's rate
    uint64_t sampled = 0;     // left out by its rule's sampling
    uint64_t unreadable = 0;  // no JSON object
  };

  Upward(std::vector<UpRule> rules, std::string prefix, std::string gateway);

  // What goes up of an event that has arrived; none when nothing does.
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
