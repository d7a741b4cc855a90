#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "msgapi/charset.h"

namespace {

using Units = std::vector<uint16_t>;

template <typename Out>
struct Coded {
  uint32_t status;
  std::vector<Out> out;
  bool terminated;

  std::string text() const { return {out.begin(), out.end()}; }
};

// A codec's result for `in`, in a buffer of exactly `capacity` for the memory checker.
template <typename In, typename Out>
Coded<Out> code(uint32_t (*codec)(const In *, uint32_t, Out *, uint32_t *), const In *in,
                size_t count, uint32_t capacity) {
  const std::unique_ptr<Out[]> out(new Out[capacity]);
  std::fill_n(out.get(), capacity, Out{'o'});
  uint32_t size = capacity;
  const uint32_t status = codec(in, static_cast<uint32_t>(count), out.get(), &size);
  return {status, {out.get(), out.get() + size}, size < capacity && out[size] == 0};
}

TEST(Ucs2ToUtf8, EncodesEachUnitAndKeepsRoomForTheNul) {
  const struct {
    const char *why;
    Units units;
    uint32_t capacity, status;
    const char *text;
  } kCases[] = {
      {"up to 2 bytes", {0x7F, 0x80, 0x7FF}, 9, CL_OK, "\x7f\xc2\x80\xdf\xbf"},
      {"3 bytes", {0x800, 0xFFFF}, 9, CL_OK, "\xe0\xa0\x80\xef\xbf\xbf"},
      {"surrogates by themselves", {0xD801, 0xDC00}, 9, CL_OK, "\xed\xa0\x81\xed\xb0\x80"},
      {"stops at a zero", {'a', 0, 'b'}, 9, CL_OK, "a"},
      {"exact room", {0x4E2D}, 4, CL_OK, "\xe4\xb8\xad"},
      {"no room for the NUL", {0x4E2D}, 3, CL_ERR_ROOM, ""},
      {"whole characters only", {'a', 0x4E2D, 0x4E2D}, 6, CL_ERR_ROOM, "a\xe4\xb8\xad"},
      {"as many units as bytes", {'a', 'b', 'c'}, 3, CL_ERR_ROOM, "ab"},
  };

  for (const auto &[why, units, capacity, status, text] : kCases) {
    SCOPED_TRACE(why);
    const auto coded = code(CL_Ucs2ToUtf8, units.data(), units.size(), capacity);
    EXPECT_EQ(status, coded.status);
    EXPECT_EQ(text, coded.text());
    EXPECT_TRUE(coded.terminated);
  }
}

TEST(Ucs2ToUtf8, ByLengthConvertsWhatFits) {
  const Units units = {'a', 0x4E2D, 'b', 'c', 'd'};
  const char *const kTexts[] = {"", "a", "a", "a", "a\xe4\xb8\xad"};
  for (uint32_t size = 1; size <= 5; ++size) {
    const std::unique_ptr<char[]> out(new char[size]);
    EXPECT_EQ(CL_ERR_ROOM, CL_Ucs2ToUtf8ByLen(units.data(), 5, out.get(), size));
    EXPECT_STREQ(kTexts[size - 1], out.get());
  }
  char text[8];
  EXPECT_EQ(CL_OK, cl_ucs2ToUTF8ByLen(units.data(), 5, text, 8));
  EXPECT_STREQ("a\xe4\xb8\xad\x62\x63\x64", text);
  EXPECT_EQ(CL_ERR_ROOM, CL_Ucs2ToUtf8ByLen(units.data(), 5, text, 0));
}

const Units kEight = {'a', 'b', 'c', 'd', 'e', 'f', 'g', 'h'};

TEST(Utf8ToUcs2, DecodesUpToSixBytes) {
  const struct {
    const char *why;
    std::string text;
    uint32_t status;
    Units units;
  } kCases[] = {
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

  for (const auto &[why, text, status, units] : kCases) {
    SCOPED_TRACE(why);
    const auto coded = code(CL_Utf8ToUcs2, text.data(), text.size(), 30);
    EXPECT_EQ(status, coded.status);
    EXPECT_EQ(units, coded.out);
    EXPECT_TRUE(coded.terminated);
  }
}

TEST(Utf8ToUcs2, FillsItsBufferToTheLastUnit) {
  EXPECT_EQ(CL_OK, code(CL_Utf8ToUcs2, "abcdefgh", 8, 8).status);
  const auto full = code(CL_Utf8ToUcs2, "abcdefghi", 9, 8);
  EXPECT_EQ(CL_ERR_ROOM, full.status);
  EXPECT_EQ(kEight, full.out);
  EXPECT_EQ(CL_ERR_ROOM, code(CL_Utf8ToUcs2, "abc", 3, 0).status);
}

TEST(Utf8, BringsEveryUnitBackFromBetweenRunsOfAscii) {
  Units units;
  for (uint32_t unit = 1; unit <= 0xFFFF; ++unit) {
    units.push_back(static_cast<uint16_t>(unit));
    // ASCII is copied in words; these shift the words' positions.
    units.insert(units.end(), unit % 11, 'a');
  }
  const auto count = static_cast<uint32_t>(units.size());

  const auto encoded = code(CL_Ucs2ToUtf8, units.data(), count, 3 * count);
  ASSERT_EQ(CL_OK, encoded.status);
  EXPECT_TRUE(units == code(CL_Utf8ToUcs2, encoded.out.data(), encoded.out.size(), count).out);
}

TEST(ByteOrder, IsBigEndianWhateverTheHostIs) {
  const Units units = {0x1234, 0xABCD};
  const uint8_t pairs[] = {0x12, 0x34, 0xAB, 0xCD, 0xEF};
  const auto bytes =
      code(CL_WideCharToByteOrder, reinterpret_cast<const uint8_t *>(units.data()), 2, 4);
  EXPECT_EQ(std::vector<uint8_t>(pairs, pairs + 4), bytes.out);

  const auto back = code(CL_ByteOrderToWideChar, pairs, 5, 3);
  EXPECT_EQ(units, back.out);
  EXPECT_TRUE(back.terminated);
}

TEST(Codecs, ProduceNothingWithTooLittleRoomOrArguments) {
  const uint16_t units[4] = {'a'};
  uint8_t bytes[8] = {};
  EXPECT_TRUE(code(CL_Ucs2ToUtf8, units, 4, 3).out.empty()) << "whatever the units are";
  EXPECT_EQ(CL_ERR_ROOM, code(CL_Ucs2ToUtf8, units, 4, 3).status);
  EXPECT_EQ(CL_ERR_ROOM, code(cl_widecharToByteOrder, bytes, 2, 3).status);
  EXPECT_EQ(CL_ERR_ROOM, code(cl_byteOrderToWideChar, bytes, 4, 2).status);
  EXPECT_EQ(CL_ERR_ROOM, code(cl_bytesToString, bytes, 3, 6).status);
  // Twice these counts would wrap.
  EXPECT_EQ(CL_ERR_ROOM, code(CL_WideCharToByteOrder, bytes, 0x80000001, 2).status);
  EXPECT_EQ(CL_ERR_ROOM, code(CL_BytesToString, bytes, 0x80000001, 3).status);

  EXPECT_EQ(CL_ERR_ARGUMENT, code(cl_ucs2ToUTF8, units, 0, 8).status);
  EXPECT_TRUE(code(cl_ucs2ToUTF8, units, 0, 8).out.empty());
  EXPECT_EQ(CL_ERR_ARGUMENT, code(cl_utf8ToUCS2, static_cast<const char *>(nullptr), 1, 8).status);
  EXPECT_EQ(CL_ERR_ARGUMENT, cl_bytesToString(bytes, 1, reinterpret_cast<char *>(bytes), nullptr));
}

TEST(HexText, IsWrittenInUpperCase) {
  const uint8_t bytes[] = {0x0B, 0xAF};
  const auto coded = code(CL_BytesToString, bytes, 2, 5);
  EXPECT_EQ("0BAF", coded.text());
  EXPECT_TRUE(coded.terminated);
}

TEST(HexText, IsReadWithoutValidation) {
  const struct {
    const char *why;
    std::string text;
    uint32_t count, capacity, status;
    std::string bytes;
  } kCases[] = {
      {"both cases", "9aBF", 4, 2, CL_OK, "\x9a\xbf"},
      {"stops at a NUL", "9a", 6, 3, CL_OK, "\x9a"},
      {"too little room", "9aBF", 4, 1, CL_ERR_ROOM, ""},
      {"an odd count takes the next character", "9aBF", 3, 2, CL_OK, "\x9a\xbf"},
      {"no room for the odd digit", "9aB", 3, 1, CL_ERR_ROOM, "\x9a"},
      {"meaningless by arithmetic", "g1G1", 4, 2, CL_OK, "\x01\x01"},
  };
  for (const auto &[why, text, count, capacity, status, bytes] : kCases) {
    // As long as the count says, with one more character for an odd count.
    std::vector<char> exact(text.begin(), text.end());
    exact.resize(count + count % 2);
    const auto coded = code(CL_StringToBytes, exact.data(), count, capacity);
    EXPECT_EQ(status, coded.status) << why;
    EXPECT_EQ(bytes, coded.text()) << why;
  }
}

TEST(StringToNumeric, ForgivesAHexSlipOnlyBeforeAGoodDigit) {
  const struct {
    std::string text;
    uint32_t base, status, value;
  } kCases[] = {
      {"4294967296", 10, CL_OK, 0},        {"12a", 10, CL_ERR_ARGUMENT, 12},
      {"DeadBeef", 16, CL_OK, 0xDEADBEEF}, {"1g2", 16, CL_OK, 0x12},
      {"12g", 16, CL_ERR_ARGUMENT, 0x12},  {"12", 8, CL_ERR_BASE, 0},
  };
  uint32_t value = 99;
  for (const auto &[text, base, status, expected] : kCases) {
    const auto count = static_cast<uint32_t>(text.size());
    EXPECT_EQ(status, CL_StringToNumeric(text.data(), count, base, &value)) << text;
    EXPECT_EQ(expected, value) << text;
  }
  EXPECT_EQ(CL_OK, cl_stringToNumeric("129", 2, 10, &value));
  EXPECT_EQ(12u, value);
  EXPECT_EQ(CL_ERR_ARGUMENT, CL_StringToNumeric(nullptr, 1, 8, &value)) << "before the base";
}

}  // namespace
