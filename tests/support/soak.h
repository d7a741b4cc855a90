// The length and the seed of random tests, short and fixed in the suite, long and fresh in
// `./dev soak`; and how much slower than usual this machine may be.
#pragma once

#include <cstdint>
#include <cstdlib>

namespace test {

inline uint32_t from_environment(const char *name, uint32_t fallback) {
  const char *text = std::getenv(name);
  return text == nullptr ? fallback : static_cast<uint32_t>(std::strtoul(text, nullptr, 10));
}

// How many times its usual length a random test runs.
inline uint32_t soak_factor() {
  return from_environment("MSGAPI_SOAK", 1);
}

// The seed of its random numbers.
inline uint32_t seed() {
  return from_environment("MSGAPI_SEED", 1);
}

// Limits of time are multiplied by this, amounts of work divided by it.
#ifdef MSGAPI_EMULATED
inline constexpr int kSlowness = 10;
#else
inline constexpr int kSlowness = 1;
#endif

// How long a test waits for something that must come.
inline constexpr int kPatience_ms = 10000 * kSlowness;

}  // namespace test
