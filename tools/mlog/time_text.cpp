#include "time_text.h"

#include <fmt/core.h>
#include <time.h>

#include <algorithm>
#include <charconv>
#include <chrono>
#include <limits>

namespace mlog {
namespace {

constexpr int64_t kSecond_ms = 1000;
constexpr int64_t kDay_ms = 86400 * kSecond_ms;

int64_t clock_ns(clockid_t clock) {
  timespec now{};
  ::clock_gettime(clock, &now);
  return int64_t{now.tv_sec} * 1000000000 + now.tv_nsec;
}

int64_t floor_div(int64_t value, int64_t by) {
  return value / by - (value % by < 0 ? 1 : 0);
}

// How far local time is ahead of UTC at a time; 0 where the C library cannot tell.
int64_t zone_ms(int64_t time_ms) {
  const int64_t seconds = floor_div(time_ms, kSecond_ms);
  if (seconds < std::numeric_limits<time_t>::min() ||
      seconds > std::numeric_limits<time_t>::max()) {
    return 0;
  }
  const auto time = static_cast<time_t>(seconds);
  tm local{};
  return ::localtime_r(&time, &local) == nullptr ? 0 : int64_t{local.tm_gmtoff} * kSecond_ms;
}

// The time at which a local clock shows what a clock in UTC shows at `wall_ms`.
int64_t from_wall(int64_t wall_ms, bool utc) {
  if (utc) return wall_ms;
  const int64_t guess_ms = wall_ms - zone_ms(wall_ms);
  return wall_ms - zone_ms(guess_ms);
}

int64_t to_wall(int64_t time_ms, bool utc) {
  return utc ? time_ms : time_ms + zone_ms(time_ms);
}

std::string format_wall(int64_t wall_ms, char separator) {
  using std::chrono::days;
  using std::chrono::sys_days;
  const int64_t day = floor_div(wall_ms, kDay_ms);
  const std::chrono::year_month_day date{sys_days(days(day))};
  const int64_t rest_ms = wall_ms - day * kDay_ms;
  const int64_t seconds = rest_ms / kSecond_ms;
  return fmt::format("{:04}-{:02}-{:02}{}{:02}:{:02}:{:02}.{:03}", static_cast<int>(date.year()),
                     static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
                     separator, seconds / 3600, seconds / 60 % 60, seconds % 60,
                     rest_ms % kSecond_ms);
}

// Reads pieces of a text from its front.
class Scanner {
 public:
  explicit Scanner(std::string_view text) : text_(text) {}

  bool done() const { return text_.empty(); }
  bool skip(std::string_view word) {
    if (!text_.starts_with(word)) return false;
    text_.remove_prefix(word.size());
    return true;
  }
  // A number of up to `digits` digits.
  std::optional<int64_t> number(size_t digits) {
    const size_t size = std::min(text_.find_first_not_of("0123456789"), text_.size());
    int64_t value = 0;
    if (size == 0 || size > digits) return std::nullopt;
    std::from_chars(text_.data(), text_.data() + size, value);
    text_.remove_prefix(size);
    return value;
  }
  // ".5" in milliseconds; 0 when there is none.
  int64_t fraction_ms() {
    if (!skip(".")) return 0;
    int64_t value = 0;
    int64_t scale = 100;
    for (; !text_.empty() && text_.front() >= '0' && text_.front() <= '9'; scale /= 10) {
      value += scale * (text_.front() - '0');
      text_.remove_prefix(1);
    }
    return value;
  }
  std::string_view word() {
    size_t size = 0;
    while (size < text_.size() && text_[size] >= 'a' && text_[size] <= 'z') ++size;
    const std::string_view found = text_.substr(0, size);
    text_.remove_prefix(size);
    return found;
  }
  void skip_blanks() {
    while (skip(" ")) {
    }
  }

