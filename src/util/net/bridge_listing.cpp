#include "util/net/bridge_listing.h"

#include <strings.h>

#include <algorithm>
#include <cstdio>

#include "base/text.h"
#include "os/line_reader.h"

namespace msgapi::net {
namespace {

bool is_digit(char c) {
  return c >= '0' && c <= '9';
}

bool is_stp_flag(std::string_view word) {
  return word == "no" || word == "yes";
}

// Appends ",name" when all of it fits; to an empty text without the comma.
void append_name(std::span<char> out, size_t *length, std::string_view name) {
  const size_t comma = *length == 0 ? 0 : 1;
  if (out.size() - *length <= comma + name.size()) return;
  if (comma != 0) out[(*length)++] = ',';
  copy_cut(out.subspan(*length), name);
  *length += name.size();
}

// False when the NUL-terminated line has not all five words.
bool parse_mac_line(const char *line, MacLine *out) {
  return std::sscanf(line, "%d %127s %127s %127s %127s\n", &out->port, out->mac.data(),
                     out->local.data(), out->ageing.data(), out->interface.data()) == 5;
}

}  // namespace

bool is_bridge_name(std::string_view token) {
  const size_t after = token.find("br") + 2;
  if (after < 2 || after >= token.size() || !is_digit(token[after])) return false;
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

uint32_t list_bridges(int fd, std::span<char> out) {
  copy_cut(out, "");

  uint32_t count = 0;
  size_t length = 0;
  os::LineReader lines(fd);
  std::array<char, kListingLineSize> buffer;
  while (const auto text = lines.next(buffer)) {
    const ShowLine line = parse_show_line(*text);
    if (!line.is_bridge(true)) continue;
    append_name(out, &length, line.words[0]);
    ++count;
  }
  return count;
}

bool find_bridge_of(int fd, std::string_view interface, std::span<char> out) {
  os::LineReader lines(fd);
  std::array<char, kListingLineSize> buffer, bridge{};
  while (const auto text = lines.next(buffer)) {
    const ShowLine line = parse_show_line(*text);
    std::string_view candidate;
    if (line.has_bridge_and_interface()) {
      copy_cut(bridge, line.words[0]);
      candidate = line.words[3];
    } else if (line.count == 1) {
      candidate = line.words[0];
    }
    if (candidate.empty() || candidate != interface) continue;

    return bridge[0] != '\0' && copy_exact(out, bridge.data());
  }
  return false;
}

bool list_interfaces(int fd, std::string_view bridge, std::span<char[ORP_IF_NAME_SIZE]> names) {
  os::LineReader lines(fd);
  std::array<char, kListingLineSize> buffer;
  size_t count = 0;
  while (const auto text = lines.next(buffer)) {
    const ShowLine line = parse_show_line(*text);
    if (line.count != 4 || line.words[0] != bridge) continue;
    if (names.empty() || !copy_exact(names[count++], line.words[3])) return false;
    break;
  }
  if (count == 0) return false;

  while (count < names.size()) {
    const auto text = lines.next(buffer);
    if (!text) break;
    const std::string_view word = parse_show_line(*text).words[0];
    if (word.empty()) continue;
    if (begins_with(word, "br")) break;
    if (!copy_exact(names[count++], word)) return false;
  }
  if (count < names.size()) names[count][0] = '\0';
  return true;
}

std::optional<MacLine> find_mac(int fd, const char *mac) {
  os::LineReader lines(fd);
  std::array<char, kListingLineSize> buffer;
  while (lines.next(buffer)) {
    MacLine line;
    if (parse_mac_line(buffer.data(), &line) && ::strcasecmp(line.mac.data(), mac) == 0) {
      return line;
    }
  }
  return std::nullopt;
}

}  // namespace msgapi::net
