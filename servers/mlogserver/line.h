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

// False when the line does not begin that way or names a module that cannot be a file name.
bool parse_line_head(std::string_view line, LineHead *head);

}  // namespace mlogserver
