// The C library makes the same system call, and answers without entering the kernel where the
// kernel lets it: a tenth of the cost, once in every iteration of the loop.

#include "os/clock.h"

#include <cstdio>

namespace msgapi::os {

bool read_clock(clockid_t clock, RawTime *out) {
  timespec now;
  if (::clock_gettime(clock, &now) != 0) return false;
  *out = {static_cast<long>(now.tv_sec), static_cast<long>(now.tv_nsec)};
  return true;
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
