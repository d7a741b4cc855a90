// Texts from outside, made fit for a terminal and a log.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace servers {

// The length of the UTF-8 character (RFC 3629) at the beginning of `text`, which is not empty; 0
// for a byte that begins none, and for a control character (C0, DEL, C1).
size_t printable_length(std::string_view text) noexcept;

// `text` with every byte that could command a terminal, or that is no UTF-8, as "\x1b". The
// characters of `kept`, which are ASCII, stay as they are.
std::string printable(std::string_view text, std::string_view kept = {});

// The text of a JSON value, in UTF-8, with the control characters escaped that JSON allows as they
// are (DEL and C1; RFC 8259, 7) and terminals obey. It stays the same value.
std::string printable_json(std::string_view json);

}  // namespace servers
