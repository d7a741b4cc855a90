#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "msgapi/url.h"
#include "support/allocation.h"

namespace {

std::string take(char *text) {
  const std::string copy = text == nullptr ? "(null)" : text;
  std::free(text);
  return copy;
}

// One of every kind of byte, and the ends of each range.
constexpr const char *kBytes = "\x01 !\"#$%&'()*+,-./09:;<=>?@AZ[\\]^_`az{|}~\x7f\x80\xff";

TEST(UrlEncode, EscapesAllButUnreservedBytesInUpperCase) {
  EXPECT_EQ(
      "%01+%21%22%23%24%25%26'()*%2B%2C-.%2F09%3A%3B%3C%3D%3E%3F%40AZ%5B%5C%5D%5E_%60az%7B%7C%7D~"
      "%7F%80%FF",
      take(ORP_UTIL_UrlEncode(kBytes)));
  EXPECT_EQ("", take(ORP_UTIL_UrlEncode("")));
}

TEST(EscapedUri, KeepsReservedBytesAndEscapesTheRestInLowerCase) {
  EXPECT_EQ("%01%20!%22#$%25&'()*+,-./09:;%3c=%3e?@AZ%5b%5c%5d%5e_%60az%7b%7c%7d~%7f%80%ff",
            take(ORP_UTIL_GetEscapedUri(kBytes)));
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
  EXPECT_EQ(nullptr, ORP_UTIL_UrlEncode(std::string(0x800000, 'a').c_str()));
  // The limit is for the room that the longest result could take.
  EXPECT_EQ(nullptr, ORP_UTIL_GetEscapedUri(std::string(0x2AAAAB, 'a').c_str()));
}

// Texts of more than 256 bytes are not encoded on the stack.
TEST(UrlEncoders, LeaveNothingBehindWithoutMemory) {
  const std::string text(257, '\xff');

  for (auto *encode : {ORP_UTIL_UrlEncode, ORP_UTIL_GetEscapedUri}) {
    test::fail_every_allocation(
        [&] { return take(encode(text.c_str())).size() == 3 * text.size(); });
  }
}

}  // namespace
