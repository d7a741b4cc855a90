// Chooses entries by level, module, text and time.
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

// Levels are bits: the lower the bit, the more important the level. 0 is none.
struct LevelRange {
  uint32_t from = 0;
  uint32_t to = UINT32_MAX;
};

// "WARN" means WARN and more important levels, "ERRO..WARN" a range. Names in any case or their
// beginnings, or the numbers 0, 1, 2, 4 and 8. None for any other text.
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
  mutable std::string text_;  // the text that is matched: regexec() wants a NUL at its end
};

struct Filter {
  LevelRange levels;
  std::vector<std::string> modules;  // names with the shell's wildcards; empty: all
  std::optional<Pattern> pattern;
  std::optional<int64_t> since_ms;  // of the time of day
  std::optional<int64_t> until_ms;

  // `time_ms` is the entry's time of day, if that is known. An entry without one counts as older
  // than any with one.
  bool wants(const Entry &entry, std::optional<int64_t> time_ms) const;
};

}  // namespace mlog
