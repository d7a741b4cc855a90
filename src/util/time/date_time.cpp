// Dates written as year-month-day "T" hour:minute:second: reading, checking and comparing them.
//
// Applications store such texts, so the long-standing oddities stay: 30 February passes, offsets
// are checked but not applied, and differences are computed only for day numbers whose seconds fit
// 32 bits.

#include <array>
#include <compare>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <optional>
#include <string_view>

#include "base/copy_failure.h"
#include "base/result.h"
#include "msgapi/time.h"

namespace msgapi::time {
namespace {

using DateTime = ORP_UTIL_DATE_TIME_ST;

constexpr size_t kTextSize = 44;
constexpr size_t kMinLength = 17;
constexpr size_t kMaxLength = 40;

constexpr uint32_t kInvalid = 1;

bool is_leap_year(uint32_t year) {
  return year != 0 && ((year % 4 == 0 && year % 100 != 0) || year % 400 == 0);
}

bool has_day_31(uint32_t month) {
  return month == 1 || month == 3 || month == 5 || month == 7 || month == 8 || month == 10 ||
         month == 12;
}

// Month 0, day 0 and 30 February pass: long-standing and kept.
bool check_date_time(const DateTime &at) {
  if (at.ulMonth >= 13 || at.ulDay >= 32) return false;
  if ((at.ulMonth == 2 && at.ulDay == 29 && !is_leap_year(at.ulYear)) ||
      (at.ulDay == 31 && !has_day_31(at.ulMonth))) {
    std::printf("The day[%u-%u-%u] of periodictime isn't exit.\n", at.ulYear, at.ulMonth, at.ulDay);
    return false;
  }
  if (at.ulHour > 23) {
    std::printf("\nThe hour of periodictime is not in the range.");
    return false;
  }
  if (at.ulMinute > 59) {
    std::printf("\nThe minute of periodictime is not in the range.");
    return false;
  }
  if (at.ulSecond > 59) {
    std::printf("\nThe second of periodictime is not in the range.");
    return false;
  }
  if ((at.ulYear | at.ulMonth | at.ulDay | at.ulHour | at.ulMinute | at.ulSecond) == 0) {
    std::printf("\nDosen't need to change the interval of inform.");
    return false;
  }
  return true;
}

// Exactly `count` digits.
bool read_digits(std::string_view text, size_t count, uint32_t *out) {
  if (text.size() != count) return false;
  uint32_t value = 0;
  for (const char c : text) {
    if (c < '0' || c > '9') return false;
    value = value * 10 + static_cast<uint32_t>(c - '0');
  }
  *out = value;
  return true;
}

std::string_view slice(std::string_view text, size_t from, size_t count) {
  text.remove_prefix(from < text.size() ? from : text.size());
  if (text.size() > count) text.remove_suffix(text.size() - count);
  return text;
}

bool read_date(std::string_view date, DateTime *out) {
  if (date.find('-') == std::string_view::npos) {
    return date.size() == 8 && read_digits(slice(date, 0, 4), 4, &out->ulYear) &&
           read_digits(slice(date, 4, 2), 2, &out->ulMonth) &&
           read_digits(slice(date, 6, 2), 2, &out->ulDay);
  }
  // The last piece is everything that is left, so a fourth piece makes it too long.
  return read_digits(cut_piece(&date, '-'), 4, &out->ulYear) &&
         read_digits(cut_piece(&date, '-'), 2, &out->ulMonth) && read_digits(date, 2, &out->ulDay);
}

// What follows the sign of an offset: two digits, one separator, two digits.
bool is_offset(std::string_view text) {
  uint32_t hours, minutes;
  return text.size() == 5 && read_digits(slice(text, 0, 2), 2, &hours) &&
         (text[2] < '0' || text[2] > '9') && read_digits(slice(text, 3, 2), 2, &minutes);
}

// What follows the seconds. A fraction is skipped up to the zone, whatever it is made of.
bool is_zone(std::string_view text) {
  if (text.empty() || text == "Z") return true;
  if (text.front() != '.') {
    return (text.front() == '+' || text.front() == '-') && is_offset(slice(text, 1, text.size()));
  }
  if (text.find('Z') != std::string_view::npos) return true;
  size_t sign = text.find('+');
  if (sign == std::string_view::npos) sign = text.find('-');
  return sign != std::string_view::npos && is_offset(slice(text, sign + 1, text.size()));
}

bool read_time(std::string_view time, DateTime *out) {
  return read_digits(cut_piece(&time, ':'), 2, &out->ulHour) &&
         read_digits(cut_piece(&time, ':'), 2, &out->ulMinute) &&
         read_digits(slice(time, 0, 2), 2, &out->ulSecond) && is_zone(slice(time, 2, time.size()));
}

std::optional<DateTime> read_date_time(std::string_view text) {
  if (text.size() < kMinLength || text.size() > kMaxLength) return std::nullopt;
  const size_t separator = text.find('T');
  if (separator == std::string_view::npos) return std::nullopt;

  DateTime at{};
  if (!read_date(slice(text, 0, separator), &at) ||
      !read_time(slice(text, separator + 1, text.size()), &at)) {
    return std::nullopt;
  }
  return at;
}

// Fills *out and answers 0, or says why not. An empty text is no error and fills nothing.
uint32_t parse(const char *text, DateTime *out) {
  if (*text == '\0') return 0;
  char copy[kTextSize];
  const size_t length = ::strnlen(text, sizeof copy);
  if (!copy_or_report(copy, {text, length})) return code(Status::kBadArgument);

  const std::optional<DateTime> at = read_date_time({copy, length});
  if (!at) return kInvalid;
  *out = *at;
  return 0;
}

constexpr uint32_t kEarlier = 0;
constexpr uint32_t kLater = 1;
constexpr uint32_t kSame = 2;

std::array<uint32_t, 6> fields(const DateTime &at) {
  return {at.ulYear, at.ulMonth, at.ulDay, at.ulHour, at.ulMinute, at.ulSecond};
}

uint32_t compare(const DateTime &first, const DateTime &second) {
  const auto order = fields(first) <=> fields(second);
  if (order < 0) return kEarlier;
  return order > 0 ? kLater : kSame;
}

uint32_t day_of_year(const DateTime &at) {
  constexpr uint32_t kDaysBefore[] = {0, 31, 59, 90, 120, 151, 181, 212, 243, 273, 304, 334};
  if (at.ulMonth < 2 || at.ulMonth > 12) return at.ulDay;
  const uint32_t leap_day = at.ulMonth > 2 && is_leap_year(at.ulYear) ? 1 : 0;
  return kDaysBefore[at.ulMonth - 1] + leap_day + at.ulDay;
}

// In 32-bit arithmetic, in which the year 0 gives a number far beyond the bound.
uint32_t day_number(const DateTime &at) {
  const uint32_t years = at.ulYear - 1;
  return years * 365 + years / 4 + years / 400 - years / 100 + day_of_year(at);
}

// Seconds since the first day, if they fit 32 bits. Today's do not; the bound is part of the
// interface.
std::optional<uint32_t> seconds_of(const DateTime &at) {
  constexpr uint32_t kDaySeconds = 86400;
  const uint32_t day = day_number(at);
  if (day > UINT32_MAX / kDaySeconds) return std::nullopt;
  const uint64_t seconds = uint64_t{day} * kDaySeconds + uint64_t{at.ulHour} * 3600 +
                           uint64_t{at.ulMinute} * 60 + at.ulSecond;
  if (seconds > UINT32_MAX) return std::nullopt;
  return static_cast<uint32_t>(seconds);
}

// The seconds between two times; nothing for equal ones, 51 years and more, and beyond the bound.
// *order is what the interface reports.
std::optional<uint32_t> difference(const DateTime &first, const DateTime &second, uint32_t *order) {
  *order = compare(first, second);
  if (*order == kSame) std::printf("\nThe two times are the same.");
  const DateTime &earlier = *order == kEarlier ? first : second;
  const DateTime &later = *order == kEarlier ? second : first;
  if (*order == kSame || later.ulYear - earlier.ulYear >= 51) {
    *order = 0;
    return std::nullopt;
  }
  const std::optional<uint32_t> from = seconds_of(earlier);
  const std::optional<uint32_t> to = seconds_of(later);
  if (!from || !to) return std::nullopt;
  return *to - *from;
}

}  // namespace
}  // namespace msgapi::time

