// The kernel's clocks.
#pragma once

#include <ctime>

#include "msgapi/export.h"

namespace msgapi::os {

// A clock's reading in two longs, whatever width the C library gives time_t.
struct RawTime {
  long seconds;
  long nanoseconds;
};

// False, with errno set, when the clock cannot be read.
bool read_clock(clockid_t clock, RawTime *out);

// The monotonic clock. On failure {0, 0}, reported through perror, and false.
bool read_monotonic(ORP_TIME_ST *out);

}  // namespace msgapi::os
