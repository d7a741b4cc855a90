#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <iomanip>
#include <sstream>
#include <string>

#include "msgapi/time.h"

namespace {

// The text of `format` for the present second, read so that no second passes in between.
template <typename Read>
void expect_now(const char *format, bool local, Read read) {
  for (;;) {
    const time_t before = ::time(nullptr);
    const std::string text = read();
    if (::time(nullptr) != before) continue;
    tm fields;
    local ? ::localtime_r(&before, &fields) : ::gmtime_r(&before, &fields);
    std::ostringstream expected;
    expected << std::put_time(&fields, format);
    EXPECT_EQ(expected.str(), text);
    return;
  }
}

TEST(TimeText, FormatsUtcAndLocalTime) {
  ::setenv("TZ", "XYZ-5:30", 1);
  ::tzset();

  expect_now("%H:%M:%S", false, ORP_UTIL_GetCurrTime);
  expect_now("%Y-%m-%dT%H:%M:%S", false, ORP_UTIL_GetCurrUTCTime);
  expect_now("%Y/%m/%dT%H:%M:%S", false, ORP_UTIL_GetCurrSpecUtcTime);
  expect_now("%Y-%m-%d:%H:%M:%S", false, ORP_UTIL_GetCurrTimeStamp);
  expect_now("%Y-%m-%d %H:%M:%S", false, ORP_UTIL_GetCurrTimeWithSpace);
  expect_now("%a, %d %b %Y %H:%M:%S GMT", false, ORP_UTIL_GetCurrGMTTime);
  expect_now("%m%d%H%M%S", true, ORP_UTIL_GetLocalTimeStamp);
  expect_now("%Y-%m-%dT%H:%M:%SZ", false, ORP_UTIL_GetCurrUTCTimeStamp);
}

TEST(TimeText, UtcFormatsShareABufferThatLocalTimeDoesNot) {
  EXPECT_EQ(ORP_UTIL_GetCurrTime(), ORP_UTIL_GetCurrGMTTime());
  EXPECT_NE(ORP_UTIL_GetCurrTime(), ORP_UTIL_GetLocalTimeStamp());
}

TEST(TimeText, CountsMillisecondsOfTheMonotonicClock) {
  timespec before, after;
  ::clock_gettime(CLOCK_MONOTONIC, &before);
  const uint64_t now = ORP_UTIL_GetMsecondAfterStart();
  ::clock_gettime(CLOCK_MONOTONIC, &after);

  const auto ms = [](const timespec &at) {
    return static_cast<uint64_t>(at.tv_sec) * 1000 + static_cast<uint64_t>(at.tv_nsec) / 1000000;
  };
  EXPECT_GE(now, ms(before));
  EXPECT_LE(now, ms(after));
}

TEST(TimeText, ReleaseDateIsCutToTheBuffer) {
  char date[16] = "untouched";
  ORP_UTIL_GetReleaseDate(nullptr, 16);
  ORP_UTIL_GetReleaseDate(date, 1);
  EXPECT_STREQ("untouched", date);

  ORP_UTIL_GetReleaseDate(date, 5);
  EXPECT_STREQ("2021", date);
  ORP_UTIL_GetReleaseDate(date, sizeof date);
  EXPECT_STREQ("2021-06-04", date);
}

}  // namespace
