// How long to wait before the next attempt to connect.
#pragma once

#include <algorithm>
#include <cstdint>

#include "msgbridge/config.h"

namespace msgbridge {

// The time to wait after `failures` failures: a random time up to a limit that doubles with each
// failure. `random` is any number. So gateways that lost their broker at the same moment come back
// spread over the whole time.
inline uint32_t backoff_ms(const Reconnect &reconnect, uint32_t failures, uint32_t random) {
  constexpr uint64_t kLeast_ms = 10;
  const uint64_t limit = std::min<uint64_t>(
      reconnect.most_ms, uint64_t{reconnect.least_ms} << std::min(failures, 24u));
  return static_cast<uint32_t>(kLeast_ms + random % limit);
}

}  // namespace msgbridge
