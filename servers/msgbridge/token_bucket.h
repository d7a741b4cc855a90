// Limits a rate.
#pragma once

#include <algorithm>
#include <cstdint>

namespace msgbridge {

// Lets `per_second` through in a second, and up to `most` at once after a pause. 0: no limit. All
// times must be of one monotonic clock.
class TokenBucket {
 public:
  TokenBucket(uint32_t per_second, double most)
      : per_second_(per_second), most_(most), tokens_(most) {}

  bool takes(int64_t now_ms) {
    if (per_second_ == 0) return true;
    if (last_ms_ != kNever) {
      const double elapsed_s = static_cast<double>(now_ms - last_ms_) / 1000;
      tokens_ = std::min(most_, tokens_ + elapsed_s * per_second_);
    }
    last_ms_ = now_ms;
    if (tokens_ < 1) return false;
    tokens_ -= 1;
    return true;
  }

 private:
  static constexpr int64_t kNever = INT64_MIN;

  uint32_t per_second_;
  double most_;
  double tokens_;
  int64_t last_ms_ = kNever;
};

}  // namespace msgbridge
