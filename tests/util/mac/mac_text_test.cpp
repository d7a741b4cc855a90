#include <gmock/gmock.h>

#include <string>
#include <vector>

#include "msgapi/mac.h"

namespace {

using testing::ElementsAre;

std::string disguised(const char *text, uint32_t mask_all = 0) {
  char out[ORP_MAC_TEXT_SIZE] = "untouched";
  ORP_UTIL_DisguiseMacAddress(mask_all, text, out, sizeof out);
  return out;
}

std::string bi_disguised(std::string text) {
  ORP_UTIL_BIDisguiseMacAddress(text.c_str(), text.data(), ORP_MAC_TEXT_SIZE);
  return text;
}

std::vector<uint8_t> to_bytes(const char *text, char separator) {
  std::vector<uint8_t> mac(ORP_MAC_SIZE, 0xee);
  ORP_UTIL_MacStrToByte(text, separator, mac.data());
  return mac;
}

TEST(ValidateMacAddress, TakesSixTwoDigitOctetsInEitherCaseOnly) {
  struct {
    const char *text;
    uint32_t valid;
    const char *why;
  } const kCases[] = {
      {"00:11:22:33:44:55", 1, "plain"},
      {"aB:cD:eF:Fe:dC:bA", 1, "both cases"},
      {"00:11:22:33:44:5G", 0, "no hexadecimal digit"},
      {"00-11-22-33-44-55", 0, "other separators"},
      {"0:11:22:33:44:555", 0, "right length, octets of other lengths"},
      {"00::1:22:33:44:55", 0, "an empty octet"},
      {"00:11:22:33:44:5", 0, "a digit short"},
      {"00:11:22:33:44:55 ", 0, "a blank behind"},
      {"+0:11:22:33:44:55", 0, "a sign, which number readers take"},
      {nullptr, 0, "null"},
  };

  for (const auto &c : kCases) EXPECT_EQ(c.valid, ORP_UTIL_ValidateMacAddress(c.text)) << c.why;
}

TEST(SecureMacAddress, KeepsTheFirstFourthAndSixthOctet) {
  char out[ORP_MAC_TEXT_SIZE] = "untouched";

  EXPECT_EQ(1u, ORP_UTIL_GetSecureMacAddress("00-11-22-33-44-55", out, sizeof out));
  EXPECT_EQ(1u, ORP_UTIL_GetSecureMacAddress("00:11:22:33:44:55", out, sizeof out - 1));
  EXPECT_STREQ("untouched", out);

  char in_place[] = "aa:bb:cc:dd:ee:ff";
  EXPECT_EQ(0u, ORP_UTIL_GetSecureMacAddress(in_place, in_place, sizeof in_place));
  EXPECT_STREQ("aa:**:**:dd:**:ff", in_place);
}

TEST(DisguiseMacAddress, MasksTheOctetsAndKeepsTheSeparators) {
  EXPECT_EQ("**-**-**-**-**-**", disguised("00-11-22-33-44-55"));
  EXPECT_EQ("**:**:**:**:**:**", disguised(nullptr, 1));
  EXPECT_EQ("untouched", disguised("00:11:22:33:44:5"));

  char in_place[] = "00.11.22.33.44.55";
  ORP_UTIL_DisguiseMacAddress(0, in_place, in_place, sizeof in_place);
  EXPECT_STREQ("**.**.**.**.**.**", in_place);

  ORP_UTIL_DisguiseMacAddress(1, nullptr, in_place, sizeof in_place - 1);
  EXPECT_STREQ("**.**.**.**.**.**", in_place) << "no room";
}

TEST(BiDisguiseMacAddress, ShowsFourOctetsInUpperCase) {
  EXPECT_EQ("00:1A:22:33:**:**", bi_disguised("00:1a:22:33:44:55"));
  EXPECT_EQ("00:1a:22:33:44:5", bi_disguised("00:1a:22:33:44:5")) << "untouched";
  // Parts that cannot be read are never shown as they are.
  EXPECT_EQ("00:00:00:00:**:**", bi_disguised("00-1a-22-33-44-55"));
  EXPECT_EQ("01:00:00:00:**:**", bi_disguised("01:zz:22:33:44:55"));
}

TEST(MacStrToByte, ReadsWithAndWithoutSeparator) {
  EXPECT_THAT(to_bytes("00:1a:22:33:44:FF", ':'), ElementsAre(0x00, 0x1a, 0x22, 0x33, 0x44, 0xff));
  EXPECT_THAT(to_bytes("001A223344fF", 0), ElementsAre(0x00, 0x1a, 0x22, 0x33, 0x44, 0xff));
  EXPECT_THAT(to_bytes("0102", 0), ElementsAre(0x01, 0x02, 0xee, 0xee, 0xee, 0xee));
  EXPECT_THAT(to_bytes("01-02-03-04-05-06-07-08", '-'), ElementsAre(1, 2, 3, 4, 5, 6));

  const auto untouched = ElementsAre(0xee, 0xee, 0xee, 0xee, 0xee, 0xee);
  EXPECT_THAT(to_bytes("00:1a:22:33:44:5", ':'), untouched) << "odd";
  EXPECT_THAT(to_bytes("010203040506070809", 0), untouched) << "18 characters";
  EXPECT_THAT(to_bytes("", ':'), untouched);
}

TEST(HexStr2Bin, ReadsPairsUntilOneDoesNotRead) {
  uint8_t out[4] = {9, 9, 9, 9};

  ORP_UTIL_HexStr2Bin(out, 2, "ABCDEF");
  EXPECT_THAT(out, ElementsAre(0xab, 0xcd, 9, 9)) << "output full";

  // A pair is read as a number, and one digit is enough for a number.
  ORP_UTIL_HexStr2Bin(out, sizeof out, "2g03zz04");
  EXPECT_THAT(out, ElementsAre(0x02, 0x03, 9, 9)) << "stops at zz";

  ORP_UTIL_HexStr2Bin(out, sizeof out, "123");
  EXPECT_THAT(out, ElementsAre(0x02, 0x03, 9, 9));
}

TEST(Macntoa, PrintsLowerCaseIntoEnoughRoom) {
  constexpr uint8_t kMac[ORP_MAC_SIZE] = {0x00, 0x1a, 0x22, 0x33, 0x44, 0xff};
  char out[ORP_MAC_TEXT_SIZE] = "untouched";

  EXPECT_EQ(nullptr, ORP_UTIL_Macntoa(kMac, ORP_MAC_SIZE, out, sizeof out - 1));
  EXPECT_EQ(nullptr, ORP_UTIL_Macntoa(kMac, ORP_MAC_SIZE - 1, out, sizeof out));
  EXPECT_EQ(out, ORP_UTIL_Macntoa(kMac, ORP_MAC_SIZE, out, sizeof out));
  EXPECT_STREQ("00:1a:22:33:44:ff", out);
}

TEST(StripSeparator, CutsSilentlyOrFailsWhereTheOutputEnds) {
  char out[4] = "zzz";

  ORP_UTIL_StripSeparator("a-b-c-d", '-', out, sizeof out);
  ORP_UTIL_StripSeparator("x", '-', out, 0);
  EXPECT_EQ(1u, ORP_UTIL_SaveStripSeparator("a", ':', out, 0));
  EXPECT_STREQ("abc", out);
  EXPECT_EQ(0u, ORP_UTIL_SaveStripSeparator("d:e:f", ':', out, sizeof out));
  EXPECT_STREQ("def", out);
  EXPECT_EQ(1u, ORP_UTIL_SaveStripSeparator("a:b:c:d", ':', out, sizeof out));
  EXPECT_THAT(out, ElementsAre(0, 0, 0, 0));
}

}  // namespace
