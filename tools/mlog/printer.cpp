#include "printer.h"

#include <fmt/color.h>
#include <fmt/format.h>
#include <time.h>

#include <algorithm>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "mlogserver/line.h"
#include "msgapi/log.h"

namespace mlog {
namespace {

int64_t clock_ns(clockid_t clock) {
  timespec now{};
  ::clock_gettime(clock, &now);
  return int64_t{now.tv_sec} * 1000000000 + now.tv_nsec;
}

std::string wall_time(int64_t time_ms) {
  const time_t seconds = static_cast<time_t>(time_ms / 1000);
  tm utc{};
  ::gmtime_r(&seconds, &utc);
  return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}.{:03}Z", utc.tm_year + 1900,
                     utc.tm_mon + 1, utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec,
                     time_ms % 1000);
}

// Logged text comes from anywhere and must not drive the terminal.
std::string without_controls(const std::string &text) {
  std::string clean;
  mlogserver::add_clean_text(text, &clean);
  return clean;
}

fmt::text_style style_of(uint32_t level) {
  switch (level) {
    case MLOG_LEVEL_FATAL:
      return fmt::fg(fmt::terminal_color::red) | fmt::emphasis::bold;
    case MLOG_LEVEL_ERROR:
      return fmt::fg(fmt::terminal_color::red);
    case MLOG_LEVEL_WARN:
      return fmt::fg(fmt::terminal_color::yellow);
    default:
      return {};
  }
}

}  // namespace

void read_clocks(PrintOptions *options) {
  // Both clocks run alike, so the time of the boot is the same number until somebody sets the time.
  // A reading of one lies between two of the other: many such bounds leave next to no doubt.
  int64_t least_ns = INT64_MIN;
  int64_t most_ns = INT64_MAX;
  for (int i = 0; i < 1000; ++i) {
    const int64_t before_ns = clock_ns(CLOCK_BOOTTIME);
    const int64_t now_ns = clock_ns(CLOCK_REALTIME);
    const int64_t after_ns = clock_ns(CLOCK_BOOTTIME);
    least_ns = std::max(least_ns, now_ns - after_ns);
    most_ns = std::min(most_ns, now_ns - before_ns);
    options->uptime_ms = after_ns / 1000000;
  }
  options->boot_time_ms = (least_ns + (most_ns - least_ns) / 2) / 1000000;
}

size_t first_of_this_boot(const std::vector<Entry> &entries, int64_t uptime_ms) {
  size_t first = 0;
  int64_t last_ms = 0;
  for (size_t i = 0; i < entries.size(); ++i) {
    if (!entries[i].has_head) continue;
    if (entries[i].uptime_ms < last_ms) first = i;
    last_ms = entries[i].uptime_ms;
  }
  return last_ms <= uptime_ms ? first : entries.size();
}

bool Printer::wants(const Entry &entry) const {
  if (!entry.has_head) return options_.modules.empty();
  return entry.level <= options_.level &&
         (options_.modules.empty() || options_.modules.count(std::string(entry.module)) > 0);
}

void Printer::print(const Entry &entry, bool this_boot) const {
  if (!wants(entry)) return;
  if (options_.json) {
    print_json(entry, this_boot);
  } else {
    print_text(entry, this_boot);
  }
}

void Printer::print_json(const Entry &entry, bool this_boot) const {
  nlohmann::ordered_json line;
  if (entry.has_head) {
    line["uptime_ms"] = entry.uptime_ms;
    if (this_boot) line["time"] = wall_time(options_.boot_time_ms + entry.uptime_ms);
    line["module"] = entry.module;
    line["level"] = entry.level_name;
  }
  line["text"] = entry.message;
  // Bytes that are no UTF-8 become replacement characters.
  const auto replace = nlohmann::ordered_json::error_handler_t::replace;
  fmt::print("{}\n", line.dump(-1, ' ', false, replace));
}

void Printer::print_text(const Entry &entry, bool this_boot) const {
  std::string text = entry.text;
  if (options_.wall_time && this_boot && entry.has_head) {
    text = fmt::format("[{}][{}][{}]:{}", wall_time(options_.boot_time_ms + entry.uptime_ms),
                       entry.module, entry.level_name, entry.message);
  }
  if (options_.is_terminal) text = without_controls(text);
  if (options_.colour) {
    fmt::print(style_of(entry.level), "{}", text);
    fmt::print("\n");
  } else {
    fmt::print("{}\n", text);
  }
}

}  // namespace mlog
