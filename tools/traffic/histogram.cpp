#include "traffic/histogram.h"

#include <algorithm>
#include <bit>
#include <cmath>

namespace traffic {

size_t Histogram::class_of(uint64_t value) {
  if (value < (uint64_t{1} << kBits)) return static_cast<size_t>(value);
  const unsigned shift = static_cast<unsigned>(std::bit_width(value)) - kBits - 1;
  // The bits behind the leading one number the classes of this power of two.
  return (size_t{shift} << kBits) + static_cast<size_t>(value >> shift);
}

uint64_t Histogram::first_of(size_t index) {
  if (index < (size_t{2} << kBits)) return index;
  const unsigned shift = static_cast<unsigned>(index >> kBits) - 1;
  return static_cast<uint64_t>(index - (size_t{shift} << kBits)) << shift;
}

uint64_t Histogram::last_of(size_t index) {
  return index + 1 == kClasses ? ~uint64_t{0} : first_of(index + 1) - 1;
}

void Histogram::add(uint64_t value) {
  ++counts_[class_of(value)];
  ++count_;
  max_ = std::max(max_, value);
}

uint64_t Histogram::quantile(double fraction) const {
  const double wanted = std::ceil(static_cast<double>(count_) * fraction);
  const uint64_t rank = std::clamp<uint64_t>(static_cast<uint64_t>(wanted), 1, count_ | 1);
  uint64_t passed = 0;
  for (size_t i = 0; i < kClasses; ++i) {
    passed += counts_[i];
    if (passed >= rank) return std::min(last_of(i), max_);
  }
  return max_;
}

uint64_t Histogram::between(uint64_t first, uint64_t last) const {
  uint64_t found = 0;
  for (size_t i = class_of(first); i < kClasses && first_of(i) < last; ++i) found += counts_[i];
  return found;
}

}  // namespace traffic
