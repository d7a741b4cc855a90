#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <string_view>

#include "orputil.h"

namespace {

std::string encode(std::string_view data) {
  char *text;
  const uint32_t length =
      ORP_UTIL_Base64Encode(data.data(), static_cast<uint32_t>(data.size()), &text);
  std::string result = text == nullptr ? "" : text;
  EXPECT_EQ(result.size(), length);
  std::free(text);
  return result;
}

std::string decode(std::string_view text) {
  void *data;
  const uint32_t size =
      ORP_UTIL_Base64Decode(text.data(), static_cast<uint32_t>(text.size()), &data);
  EXPECT_EQ(data == nullptr, size == 0);
  std::string result(static_cast<const char *>(data), size);
  std::free(data);
  return result;
}

// The vectors of RFC 4648 section 10, and bytes that use all of the alphabet's ends.
TEST(Base64, EncodesAndDecodesTheStandardVectors) {
  constexpr struct {
    std::string_view data, text;
  } kVectors[] = {
      {"f", "Zg=="},        {"fo", "Zm8="},          {"foo", "Zm9v"},
      {"foob", "Zm9vYg=="}, {"fooba", "Zm9vYmE="},   {"foobar", "Zm9vYmFy"},
      {"\xfb\xff", "+/8="}, {{"\0\0\0", 3}, "AAAA"}, {"\xff\xff\xff", "////"},
  };

  for (const auto &[data, text] : kVectors) {
    EXPECT_EQ(text, encode(data));
    EXPECT_EQ(data, decode(text));
  }
}

TEST(Base64, RefusesWhatIsNotStrictlyEncoded) {
  constexpr struct {
    std::string_view text, reason;
  } kBad[] = {
      {"", "empty"},
      {"Zg", "no padding"},
      {"Zg=", "half the padding"},
      {"Zh==", "bits behind the last byte"},
      {"Zm9=", "bits behind the last byte"},
      {"Z===", "six bits only"},
      {"====", "padding only"},
      {"Zg==Zg==", "padding inside"},
      {"Zm 9v===", "white space"},
      {"Zm9v\n", "line end"},
      {"Zm9-", "the URL alphabet"},
      {"Zm9\x80", "eighth bit"},
  };

  for (const auto &[text, reason] : kBad) EXPECT_EQ("", decode(text)) << reason;
}

TEST(Base64, HandsOverNothingForNothing) {
  char *text = const_cast<char *>("old");
  void *data = text;

  EXPECT_EQ(0u, ORP_UTIL_Base64Encode("a", 0, &text));
  EXPECT_EQ(nullptr, text);
  EXPECT_EQ(0u, ORP_UTIL_Base64Decode(nullptr, 4, &data));
  EXPECT_EQ(nullptr, data);
  EXPECT_EQ(0u, ORP_UTIL_Base64Encode("a", 1, nullptr));
}

}  // namespace
