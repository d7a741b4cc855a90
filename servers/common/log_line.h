// The servers' log: one line on standard error for each event worth reading.
#pragma once

#include <fmt/core.h>

#include <span>
#include <string>
#include <string_view>
#include <utility>

namespace servers {

// The program's name, which follows the time stamp in every line.
void set_log_name(std::string_view name);

// Sends the lines to the log server, as lines of module `module`, and to standard error only while
// the log server does not take them.
void send_log_as(std::string_view module);

// Writes one line. Control characters in it (names come from clients) are shown as "?". Needs no
// memory and never blocks: a line that standard error does not take at once is dropped and counted,
// and the next line that gets through says how many were dropped.
void write_log_line(std::string_view text) noexcept;

// Replaces with "?" everything that a terminal may obey: control characters, C1 (U+0080 to U+009F)
// included, and bytes that are no UTF-8.
void hide_controls(std::span<char> text) noexcept;

template <typename... Arguments>
void log_line(fmt::format_string<Arguments...> format, Arguments &&...arguments) {
  write_log_line(fmt::format(format, std::forward<Arguments>(arguments)...));
}

}  // namespace servers
