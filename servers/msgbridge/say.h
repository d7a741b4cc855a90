// The bridge's lines in the log, as the module "msgbridge".
#pragma once

#include <fmt/core.h>

#include <string>
#include <utility>

#include "common/printable.h"
#include "msgapi/log.h"

namespace msgbridge {

inline constexpr const char *kName = "msgbridge";

template <typename... Arguments>
void say(uint32_t level, fmt::format_string<Arguments...> format, Arguments &&...arguments) {
  const std::string line = fmt::format(format, std::forward<Arguments>(arguments)...);
  mlog_print(kName, level, "%s", servers::printable(line).c_str());
}

}  // namespace msgbridge
