#include "printer.h"

#include <fmt/core.h>

#include <algorithm>
#include <iterator>

#include "common/printable.h"
#include "mlogserver/line.h"
#include "msgapi/log.h"
#include "time_text.h"

namespace mlog {
namespace {

constexpr size_t kBuffer = 65536;

const char *colour_of(uint32_t level) {
  switch (level) {
    case MLOG_LEVEL_FATAL:
      return "\x1b[1;31m";
    case MLOG_LEVEL_ERROR:
      return "\x1b[31m";
    case MLOG_LEVEL_WARN:
      return "\x1b[33m";
    default:
      return "";
  }
}

bool needs_cleaning(std::string_view text) {
  return std::any_of(text.begin(), text.end(), [](char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte < 0x20 || byte >= 0x7F;
  });
}

// The text as it was logged, without the tab that the server puts behind each line feed.
std::string original(std::string_view text) {
  std::string result;
  result.reserve(text.size());
  for (size_t i = 0; i < text.size(); ++i) {
    result += text[i];
    if (text[i] == '\n' && i + 1 < text.size() && text[i + 1] == '\t') ++i;
  }
  return result;
}

}  // namespace

std::string json_line(const nlohmann::ordered_json &record) {
  const auto replace = nlohmann::ordered_json::error_handler_t::replace;
  return servers::printable_json(record.dump(-1, ' ', false, replace));
}

void Printer::add_clean(std::string_view text) {
  if (!needs_cleaning(text)) {
    out_.append(text);
    return;
  }
  // Line by line, because the line feeds have their tabs already.
  for (;;) {
    const size_t end = text.find('\n');
    mlogserver::add_clean_text(text.substr(0, end), &out_);
    if (end == std::string_view::npos) return;
    out_ += '\n';
    text.remove_prefix(end + 1);
  }
}

void Printer::add_time(int64_t time_ms, bool iso) {
  const int64_t seconds = time_ms / 1000;
  if (seconds != formatted_s_ || iso != formatted_iso_) {
    formatted_s_ = seconds;
    formatted_iso_ = iso;
    formatted_ = iso ? format_iso_time(seconds * 1000) : format_time(seconds * 1000, options_.utc);
    formatted_.resize(formatted_.size() - (iso ? 4 : 3));
  }
  const auto ms = static_cast<unsigned>(time_ms % 1000);
  const char digits[] = {static_cast<char>('0' + ms / 100), static_cast<char>('0' + ms / 10 % 10),
                         static_cast<char>('0' + ms % 10)};
  out_.append(formatted_).append(digits, sizeof digits);
  if (iso) out_ += 'Z';
}

// Most texts need no escapes. Building a JSON value for each would take ten times as long.
void Printer::add_json_string(std::string_view text) {
  const bool is_plain = std::all_of(text.begin(), text.end(), [](char c) {
    return c >= 0x20 && c < 0x7F && c != '"' && c != '\\';
  });
  if (is_plain) {
    out_ += '"';
    out_.append(text);
    out_ += '"';
    return;
  }
  out_ += json_line(text);
}

void Printer::print(const Entry &entry, std::optional<int64_t> time_ms, std::string_view path) {
  const char *colour = options_.colour && options_.output != Output::kJson
                           ? colour_of(entry.has_head ? entry.level : 0)
                           : "";
  out_.append(colour);
  switch (options_.output) {
    case Output::kShort:
    case Output::kFull:
      add_short(entry, time_ms, path);
      break;
    case Output::kJson:
      add_json(entry, time_ms);
      break;
    case Output::kRaw:
      add_raw(entry, time_ms);
      break;
  }
  if (*colour != '\0') out_.append("\x1b[0m");
  out_ += '\n';
  if (out_.size() >= kBuffer) flush();
}

void Printer::add_short(const Entry &entry, std::optional<int64_t> time_ms, std::string_view path) {
  const bool full = options_.output == Output::kFull;
  if (entry.has_head) {
    if (time_ms) {
      add_time(*time_ms, false);
      if (options_.utc) out_.append("Z");
    } else {
      fmt::format_to(std::back_inserter(out_), "up {}.{:03} s", entry.uptime_ms / 1000,
                     entry.uptime_ms % 1000);
    }
    if (full) fmt::format_to(std::back_inserter(out_), " [{:011}]", entry.uptime_ms);
    out_ += ' ';
    add_clean(entry.module);
    if (entry.pid) fmt::format_to(std::back_inserter(out_), "[{}]", *entry.pid);
    out_ += ' ';
    add_clean(entry.level_name);
    out_.append(": ");
  }
  add_clean(entry.message);
  if (full) {
    out_.append(" (");
    add_clean(path);
    out_ += ')';
  }
}

void Printer::add_json(const Entry &entry, std::optional<int64_t> time_ms) {
  out_ += '{';
  if (entry.has_head) {
    fmt::format_to(std::back_inserter(out_), "\"uptime_ms\":{},", entry.uptime_ms);
    if (time_ms) {
      out_.append("\"time\":\"");
      add_time(*time_ms, true);
      out_.append("\",");
    }
    out_.append("\"module\":");
    add_json_string(entry.module);
    out_.append(",\"level\":");
    add_json_string(entry.level_name);
    if (entry.pid) fmt::format_to(std::back_inserter(out_), ",\"pid\":{}", *entry.pid);
    out_ += ',';
  }
  out_.append("\"text\":");
  if (entry.message.find('\n') == std::string_view::npos) {
    add_json_string(entry.message);
  } else {
    add_json_string(original(entry.message));
  }
  out_ += '}';
}

void Printer::add_raw(const Entry &entry, std::optional<int64_t> time_ms) {
  const auto add = [&](std::string_view text) {
    if (options_.clean) {
      add_clean(text);
    } else {
      out_.append(text);
    }
  };
  if (options_.raw_time && time_ms && entry.has_head) {
    add(fmt::format("[{}][{}][{}]", format_iso_time(*time_ms), entry.module, entry.level_name));
    if (entry.pid) add(fmt::format("[{}]", *entry.pid));
    add(":");
    add(entry.message);
  } else {
    add(entry.text);
  }
}

void Printer::print_marker(std::string_view text) {
  if (options_.output == Output::kRaw) return;
  if (options_.output == Output::kJson) {
    out_ += json_line(nlohmann::ordered_json{{"marker", text}});
  } else {
    fmt::format_to(std::back_inserter(out_), "-- {} --", text);
  }
  out_ += '\n';
}

bool Printer::flush() {
  if (!out_.empty()) {
    std::fwrite(out_.data(), 1, out_.size(), stdout);
    out_.clear();
  }
  broken_ = broken_ || std::fflush(stdout) != 0;
  return !broken_;
}

}  // namespace mlog
