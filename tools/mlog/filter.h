// Which entries are wanted.
#pragma once

#include <regex.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "ring_reader.h"

namespace mlog {

// Levels are bits, the more important the lower; 0 is none.
struct LevelRange {
  uint32_t from = 0;
  uint32_t to = UINT32_MAX;
};

// "WARN": that and what is more important; "ERRO..WARN"; names in any case or their beginnings, or
// the numbers 0, 1, 2, 4 and 8. Nothing for any other text.
std::optional<LevelRange> parse_levels(std::string_view text);

// An extended regular expression. Throws std::runtime_error with a text for the user.
class Pattern {
 public:
  // Without `match_case` a pattern without capital letters matches either case.
  Pattern(const std::string &expression, bool match_case);
  bool matches(std::string_view text) const;

 private:
  struct Free {
    void operator()(regex_t *expression) const {
      ::regfree(expression);
      delete expression;
    }
  };
  std::unique_ptr<regex_t, Free> compiled_;
  mutable std::string text_;  // with a NUL, as the C library wants it
};

struct Filter {
  LevelRange levels;
  std::vector<std::string> modules;  // names with the wildcards of the shell; none: all
  std::optional<Pattern> pattern;
  std::optional<int64_t> since_ms;  // of the time of day
  std::optional<int64_t> until_ms;

  // `time_ms` is the entry's time of day, if that is known: without one an entry is older than
  // whatever has one.
  bool wants(const Entry &entry, std::optional<int64_t> time_ms) const;
};

}  // namespace mlog
