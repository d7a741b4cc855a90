// Linked with the library that stands in for the conversion device.

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <cstdlib>
#include <string>

#include "msgapi/charset.h"
#include "support/allocation.h"
#include "support/fd_check.h"

namespace {

std::string take(char *text) {
  const std::string copy = text == nullptr ? "(null)" : text;
  std::free(text);
  return copy;
}

TEST(Convert, TurnsCodePagesIntoUtf8AndBack) {
  EXPECT_EQ("\u4e2d\u6587", take(ORP_NLS_IconvConvert("\xd6\xd0\xce\xc4", "utf8", "cp936")));
  EXPECT_EQ("\xd6\xd0", take(ORP_NLS_GbConvert("\u4e2d", "cp936", "utf8")));
  EXPECT_EQ("\u4e2d\u6587", take(ORP_NLS_GB2312Convert("\xa4\xa4\xa4\xe5", "utf8", "cp950")));
  EXPECT_EQ("(null)", take(ORP_NLS_GbConvert("a", "utf8", "no-such-encoding")));
  EXPECT_EQ("(null)", take(ORP_NLS_GbConvert("a", nullptr, "cp936")));
}

TEST(Convert, HandsOutTheLengthAndANulBehindIt) {
  uint32_t length = 9;
  char *text = ORP_NLS_ConvertString("cp936", "\xd6\xd0", 2, "utf8", &length);

  ASSERT_NE(nullptr, text);
  EXPECT_EQ(3u, length);
  EXPECT_STREQ("\u4e2d", text);
  std::free(text);
  EXPECT_EQ(nullptr, ORP_NLS_ConvertString("cp936", "", 0, "utf8", &length));
  EXPECT_EQ(0u, length);
}

TEST(Convert, MeasuresPartlyOnlyWhenAsked) {
  EXPECT_EQ(3u, ORP_NLS_ConvertGetLength("cp936", "\xd6\xd0", 2, "utf8", 0));
  EXPECT_EQ(ORP_NLS_NO_LENGTH, ORP_NLS_ConvertGetLength("utf8", "ab\xff", 3, "cp936", 0));
  EXPECT_EQ(2u, ORP_NLS_ConvertGetLength("utf8", "ab\xff", 3, "cp936", 1));
  EXPECT_EQ(ORP_NLS_NO_LENGTH, ORP_NLS_ConvertGetLength("utf8", "ab", 2, "no-such-encoding", 1));
  // A character that the output encoding lacks is unclean, but convertible.
  EXPECT_EQ(ORP_NLS_NO_LENGTH, ORP_NLS_ConvertGetLength("utf8", "\u4e2d", 3, "iso8859-1", 0));
  EXPECT_EQ("?", take(ORP_NLS_ConvertString("utf8", "\u4e2d", 3, "iso8859-1", nullptr)));
}

TEST(Convert, OpensTheDeviceOnceAndTriesAgainAfterAFailure) {
  rlimit limit;
  ASSERT_EQ(0, ::getrlimit(RLIMIT_NOFILE, &limit));
  const rlimit none = {0, limit.rlim_max};
  ASSERT_EQ(0, ::setrlimit(RLIMIT_NOFILE, &none));
  EXPECT_EQ(nullptr, ORP_NLS_GbConvert("a", "utf8", "cp936"));
  ASSERT_EQ(0, ::setrlimit(RLIMIT_NOFILE, &limit));

  const size_t before = test::open_descriptors().size();
  EXPECT_EQ(1u, test::fail_every_allocation(
                    [] { return take(ORP_NLS_GbConvert("a", "utf8", "cp936")) == "a"; }));
  EXPECT_EQ(before + 1, test::open_descriptors().size());
}

TEST(GuessEncoding, TakesTheFirstThatFits) {
  EXPECT_EQ("\u4e2d", take(ORP_NLS_TryConvertToUtf8("\u4e2d")));
  EXPECT_EQ("\u4e2d", take(ORP_NLS_TryConvertToUtf8("\xd6\xd0")));
  // These mean nothing in cp936.
  EXPECT_EQ("\u4e00", take(ORP_NLS_TryConvertToUtf8("\xa4\x40")));
  EXPECT_EQ("\u00ff\u00fe", take(ORP_NLS_TryConvertToUtf8("\xff\xfe")));
}

TEST(GuessEncoding, KeepsItsLastResult) {
  const char *first = ORP_NLS_TryConvertToUtf8NoFree("\xd6\xd0");
  EXPECT_STREQ("\u4e2d", first);
  // The text that was kept may itself be the input.
  const char *second = ORP_NLS_TryConvertToUtf8NoFree(first);
  EXPECT_STREQ("\u4e2d", second);
  EXPECT_EQ(nullptr, ORP_NLS_TryConvertToUtf8NoFree(nullptr));
  EXPECT_STREQ("\u4e2d", second);
}

}  // namespace
