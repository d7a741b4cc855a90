// Base64 as in RFC 4648 section 4, strict on decoding: one text for each sequence of bytes.

#include <cstdint>
#include <cstdlib>

#include "orputil.h"

namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr uint32_t kNoDigit = 64;

uint32_t digit_value(char digit) {
  if (digit >= 'A' && digit <= 'Z') return static_cast<uint32_t>(digit - 'A');
  if (digit >= 'a' && digit <= 'z') return static_cast<uint32_t>(digit - 'a') + 26;
  if (digit >= '0' && digit <= '9') return static_cast<uint32_t>(digit - '0') + 52;
  if (digit == '+') return 62;
  if (digit == '/') return 63;
  return kNoDigit;
}

// Room for `length` bytes and a NUL, or null.
char *text_buffer(uint64_t length) {
  return length > UINT32_MAX || length >= SIZE_MAX
             ? nullptr
             : static_cast<char *>(std::malloc(static_cast<size_t>(length) + 1));
}

// Decodes the text; `padding` of its last characters are "=". False for characters outside the
// alphabet and for bits behind the last byte.
bool decode(const char *text, uint32_t length, uint32_t padding, char *out) {
  for (uint32_t at = 0; at < length; at += 4) {
    const uint32_t absent = at + 4 == length ? padding : 0;
    uint32_t group = 0;
    for (uint32_t i = 0; i < 4; ++i) {
      const uint32_t value = i < 4 - absent ? digit_value(text[at + i]) : 0;
      if (value == kNoDigit) return false;
      group = group << 6 | value;
    }
    if ((group & ((1u << absent * 8) - 1)) != 0) return false;
    for (uint32_t i = 0; i < 3 - absent; ++i) *out++ = static_cast<char>(group >> (16 - i * 8));
  }
  *out = '\0';
  return true;
}

}  // namespace

extern "C" uint32_t ORP_UTIL_Base64Encode(const void *data, uint32_t size, char **out) {
  if (out == nullptr) return 0;
  *out = nullptr;
  if (data == nullptr || size == 0) return 0;

  const uint64_t length = (uint64_t{size} + 2) / 3 * 4;
  char *text = text_buffer(length);
  if (text == nullptr) return 0;

  const auto *bytes = static_cast<const uint8_t *>(data);
  char *end = text;
  for (uint32_t at = 0, taken = 0; at < size; at += taken) {
    taken = size - at < 3 ? size - at : 3;
    uint32_t group = 0;
    for (uint32_t i = 0; i < taken; ++i) group |= uint32_t{bytes[at + i]} << (16 - i * 8);
    for (uint32_t i = 0; i < 4; ++i) {
      *end++ = i <= taken ? kAlphabet[group >> (18 - i * 6) & 63] : '=';
    }
  }
  *end = '\0';
  *out = text;
  return static_cast<uint32_t>(length);
}

extern "C" uint32_t ORP_UTIL_Base64Decode(const char *text, uint32_t length, void **out) {
  if (out == nullptr) return 0;
  *out = nullptr;
  if (text == nullptr || length == 0 || length % 4 != 0) return 0;

  uint32_t padding = 0;
  while (padding < 2 && text[length - 1 - padding] == '=') ++padding;
  const uint32_t size = length / 4 * 3 - padding;
  char *bytes = text_buffer(size);
  if (bytes == nullptr) return 0;
  if (!decode(text, length, padding, bytes)) {
    std::free(bytes);
    return 0;
  }
  *out = bytes;
  return size;
}
