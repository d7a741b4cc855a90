#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "msgapi/charset.h"

namespace {

using Units = std::vector<uint16_t>;

// An output buffer of exactly `capacity` units, for the memory checker.
template <typename Unit>
struct Output {
  explicit Output(uint32_t capacity) : units(new Unit[capacity]), size(capacity) {
    std::memset(units.get(), 'o', capacity * sizeof(Unit));
  }
  std::unique_ptr<Unit[]> units;
  uint32_t size;
};

struct Encoded {
  uint32_t status;
  std::string text;
};

Encoded to_utf8(const Units &units, uint32_t capacity = 3000) {
  Output<char> out(capacity);
  const uint32_t status =
      CL_Ucs2ToUtf8(units.data(), static_cast<uint32_t>(units.size()), out.units.get(), &out.size);
  const std::string text(out.units.get(), strnlen(out.units.get(), capacity));
  EXPECT_TRUE(out.size == text.size() || units.size() > capacity);
  return {status, text};
}

struct Decoded {
  uint32_t status;
  Units units;
  bool terminated;
};

Decoded to_ucs2(const std::string &text, uint32_t capacity) {
  Output<uint16_t> out(capacity);
  const uint32_t status =
      CL_Utf8ToUcs2(text.data(), static_cast<uint32_t>(text.size()), out.units.get(), &out.size);
  return {status, Units(out.units.get(), out.units.get() + out.size),
          out.size < capacity && out.units[out.size] == 0};
}

TEST(Ucs2ToUtf8, EncodesEachUnitAndKeepsRoomForTheNul) {
  const struct {
    const char *why;
    Units units;
    uint32_t capacity, status;
    const char *text;
  } kCases[] = {
      {"boundaries",
       {0x7F, 0x80, 0x7FF, 0x800, 0xFFFF},
       100,
       CL_OK,
       "\x7f\xc2\x80\xdf\xbf\xe0\xa0\x80\xef\xbf\xbf"},
      {"surrogates by themselves", {0xD801, 0xDC00}, 100, CL_OK, "\xed\xa0\x81\xed\xb0\x80"},
      {"stops at a zero", {'a', 0, 'b'}, 100, CL_OK, "a"},
      {"exact room", {0x4E2D}, 4, CL_OK, "\xe4\xb8\xad"},
      {"no room for the NUL", {0x4E2D}, 3, CL_ERR_ROOM, ""},
      {"whole characters only", {'a', 0x4E2D, 0x4E2D}, 6, CL_ERR_ROOM, "a\xe4\xb8\xad"},
      {"as many units as bytes", {'a', 'b', 'c'}, 3, CL_ERR_ROOM, "ab"},
      {"more units than bytes are refused before", {'a', 0, 0, 0}, 3, CL_ERR_ROOM, "ooo"},
  };

  for (const auto &expected : kCases) {
    SCOPED_TRACE(expected.why);
    const Encoded encoded = to_utf8(expected.units, expected.capacity);
    EXPECT_EQ(expected.status, encoded.status);
    EXPECT_EQ(expected.text, encoded.text);
  }
}

TEST(Ucs2ToUtf8, ByLengthConvertsWhatFits) {
  const Units units = {'a', 0x4E2D, 'b', 'c', 'd'};
  const char *const kTexts[] = {"", "a", "a", "a", "a\xe4\xb8\xad"};
  for (uint32_t size = 1; size <= 5; ++size) {
    Output<char> out(size);
    EXPECT_EQ(CL_ERR_ROOM, CL_Ucs2ToUtf8ByLen(units.data(), 5, out.units.get(), size));
    EXPECT_STREQ(kTexts[size - 1], out.units.get());
  }
  char text[8];
  EXPECT_EQ(CL_OK, cl_ucs2ToUTF8ByLen(units.data(), 5, text, 8));
  EXPECT_STREQ("a\xe4\xb8\xad\x62\x63\x64", text);
  EXPECT_EQ(CL_ERR_ROOM, CL_Ucs2ToUtf8ByLen(units.data(), 5, text, 0));
}

const Units kEight = {'a', 'b', 'c', 'd', 'e', 'f', 'g', 'h'};

const struct {
  const char *why;
  std::string text;
  uint32_t status;
  Units units;
} kDecodes[] = {
    {"all lengths", "A\xc2\x80\xe4\xb8\xad", CL_OK, {'A', 0x80, 0x4E2D}},
    {"longer sequences keep 16 bits", "\xf0\x9f\x98\x80\xf8\x88\x80\x80\x81", CL_OK, {0xF600, 1}},
    {"six bytes", "\xfc\x84\x80\x80\x80\x82", CL_OK, {2}},
    {"stops at a zero byte after many", {"abcdefgh\0bcdefghi", 17}, CL_OK, kEight},
    {"continuation bytes are not checked", "\xe4\x41\x42!", CL_OK, {0x4042, '!'}},
    {"an overlong zero does not stop", "\xc0\x80!", CL_OK, {0, '!'}},
    {"continuation byte first", "\x80", CL_ERR_UTF8, {}},
    {"continuation byte after many", "abcdefgh\xbf, and more", CL_ERR_UTF8, kEight},
    {"0xFE", "a\xfe", CL_ERR_UTF8, {'a'}},
    {"cut short", "a\xe4\xb8", CL_ERR_UTF8, {'a'}},
};

TEST(Utf8ToUcs2, DecodesUpToSixBytes) {
  for (const auto &expected : kDecodes) {
    SCOPED_TRACE(expected.why);
    const Decoded decoded = to_ucs2(expected.text, 30);
    EXPECT_EQ(expected.status, decoded.status);
    EXPECT_EQ(expected.units, decoded.units);
    EXPECT_TRUE(decoded.terminated);
  }
}

TEST(Utf8ToUcs2, FillsItsBufferToTheLastUnit) {
  EXPECT_EQ(CL_OK, to_ucs2("abc", 3).status);
  const Decoded full = to_ucs2("abcdefghijkl", 9);
  EXPECT_EQ(CL_ERR_ROOM, full.status);
  EXPECT_EQ(9u, full.units.size());
  EXPECT_EQ(CL_ERR_ROOM, to_ucs2("abc", 0).status);
}

TEST(Utf8, BringsEveryUnitBackFromBetweenRunsOfAscii) {
  Units units;
  for (uint32_t unit = 1; unit <= 0xFFFF; ++unit) {
    units.push_back(static_cast<uint16_t>(unit));
    // ASCII is moved in words; their places shift with these.
    units.insert(units.end(), unit % 11, 'a');
  }
  const auto count = static_cast<uint32_t>(units.size());

  const Encoded encoded = to_utf8(units, 3 * count);
  ASSERT_EQ(CL_OK, encoded.status);
  EXPECT_TRUE(units == to_ucs2(encoded.text, count).units);
}

TEST(ByteOrder, IsBigEndianWhateverTheHostIs) {
  const uint16_t units[] = {0x1234, 0xABCD};
  const auto *const pairs = reinterpret_cast<const uint8_t *>("\x12\x34\xab\xcd\xef");
  Output<uint8_t> bytes(4);
  ASSERT_EQ(CL_OK, CL_WideCharToByteOrder(reinterpret_cast<const uint8_t *>(units), 2,
                                          bytes.units.get(), &bytes.size));
  EXPECT_EQ(4u, bytes.size);
  EXPECT_EQ(0, std::memcmp(pairs, bytes.units.get(), 4));

  Output<uint16_t> back(3);
  ASSERT_EQ(CL_OK, CL_ByteOrderToWideChar(pairs, 5, back.units.get(), &back.size));
  EXPECT_EQ(2u, back.size);
  EXPECT_EQ(0x1234, back.units[0]);
  EXPECT_EQ(0xABCD, back.units[1]);
  EXPECT_EQ(0, back.units[2]);
}

TEST(ByteCodecs, RefuseTooLittleRoomWithoutWrapping) {
  uint8_t bytes[4] = {};
  uint16_t units[4] = {};
  char text[7];
  uint32_t sizes[] = {3, 2, 2, 3, 6};
  EXPECT_EQ(CL_ERR_ROOM, cl_widecharToByteOrder(bytes, 2, bytes, &sizes[0]));
  EXPECT_EQ(CL_ERR_ROOM, cl_byteOrderToWideChar(bytes, 4, units, &sizes[1]));
  EXPECT_EQ(CL_ERR_ROOM, CL_WideCharToByteOrder(bytes, 0x80000001, bytes, &sizes[2]));
  EXPECT_EQ(CL_ERR_ROOM, CL_BytesToString(bytes, 0x80000001, text, &sizes[3]));
  EXPECT_EQ(CL_ERR_ROOM, cl_bytesToString(bytes, 3, text, &sizes[4]));
}

TEST(HexText, IsWrittenInUpperCase) {
  const uint8_t bytes[] = {0x0B, 0xAF};
  Output<char> text(5);
  EXPECT_EQ(CL_OK, CL_BytesToString(bytes, 2, text.units.get(), &text.size));
  EXPECT_EQ(4u, text.size);
  EXPECT_STREQ("0BAF", text.units.get());
}

const struct {
  const char *why;
  const char *text;
  uint32_t count, capacity, status;
  std::string bytes;
} kHex[] = {
    {"both cases", "9aBF", 4, 2, CL_OK, "\x9a\xbf"},
    {"stops at a NUL", "9a", 6, 3, CL_OK, "\x9a"},
    {"too little room", "9aBF", 4, 1, CL_ERR_ROOM, ""},
    {"an odd count takes the next character", "9aBF", 3, 2, CL_OK, "\x9a\xbf"},
    {"no room for the odd digit", "9aB", 3, 1, CL_ERR_ROOM, "\x9a"},
    {"meaningless by arithmetic", "g1G1", 4, 2, CL_OK, "\x01\x01"},
};

TEST(HexText, IsReadWithoutValidation) {
  for (const auto &expected : kHex) {
    SCOPED_TRACE(expected.why);
    Output<uint8_t> out(expected.capacity);
    // As long as the count says, an odd one's next character included.
    const std::unique_ptr<char[]> text(new char[expected.count + 1]{});
    std::memcpy(text.get(), expected.text, strnlen(expected.text, expected.count + 1));

    EXPECT_EQ(expected.status,
              CL_StringToBytes(text.get(), expected.count, out.units.get(), &out.size));
    EXPECT_EQ(expected.bytes, std::string(out.units.get(), out.units.get() + out.size));
  }
}

const struct {
  const char *text;
  uint32_t base, status, value;
} kNumbers[] = {
    {"4294967296", 10, CL_OK, 0},        {"12a", 10, CL_ERR_ARGUMENT, 12},
    {"DeadBeef", 16, CL_OK, 0xDEADBEEF}, {"1g2", 16, CL_OK, 0x12},
    {"12g", 16, CL_ERR_ARGUMENT, 0x12},  {"12", 8, CL_ERR_BASE, 0},
};

TEST(StringToNumeric, ForgivesAHexSlipOnlyBeforeAGoodDigit) {
  for (const auto &expected : kNumbers) {
    uint32_t value = 99;
    EXPECT_EQ(expected.status,
              CL_StringToNumeric(expected.text, static_cast<uint32_t>(std::strlen(expected.text)),
                                 expected.base, &value))
        << expected.text;
    EXPECT_EQ(expected.value, value) << expected.text;
  }
  uint32_t value;
  EXPECT_EQ(CL_OK, cl_stringToNumeric("129", 2, 10, &value));
  EXPECT_EQ(12u, value);
  EXPECT_EQ(CL_ERR_ARGUMENT, CL_StringToNumeric(nullptr, 1, 8, &value)) << "before the base";
}

TEST(Codecs, ProduceNothingWithoutTheirArguments) {
  const uint8_t bytes[4] = {};
  const uint16_t units[2] = {};
  char text[8];
  uint32_t sizes[] = {8, 8, 8};
  EXPECT_EQ(CL_ERR_ARGUMENT, cl_ucs2ToUTF8(units, 0, text, &sizes[0]));
  EXPECT_EQ(CL_ERR_ARGUMENT, cl_utf8ToUCS2(nullptr, 1, nullptr, &sizes[1]));
  EXPECT_EQ(CL_ERR_ARGUMENT, cl_bytesToString(bytes, 1, nullptr, &sizes[2]));
  for (const uint32_t size : sizes) EXPECT_EQ(0u, size);
  EXPECT_EQ(CL_ERR_ARGUMENT, cl_bytesToString(bytes, 1, text, nullptr));
}

}  // namespace
