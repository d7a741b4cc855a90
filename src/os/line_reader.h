// Lines of a text file, bounded as fgets() bounds them, without a C stream.
#pragma once

#include <array>
#include <cstddef>
#include <optional>
#include <span>
#include <string_view>

namespace msgapi::os {

// Reads the lines of an open descriptor, which it does not own.
class LineReader {
 public:
  explicit LineReader(int fd) : fd_(fd) {}

  // The next line with its newline, as far as it fits `line` with a NUL after it; what does not
  // fit is the next call's. None at the end of the file and after a failed read. `line` holds at
  // least 2 bytes.
  std::optional<std::string_view> next(std::span<char> line);

 private:
  bool fill();

  int fd_;
  size_t begin_ = 0;
  size_t end_ = 0;
  std::array<char, 4096> block_;
};

}  // namespace msgapi::os
