// Bounded text. "exact" functions fail when the text does not fit, "cut" functions shorten it; all
// of them leave `out` NUL-terminated, and empty after a failure.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <span>
#include <string_view>

namespace msgapi {

bool copy_exact(std::span<char> out, std::string_view text);
void copy_cut(std::span<char> out, std::string_view text);

// The same with "?" for every byte that is no printable ASCII. For foreign text in lines that a
// person reads.
void copy_printable(std::span<char> out, std::string_view text);

__attribute__((format(printf, 2, 3))) bool format_exact(std::span<char> out, const char *format,
                                                        ...);
__attribute__((format(printf, 2, 3))) void format_cut(std::span<char> out, const char *format, ...);

// The same for an argument list. The cutting one is false when the format itself fails.
__attribute__((format(printf, 2, 0))) bool vformat_exact(std::span<char> out, const char *format,
                                                         va_list arguments);
__attribute__((format(printf, 2, 0))) bool vformat_cut(std::span<char> out, const char *format,
                                                       va_list arguments);

// The text of a fixed-size field that foreign bytes may have left without a NUL.
std::string_view field_text(std::span<const char> field);

// string_view::starts_with() is no substitute: without optimisation it needs the C++ runtime.
bool begins_with(std::string_view text, std::string_view prefix);

// True when a NUL occurs within the field.
bool is_terminated(std::span<const char> field);

// Takes the first word, bounded by white space, off the front of `text`; empty when there is none.
std::string_view cut_word(std::string_view *text);

// Takes everything up to the first `separator`, or all of it, off the front of `text`; the
// separator is dropped. After the last piece, which may be empty, `text` has null data.
std::string_view cut_piece(std::string_view *text, char separator);

}  // namespace msgapi
