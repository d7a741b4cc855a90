#include "util/net/bridge_listing.h"

#include <algorithm>
#include <cstdio>

#include "base/text.h"

namespace msgapi {
namespace {

bool is_digit(char c) {
  return c >= '0' && c <= '9';
}

bool is_stp_flag(std::string_view word) {
  return word == "no" || word == "yes";
}

}  // namespace

bool is_bridge_name(std::string_view token) {
  const size_t behind = token.find("br") + 2;
  if (behind < 2 || behind >= token.size() || !is_digit(token[behind])) return false;
  return token.find(':') == std::string_view::npos;
}

bool is_command_safe(std::string_view name) {
  const auto is_safe = [](char c) {
    return is_digit(c) || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '.' ||
           c == '_' || c == '-' || c == ':';
  };
  return !name.empty() && name[0] != '-' && std::all_of(name.begin(), name.end(), is_safe);
}

bool ShowLine::has_bridge_and_interface() const {
  return count == 4 && is_stp_flag(words[2]) && words[0].find(':') == std::string_view::npos;
}

bool ShowLine::is_bridge(bool bare_too) const {
  return (count == 4 || (bare_too && count == 3)) && is_stp_flag(words[2]) &&
         is_bridge_name(words[0]);
}

ShowLine parse_show_line(std::string_view line) {
  ShowLine result{};
  for (std::string_view &word : result.words) {
    word = cut_word(&line);
    if (word.empty()) break;
    ++result.count;
  }
  return result;
}

bool parse_mac_line(const char *line, MacLine *out) {
  return std::sscanf(line, "%d %127s %127s %127s %127s\n", &out->port, out->mac.data(),
                     out->local.data(), out->ageing.data(), out->interface.data()) == 5;
}

}  // namespace msgapi
