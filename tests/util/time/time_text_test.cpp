#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>

#include "msgapi/time.h"

namespace {

time_t g_time = 1622801412;

}  // namespace

// Replaces the C library's.
extern "C" time_t time(time_t *) noexcept {
  return g_time;
}

namespace {

TEST(TimeText, FormatsUtcAndLocalTime) {
  ::setenv("TZ", "XYZ-5:30", 1);
  ::tzset();

  EXPECT_STREQ("10:10:12", ORP_UTIL_GetCurrTime());
  EXPECT_STREQ("2021-06-04T10:10:12", ORP_UTIL_GetCurrUTCTime());
  EXPECT_STREQ("2021/06/04T10:10:12", ORP_UTIL_GetCurrSpecUtcTime());
  EXPECT_STREQ("2021-06-04:10:10:12", ORP_UTIL_GetCurrTimeStamp());
  EXPECT_STREQ("2021-06-04 10:10:12", ORP_UTIL_GetCurrTimeWithSpace());
  EXPECT_STREQ("Fri, 04 Jun 2021 10:10:12 GMT", ORP_UTIL_GetCurrGMTTime());
  EXPECT_STREQ("0604154012", ORP_UTIL_GetLocalTimeStamp());
  EXPECT_STREQ("2021-06-04T10:10:12Z", ORP_UTIL_GetCurrUTCTimeStamp());
  EXPECT_EQ(ORP_UTIL_GetCurrTime(), ORP_UTIL_GetCurrGMTTime()) << "one buffer";
  EXPECT_NE(ORP_UTIL_GetCurrTime(), ORP_UTIL_GetLocalTimeStamp()) << "another";
}

TEST(TimeText, GoesOnAfter2038WhereTheClockDoes) {
  ::setenv("TZ", "XYZ-5:30", 1);
  ::tzset();
  if constexpr (sizeof(time_t) == 8) {
    g_time = int64_t{0x80000000};
    EXPECT_STREQ("2038-01-19 03:14:08", ORP_UTIL_GetCurrTimeWithSpace());
    EXPECT_STREQ("0119084408", ORP_UTIL_GetLocalTimeStamp());
    g_time = int64_t{0x100000000};
    EXPECT_STREQ("Sun, 07 Feb 2106 06:28:16 GMT", ORP_UTIL_GetCurrGMTTime());
    EXPECT_STREQ("2106-02-07T06:28:16Z", ORP_UTIL_GetCurrUTCTimeStamp());
  }

  g_time = -1;  // what a time_t of 32 bits gets then
  EXPECT_STREQ("", ORP_UTIL_GetCurrTimeWithSpace());
  EXPECT_STREQ("", ORP_UTIL_GetLocalTimeStamp());
}

TEST(TimeText, CountsOnTheMonotonicClock) {
  const auto monotonic_ms = [] {
    timespec now;
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000);
  };
  ORP_TIME_ST system;
  const uint64_t before = monotonic_ms();
  EXPECT_EQ(0u, ORP_UTIL_GetSysTime(&system));
  const auto system_ms =
      static_cast<uint64_t>(int64_t{system.seconds} * 1000 + system.microseconds / 1000);
  const uint64_t now = ORP_UTIL_GetMsecondAfterStart();

  EXPECT_LE(before, system_ms);
  EXPECT_LE(system_ms, now);
  EXPECT_LE(now, monotonic_ms());
}

TEST(TimeText, ReleaseDateIsCutToTheBuffer) {
  char date[16] = "untouched";
  ORP_UTIL_GetReleaseDate(date, 1);
  EXPECT_STREQ("untouched", date);

  ORP_UTIL_GetReleaseDate(date, 5);
  EXPECT_STREQ("2021", date);
  ORP_UTIL_GetReleaseDate(date, sizeof date);
  EXPECT_STREQ("2021-06-04", date);
}

}  // namespace
