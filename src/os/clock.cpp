// The raw system call fills two longs on every target, whatever width the C library's time_t has.
// The interface promises that the clocks come from the kernel itself.

#include "os/clock.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <cstdio>

namespace msgapi::os {

bool read_clock(clockid_t clock, RawTime *out) {
  return ::syscall(__NR_clock_gettime, clock, out) == 0;
}

bool read_monotonic(ORP_TIME_ST *out) {
  RawTime now;
  if (!read_clock(CLOCK_MONOTONIC, &now)) {
    *out = {0, 0};
    std::perror("syscall:__NR_clock_gettime");
    return false;
  }
  *out = {static_cast<int32_t>(now.seconds), static_cast<int32_t>(now.nanoseconds / 1000)};
  return true;
}

}  // namespace msgapi::os
