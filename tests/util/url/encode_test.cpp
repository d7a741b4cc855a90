#include <gtest/gtest.h>

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

std::string every_byte() {
  std::string text;
  for (int byte = 1; byte < 256; ++byte) text.push_back(static_cast<char>(byte));
  return text;
}

// What a byte becomes, said in another way than the encoders' tables do.
std::string expected_code(char byte, const char *kept, bool upper) {
  if (std::isalnum(static_cast<unsigned char>(byte)) || std::strchr(kept, byte) != nullptr) {
    return {byte};
  }
  char code[4];
  std::snprintf(code, sizeof code, upper ? "%%%02X" : "%%%02x", static_cast<unsigned char>(byte));
  return code;
}

TEST(UrlEncode, EscapesAllButUnreservedBytesInUpperCase) {
  std::string expected;
  for (const char byte : every_byte()) {
    expected += byte == ' ' ? "+" : expected_code(byte, "-_.~*'()", true);
  }

  EXPECT_EQ(expected, take(ORP_UTIL_UrlEncode(every_byte().c_str())));
  EXPECT_EQ("a+b%26", take(ORP_UTIL_UrlEncode("a b&")));
  EXPECT_EQ("", take(ORP_UTIL_UrlEncode("")));
  EXPECT_EQ(nullptr, ORP_UTIL_UrlEncode(nullptr));
}

TEST(EscapedUri, KeepsReservedBytesAndEscapesTheRestInLowerCase) {
  std::string expected;
  for (const char byte : every_byte()) {
    expected += expected_code(byte, "!#$&'()*+,/:;=?@-._~", false);
  }

  EXPECT_EQ(expected, take(ORP_UTIL_GetEscapedUri(every_byte().c_str())));
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

TEST(UrlEncoders, TreatLongTextsAsShortOnes) {
  // Around the size up to which texts are encoded on the stack.
  for (size_t size = 250; size < 260; ++size) {
    std::string form, uri;
    for (size_t i = 0; i < size; ++i) form += "%FF", uri += "%ff";
    const std::string text(size, '\xff');
    EXPECT_EQ(form, take(ORP_UTIL_UrlEncode(text.c_str())));
    EXPECT_EQ(uri, take(ORP_UTIL_GetEscapedUri(text.c_str())));
  }
}

}  // namespace
