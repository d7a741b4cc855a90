// Texts from outside, made fit for a terminal and a log.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace servers {

// The length of the UTF-8 character (RFC 3629) at the beginning of `text`, which is not empty; 0
// for a byte that begins none, and for a control character (C0, DEL, C1).
size_t printable_length(std::string_view text) noexcept;

// `text` with every byte that could command a terminal, or that is no UTF-8, as "\x1b".
std::string printable(std::string_view text);

}  // namespace servers
