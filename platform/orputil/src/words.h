// A command line split into words.
#pragma once

#include <cstdint>

namespace orputil {

// A command as the runner understands it: words, then an optional result file, then an optional
// "&". `words` is null-terminated and holds everything in one block, which free() releases.
struct Command {
  char **words;
  uint32_t count;
  const char *result_file;  // null without one
  bool append;
  bool background;
};

// False, with nothing to free, for an unfinished quote, for shell syntax beyond the above
// ("|", ";", "<", "(", ")", a second line, "2>", words after the result file) and without memory.
bool parse_command(const char *text, Command *out);

}  // namespace orputil
