#include "msgctl/output.h"

#include <fmt/core.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "common/exit_status.h"
#include "common/printable.h"
#include "common/write_all.h"

namespace msgctl {
namespace {

void write_out(std::string_view text) {
  if (servers::write_all(STDOUT_FILENO, text)) return;
  if (errno == EPIPE) std::_Exit(0);
  throw servers::Failure(servers::ExitStatus::kAnswerError,
                         std::string("standard output cannot be written: ") + std::strerror(errno));
}

// Columns on a terminal: characters, not bytes.
size_t width(std::string_view text) {
  return static_cast<size_t>(std::count_if(text.begin(), text.end(), [](char c) {
    return (static_cast<unsigned char>(c) & 0xc0) != 0x80;
  }));
}

}  // namespace

bool colours() {
  static const bool kColours = ::isatty(STDOUT_FILENO) == 1 && std::getenv("NO_COLOR") == nullptr;
  return kColours;
}

std::string coloured(Colour colour, std::string_view text) {
  if (colour == Colour::kNone || !colours()) return std::string(text);
  const char *code = "0";
  switch (colour) {
    case Colour::kNone:
      break;
    case Colour::kDim:
      code = "2";
      break;
    case Colour::kRed:
      code = "31";
      break;
    case Colour::kGreen:
      code = "32";
      break;
    case Colour::kYellow:
      code = "33";
      break;
    case Colour::kBlue:
      code = "34";
      break;
  }
  return fmt::format("\x1b[{}m{}\x1b[0m", code, text);
}

void print_line(std::string_view text) {
  std::string line(text);
  line += '\n';
  write_out(line);
}

std::string json_text(const Json &json) {
  return servers::printable_json(json.dump(-1, ' ', false, Json::error_handler_t::replace));
}

void print_json(const Json &json) {
  print_line(json_text(json));
}

void print_bytes(std::string_view bytes) {
  write_out(bytes);
}

std::string error_line(bool json, servers::ExitStatus status, std::string_view text) {
  if (json) return json_text({{"error", text}, {"status", static_cast<int>(status)}}) + "\n";
  return fmt::format("msgctl: {}\n", servers::printable(text));
}

void Table::print() const {
  std::vector<size_t> widths;
  for (const Column &column : columns_) widths.push_back(width(column.title));
  for (const auto &row : rows_) {
    for (size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], width(row[i]));
  }
  const auto line = [&](const std::vector<std::string> &cells) {
    std::string text;
    for (size_t i = 0; i < cells.size(); ++i) {
      const std::string space(widths[i] - width(cells[i]), ' ');
      const bool right = columns_[i].align == Align::kRight;
      const bool last = i + 1 == cells.size();
      text += right ? space + cells[i] : cells[i] + (last ? "" : space);
      if (!last) text += "  ";
    }
    return text;
  };
  std::vector<std::string> titles;
  for (const Column &column : columns_) titles.push_back(column.title);
  std::string text = coloured(Colour::kDim, line(titles)) + '\n';
  for (const auto &row : rows_) text += line(row) + '\n';
  print_bytes(text);
}

std::string bytes_text(uint64_t bytes) {
  if (bytes < 1000) return fmt::format("{} B", bytes);
  if (bytes < 1'000'000) return fmt::format("{:.1f} kB", static_cast<double>(bytes) / 1e3);
  if (bytes < 1'000'000'000) return fmt::format("{:.1f} MB", static_cast<double>(bytes) / 1e6);
  return fmt::format("{:.1f} GB", static_cast<double>(bytes) / 1e9);
}

std::string duration_text(uint64_t ns) {
  const double value = static_cast<double>(ns);
  if (ns < 1'000'000) return fmt::format("{:.0f} us", value / 1e3);
  if (ns < 1'000'000'000) return fmt::format("{:.1f} ms", value / 1e6);
  if (ns < 120'000'000'000) return fmt::format("{:.2f} s", value / 1e9);
  return fmt::format("{:.0f} min", value / 60e9);
}

std::string time_text(uint64_t wall_ns) {
  const time_t seconds = static_cast<time_t>(wall_ns / 1'000'000'000u);
  tm utc{};
  ::gmtime_r(&seconds, &utc);
  return fmt::format("{:02}:{:02}:{:02}.{:06}", utc.tm_hour, utc.tm_min, utc.tm_sec,
                     wall_ns % 1'000'000'000u / 1000);
}

}  // namespace msgctl
