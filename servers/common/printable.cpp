#include "common/printable.h"

namespace servers {

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

std::string printable(std::string_view text) {
  constexpr char kDigits[] = "0123456789abcdef";
  std::string shown;
  shown.reserve(text.size());
  while (!text.empty()) {
    const size_t length = printable_length(text);
    if (length > 0) {
      shown += text.substr(0, length);
    } else {
      const unsigned char byte = static_cast<unsigned char>(text[0]);
      shown += "\\x";
      shown += kDigits[byte >> 4];
      shown += kDigits[byte & 15];
    }
    text.remove_prefix(length > 0 ? length : 1);
  }
  return shown;
}

}  // namespace servers
