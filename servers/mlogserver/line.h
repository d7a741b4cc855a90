// What a log line says about itself.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace mlogserver {

// "[<uptime in ms>][<module>][<level name>]:<text>"
struct LineHead {
  std::string_view module;
  uint32_t level;
  size_t end;  // where the ":" stands
};

// Names come from other processes and become file names. A name has at most 97 printable ASCII
// characters, no "/", no "." in front, and does not look like one of the server's own files in the
// directory of the sockets.
bool is_module_name(std::string_view name);

// False when the line does not begin that way or names no proper module.
bool parse_line_head(std::string_view line, LineHead *head);

// Adds a logged text to `out` so that it stays one line of its module and controls no terminal. A
// line feed inside it is followed by a tab, with which no line begins. Control characters other
// than tabs become "?", those of C1 (U+0080 to U+009F, or such bytes outside of UTF-8) included.
// Line feeds at its end are left out. UTF-8 and Latin-1 text stay as they are.
void add_clean_text(std::string_view text, std::string *out);

}  // namespace mlogserver