 private:
  std::string_view text_;
};

std::optional<int64_t> unit_ms(std::string_view unit) {
  struct Unit {
    std::string_view name;
    int64_t ms;
  };
  static constexpr Unit kUnits[] = {
      {"ms", 1},          {"s", 1000},           {"sec", 1000},
      {"second", 1000},   {"seconds", 1000},     {"m", 60000},
      {"min", 60000},     {"minute", 60000},     {"minutes", 60000},
      {"h", 3600000},     {"hour", 3600000},     {"hours", 3600000},
      {"d", kDay_ms},     {"day", kDay_ms},      {"days", kDay_ms},
      {"w", 7 * kDay_ms}, {"week", 7 * kDay_ms}, {"weeks", 7 * kDay_ms},
  };
  for (const Unit &known : kUnits) {
    if (known.name == unit) return known.ms;
  }
  return std::nullopt;
}

// "1h 30min"
std::optional<int64_t> parse_span(Scanner *scan, bool *ago) {
  int64_t total_ms = 0;
  bool any = false;
  for (;;) {
    scan->skip_blanks();
    if (any && scan->skip("ago")) {
      *ago = true;
      scan->skip_blanks();
    }
    if (scan->done()) return any ? std::optional(total_ms) : std::nullopt;
    if (*ago) return std::nullopt;
    const std::optional<int64_t> count = scan->number(9);
    if (!count) return std::nullopt;
    scan->skip_blanks();
    const std::optional<int64_t> unit = unit_ms(scan->word());
    if (!unit) return std::nullopt;
    total_ms += *count * *unit;
    any = true;
  }
}

// "02:10:32.123"
std::optional<int64_t> parse_time_of_day(Scanner *scan) {
  const std::optional<int64_t> hour = scan->number(2);
  if (!hour || *hour > 23 || !scan->skip(":")) return std::nullopt;
  const std::optional<int64_t> minute = scan->number(2);
  if (!minute || *minute > 59) return std::nullopt;
  int64_t ms = (*hour * 60 + *minute) * 60 * kSecond_ms;
  if (scan->skip(":")) {
    const std::optional<int64_t> second = scan->number(2);
    if (!second || *second > 60) return std::nullopt;
    ms += *second * kSecond_ms + scan->fraction_ms();
  }
  return ms;
}

// "2026-11-22", as a number of days.
std::optional<int64_t> parse_date(Scanner *scan) {
  using std::chrono::day;
  using std::chrono::month;
  using std::chrono::year;
  const std::optional<int64_t> years = scan->number(4);
  if (!years || !scan->skip("-")) return std::nullopt;
  const std::optional<int64_t> months = scan->number(2);
  if (!months || !scan->skip("-")) return std::nullopt;
  const std::optional<int64_t> days = scan->number(2);
  if (!days) return std::nullopt;
  const std::chrono::year_month_day date(year(static_cast<int>(*years)),
                                         month(static_cast<unsigned>(*months)),
                                         day(static_cast<unsigned>(*days)));
  if (!date.ok()) return std::nullopt;
  return std::chrono::sys_days(date).time_since_epoch().count();
}

}  // namespace

Clocks read_clocks() {
  // Both clocks run alike, so the time of the boot stays the same until somebody sets the time.
  // Each reading of one clock lies between two of the other; many such bounds leave next to no
  // doubt.
  Clocks clocks;
  int64_t least_ns = INT64_MIN;
  int64_t most_ns = INT64_MAX;
  for (int i = 0; i < 1000; ++i) {
    const int64_t before_ns = clock_ns(CLOCK_BOOTTIME);
    const int64_t now_ns = clock_ns(CLOCK_REALTIME);
    const int64_t after_ns = clock_ns(CLOCK_BOOTTIME);
    least_ns = std::max(least_ns, now_ns - after_ns);
    most_ns = std::min(most_ns, now_ns - before_ns);
    clocks.now_ms = now_ns / 1000000;
    clocks.uptime_ms = after_ns / 1000000;
  }
  clocks.boot_ms = (least_ns + (most_ns - least_ns) / 2) / 1000000;
  return clocks;
}

std::optional<int64_t> parse_time(std::string_view text, const Clocks &clocks, bool utc) {
  const int64_t today = floor_div(to_wall(clocks.now_ms, utc), kDay_ms);
  if (text == "now") return clocks.now_ms;
  if (text == "boot") return clocks.boot_ms;
  if (text == "today") return from_wall(today * kDay_ms, utc);
  if (text == "yesterday") return from_wall((today - 1) * kDay_ms, utc);

  Scanner scan(text);
  if (scan.skip("@")) {
    const std::optional<int64_t> seconds = scan.number(12);
    if (!seconds) return std::nullopt;
    const int64_t time_ms = *seconds * kSecond_ms + scan.fraction_ms();
    return scan.done() ? std::optional(time_ms) : std::nullopt;
  }
  bool ago = false;
  if (scan.skip("-")) {
    const std::optional<int64_t> span_ms = parse_span(&scan, &ago);
    return span_ms ? std::optional(clocks.now_ms - *span_ms) : std::nullopt;
  }
  if (const std::optional<int64_t> span_ms = parse_span(&scan, &ago); span_ms && ago) {
    return clocks.now_ms - *span_ms;
  }

  scan = Scanner(text);
  if (const std::optional<int64_t> time_ms = parse_time_of_day(&scan); time_ms && scan.done()) {
    return from_wall(today * kDay_ms + *time_ms, utc);
  }
  scan = Scanner(text);
  const std::optional<int64_t> day = parse_date(&scan);
  if (!day) return std::nullopt;
  int64_t wall_ms = *day * kDay_ms;
  if (scan.skip("T") || scan.skip(" ")) {
    const std::optional<int64_t> time_ms = parse_time_of_day(&scan);
    if (!time_ms) return std::nullopt;
    wall_ms += *time_ms;
    if (scan.skip("Z")) utc = true;
  }
  return scan.done() ? std::optional(from_wall(wall_ms, utc)) : std::nullopt;
}

std::string format_time(int64_t time_ms, bool utc) {
  return format_wall(to_wall(time_ms, utc), ' ');
}

std::string format_iso_time(int64_t time_ms) {
  return format_wall(time_ms, 'T') + 'Z';
}

}  // namespace mlog
