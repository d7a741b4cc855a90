// When to try again.
#pragma once

#include <algorithm>
#include <cstdint>

#include "msgbridge/config.h"

namespace msgbridge {

// How long to wait after so many failures: anywhere between nearly nothing and a limit that doubles
// with each; `random` is any number. Gateways that lost one broker at one moment come back spread
// over the whole of that time.
inline uint32_t backoff_ms(const Reconnect &reconnect, uint32_t failures, uint32_t random) {
  constexpr uint64_t kLeast_ms = 10;
  const uint64_t limit = std::min<uint64_t>(
      reconnect.most_ms, uint64_t{reconnect.least_ms} << std::min(failures, 24u));
  return static_cast<uint32_t>(kLeast_ms + random % limit);
}

}  // namespace msgbridge
