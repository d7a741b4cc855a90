// Loads and stores of multi-byte integers at any alignment.
#pragma once

#include <bit>
#include <cstdint>
#include <cstring>

namespace msgapi {

// Host order.
template <typename T>
T load(const void *place) {
  T value;
  std::memcpy(&value, place, sizeof value);
  return value;
}

template <typename T>
void store(void *place, T value) {
  std::memcpy(place, &value, sizeof value);
}

constexpr uint32_t swap_bytes(uint32_t value) {
  return __builtin_bswap32(value);
}

}  // namespace msgapi
