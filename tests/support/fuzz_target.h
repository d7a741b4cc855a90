// Random inputs for a fuzz target (fuzz/NAME_fuzz.cpp) that is one of the test program's sources.
#pragma once

#include <algorithm>
#include <cstdint>
#include <random>
#include <vector>

#include "support/soak.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

namespace test {

// The target ends the test and names its line when something does not hold.
inline void run_fuzz_target(uint32_t inputs, size_t size) {
  std::mt19937 random(seed());
  std::vector<uint8_t> input(size);
  for (uint32_t i = 0; i < inputs * soak_factor(); ++i) {
    std::ranges::generate(input, [&random] { return static_cast<uint8_t>(random()); });
    LLVMFuzzerTestOneInput(input.data(), input.size());
  }
}

}  // namespace test
