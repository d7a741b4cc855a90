#include "common/printable.h"

namespace servers {
namespace {

constexpr char kHexDigits[] = "0123456789abcdef";

void add_hex(unsigned char byte, std::string *text) {
  *text += kHexDigits[byte >> 4];
  *text += kHexDigits[byte & 15];
}

}  // namespace

size_t printable_length(std::string_view text) noexcept {
  const auto byte = [text](size_t at) { return static_cast<unsigned char>(text[at]); };
  const unsigned char first = byte(0);
  if (first < 0x80) return first < 0x20 || first == 0x7f ? 0 : 1;
  if (first < 0xc2 || first > 0xf4) return 0;
  const size_t length = first >= 0xf0 ? 4 : first >= 0xe0 ? 3 : 2;
  if (text.size() < length) return 0;
  for (size_t i = 1; i < length; ++i) {
    if ((byte(i) & 0xc0) != 0x80) return 0;
  }
  // Not the shortest form, a surrogate, or beyond the last code point.
  const unsigned char second = byte(1);
  if ((first == 0xe0 && second < 0xa0) || (first == 0xed && second > 0x9f) ||
      (first == 0xf0 && second < 0x90) || (first == 0xf4 && second > 0x8f)) {
    return 0;
  }
  const bool c1 = first == 0xc2 && second < 0xa0;
  return c1 ? 0 : length;
}

std::string printable(std::string_view text, std::string_view kept) {
  std::string shown;
  shown.reserve(text.size());
  while (!text.empty()) {
    const bool keep = kept.find(text[0]) != std::string_view::npos;
    const size_t length = keep ? 1 : printable_length(text);
    if (length > 0) {
      shown += text.substr(0, length);
    } else {
      shown += "\\x";
      add_hex(static_cast<unsigned char>(text[0]), &shown);
    }
    text.remove_prefix(length > 0 ? length : 1);
  }
  return shown;
}

std::string printable_json(std::string_view json) {
  std::string text;
  text.reserve(json.size());
  for (size_t i = 0; i < json.size(); ++i) {
    const auto byte = static_cast<unsigned char>(json[i]);
    const auto next = static_cast<unsigned char>(i + 1 < json.size() ? json[i + 1] : 0);
    const bool c1 = byte == 0xc2 && next >= 0x80 && next < 0xa0;
    if (byte != 0x7f && !c1) {
      text += json[i];
      continue;
    }
    text += "\\u00";
    add_hex(c1 ? next : byte, &text);
    if (c1) ++i;
  }
  return text;
}

}  // namespace servers
