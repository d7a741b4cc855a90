// The clocks, read through the raw system call.
#pragma once

#include <ctime>

#include "msgapi/export.h"

namespace msgapi::os {

// What the raw clock_gettime system call fills: two longs, whatever width the C library gives
// time_t.
struct RawTime {
  long seconds;
  long nanoseconds;
};

// False, with errno set, when the clock cannot be read.
bool read_clock(clockid_t clock, RawTime *out);

// The monotonic clock. On failure {0, 0}, reported through perror, and false.
bool read_monotonic(ORP_TIME_ST *out);

}  // namespace msgapi::os
