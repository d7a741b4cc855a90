// What msgctl prints: lines on standard output, each at once, tables, and errors on standard error.
// No byte from outside reaches the terminal unless it is printable.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "common/exit_status.h"

namespace msgctl {

using Json = nlohmann::ordered_json;

// Standard output is a terminal that wants colours (and NO_COLOR is not set).
bool colours();

enum class Colour { kNone, kDim, kRed, kGreen, kYellow, kBlue };
// `text`, already printable, in a colour if there are any.
std::string coloured(Colour colour, std::string_view text);

// Writes a line, at once. A reader that has gone ends the process quietly, as it ends `cat`.
void print_line(std::string_view text);
// One JSON object on one line, as UTF-8 whatever its texts hold.
void print_json(const Json &json);
// The same as text. No control character stands in it as itself.
std::string json_text(const Json &json);
// Bytes as they are.
void print_bytes(std::string_view bytes);

// What standard error gets about a failure: a line of text or of JSON, with its line feed.
std::string error_line(bool json, servers::ExitStatus status, std::string_view text);

// A table with aligned columns. Cells must be printable.
class Table {
 public:
  enum class Align { kLeft, kRight };
  struct Column {
    std::string title;
    Align align = Align::kLeft;
  };

  explicit Table(std::vector<Column> columns) : columns_(std::move(columns)) {}
  void add(std::vector<std::string> cells) { rows_.push_back(std::move(cells)); }
  void print() const;

 private:
  std::vector<Column> columns_;
  std::vector<std::vector<std::string>> rows_;
};

// "12.3 kB"
std::string bytes_text(uint64_t bytes);
// "1.25 s", "340 us"
std::string duration_text(uint64_t ns);
// "14:30:05.123456" (UTC)
std::string time_text(uint64_t wall_ns);

}  // namespace msgctl
