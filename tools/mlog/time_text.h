// Points in time as people write and read them. All are milliseconds since 1970 in 64 bits, so
// nothing ends in 2038, however long time_t is.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace mlog {

struct Clocks {
  int64_t now_ms = 0;
  int64_t uptime_ms = 0;  // of the boot-time clock, at the same moment
  int64_t boot_ms = 0;    // when the running system's boot-time clock was 0
};

// Every call returns the same time of the boot until somebody sets the time, so a line always gets
// the same time of day.
Clocks read_clocks();

// "2026-11-22", "2026-11-22 02:10", with seconds and with fractions of them, "T" in place of the
// blank, "Z" behind it for UTC; "02:10" of today; "now", "today", "yesterday", "boot"; "-5min",
// "-1h30min", "5min ago"; "@" and seconds since 1970. Local time unless `utc`. None for any other
// text.
std::optional<int64_t> parse_time(std::string_view text, const Clocks &clocks, bool utc);

// "2026-11-22 02:10:32.123", in local time unless `utc`.
std::string format_time(int64_t time_ms, bool utc);
// "2026-11-22T02:10:32.123Z"
std::string format_iso_time(int64_t time_ms);

}  // namespace mlog