using namespace msgapi;
using namespace msgapi::time;

extern "C" uint32_t ORP_UTIL_CheckTimeValid(uint32_t year, uint32_t month, uint32_t day,
                                            uint32_t hour, uint32_t minute, uint32_t second) {
  return check_date_time({year, month, day, hour, minute, second}) ? 0 : kInvalid;
}

extern "C" uint32_t ORP_UTIL_UCTTimeFormatCheck(const char *text, ORP_UTIL_DATE_TIME_ST *out) {
  if (text == nullptr || out == nullptr) return kInvalid;
  return parse(text, out);
}

extern "C" uint32_t ORP_UTIL_GetDifTime(const char *text1, const char *text2, uint32_t *seconds,
                                        uint32_t *order) {
  if (text1 == nullptr || text2 == nullptr || seconds == nullptr || order == nullptr) return 1;
  DateTime first{}, second{};
  uint32_t status = parse(text1, &first);
  if (status == 0) status = parse(text2, &second);
  if (status != 0) return status;
  if (!check_date_time(first)) return kInvalid;

  if (const std::optional<uint32_t> gap = difference(first, second, order)) *seconds = *gap;
  return 0;
}

extern "C" void ORP_UTIL_GetDelayTime(uint32_t now, uint32_t period, uint32_t align,
                                      uint32_t *delay) {
  if (delay == nullptr || period == 0) return;
  const uint32_t rest = now % period;
  const uint32_t wait = align != 0 ? rest : period - rest;
  *delay = wait == 0 ? period : wait;
}
