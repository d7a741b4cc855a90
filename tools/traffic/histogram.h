// Times, counted in classes that grow with them, so that any quantile is known to about 3 %.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace traffic {

// A log-linear histogram: every power of two is divided into 32 classes of equal width, and values
// below 32 have a class each.
class Histogram {
 public:
  void add(uint64_t value);

  uint64_t count() const { return count_; }
  uint64_t max() const { return max_; }
  // The least value that at least `fraction` of all values do not exceed: the upper end of its
  // class, but no more than the maximum. 0 without values.
  uint64_t quantile(double fraction) const;

  // How many values lie from `first` up to, but without, `last`. Only whole classes are counted, so
  // both should be powers of two.
  uint64_t between(uint64_t first, uint64_t last) const;

 private:
  static constexpr unsigned kBits = 5;
  static constexpr size_t kClasses = size_t{64 - kBits + 1} << kBits;
  static size_t class_of(uint64_t value);
  static uint64_t first_of(size_t index);
  static uint64_t last_of(size_t index);

  std::array<uint32_t, kClasses> counts_{};
  uint64_t count_ = 0;
  uint64_t max_ = 0;
};

}  // namespace traffic
