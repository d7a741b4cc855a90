// Prints for msgctl: lines and tables on standard output, each line at once, and errors on standard
// error. Callers make texts from outside printable first.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "common/exit_status.h"

namespace msgctl {

using Json = nlohmann::ordered_json;

// Whether to use colours: standard output is a terminal, and NO_COLOR is not set.
bool colours();

enum class Colour { kNone, kDim, kRed, kGreen, kYellow, kBlue };
// `text`, already printable, in a colour if colours are used.
std::string coloured(Colour colour, std::string_view text);

// Writes a line at once. Ends the process quietly when the reader has gone, as `cat` does.
void print_line(std::string_view text);
// One JSON object on one line, as UTF-8 whatever its texts hold.
void print_json(const Json &json);
// The same as a text. Control characters in it are escaped.
std::string json_text(const Json &json);
// Bytes as they are.
void print_bytes(std::string_view bytes);

// The line about a failure for standard error, as text or as JSON, with its line feed.
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
