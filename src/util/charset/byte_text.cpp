// Byte order, hex text and numbers.

#include <utility>

#include "base/bytes.h"
#include "base/cursor.h"
#include "base/hex.h"
#include "msgapi/charset.h"

namespace msgapi::charset {
namespace {

// The value of a hex digit, by arithmetic alone: any other character gives a meaningless value.
constexpr uint8_t loose_hex_value(char character) {
  const auto code = static_cast<uint8_t>(character);
  if (code >= '0' && code <= '9') return static_cast<uint8_t>(code - '0');
  return static_cast<uint8_t>(code < 'a' ? code - '7' : code - 'W');
}

uint32_t decimal_value(std::span<const char> text, uint32_t *value) {
  uint32_t status = CL_OK;
  for (const char character : text) {
    if (character >= '0' && character <= '9') {
      *value = *value * 10 + static_cast<uint32_t>(character - '0');
    } else {
      status = CL_ERR_ARGUMENT;
    }
  }
  return status;
}

uint32_t hex_text_value(std::span<const char> text, uint32_t *value) {
  uint32_t status = CL_OK;
  for (const char character : text) {
    const int digit = hex_value(character);
    if (digit >= 0) *value = *value << 4 | static_cast<uint32_t>(digit);
    // Only the last character decides: one before it that is no digit is forgiven.
    status = digit >= 0 ? CL_OK : CL_ERR_ARGUMENT;
  }
  return status;
}

}  // namespace
}  // namespace msgapi::charset

using namespace msgapi;
using namespace msgapi::charset;

extern "C" uint32_t CL_WideCharToByteOrder(const uint8_t *units, uint32_t count, uint8_t *bytes,
                                           uint32_t *size) {
  if (size == nullptr) return CL_ERR_ARGUMENT;
  const uint32_t capacity = std::exchange(*size, 0);
  if (units == nullptr || bytes == nullptr || count == 0) return CL_ERR_ARGUMENT;
  if (capacity / 2 < count) return CL_ERR_ROOM;

  ByteWriter out({bytes, capacity});
  for (uint32_t i = 0; i < count; ++i) out.be16(load<uint16_t>(units + size_t{2} * i));
  *size = 2 * count;
  return CL_OK;
}

extern "C" uint32_t cl_widecharToByteOrder(const uint8_t *units, uint32_t count, uint8_t *bytes,
                                           uint32_t *size) {
  return CL_WideCharToByteOrder(units, count, bytes, size);
}

extern "C" uint32_t CL_ByteOrderToWideChar(const uint8_t *bytes, uint32_t count, uint16_t *units,
                                           uint32_t *size) {
  if (size == nullptr) return CL_ERR_ARGUMENT;
  const uint32_t capacity = std::exchange(*size, 0);
  if (bytes == nullptr || units == nullptr || count == 0) return CL_ERR_ARGUMENT;
  if (capacity <= count / 2) return CL_ERR_ROOM;

  ByteReader in({bytes, count});
  Writer<uint16_t> out({units, capacity});
  while (in.left() >= 2) out.put(in.be16());
  out.put(0);
  *size = count / 2;
  return CL_OK;
}

extern "C" uint32_t cl_byteOrderToWideChar(const uint8_t *bytes, uint32_t count, uint16_t *units,
                                           uint32_t *size) {
  return CL_ByteOrderToWideChar(bytes, count, units, size);
}

extern "C" uint32_t CL_BytesToString(const uint8_t *bytes, uint32_t count, char *text,
                                     uint32_t *size) {
  if (size == nullptr) return CL_ERR_ARGUMENT;
  const uint32_t capacity = std::exchange(*size, 0);
  if (bytes == nullptr || text == nullptr || count == 0) return CL_ERR_ARGUMENT;
  if (capacity < uint64_t{count} * 2 + 1) return CL_ERR_ROOM;

  TextWriter out({text, capacity});
  for (const uint8_t byte : std::span(bytes, count)) {
    out.put(kUpperHexDigits[byte >> 4]);
    out.put(kUpperHexDigits[byte & 15]);
  }
  out.put('\0');
  *size = 2 * count;
  return CL_OK;
}

extern "C" uint32_t cl_bytesToString(const uint8_t *bytes, uint32_t count, char *text,
                                     uint32_t *size) {
  return CL_BytesToString(bytes, count, text, size);
}

extern "C" uint32_t CL_StringToBytes(const char *text, uint32_t count, uint8_t *bytes,
                                     uint32_t *size) {
  if (size == nullptr) return CL_ERR_ARGUMENT;
  const uint32_t capacity = std::exchange(*size, 0);
  if (text == nullptr || bytes == nullptr || count == 0) return CL_ERR_ARGUMENT;
  if (capacity < count / 2) return CL_ERR_ROOM;

  // An odd count reads the character after the last one as its low digit.
  Reader<char> in({text, count + size_t{count % 2}});
  ByteWriter out({bytes, capacity});
  while (in.left() > 0) {
    const char high = in.next();
    if (high == '\0') break;
    const auto byte = static_cast<uint8_t>(loose_hex_value(high) << 4 | loose_hex_value(in.next()));
    if (!out.put(byte)) break;
  }
  *size = static_cast<uint32_t>(out.offset());
  return out.ok() ? CL_OK : CL_ERR_ROOM;
}

extern "C" uint32_t cl_stringToBytes(const char *text, uint32_t count, uint8_t *bytes,
                                     uint32_t *size) {
  return CL_StringToBytes(text, count, bytes, size);
}

extern "C" uint32_t CL_StringToNumeric(const char *text, uint32_t count, uint32_t base,
                                       uint32_t *value) {
  if (value != nullptr) *value = 0;
  if (text == nullptr || value == nullptr || count == 0) return CL_ERR_ARGUMENT;
  if (base == 10) return decimal_value({text, count}, value);
  if (base == 16) return hex_text_value({text, count}, value);
  return CL_ERR_BASE;
}

extern "C" uint32_t cl_stringToNumeric(const char *text, uint32_t count, uint32_t base,
                                       uint32_t *value) {
  return CL_StringToNumeric(text, count, base, value);
}
