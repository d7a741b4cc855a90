// Questions to the server about itself: statistics messages about names that no module has.
#pragma once

#include <cstdint>
#include <string>

namespace mlogserver {

// What keeps the server from writing lines now, empty when nothing does.
inline const std::string kStateQuestion = "mlogServer.state";
// Followed by a module's name: its level. Set by the server's user and root only, to the name of
// a level or to kConfiguredLevel, which takes back what was set.
inline const std::string kLevelQuestion = "mlogServer.level/";
inline const std::string kConfiguredLevel = "CONFIGURED";
// Followed by a number from 0 on: a line about that module, empty after the last.
inline const std::string kModuleQuestion = "mlogServer.module/";

struct ModuleLine {
  std::string name;
  std::string level;
  uint64_t kept = 0;
  uint64_t below_level = 0;
  uint64_t dropped = 0;
  uint64_t lost = 0;
};

// "wan INFO kept 1 below 0 dropped 0 lost 0"
std::string format_module_line(const ModuleLine &module);
bool parse_module_line(const std::string &text, ModuleLine *module);

}  // namespace mlogserver
