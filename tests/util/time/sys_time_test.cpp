#include <gtest/gtest.h>

#include <ctime>

#include "msgapi/time.h"

namespace msgapi {
namespace {

TEST(SysTime, IsTheMonotonicClock) {
  timespec before, after;
  ORP_TIME_ST now = {-1, -1};

  ::clock_gettime(CLOCK_MONOTONIC, &before);
  EXPECT_EQ(0u, ORP_UTIL_GetSysTime(&now));
  ::clock_gettime(CLOCK_MONOTONIC, &after);

  EXPECT_LE(before.tv_sec, now.seconds);
  EXPECT_LE(now.seconds, after.tv_sec);
  EXPECT_LT(static_cast<uint32_t>(now.microseconds), 1000000u);
  EXPECT_EQ(1u, ORP_UTIL_GetSysTime(nullptr));
}

}  // namespace
}  // namespace msgapi
