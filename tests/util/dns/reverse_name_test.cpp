#include <gtest/gtest.h>

#include <string>

#include "msgapi/dns.h"

namespace {

constexpr uint32_t kBad = ORP_DNS_ERR_ARGUMENT;

const std::string kNibbles = "1.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.0.8.B.D.0.1.0.0.2";

const struct {
  std::string name;
  uint32_t status;
  const char *address;
  uint32_t is_ipv4;
} kCases[] = {
    {"4.3.2.1.in-addr.arpa", ORP_DNS_OK, "1.2.3.4", 1},
    {"255.254.253.252.in-addr.arpa.and more", ORP_DNS_OK, "252.253.254.255", 1},
    {kNibbles + ".ip6.arpa", ORP_DNS_OK, "2001:0DB8:0000:0000:0000:0000:0000:0001", 0},
    {"1.2.3.in-addr.arpa", kBad, nullptr, 0},
    {"256.3.2.1.in-addr.arpa", kBad, nullptr, 0},
    {"4..22.11.in-addr.arpa", 1, nullptr, 0},
    {".3.22.11.in-addr.arpa", 1, nullptr, 0},
    {".in-addr.arpa", kBad, nullptr, 0},
    {"4.3.2.1.IN-ADDR.ARPA", kBad, nullptr, 0},
    {"4.3.2.1.in-addr.arpa.ip6.arpa", kBad, nullptr, 0},
    {"1." + kNibbles + ".ip6.arpa", kBad, nullptr, 0},
    {"g" + kNibbles.substr(1) + ".ip6.arpa", kBad, nullptr, 0},
    {"10" + kNibbles.substr(3) + "." + ".ip6.arpa", 1, nullptr, 0},
    {"4.3.2.1.in-addr.arpa" + std::string(236, 'x'), kBad, nullptr, 0},
};

TEST(DnsReverseName, BecomesItsAddress) {
  for (const auto &expected : kCases) {
    SCOPED_TRACE(expected.name);
    char address[80] = "";
    uint32_t is_ipv4 = 9;

    const uint32_t status =
        ORP_DNS_PacketPTRName2Addr(expected.name.c_str(), address, sizeof address, &is_ipv4);

    EXPECT_EQ(expected.status, status);
    EXPECT_EQ(expected.is_ipv4, is_ipv4);
    EXPECT_STREQ(expected.address, status == ORP_DNS_OK ? address : nullptr);
  }
}

// The byte behind the text stays as it is; the NUL is written one byte further on.
TEST(DnsReverseName, WritesTheNulOnePastTheText) {
  for (const uint32_t size : {9u, 8u, 1u, 0u}) {
    std::string address(9, 'x');
    address[7] = '\0';
    EXPECT_EQ(size == 9 ? ORP_DNS_OK : kBad,
              ORP_DNS_PacketPTRName2Addr("4.3.2.1.in-addr.arpa", address.data(), size, nullptr));
    EXPECT_EQ(size == 9 ? std::string("1.2.3.4\0", 9) : std::string("xxxxxxx\0x", 9), address);
  }
  std::string address(9, 'x');
  EXPECT_EQ(kBad, ORP_DNS_PacketPTRName2Addr("4.3.2.1.in-addr.arpa", address.data(), 9, nullptr));
}

}  // namespace
