// The codecs between 16-bit units and UTF-8.
//
// Each has a loop for the many characters for which both bounds are known to suffice, and one
// careful step for the rest: long sequences, errors and the ends of the buffers.

#include <algorithm>
#include <bit>
#include <cstring>
#include <span>
#include <utility>

#include "base/bytes.h"
#include "base/cursor.h"
#include "msgapi/charset.h"

namespace msgapi::charset {
namespace {

using UnitReader = Reader<uint16_t>;
using UnitWriter = Writer<uint16_t>;

// Most bytes that a unit becomes.
constexpr size_t kMaxUnitSize = 3;

constexpr size_t utf8_size(uint16_t unit) {
  return unit <= 0x7F ? 1 : unit <= 0x7FF ? 2 : 3;
}

// Writes utf8_size(unit) bytes.
inline size_t encode(uint16_t unit, char *out) {
  const auto low_bits = [unit](int shift) {
    return static_cast<char>(0x80 | (unit >> shift & 0x3F));
  };
  if (unit <= 0x7F) {
    out[0] = static_cast<char>(unit);
    return 1;
  }
  if (unit <= 0x7FF) {
    out[0] = static_cast<char>(0xC0 | unit >> 6);
    out[1] = low_bits(0);
    return 2;
  }
  out[0] = static_cast<char>(0xE0 | unit >> 12);
  out[1] = low_bits(6);
  out[2] = low_bits(0);
  return 3;
}

// Converts up to a zero unit or the end of either side. False when a character did not fit.
bool ucs2_to_utf8(UnitReader in, TextWriter *out) {
  for (;;) {
    const std::span<const uint16_t> units = in.rest();
    const std::span<char> room = out->rest();
    const size_t count = std::min(units.size(), room.size() / kMaxUnitSize);
    size_t taken = 0, written = 0;
    while (taken < count && units[taken] != 0) written += encode(units[taken++], &room[written]);
    in.take(taken);
    out->advance(written);

    const uint16_t unit = in.next();
    if (unit == 0) return true;
    if (utf8_size(unit) > out->left()) return false;
    char bytes[kMaxUnitSize];
    out->put_all({bytes, encode(unit, bytes)});
  }
}

constexpr uint64_t kEveryByte = 0x0101010101010101;

// True when none of the eight bytes is zero or above 0x7F.
constexpr bool is_plain_ascii(uint64_t bytes) {
  // A byte's top bit appears where the byte has it, or borrows for being zero.
  return ((bytes | (bytes - kEveryByte)) & (kEveryByte << 7)) == 0;
}

// Bytes of the sequence that `lead` begins, 0 if it begins none.
constexpr size_t sequence_size(uint8_t lead) {
  if (lead < 0x80) return 1;
  if (lead < 0xC0 || lead > 0xFD) return 0;
  return static_cast<size_t>(std::countl_one(lead));
}

// Converts characters of up to three bytes as long as both sides have room for the longest.
void utf8_to_ucs2_run(ByteReader *in, UnitWriter *out) {
  const std::span<const uint8_t> bytes = in->rest();
  const std::span<uint16_t> units = out->rest();
  size_t at = 0, written = 0;
  while (at + 8 <= bytes.size() && written + 8 <= units.size()) {
    if (is_plain_ascii(load<uint64_t>(&bytes[at]))) {
      for (size_t i = 0; i < 8; ++i) units[written + i] = bytes[at + i];
      at += 8;
      written += 8;
      continue;
    }
    const uint8_t lead = bytes[at];
    if (lead >= 0xF0 || lead == 0 || (lead >= 0x80 && lead < 0xC0)) break;
    if (lead < 0x80) {
      units[written++] = lead;
      at += 1;
    } else if (lead < 0xE0) {
      units[written++] = static_cast<uint16_t>((lead & 0x1F) << 6 | (bytes[at + 1] & 0x3F));
      at += 2;
    } else {
      units[written++] = static_cast<uint16_t>((lead & 0x0F) << 12 | (bytes[at + 1] & 0x3F) << 6 |
                                               (bytes[at + 2] & 0x3F));
      at += 3;
    }
  }
  in->take(at);
  out->advance(written);
}

uint32_t utf8_to_ucs2(ByteReader in, UnitWriter *out) {
  for (;;) {
    utf8_to_ucs2_run(&in, out);
    const uint8_t lead = in.next();
    if (lead == 0) return CL_OK;
    if (out->left() == 0) return CL_ERR_ROOM;

    const size_t size = sequence_size(lead);
    if (size == 0 || size - 1 > in.left()) return CL_ERR_UTF8;
    uint32_t value = size == 1 ? lead : lead & (0x7Fu >> size);
    for (const uint8_t byte : in.take(size - 1)) value = value << 6 | (byte & 0x3F);
    out->put(static_cast<uint16_t>(value));
  }
}

}  // namespace
}  // namespace msgapi::charset

using namespace msgapi;
using namespace msgapi::charset;

extern "C" uint32_t CL_Ucs2ToUtf8(const uint16_t *units, uint32_t count, char *text,
                                  uint32_t *size) {
  if (size == nullptr) return CL_ERR_ARGUMENT;
  const uint32_t capacity = std::exchange(*size, 0);
  if (units == nullptr || text == nullptr || count == 0) return CL_ERR_ARGUMENT;
  if (count > capacity) return CL_ERR_ROOM;

  TextWriter out({text, capacity - 1});
  const bool fits = ucs2_to_utf8(UnitReader({units, count}), &out);
  text[out.offset()] = '\0';
  *size = static_cast<uint32_t>(out.offset());
  return fits ? CL_OK : CL_ERR_ROOM;
}

extern "C" uint32_t cl_ucs2ToUTF8(const uint16_t *units, uint32_t count, char *text,
                                  uint32_t *size) {
  return CL_Ucs2ToUtf8(units, count, text, size);
}

extern "C" uint32_t CL_Ucs2ToUtf8ByLen(const uint16_t *units, uint32_t count, char *text,
                                       uint32_t size) {
  if (units == nullptr || text == nullptr || count == 0) return CL_ERR_ARGUMENT;
  if (size == 0) return CL_ERR_ROOM;

  TextWriter out({text, size - 1});
  const bool fits = ucs2_to_utf8(UnitReader({units, count}), &out);
  text[out.offset()] = '\0';
  return fits ? CL_OK : CL_ERR_ROOM;
}

extern "C" uint32_t cl_ucs2ToUTF8ByLen(const uint16_t *units, uint32_t count, char *text,
                                       uint32_t size) {
  return CL_Ucs2ToUtf8ByLen(units, count, text, size);
}

extern "C" uint32_t CL_Utf8ToUcs2(const char *text, uint32_t count, uint16_t *units,
                                  uint32_t *size) {
  if (size == nullptr) return CL_ERR_ARGUMENT;
  const uint32_t capacity = std::exchange(*size, 0);
  if (text == nullptr || units == nullptr || count == 0) return CL_ERR_ARGUMENT;
  if (capacity == 0) return CL_ERR_ROOM;

  UnitWriter out({units, capacity});
  const uint32_t status =
      utf8_to_ucs2(ByteReader({reinterpret_cast<const uint8_t *>(text), count}), &out);
  *size = static_cast<uint32_t>(out.offset());
  if (out.left() > 0) out.put(0);
  return status;
}

extern "C" uint32_t cl_utf8ToUCS2(const char *text, uint32_t count, uint16_t *units,
                                  uint32_t *size) {
  return CL_Utf8ToUcs2(text, count, units, size);
}
