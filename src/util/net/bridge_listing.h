// The output of "brctl show" and "brctl showmacs", line by line.
//
//   bridge name     bridge id               STP enabled     interfaces
//   br0             8000.0a1b2c3d4e5f       no              eth0
//                                                           eth1
//
//   port no mac addr                is local?       ageing timer    interface
//     1     00:1a:2b:3c:4d:5e       no                 1.50         eth0
#pragma once

#include <array>
#include <string_view>

namespace msgapi {

// Lines are read into buffers of this size.
constexpr size_t kListingLineSize = 128;

// True for a token that holds "br" with a digit behind the first "br", and no ":".
bool is_bridge_name(std::string_view token);

// True when `name` may be a word of a command.
bool is_command_safe(std::string_view name);

// Up to four words of a line of "brctl show"; the views live as long as the line.
struct ShowLine {
  std::string_view words[4];
  size_t count;

  // The line of a bridge, of any name, with its first interface.
  bool has_bridge_and_interface() const;
  // The line of a bridge with a bridge's name; without an interface, too, if `bare_too`.
  bool is_bridge(bool bare_too) const;
};
ShowLine parse_show_line(std::string_view line);

// The five words of a line of "brctl showmacs".
struct MacLine {
  int port;
  std::array<char, kListingLineSize> mac;
  std::array<char, kListingLineSize> local;
  std::array<char, kListingLineSize> ageing;
  std::array<char, kListingLineSize> interface;
};
// False when the NUL-terminated line, shorter than kListingLineSize, has not all five.
bool parse_mac_line(const char *line, MacLine *out);

}  // namespace msgapi
