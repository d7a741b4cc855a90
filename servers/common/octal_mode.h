// Permissions as a person writes them.
#pragma once

#include <sys/types.h>

#include <charconv>
#include <optional>
#include <string_view>

namespace servers {

// An octal number up to 0777; none for another text.
inline std::optional<mode_t> octal_mode(std::string_view text) {
  mode_t mode = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), mode, 8);
  if (error != std::errc() || end != text.data() + text.size() || mode > 0777) return std::nullopt;
  return mode;
}

}  // namespace servers
