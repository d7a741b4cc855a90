// Bounded copies and formats: the library's only writers of fixed-size text.

#include "base/text.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <utility>

namespace msgapi {

bool copy_exact(std::span<char> out, std::string_view text) {
  if (text.size() < out.size()) {
    copy_cut(out, text);
    return true;
  }
  if (!out.empty()) out[0] = '\0';
  return false;
}

void copy_cut(std::span<char> out, std::string_view text) {
  if (out.empty()) return;
  const size_t length = text.size() < out.size() ? text.size() : out.size() - 1;
  if (length > 0) std::memmove(out.data(), text.data(), length);
  out[length] = '\0';
}

void copy_printable(std::span<char> out, std::string_view text) {
  copy_cut(out, text);
  for (char &byte : out.first(std::min(out.size(), text.size()))) {
    if (byte != '\0' && (byte < ' ' || byte > '~')) byte = '?';
  }
}

bool format_exact(std::span<char> out, const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const bool fits = vformat_exact(out, format, arguments);
  va_end(arguments);
  return fits;
}

void format_cut(std::span<char> out, const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  vformat_cut(out, format, arguments);
  va_end(arguments);
}

bool vformat_exact(std::span<char> out, const char *format, va_list arguments) {
  const int length = std::vsnprintf(out.data(), out.size(), format, arguments);
  if (length >= 0 && static_cast<size_t>(length) < out.size()) return true;
  if (!out.empty()) out[0] = '\0';
  return false;
}

bool vformat_cut(std::span<char> out, const char *format, va_list arguments) {
  const bool formatted = std::vsnprintf(out.data(), out.size(), format, arguments) >= 0;
  if (!formatted && !out.empty()) out[0] = '\0';
  return formatted;
}

std::string_view field_text(std::span<const char> field) {
  return {field.data(), strnlen(field.data(), field.size())};
}

bool begins_with(std::string_view text, std::string_view prefix) {
  return text.size() >= prefix.size() &&
         std::string_view::traits_type::compare(text.data(), prefix.data(), prefix.size()) == 0;
}

bool is_terminated(std::span<const char> field) {
  return field_text(field).size() < field.size();
}

std::string_view cut_word(std::string_view *text) {
  constexpr std::string_view kWhiteSpace = " \t\n\v\f\r";
  text->remove_prefix(std::min(text->find_first_not_of(kWhiteSpace), text->size()));
  const std::string_view word(text->data(),
                              std::min(text->find_first_of(kWhiteSpace), text->size()));
  text->remove_prefix(word.size());
  return word;
}

std::string_view cut_piece(std::string_view *text, char separator) {
  const size_t end = text->find(separator);
  if (end == text->npos) return std::exchange(*text, std::string_view());
  const std::string_view piece(text->data(), end);
  text->remove_prefix(end + 1);
  return piece;
}

}  // namespace msgapi
