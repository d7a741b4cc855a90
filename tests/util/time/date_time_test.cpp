#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "msgapi/status.h"
#include "msgapi/time.h"

namespace {

using DateTime = ORP_UTIL_DATE_TIME_ST;

TEST(CheckTimeValid, SaysWhatIsWrong) {
  const struct {
    DateTime at;
    uint32_t result;
    const char *text;
  } kCases[] = {
      {{2020, 2, 29, 10, 0, 0}, 0, ""},
      {{2000, 2, 29, 10, 0, 0}, 0, ""},
      {{2021, 2, 30, 23, 59, 59}, 0, ""},  // kept
      {{2021, 0, 0, 0, 0, 0}, 0, ""},      // kept
      {{2021, 13, 1, 0, 0, 0}, 1, ""},
      {{2021, 1, 32, 0, 0, 0}, 1, ""},
      {{1900, 2, 29, 0, 0, 0}, 1, "The day[1900-2-29] of periodictime isn't exit.\n"},
      {{0, 2, 29, 0, 0, 0}, 1, "The day[0-2-29] of periodictime isn't exit.\n"},
      {{2021, 4, 31, 0, 0, 0}, 1, "The day[2021-4-31] of periodictime isn't exit.\n"},
      {{2021, 0, 31, 0, 0, 0}, 1, "The day[2021-0-31] of periodictime isn't exit.\n"},
      {{2021, 1, 31, 24, 60, 60}, 1, "\nThe hour of periodictime is not in the range."},
      {{2021, 1, 31, 23, 60, 60}, 1, "\nThe minute of periodictime is not in the range."},
      {{2021, 1, 31, 23, 59, 60}, 1, "\nThe second of periodictime is not in the range."},
      {{0, 0, 0, 0, 0, 0}, 1, "\nDosen't need to change the interval of inform."},
  };
  for (const auto &each : kCases) {
    const DateTime &at = each.at;
    testing::internal::CaptureStdout();
    EXPECT_EQ(each.result, ORP_UTIL_CheckTimeValid(at.ulYear, at.ulMonth, at.ulDay, at.ulHour,
                                                   at.ulMinute, at.ulSecond));
    EXPECT_EQ(each.text, testing::internal::GetCapturedStdout());
  }
}

TEST(TimeFormat, ReadsDatesWithAndWithoutDashes) {
  for (const char *text :
       {"2021-06-04T10:11:12", "20210604T10:11:12", "2021-06-04T10:11:12Z", "2021-06-04T10:11:12.Z",
        "2021-06-04T10:11:12.123Z", "2021-06-04T10:11:12.123+08:00", "2021-06-04T10:11:12-08:00",
        "2021-06-04T10:11:12.5-0:Z", "2021-06-04T10:11:12.5-08.30"}) {
    const DateTime expected = {2021, 6, 4, 10, 11, 12};
    DateTime at{};
    EXPECT_EQ(0u, ORP_UTIL_UCTTimeFormatCheck(text, &at)) << text;
    EXPECT_EQ(0, std::memcmp(&expected, &at, sizeof at)) << text;
  }
  DateTime at{};
  EXPECT_EQ(0u, ORP_UTIL_UCTTimeFormatCheck("0000-99-99T99:99:99", &at)) << "no ranges";
  EXPECT_EQ(99u, at.ulSecond);
}

TEST(TimeFormat, RefusesOtherTextsAndLeavesTheFields) {
  const struct {
    const char *text;
    uint32_t status;
    const char *why;
  } kCases[] = {
      {"", 0, "no text is no error"},
      {"20210604T101010Z", 1, "16 characters"},
      {"20210604T10101000", 1, "no separators in the time"},
      {"2021-06-04 10:00:00", 1, "no T"},
      {"2021-6-04T10:00:00", 1, "month of one digit"},
      {"2021-06-04-T10:00:00", 1, "fourth piece"},
      {"2021--06-04T10:00:00", 1, "empty piece"},
      {"202106041T10:00:00", 1, "nine digits"},
      {"2021-06-04TT0:00:00", 1, "no digit"},
      {"2021-06-04T10:00:0", 1, "second of one digit"},
      {"2021-06-04T10:00:+1", 1, "sign for a digit"},
      {"2021-06-04T10:00:00z", 1, "lower-case zone"},
      {"2021-06-04T10:00:00Zx", 1, "text behind the zone"},
      {"2021-06-04T10:00:00.123", 1, "fraction without a zone"},
      {"2021-06-04T10:00:00.1+8:00", 1, "offset hour of one digit"},
      {"2021-06-04T10:00:00.1+0800", 1, "offset without a separator"},
      {"2021-06-04T10:00:00.123456789012345678901Z", 1, "42 characters"},
      {"2021-06-04T10:00:00.12345678901234567890123Z", ORP_ERR_ARGUMENT, "44 characters"},
  };
  for (const auto &each : kCases) {
    DateTime at = {7, 7, 7, 7, 7, 7};
    EXPECT_EQ(each.status, ORP_UTIL_UCTTimeFormatCheck(each.text, &at)) << each.why;
    EXPECT_EQ(7u, at.ulYear) << each.why;
  }
}

TEST(TimeDifference, IsInSecondsWithinItsBounds) {
  constexpr uint32_t kUnwritten = 12345;
  const struct {
    const char *first, *second;
    uint32_t seconds, order;
    const char *why;
  } kCases[] = {
      {"2038-01-19T03:14:08", "2038-01-19T03:14:07", kUnwritten, 1, "years of our era"},
      {"2021-06-04T10:00:00", "2021-02-29T10:00:00", kUnwritten, 1, "the second is not checked"},
      {"0100-02-28T00:00:00", "0100-03-01T01:01:01", 86400 + 3661, 0, "no leap year"},
      {"0004-02-28T00:00:00", "0004-03-01T00:00:00", 2 * 86400, 0, "leap year"},
      {"0002-01-01T00:00:00", "0001-12-31T23:59:59", 1, 1, "backwards"},
      {"0100-01-01T00:00:00", "0100-01-01T00:00:00", kUnwritten, 0, "the same"},
      // Day 49710 of the calendar is 6 February 137; 2^32 seconds end on it at 06:28:16.
      {"0137-02-06T06:28:14", "0137-02-06T06:28:15", 1, 0, "the last second"},
      {"0137-02-06T06:28:14", "0137-02-06T06:28:16", kUnwritten, 0, "behind it"},
      {"0137-02-06T00:00:00", "0137-02-07T00:00:00", kUnwritten, 0, "the day behind it"},
      {"0061-01-01T00:00:00", "0010-01-01T00:00:00", kUnwritten, 0, "51 years"},
      {"0060-01-01T00:00:00", "0010-01-01T00:00:00", 50 * 365 * 86400 + 12 * 86400, 1, "50 years"},
  };

  testing::internal::CaptureStdout();
  for (const auto &each : kCases) {
    uint32_t seconds = kUnwritten, order = 9;
    EXPECT_EQ(0u, ORP_UTIL_GetDifTime(each.first, each.second, &seconds, &order)) << each.why;
    EXPECT_EQ(each.seconds, seconds) << each.why;
    EXPECT_EQ(each.order, order) << each.why;
  }
  EXPECT_EQ("\nThe two times are the same.", testing::internal::GetCapturedStdout());
}

TEST(TimeDifference, WritesNothingForWhatItCannotRead) {
  const std::string too_long(44, 'x');
  const struct {
    const char *first, *second;
    uint32_t status;
  } kCases[] = {
      {"2021-06-04", "2021-06-04T10:00:00", 1},          {"2021-06-04T10:00:00", "2021-06-04", 1},
      {"2021-02-29T10:00:00", "2021-06-04T10:00:00", 1}, {"", "2021-06-04T10:00:00", 1},
      {too_long.c_str(), "", ORP_ERR_ARGUMENT},
  };
  for (const auto &[first, second, status] : kCases) {
    uint32_t seconds = 7, order = 9;
    EXPECT_EQ(status, ORP_UTIL_GetDifTime(first, second, &seconds, &order));
    EXPECT_EQ(7u, seconds);
    EXPECT_EQ(9u, order);
  }
}

TEST(DelayTime, WaitsForTheNextBoundary) {
  const struct {
    uint32_t now, period, align, delay;
  } kCases[] = {
      {100, 30, 0, 20}, {100, 30, 1, 10}, {90, 30, 0, 30}, {90, 30, 1, 30}, {9, 0, 1, 77}};
  for (const auto &[now, period, align, expected] : kCases) {
    uint32_t delay = 77;
    ORP_UTIL_GetDelayTime(now, period, align, &delay);
    EXPECT_EQ(expected, delay) << now << " of " << period;
  }
}

}  // namespace
