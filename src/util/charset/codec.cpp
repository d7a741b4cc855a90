// The codecs between 16-bit units and UTF-8 (RFC 3629 section 3, up to three bytes a character:
// what one unit can hold).
//
// Each has a fast loop that runs while both buffers surely suffice for any character, and one
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

// The most bytes that one unit becomes.
constexpr size_t kMaxUnitSize = 3;

constexpr size_t utf8_size(uint16_t unit) {
  return unit <= 0x7F ? 1 : unit <= 0x7FF ? 2 : 3;
}

// The continuation byte for the low six bits of `bits`.
constexpr char continuation(uint32_t bits) {
  return static_cast<char>(0x80 | (bits & 0x3F));
}

// Writes utf8_size(unit) bytes.
inline size_t encode(uint32_t unit, char *out) {
  if (unit <= 0x7F) {
    out[0] = static_cast<char>(unit);
    return 1;
  }
  if (unit <= 0x7FF) {
    out[0] = static_cast<char>(0xC0 | unit >> 6);
    out[1] = continuation(unit);
    return 2;
  }
  out[0] = static_cast<char>(0xE0 | unit >> 12);
  out[1] = continuation(unit >> 6);
  out[2] = continuation(unit);
  return 3;
}

// The fast loops are for little-endian hosts and move ASCII in words of eight bytes or four units.
constexpr bool kLittleEndian = std::endian::native == std::endian::little;
constexpr ptrdiff_t kWordBytes = 8;
constexpr ptrdiff_t kWordUnits = 4;
constexpr uint64_t kEveryByte = 0x0101010101010101;
constexpr uint64_t kEveryUnit = 0x0001000100010001;

// Whether each byte, or unit, is 1..0x7F: its top bits are clear, and subtracting 1 does not
// borrow, as it would from zero.
constexpr bool has_ascii_bytes_only(uint64_t word) {
  return ((word | (word - kEveryByte)) & (kEveryByte * 0x80)) == 0;
}

constexpr bool has_ascii_units_only(uint64_t word) {
  return ((word | (word - kEveryUnit)) & (kEveryUnit * 0xFF80)) == 0;
}

// The low bytes of the units in `word`.
constexpr uint32_t packed(uint64_t word) {
  word = (word | word >> 8) & 0x0000FFFF0000FFFF;
  return static_cast<uint32_t>(word | word >> 16);
}

// Converts units until a zero one, as long as both sides have room for a character of any size.
void ucs2_to_utf8_run(UnitReader *in, TextWriter *out) {
  if constexpr (!kLittleEndian) return;
  while (const size_t safe = std::min(in->left(), out->left() / kMaxUnitSize)) {
    const uint16_t *const first = in->rest().data(), *from = first;
    const uint16_t *const end = first + safe;
    char *const start = out->rest().data(), *to = start;
    while (from < end) {
      const uint32_t unit = *from;
      if (unit > 0x7FF) {
        to[0] = static_cast<char>(0xE0 | unit >> 12);
        to[1] = continuation(unit >> 6);
        to[2] = continuation(unit);
        from += 1;
        to += 3;
      } else if (unit > 0x7F) {
        to[0] = static_cast<char>(0xC0 | unit >> 6);
        to[1] = continuation(unit);
        from += 1;
        to += 2;
      } else if (end - from >= kWordUnits && has_ascii_units_only(load<uint64_t>(from))) {
        store<uint32_t>(to, packed(load<uint64_t>(from)));
        from += kWordUnits;
        to += kWordUnits;
      } else {
        if (unit == 0) break;
        *to++ = static_cast<char>(unit);
        from += 1;
      }
    }
    in->take(static_cast<size_t>(from - first));
    out->advance(static_cast<size_t>(to - start));
    if (from < end) return;
  }
}

// Converts up to a zero unit or the end of either side. False when a character did not fit.
bool ucs2_to_utf8(UnitReader in, TextWriter *out) {
  for (;;) {
    ucs2_to_utf8_run(&in, out);
    const uint16_t unit = in.next();
    if (unit == 0) return true;
    if (utf8_size(unit) > out->left()) return false;
    char bytes[kMaxUnitSize];
    out->put_all({bytes, encode(unit, bytes)});
  }
}

// Bytes of the sequence that `lead` begins, 0 if it begins none.
constexpr size_t sequence_size(uint8_t lead) {
  if (lead < 0x80) return 1;
  if (lead < 0xC0 || lead > 0xFD) return 0;
  return static_cast<size_t>(std::countl_one(lead));
}

// Converts characters of up to three bytes until a zero one, as long as both sides have room for a
// character of any size.
void utf8_to_ucs2_run(ByteReader *in, UnitWriter *out) {
  if constexpr (!kLittleEndian) return;
  while (const size_t safe = std::min(in->left() / kMaxUnitSize, out->left())) {
    const uint8_t *const first = in->rest().data(), *from = first;
    uint16_t *const start = out->rest().data(), *to = start;
    uint16_t *const end = start + safe;
    while (to < end) {
      const uint32_t lead = *from;
      if (lead < 0x80) {
        if (end - to >= kWordBytes && has_ascii_bytes_only(load<uint64_t>(from))) {
          for (ptrdiff_t i = 0; i < kWordBytes; ++i) to[i] = from[i];
          from += kWordBytes;
          to += kWordBytes;
        } else {
          if (lead == 0) break;
          *to++ = static_cast<uint16_t>(lead);
          from += 1;
        }
      } else if (lead >= 0xE0) {
        if (lead >= 0xF0) break;
        *to++ = static_cast<uint16_t>(lead << 12 | (from[1] & 0x3Fu) << 6 | (from[2] & 0x3Fu));
        from += 3;
      } else {
        if (lead < 0xC0) break;
        *to++ = static_cast<uint16_t>((lead & 0x1F) << 6 | (from[1] & 0x3Fu));
        from += 2;
      }
    }
    in->take(static_cast<size_t>(from - first));
    out->advance(static_cast<size_t>(to - start));
    if (to < end) return;
  }
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
