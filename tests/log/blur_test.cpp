#include "msgapi/blur.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <string>

#include "support/fd_check.h"
#include "support/file.h"

namespace {

// blur_patterns_test.cpp compares the patterns with their expressions.
TEST(MlogBlurString, MaskForms) {
  struct {
    int32_t (*blur)(char *, uint32_t);
    const char *text;
    const char *masked;
  } const cases[] = {
      {MlogBlurString, "00:11:22:33:44:55", "00:**:**:33:**:55"},
      {MlogBlurString, "1234.5.6.7890", "1234.*.*.7890"},  // a number takes the last three digits
      {MlogBlurString, "ABCDEFGHIJKLMNOPQ", "A*C*E*G*I*K*M*O*Q"},
      {MlogBlurString, "01234567-89ab-cdef-0123-456789abcdef",
       "01234567-89ab-cdef-0123-45****ab**ef"},
      {MlogBlurString, "hwaddr: 001122334455", "hwaddr: 00****33**55"},
      {MlogBlurString, "AAAABBBBCCCCDDDD-1.2.3.4 ::", "A*A*B*B*C*C*D*D*-1.*.*.4 ::"},
      {MlogBlurIpv6String, "at 2001:db8::1, ::: and 12:30:45", "at ***********, **: and 12:30:45"},
      {MlogBlurIpv6String, "12345::67890", "1**********0"},      // a group has four digits
      {MlogBlurIpv6String, "1:2:3:4:5:6:7:", "************7:"},  // six groups need no more
  };
  for (const auto &[blur, text, masked] : cases) {
    std::string blurred(text);
    EXPECT_EQ(0, blur(blurred.data(), static_cast<uint32_t>(blurred.size())));
    EXPECT_EQ(masked, blurred);
  }
}

TEST(MlogBlurString, BeginsNoSearchBehindItsLength) {
  char text[] = "10.0.0.1 10.0.0.2 10.0.0.3";

  // The first search begins at 0 and the second at 8, where the first match ended.
  EXPECT_EQ(0, MlogBlurString(text, 8));

  EXPECT_STREQ("10.*.*.1 10.*.*.2 10.0.0.3", text);
  EXPECT_EQ(-1, MlogBlurString(text, 0));
  EXPECT_EQ(-1, MlogBlurString(nullptr, 1));
  EXPECT_EQ(-1, MlogBlurIpv6String(text, 0));
  EXPECT_EQ(-1, MlogBlurIpv6String(nullptr, 1));
}

TEST(BlurValues, MaskForms) {
  struct {
    const char *(*blur)(const char *);
    const char *text;
    const char *masked;
  } const cases[] = {
      {ORP_BLUR_Mac, "00:11:22:33:44:55", "**:**:**:**:**:**"},
      {ORP_BLUR_Mac, "00-11-22-33-44-55", "*****************"},
      // Everything behind the address goes, too.
      {ORP_BLUR_Mac, "a 00:11:22:33:44:55 b:c", "a **:**:**:**:**:****:*"},
      {ORP_BLUR_Ip, "10.0.0.1 and fe80::1!", "**.*.*.* and *******!"},
      {ORP_BLUR_Ipv6, "10.0.0.1 and fe80::1!", "10.0.0.1 and *******!"},
      {ORP_BLUR_Uuid, "01234567-89ab-cdef-0123-456789abcdef",
       "01234567-89ab-cdef-0123-************"},
      {ORP_BLUR_Uuid, "89ab-cdef-0123-456789abcdef0", "89ab-cdef-0123-************0"},
      {ORP_BLUR_UsbAccount, "admin", "a******n"},
      {ORP_BLUR_UsbAccount, "ab", "a******b"},
      {ORP_BLUR_UsbAccount, "a", "a******"},
      {ORP_BLUR_UsbAccount, "", ""},
      {ORP_BLUR_Ssid, "home", "h**e"},
      {ORP_BLUR_Ssid, "abc", "a*c"},
      {ORP_BLUR_Ssid, "ab", "ab"},
      {ORP_BLUR_Ssid, "0123456789012345678901234567890123X", "0*********************************X"},
      {ORP_BLUR_Ssid, "0123456789012345678901234567890123XY",
       "0*********************************X"},
  };
  for (const auto &c : cases) EXPECT_STREQ(c.masked, c.blur(c.text)) << c.text;
  for (const auto &c : cases) EXPECT_STREQ("", c.blur(nullptr));
}

TEST(BlurValues, OfTheLastResult) {
  EXPECT_STREQ("a******n", ORP_BLUR_UsbAccount(ORP_BLUR_UsbAccount("admin")));
  EXPECT_STREQ("h**e", ORP_BLUR_Ssid(ORP_BLUR_Ssid("home")));
  EXPECT_STREQ("**.*.*.* ***", ORP_BLUR_Ipv6(ORP_BLUR_Ip("10.0.0.1 ::1")));
}

TEST(BlurValues, OfMoreThan259CharactersAreNotShown) {
  std::string text(251, ' ');
  text += "10.0.0.1";

  EXPECT_EQ(std::string(251, ' ') + "**.*.*.*", ORP_BLUR_Ip(text.c_str()));
  text += 'x';
  EXPECT_STREQ("", ORP_BLUR_Ip(text.c_str()));
}

TEST(BlurValues, OfBytes) {
  const uint8_t mac[6] = {0, 0x1a, 2, 3, 4, 5};
  in_addr address{};
  ::inet_aton("192.168.1.10", &address);

  EXPECT_STREQ("**:**:**:**:**:**", ORP_BLUR_MacByte(mac));
  EXPECT_STREQ("", ORP_BLUR_MacByte(nullptr));
  EXPECT_STREQ("***.***.*.**", ORP_BLUR_Ipv4Byte(address));
}

std::string file_blurred(const std::string &content) {
  std::ofstream("/var/file") << content;
  EXPECT_EQ(0u, ORP_BLUR_File("/var/file"));
  return test::contents("/var/file");
}

TEST(BlurFile, KeepsThePartialForms) {
  const test::FdCheck fds;

  EXPECT_EQ("", file_blurred(""));
  EXPECT_EQ(
      "a 00:**:**:33:**:55 b 10.*.*.1 c *** d 1-89ab-cdef-0123-************ e\n",
      file_blurred("a 00:11:22:33:44:55 b 10.0.0.1 c ::1 d 1-89ab-cdef-0123-456789abcdef e\n"));
  // What is left of a longer chain is an address again, and the whole-address rule hides the rest.
  EXPECT_EQ("00:**:**:33:**:**:**:**:**:**:****",
            file_blurred("00:11:22:33:44:55:66:77:88:99:AA x"));
}

TEST(BlurFile, WorksInBlocks) {
  struct {
    size_t place;
    const char *masked;
  } const cases[] = {
      {100, "10.*.*.1"},         {400, "10.0.0.1"},  // behind a NUL in its block
      {2044, "10.0.0.1"},                            // across two blocks
      {2048 + 2040, "10.*.*.1"}, {4096 + 90, "10.*.*.1"},
  };
  std::string content(4096 + 100, '.');
  content[300] = '\0';
  std::string expected = content;
  for (const auto &[place, masked] : cases) {
    content.replace(place, 8, "10.0.0.1");
    expected.replace(place, 8, masked);
  }

  EXPECT_EQ(expected, file_blurred(content));
  content.resize(2048);
  expected.resize(2048);
  EXPECT_EQ(expected, file_blurred(content)) << "a whole block and no more";
}

TEST(BlurFile, Failures) {
  const test::FdCheck fds;
  ::mkdir("/var/directory", 0700);

  EXPECT_EQ(0x10001u, ORP_BLUR_File(nullptr));
  EXPECT_EQ(0x1000fu, ORP_BLUR_File("/var/absent"));
  EXPECT_EQ(0x1000fu, ORP_BLUR_File(std::string(4096, 'x').c_str()));
  EXPECT_EQ(0x10010u, ORP_BLUR_File(std::string(4097, 'x').c_str()));
  EXPECT_EQ(0x10001u, ORP_BLUR_File("/var/directory"));

  EXPECT_EQ(0x1000du, ORP_BLUR_File("/dev/full"));
}

}  // namespace
