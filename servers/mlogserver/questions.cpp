#include "questions.h"

#include <fmt/core.h>

#include <sstream>

namespace mlogserver {

std::string format_module_line(const ModuleLine &module) {
  return fmt::format("{} {} kept {} below {} dropped {} lost {}", module.name, module.level,
                     module.kept, module.below_level, module.dropped, module.lost);
}

bool parse_module_line(const std::string &text, ModuleLine *module) {
  std::istringstream words(text);
  std::string kept, below, dropped, lost;
  words >> module->name >> module->level >> kept >> module->kept >> below >> module->below_level >>
      dropped >> module->dropped >> lost >> module->lost;
  return !words.fail() && kept == "kept" && below == "below" && dropped == "dropped" &&
         lost == "lost";
}

}  // namespace mlogserver
