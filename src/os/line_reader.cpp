#include "os/line_reader.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace msgapi::os {

bool LineReader::fill() {
  ssize_t size;
  do {
    size = ::read(fd_, block_.data(), block_.size());
  } while (size < 0 && errno == EINTR);

  begin_ = 0;
  end_ = size > 0 ? static_cast<size_t>(size) : 0;
  return size > 0;
}

std::optional<std::string_view> LineReader::next(std::span<char> line) {
  size_t length = 0;
  bool complete = false;
  while (!complete && length + 1 < line.size()) {
    if (begin_ == end_ && !fill()) break;

    const char *start = block_.data() + begin_;
    size_t piece = std::min(end_ - begin_, line.size() - 1 - length);
    if (const void *newline = std::memchr(start, '\n', piece)) {
      piece = static_cast<size_t>(static_cast<const char *>(newline) - start) + 1;
      complete = true;
    }
    std::memcpy(line.data() + length, start, piece);
    length += piece;
    begin_ += piece;
  }
  if (length == 0) return std::nullopt;

  line[length] = '\0';
  return std::string_view(line.data(), length);
}

}  // namespace msgapi::os
