// Runs code once for every allocation it makes, with that allocation failing.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>

#include "base/memory.h"

namespace test {

// Calls attempt() with the first allocation failing, then the second, and so on until one call
// succeeds; attempt returns true for success and must leave nothing behind after a failure.
// Returns how many allocations were made to fail.
template <typename Attempt>
uint32_t fail_every_allocation(Attempt attempt) {
  for (uint32_t nth = 1; nth < 1000; ++nth) {
    msgapi::fail_allocation(nth);
    const bool succeeded = attempt();
    msgapi::fail_allocation(0);
    if (succeeded) return nth - 1;
  }
  ADD_FAILURE() << "never succeeded";
  return 0;
}

}  // namespace test
