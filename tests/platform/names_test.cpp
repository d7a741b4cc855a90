#include <gtest/gtest.h>

#include <ctime>
#include <set>

#include "orputil.h"

namespace {

constexpr const char *kNames[] = {"http", "https"};
constexpr const char *kMore[] = {"mqtt", nullptr};
constexpr ORP_STR_IDX kTable[] = {{"cms", 8}, {"web", 26}, {"www", 26}, {nullptr, 99}};

TEST(NamesByIndex, GoOnInTheExtension) {
  EXPECT_EQ(1u, ORP_UTIL_GetIdxFromStr("HTTPS", kNames, 2, kMore));
  EXPECT_EQ(2u, ORP_UTIL_GetIdxFromStr("Mqtt", kNames, 2, kMore));
  EXPECT_STREQ("http", ORP_UTIL_GetStrFromIdx(0, kNames, 2, kMore));
  EXPECT_STREQ("mqtt", ORP_UTIL_GetStrFromIdx(2, kNames, 2, kMore));
}

TEST(NamesByIndex, AreNotFoundBeyondTheirEnds) {
  EXPECT_EQ(0xFFFFFFFF, ORP_UTIL_GetIdxFromStr("http2", kNames, 2, kMore));
  EXPECT_EQ(0xFFFFFFFF, ORP_UTIL_GetIdxFromStr("mqtt", kNames, 2, nullptr));
  EXPECT_EQ(0xFFFFFFFF, ORP_UTIL_GetIdxFromStr(nullptr, kNames, 2, kMore));
  EXPECT_EQ(nullptr, ORP_UTIL_GetStrFromIdx(3, kNames, 2, kMore));
  EXPECT_EQ(nullptr, ORP_UTIL_GetStrFromIdx(0xFFFFFFFF, kNames, 2, kMore));
  EXPECT_EQ(nullptr, ORP_UTIL_GetStrFromIdx(2, kNames, 2, nullptr));
}

TEST(NameTable, IsSearchedExactlyAndEndsWithItsOwnNumber) {
  EXPECT_EQ(26u, ORP_UTIL_StrIdxArrayGetIdxByStr(kTable, "www"));
  EXPECT_EQ(99u, ORP_UTIL_StrIdxArrayGetIdxByStr(kTable, "WWW"));
  EXPECT_EQ(99u, ORP_UTIL_StrIdxArrayGetIdxByStr(kTable, nullptr));
  EXPECT_STREQ("web", ORP_UTIL_StrIdxArrayGetStrByIdx(kTable, 26));
  EXPECT_EQ(nullptr, ORP_UTIL_StrIdxArrayGetStrByIdx(kTable, 99));
}

TEST(RandomNumber, Differs) {
  std::set<uint32_t> seen;
  for (int i = 0; i < 8; ++i) {
    uint32_t value = 0;
    ASSERT_EQ(0u, ORP_UTIL_GetRandomNumber(&value));
    seen.insert(value);
  }

  EXPECT_LT(6u, seen.size());
}

TEST(UtcTime, IsNow) {
  const time_t before = ::time(nullptr);
  const char *text = ORP_UTIL_GetUtcTimeWithFormat();

  tm parsed{};
  ASSERT_NE(nullptr, text);
  ASSERT_STREQ("", ::strptime(text, "%Y-%m-%dT%H:%M:%SZ", &parsed));
  EXPECT_LE(before, ::timegm(&parsed));
  EXPECT_GE(::time(nullptr), ::timegm(&parsed));
}

}  // namespace
