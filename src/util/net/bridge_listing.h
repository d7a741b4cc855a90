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
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

#include "msgapi/bridge.h"

namespace msgapi::net {

// Lines are read into buffers of this size.
constexpr size_t kListingLineSize = 128;

// True for a token that holds "br" with a digit after the first "br", and no ":".
bool is_bridge_name(std::string_view token);

// True when `name` may be a word of a command.
bool is_command_safe(std::string_view name);

// Up to four words of a line of "brctl show"; the views live as long as the line.
struct ShowLine {
  std::string_view words[4];
  size_t count;

  // The line of a bridge, of any name, with its first interface.
  bool has_bridge_and_interface() const;
  // The line of a bridge with a bridge's name; with `bare_too` also one without an interface.
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

// The functions below read a whole listing from a descriptor.

// Writes the names of all bridges, separated by ",", to `out`; those that do not fit are left out.
// Returns how many bridges there are.
uint32_t list_bridges(int fd, std::span<char> out);

// Writes the bridge of `interface` to `out`; false when there is none or it does not fit.
bool find_bridge_of(int fd, std::string_view interface, std::span<char> out);

// Stores the interfaces of `bridge` and, when there is room, an empty name after them; false when
// there is no such bridge or no room for its first one, or when a name does not fit.
bool list_interfaces(int fd, std::string_view bridge, std::span<char[ORP_IF_NAME_SIZE]> names);

// The line of "brctl showmacs" for `mac`, ignoring case.
std::optional<MacLine> find_mac(int fd, const char *mac);

}  // namespace msgapi::net
