#include "msgapi/blur.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <string>

#include "log/blur.h"
#include "support/fd_check.h"
#include "support/file.h"

namespace {

std::string blurred(std::string text) {
  EXPECT_EQ(0, MlogBlurString(text.data(), static_cast<uint32_t>(text.size())));
  return text;
}

std::string ipv6_blurred(std::string text) {
  EXPECT_EQ(0, MlogBlurIpv6String(text.data(), static_cast<uint32_t>(text.size())));
  return text;
}

TEST(MlogBlurString, MaskForms) {
  struct {
    const char *text;
    const char *masked;
  } const cases[] = {
      {"00:11:22:33:44:55", "00:**:**:33:**:55"},
      {"mac=aA-bB-cC-dD-eE-fF.", "mac=aA-**-**-dD-**-fF."},
      {"00:11-22:33-44:55", "00:**-**:33-**:55"},
      {"000:11:22:33:44:555", "000:**:**:33:**:555"},
      {"00:11:22:33:44:55:66", "00:**:**:33:**:55:66"},
      {"192.168.1.10", "192.***.*.10"},
      {"10.0.0.1", "10.*.*.1"},
      {"1234.5.6.7890", "1234.*.*.7890"},  // a number takes the last three digits
      {"1.2.3.4.5.6.7.8", "1.*.*.4.5.*.*.8"},
      {"ABCDEFGHIJKLMNOP", "A*C*E*G*I*K*M*O*"},
      {"ABCDEFGHIJKLMNOPQ", "A*C*E*G*I*K*M*O*Q"},
      {"01234567-89ab-cdef-0123-456789abcdef", "01234567-89ab-cdef-0123-45****ab**ef"},
      {"hwaddr: 001122334455", "hwaddr: 00****33**55"},
      // One rule after the other.
      {"AAAABBBBCCCCDDDD-1.2.3.4", "A*A*B*B*C*C*D*D*-1.*.*.4"},
      {"a 10.0.0.1 b 00:11:22:33:44:55\nc 10.0.0.2", "a 10.*.*.1 b 00:**:**:33:**:55\nc 10.*.*.2"},
      {"2001:db8::1", "2001:db8::1"},
  };
  for (const auto &c : cases) EXPECT_EQ(c.masked, blurred(c.text)) << c.text;
}

TEST(MlogBlurIpv6String, MasksEveryCharacter) {
  EXPECT_EQ("at ***********, ** and 12:30:45", ipv6_blurred("at 2001:db8::1, :: and 12:30:45"));
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

TEST(MlogBlurString, FindsValuesAnywhereInALongText) {
  // Every place within the blocks in which the text is read.
  for (size_t before = 0; before < 140; ++before) {
    const std::string pad(before, ' ');
    EXPECT_EQ(pad + "00:**:**:33:**:55 1.*.*.4", blurred(pad + "00:11:22:33:44:55 1.2.3.4"));
    EXPECT_EQ(pad + "A*C*E*G*I*K*M*O*", blurred(pad + "ABCDEFGHIJKLMNOP"));
    EXPECT_EQ(pad + "hwaddr: 00****33**55", blurred(pad + "hwaddr: 001122334455"));
    EXPECT_EQ(pad + "01234567-89ab-cdef-0123-45****ab**ef",
              blurred(pad + "01234567-89ab-cdef-0123-456789abcdef"));
    EXPECT_EQ(pad + "***********", ipv6_blurred(pad + "2001:db8::1"));
  }
}

TEST(BlurLogText, EndsAtItsLengthOrItsFirstNul) {
  char text[] = "10.0.0.1 1.1.1.1";

  msgapi::blur::blur_log_text({text, 7});
  EXPECT_STREQ("10.0.0.1 1.1.1.1", text);
  msgapi::blur::blur_log_text({text, 14});
  EXPECT_STREQ("10.*.*.1 1.1.1.1", text);

  char split[] =
      "a\0"
      "10.0.0.1 ::1";
  msgapi::blur::blur_log_text(split);
  EXPECT_STREQ("10.0.0.1 ::1", split + 2);
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
      {ORP_BLUR_Mac, "no address: 10.0.0.1", "no address: 10.0.0.1"},
      {ORP_BLUR_Ip, "10.0.0.1", "**.*.*.*"},
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
  for (const auto blur : {ORP_BLUR_Mac, ORP_BLUR_Ip, ORP_BLUR_Ipv6, ORP_BLUR_Uuid,
                          ORP_BLUR_UsbAccount, ORP_BLUR_Ssid}) {
    EXPECT_STREQ("", blur(nullptr));
  }
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
