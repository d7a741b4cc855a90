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
  const std::string result = text == nullptr ? "" : text;
  EXPECT_EQ(result.size(), length);
  std::free(text);
  return result;
}

std::string decode(std::string_view text) {
  void *data;
  const uint32_t size =
      ORP_UTIL_Base64Decode(text.data(), static_cast<uint32_t>(text.size()), &data);
  EXPECT_EQ(data == nullptr, size == 0);
  const std::string result(static_cast<const char *>(data), size);
  std::free(data);
  return result;
}

// The vectors of RFC 4648 section 10, and bytes for the ends of the alphabet's ranges.
TEST(Base64, EncodesAndDecodesTheStandardVectors) {
  constexpr std::string_view kVectors[][2] = {{"", ""},
                                              {"f", "Zg=="},
                                              {"fo", "Zm8="},
                                              {"foo", "Zm9v"},
                                              {"foob", "Zm9vYg=="},
                                              {"fooba", "Zm9vYmE="},
                                              {"foobar", "Zm9vYmFy"},
                                              {"\xfb\xff", "+/8="},
                                              {{"\0\0\0", 3}, "AAAA"},
                                              {"\xff\xff\xff", "////"}};
  for (const auto &[data, text] : kVectors) {
    EXPECT_EQ(text, encode(data));
    EXPECT_EQ(data, decode(text));
  }
}

TEST(Base64, RefusesWhatIsNotStrictlyEncoded) {
  // Padding that is missing, alone or in the middle; bits behind the last byte; foreign characters.
  for (const char *text : {"Zg", "Zg=", "Z===", "====", "Zg==Zg==", "Zh==", "Zm9=", "Zm 9v===",
                           "Zm9v\n", "Zm9-", "Zm9\x80"}) {
    EXPECT_EQ("", decode(text)) << text;
  }
}

}  // namespace
