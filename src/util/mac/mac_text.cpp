// MAC address text: validation, masking and conversion.

#include "util/mac/mac_text.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>

#include "base/copy_failure.h"
#include "base/hex.h"

namespace msgapi::mac {
namespace {

constexpr size_t kTextLength = ORP_MAC_TEXT_SIZE - 1;
constexpr size_t kOctetStride = 3;  // two digits and a separator

bool has_mac_length(const char *text) {
  return strnlen(text, kTextLength + 1) == kTextLength;
}

bool is_valid_mac(const char *text) {
  if (!has_mac_length(text)) return false;

  for (size_t i = 0; i < kTextLength; ++i) {
    const bool separator_place = i % kOctetStride == 2;
    if (separator_place ? text[i] != ':' : hex_value(text[i]) < 0) return false;
  }
  return true;
}

void mask_octet(char *text, size_t index) {
  text[index * kOctetStride] = '*';
  text[index * kOctetStride + 1] = '*';
}

// Copies characters other than `separator` until the text ends or `out` is full, without a NUL.
// Returns how many.
size_t strip(const char *text, char separator, std::span<char> out) {
  size_t length = 0;
  for (; *text != '\0' && length < out.size(); ++text) {
    if (*text != separator) out[length++] = *text;
  }
  return length;
}

void strip_cut(const char *text, char separator, std::span<char> out) {
  if (out.empty()) return;
  out[std::min(strip(text, separator, out), out.size() - 1)] = '\0';
}

void hex_to_bytes(const char *text, std::span<uint8_t> out) {
  const size_t length = std::strlen(text);
  if (length % 2 != 0) return;

  const size_t count = std::min(length / 2, out.size());
  for (size_t i = 0; i < count; ++i) {
    unsigned value;
    if (std::sscanf(text + 2 * i, "%2X", &value) != 1) return;
    out[i] = static_cast<uint8_t>(value);
  }
}

}  // namespace

void format_mac(std::span<const uint8_t, ORP_MAC_SIZE> mac, HexCase hex_case,
                std::span<char, ORP_MAC_TEXT_SIZE> out) {
  const char *digits = hex_case == HexCase::kUpper ? kUpperHexDigits : kLowerHexDigits;
  for (size_t i = 0; i < ORP_MAC_SIZE; ++i) {
    out[i * kOctetStride] = digits[mac[i] >> 4];
    out[i * kOctetStride + 1] = digits[mac[i] & 0x0f];
    out[i * kOctetStride + 2] = ':';
  }
  out[kTextLength] = '\0';
}

}  // namespace msgapi::mac

using namespace msgapi;
using namespace msgapi::mac;

extern "C" uint32_t ORP_UTIL_ValidateMacAddress(const char *text) {
  return text != nullptr && is_valid_mac(text) ? 1 : 0;
}

extern "C" uint32_t ORP_UTIL_GetSecureMacAddress(const char *text, char *out, uint32_t size) {
  if (text == nullptr || out == nullptr || size < ORP_MAC_TEXT_SIZE || !is_valid_mac(text)) {
    return 1;
  }

  std::memmove(out, text, ORP_MAC_TEXT_SIZE);
  // This choice of octets is deliberate.
  for (size_t octet : {1u, 2u, 4u}) mask_octet(out, octet);
  return 0;
}

extern "C" void ORP_UTIL_DisguiseMacAddress(uint32_t maskAll, const char *text, char *out,
                                            uint32_t size) {
  if (out == nullptr || size < ORP_MAC_TEXT_SIZE) return;

  if (maskAll != 0) {
    std::memcpy(out, "**:**:**:**:**:**", ORP_MAC_TEXT_SIZE);
    return;
  }
  if (text == nullptr || !has_mac_length(text)) return;

  std::memmove(out, text, ORP_MAC_TEXT_SIZE);
  for (size_t octet = 0; octet < ORP_MAC_SIZE; ++octet) mask_octet(out, octet);
}

extern "C" void ORP_UTIL_BIDisguiseMacAddress(const char *text, char *out, uint32_t size) {
  if (text == nullptr || out == nullptr || size < ORP_MAC_TEXT_SIZE || !has_mac_length(text)) {
    return;
  }

  // Print the bytes, never the stripped text: that might show what is to be masked.
  std::array<char, ORP_MAC_TEXT_SIZE> digits;
  std::array<uint8_t, ORP_MAC_SIZE> mac{};
  strip_cut(text, ':', digits);
  hex_to_bytes(digits.data(), mac);

  format_mac(mac, HexCase::kUpper, std::span<char, ORP_MAC_TEXT_SIZE>(out, ORP_MAC_TEXT_SIZE));
  mask_octet(out, 4);
  mask_octet(out, 5);
}

extern "C" void ORP_UTIL_MacStrToByte(const char *text, char separator, uint8_t mac[ORP_MAC_SIZE]) {
  if (text == nullptr || mac == nullptr) return;

  std::array<char, ORP_MAC_TEXT_SIZE> digits;
  if (separator != '\0') {
    strip_cut(text, separator, digits);
  } else if (!copy_or_report(digits, text)) {
    return;
  }
  hex_to_bytes(digits.data(), {mac, ORP_MAC_SIZE});
}

extern "C" char *ORP_UTIL_Macntoa(const uint8_t *mac, uint32_t count, char *out, uint32_t size) {
  if (mac == nullptr || count < ORP_MAC_SIZE || out == nullptr || size < ORP_MAC_TEXT_SIZE) {
    return nullptr;
  }

  format_mac(std::span<const uint8_t, ORP_MAC_SIZE>(mac, ORP_MAC_SIZE), HexCase::kLower,
             std::span<char, ORP_MAC_TEXT_SIZE>(out, ORP_MAC_TEXT_SIZE));
  return out;
}

extern "C" void ORP_UTIL_HexStr2Bin(uint8_t *out, uint32_t size, const char *text) {
  if (out == nullptr || text == nullptr) return;
  hex_to_bytes(text, {out, size});
}

extern "C" void ORP_UTIL_StripSeparator(const char *text, char separator, char *out,
                                        uint32_t size) {
  if (text == nullptr || out == nullptr) return;
  strip_cut(text, separator, {out, size});
}

extern "C" uint32_t ORP_UTIL_SaveStripSeparator(const char *text, char separator, char *out,
                                                uint32_t size) {
  if (text == nullptr || out == nullptr || size == 0) return 1;

  const size_t length = strip(text, separator, {out, size});
  if (length == size) {
    std::memset(out, 0, size);
    return 1;
  }
  out[length] = '\0';
  return 0;
}
