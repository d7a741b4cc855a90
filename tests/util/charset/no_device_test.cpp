#include <gtest/gtest.h>

#include <string>

#include "msgapi/charset.h"

namespace {

TEST(NoDevice, MakesEveryConversionFail) {
  EXPECT_EQ(ORP_NLS_NO_LENGTH, ORP_NLS_ConvertGetLength("utf8", "a", 1, "cp936", 1));
  EXPECT_EQ(nullptr, ORP_NLS_IconvConvert("a", "utf8", "cp936"));
  EXPECT_EQ(nullptr, ORP_NLS_TryConvertToUtf8("a"));
  const char *const text = "\xd6\xd0";
  EXPECT_EQ(text, ORP_NLS_TryConvertToUtf8NoFree(text));
}

TEST(NoDevice, IsNotNeededToSayWhichNameIsTooLong) {
  const std::string longest(31, 'x'), longer(32, 'x');
  testing::internal::CaptureStdout();

  EXPECT_EQ(ORP_NLS_NO_LENGTH,
            ORP_NLS_ConvertGetLength(longest.c_str(), "a", 1, longest.c_str(), 1));
  EXPECT_EQ(ORP_NLS_NO_LENGTH, ORP_NLS_ConvertGetLength(longer.c_str(), "a", 1, "utf8", 1));
  EXPECT_EQ(nullptr, ORP_NLS_ConvertString("utf8", "a", 1, longer.c_str(), nullptr));

  EXPECT_EQ(
      "ORP_NLS_ConvertGetLength copy inputEncoding error."
      "ORP_NLS_ConvertGetLength copy outputEncoding error.",
      testing::internal::GetCapturedStdout());
}

TEST(IsStringUtf8, AcceptsUpToThreeBytes) {
  for (const char *text : {"", "abc", "\u00df", "\u4e2d\u6587", "\xc0\x80", "\xed\xa0\x80"}) {
    EXPECT_EQ(1u, ORP_NLS_IsStringUtf8(text)) << text;
  }
  EXPECT_EQ(1u, ORP_NLS_IsStringUtf8(nullptr));
  for (const char *text : {"\x80", "a\xbf", "\xc2", "\xc2 ", "\xe4\xb8", "\xe4\xb8 ", "\xe4 \xb8",
                           "\xf0\x9f\x98\x80", "\xff"}) {
    EXPECT_EQ(0u, ORP_NLS_IsStringUtf8(text)) << text;
  }
}

}  // namespace
