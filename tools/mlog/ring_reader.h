// Reads ring log files, damaged ones included, and splits them into lines.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace mlog {

struct RingHeader {
  long overturn = 0;
  long offset = 0;
  long upload_offset = 0;

  bool operator==(const RingHeader &) const = default;
};

// The header at the start of a file's bytes; nothing when there is none or its numbers are out of
// range.
std::optional<RingHeader> parse_header(std::string_view bytes);

// One logged text. It has several lines when the text had; those behind the first come without a
// head.
struct Entry {
  std::string text;  // as logged, without its last line feed
  // Of a text with a proper head:
  bool has_head = false;
  int64_t uptime_ms = 0;
  std::string_view module;  // views of `text`
  std::string_view level_name;
  std::string_view message;
  uint32_t level = 0;

  Entry() = default;
  explicit Entry(std::string whole);
  Entry(const Entry &) = delete;
  Entry &operator=(const Entry &) = delete;
  Entry(Entry &&other) : Entry(std::move(other.text)) {}
};

struct Ring {
  std::optional<RingHeader> header;
  size_t file_size = 0;
  std::vector<Entry> entries;         // the oldest first
  std::vector<std::string> problems;  // what is wrong with the file, for the user
};

// Puts the bytes of a file back in order. Never fails: what cannot be understood is named in
// `problems` and everything else is there.
Ring read_ring(std::string_view bytes);

// Splits log data into entries.
void append_entries(std::string_view data, std::vector<Entry> *entries);

// All bytes of a file whose header did not change while it was read, if that can be had. Throws
// std::runtime_error with a text for the user.
std::string load_ring(const std::string &path);

// What was added to a file since its header was `before` and its last entry of `last_uptime_ms`;
// `bytes` is the file as it is now. When that cannot be told apart any more, *missed is set and all
// entries are returned.
std::vector<Entry> entries_since(const RingHeader &before, int64_t last_uptime_ms,
                                 std::string_view bytes, bool *missed);

}  // namespace mlog
