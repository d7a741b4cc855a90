#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>

#include "msgapi/url.h"
#include "support/allocation.h"

namespace {

std::string take(char *text) {
  const std::string copy = text == nullptr ? "(null)" : text;
  std::free(text);
  return copy;
}

// Every byte, longer than what is encoded on the stack.
std::string every_byte() {
  std::string text;
  for (int i = 0; i < 300; ++i) text.push_back(static_cast<char>(i % 255 + 1));
  return text;
}

// What every_byte() becomes, said in another way than the encoders' tables do.
std::string expected_code(const char *kept, bool upper) {
  std::string text;
  for (const char byte : every_byte()) {
    if (std::isalnum(static_cast<unsigned char>(byte)) || std::strchr(kept, byte) != nullptr) {
      text += byte;
    } else {
      char code[4];
      const auto value = static_cast<unsigned char>(byte);
      std::snprintf(code, sizeof code, upper ? "%%%02X" : "%%%02x", value);
      text += code;
    }
  }
  return text;
}

TEST(UrlEncode, EscapesAllButUnreservedBytesInUpperCase) {
  std::string expected = expected_code("-_.~*'() ", true);
  std::replace(expected.begin(), expected.end(), ' ', '+');

  EXPECT_EQ(expected, take(ORP_UTIL_UrlEncode(every_byte().c_str())));
  EXPECT_EQ("a+b%26", take(ORP_UTIL_UrlEncode("a b&")));
  EXPECT_EQ("", take(ORP_UTIL_UrlEncode("")));
}

TEST(EscapedUri, KeepsReservedBytesAndEscapesTheRestInLowerCase) {
  EXPECT_EQ(expected_code("!#$&'()*+,/:;=?@-._~", false),
            take(ORP_UTIL_GetEscapedUri(every_byte().c_str())));
  // As long as what is still encoded on the stack can become.
  const std::string longest(256, '\xff');
  EXPECT_EQ(3 * longest.size(), take(ORP_UTIL_GetEscapedUri(longest.c_str())).size());
  EXPECT_EQ("/", take(ORP_UTIL_GetEscapedUri("")));
  EXPECT_EQ("/", take(ORP_UTIL_GetEscapedUri(nullptr)));
}

TEST(EscapedUri, LeavesExistingEscapesAlone) {
  EXPECT_EQ("/%41%4a%fF", take(ORP_UTIL_GetEscapedUri("/%41%4a%fF")));
  EXPECT_EQ("%254", take(ORP_UTIL_GetEscapedUri("%4")));
  EXPECT_EQ("%25", take(ORP_UTIL_GetEscapedUri("%")));
  EXPECT_EQ("%254g%25%41", take(ORP_UTIL_GetEscapedUri("%4g%%41")));
}

TEST(UrlEncoders, RefuseWhatTheAllocatorRefuses) {
  testing::internal::CaptureStdout();

  EXPECT_EQ(nullptr, ORP_UTIL_UrlEncode(std::string(0x800000, 'a').c_str()));
  // Judged by the room that the longest result would take.
  EXPECT_EQ(nullptr, ORP_UTIL_GetEscapedUri(std::string(0x2AAAAB, 'a').c_str()));
  EXPECT_EQ(
      "error: not host tool, but malloc 4M, return NULL, malloc len=8388609\n"
      "error: not host tool, but malloc 4M, return NULL, malloc len=8388610\n",
      testing::internal::GetCapturedStdout());
  EXPECT_EQ(0x2AAAAAu, take(ORP_UTIL_GetEscapedUri(std::string(0x2AAAAA, 'a').c_str())).size());
}

TEST(UrlEncoders, LeaveNothingBehindWithoutMemory) {
  const auto failures = [](char *(*encode)(const char *), const std::string &text) {
    return test::fail_every_allocation([&] { return take(encode(text.c_str())) != "(null)"; });
  };

  EXPECT_EQ(1u, failures(ORP_UTIL_UrlEncode, "a b"));
  EXPECT_EQ(1u, failures(ORP_UTIL_UrlEncode, std::string(300, ' ')));
  EXPECT_EQ(1u, failures(ORP_UTIL_GetEscapedUri, "a b"));
  EXPECT_EQ(2u, failures(ORP_UTIL_GetEscapedUri, std::string(300, ' ')));
}

}  // namespace
