// The text form of MAC addresses.
#pragma once

#include <cstdint>
#include <span>

#include "msgapi/mac.h"

namespace msgapi::mac {

enum class HexCase { kLower, kUpper };

// Prints "00:1a:2b:3c:4d:5e".
void format_mac(std::span<const uint8_t, ORP_MAC_SIZE> mac, HexCase hex_case,
                std::span<char, ORP_MAC_TEXT_SIZE> out);

}  // namespace msgapi::mac
