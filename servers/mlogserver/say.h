// Lines of the server's own log that may be left out, but must not throw.
#pragma once

#include <exception>
#include <utility>

#include "common/log_line.h"

namespace mlogserver {

template <typename... Arguments>
void say(fmt::format_string<Arguments...> format, Arguments &&...arguments) noexcept {
  try {
    servers::log_line(format, std::forward<Arguments>(arguments)...);
  } catch (const std::exception &) {
    // No memory for the line. The event itself is counted.
  }
}

}  // namespace mlogserver
