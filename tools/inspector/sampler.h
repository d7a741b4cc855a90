// Chooses which records are kept when there are too many to look at.
#pragma once

#include <algorithm>
#include <bit>
#include <cstdint>

namespace inspector {

// Keeps all records while they are few, and in a burst. Of a lasting flood it keeps every second,
// fourth, eighth ... exchange, whole, so that what belongs together stays together. Only the
// records' times decide, so that every reading of a file keeps the same records.
class Sampler {
 public:
  // In the long run about `per_second` records a second are kept.
  explicit Sampler(uint32_t per_second)
      : per_window_(std::max(per_second / kWindows, 1u)), credit_(most_credit()) {}

  // Keeps one exchange in `count` from now on, whatever the times say.
  void keep_one_in(uint64_t count) {
    one_in_ = std::bit_ceil(count);
    fixed_ = true;
  }

  // Whether a record is kept. `exchange` is the same number for all records that belong together.
  bool wants(uint64_t exchange, uint64_t time_ns) {
    if (fixed_) return chosen(exchange);
    if (time_ns - window_begin_ns_ >= kWindow_ns) begin_window(time_ns);
    ++seen_;
    if (!chosen(exchange) || credit_ == 0) return false;
    --credit_;
    return true;
  }

  // Counts a record that is kept whatever the load, because it belongs to one that was kept.
  void charge(uint64_t time_ns) {
    if (fixed_) return;
    if (time_ns - window_begin_ns_ >= kWindow_ns) begin_window(time_ns);
    ++seen_;
    if (credit_ > 0) --credit_;
  }

  uint64_t one_in() const { return one_in_; }

 private:
  static constexpr uint32_t kWindows = 4;  // in a second
  static constexpr uint64_t kWindow_ns = 1'000'000'000 / kWindows;
  static constexpr uint64_t kBurstWindows = 16;

  uint64_t most_credit() const { return kBurstWindows * per_window_; }

  void begin_window(uint64_t time_ns) {
    const uint64_t windows = std::min((time_ns - window_begin_ns_) / kWindow_ns, kBurstWindows);
    credit_ = std::min(credit_ + windows * per_window_, most_credit());
    // Rounded up, so that what is chosen fits.
    const uint64_t wanted = std::bit_ceil((seen_ + per_window_ - 1) / per_window_);
    // After a lasting flood, everything is kept again only once all of a window would fit.
    const bool burst = one_in_ == 1 && credit_ > most_credit() / 2;
    one_in_ = burst ? 1 : std::max<uint64_t>(wanted, 1);
    seen_ = 0;
    window_begin_ns_ = time_ns;
  }

  // Numbers of messages follow patterns; their products with a large odd number do not. An exchange
  // that is one in 2n is also one in n, so the choice changes little when the load does.
  bool chosen(uint64_t exchange) const {
    return ((exchange * 0x9e3779b97f4a7c15u) >> 32) % one_in_ == 0;
  }

  const uint64_t per_window_;
  uint64_t credit_;
  uint64_t one_in_ = 1;
  uint64_t window_begin_ns_ = 0;
  uint64_t seen_ = 0;
  bool fixed_ = false;
};

}  // namespace inspector
