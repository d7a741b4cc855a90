// What a log line says about itself.
#pragma once

#include <cstdint>
#include <string_view>

namespace mlogserver {

// "[<uptime in ms>][<module>][<level name>]:<text>"
struct LineHead {
  std::string_view module;
  uint32_t level;
};

// Names come from other processes and become file names: at most 97 printable ASCII characters, no
// "/", no "." in front.
bool is_module_name(std::string_view name);

// False when the line does not begin that way or names no proper module.
bool parse_line_head(std::string_view line, LineHead *head);

}  // namespace mlogserver
