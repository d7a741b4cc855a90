#include "util/net/proc_net.h"

#include <gmock/gmock.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <string>

#include "msgapi/net.h"
#include "os/fd.h"
#include "support/fd_check.h"
#include "support/network.h"

namespace {

using msgapi::os::UniqueFd;
using test::readable;
using testing::ElementsAre;

// The result of a query that must report `count` lines.
template <typename Query>
uint32_t with_failed_lines(int count, Query query) {
  std::string expected;
  while (count-- > 0) expected += std::to_string(::getpid()) + " msgapi parse tcpfile failed!\n";
  testing::internal::CaptureStdout();
  const uint32_t result = query();
  EXPECT_EQ(expected, testing::internal::GetCapturedStdout());
  return result;
}

uint32_t in_use(uint32_t port) {
  // The heading is reported on every call.
  return with_failed_lines(1, [=] { return ORP_UTIL_CheckTCPPortInUse(port); });
}

TEST(TcpPortInUse, IsTrueFromListenToCloseForIpv4) {
  const test::FdCheck descriptors;
  const UniqueFd ipv6(static_cast<int>(ORP_UTIL_SocketCreateServer("::1", 4711, 0)));
  const UniqueFd server(static_cast<int>(ORP_UTIL_SocketCreateServer("127.0.0.1", 4711, 0)));
  ASSERT_EQ(0, ::listen(ipv6.get(), 1));
  EXPECT_EQ(0u, in_use(4711)) << "bound only";

  ASSERT_EQ(0, ::listen(server.get(), 1));
  EXPECT_EQ(1u, in_use(4711));
  EXPECT_EQ(0u, in_use(4711 + 0x10000u)) << "no port at all";

  ::shutdown(server.get(), SHUT_RDWR);
  EXPECT_EQ(0u, in_use(4711));
}

TEST(TcpPortTable, HasListeningLinesAmongOthers) {
  const auto line = [](const std::string &local, const char *state) {
    return "   0: " + local + " 0100007F:1F99 " + state + " 00000000:00000000 00:0 0\n";
  };
  const std::string listening = line("0100007F:1F90", "0A");
  const std::string table = "sl local\n" + line("0100007F:1F91", "01") + line("00:1F92", "06");
  const struct {
    const char *why;
    std::string table;
    uint32_t port;
    bool found;
    int failed_lines;
  } kCases[] = {
      {"behind others", table + listening, 0x1F90, true, 1},
      {"what follows is not read", listening + "garbage\n", 0x1F90, true, 0},
      {"six fields", "   0: 0100007F:1F90 00000000:0000 0A\n", 0x1F90, false, 1},
      {"digits", line("0100007G:1F90", "0A"), 0x1F90, false, 1},
      {"address too long", line(std::string(65, '0') + ":1F90", "0A"), 0x1F90, false, 1},
      {"one line read as three", std::string(600, 'x'), 1, false, 3},
  };

  for (const auto &each : kCases) {
    EXPECT_EQ(each.found,
              with_failed_lines(
                  each.failed_lines,
                  [&] { return msgapi::net::has_tcp_listener(readable(each.table), each.port); }))
        << each.why;
  }
}

TEST(InterfaceCounters, MoveWithTheTrafficOfTheInterface) {
  const test::FdCheck descriptors;
  ORP_UTIL_IFC_STAT_ST before{}, after{};

  ASSERT_EQ(0u, ORP_UTIL_GetIfcStatInfoEx("lo", &before));
  test::send_over_loopback(10, 1000);
  ASSERT_EQ(0u, ORP_UTIL_GetIfcStatInfoEx("lo", &after));

  EXPECT_GE(after.ulTxPackets - before.ulTxPackets, 10u);
  EXPECT_GE(after.ulTxBytes - before.ulTxBytes, 10u * 1028);
  before = after;
  for (const char *name : {"nosuch0", "", "lo:"}) {
    EXPECT_EQ(0u, ORP_UTIL_GetIfcStatInfoEx(name, &after));
  }
  EXPECT_EQ(0, std::memcmp(&before, &after, sizeof after)) << "untouched";
}

std::optional<ORP_UTIL_IFC_STAT_ST> counters_in(const std::string &lines, const char *name) {
  return msgapi::net::find_interface_counters(readable("Inter-|\n face |\n" + lines), name);
}

TEST(InterfaceTable, IsReadInEveryFormOfTheKernel) {
  const auto spaced = counters_in("  eth0: 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16\n", "eth0");
  ASSERT_TRUE(spaced);
  const ORP_UTIL_IFC_STAT_ST &s = *spaced;
  EXPECT_THAT((std::array{s.ulRxBytes, s.ulRxPackets, s.ulRxErrors, s.ulRxDrops}),
              ElementsAre(1, 2, 3, 4));
  EXPECT_THAT((std::array{s.ulTxBytes, s.ulTxPackets, s.ulTxErrors, s.ulTxDrops}),
              ElementsAre(9, 10, 11, 12));

  const auto wide = counters_in(
      "eth0:4294967298 2 3 4 5 6 7 8 18446744073709551615 10 11 12 13 14 15 16\n", "eth0");
  ASSERT_TRUE(wide) << "counters of 64 bits, without a blank before the first";
  EXPECT_EQ(2u, wide->ulRxBytes);
  EXPECT_EQ(0xFFFFFFFFu, wide->ulTxBytes);
}

TEST(InterfaceTable, IsSearchedForTheNameBeforeAColon) {
  const std::string ones = ": 1 1 1 1 1 1 1 1 1 1 1 1 1 1 1 1\n";
  const std::string twos = ": 2 2 2 2 2 2 2 2 2 2 2 2 2 2 2 2\n";

  EXPECT_EQ(2u, counters_in("eth0.7" + ones + "eth0" + twos, "eth0")->ulRxBytes);
  EXPECT_EQ(1u, counters_in("lan_eth0" + ones + "eth0" + twos, "eth0")->ulRxBytes)
      << "the end of a name will do";
  EXPECT_FALSE(counters_in("eth0: 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15\n", "eth0")) << "one short";
  EXPECT_FALSE(counters_in("eth0\n", "eth0")) << "no colon";
  EXPECT_FALSE(msgapi::net::find_interface_counters(readable("eth0" + ones), "eth0"))
      << "a heading";
  // A line as long as the buffer has no room for a blank: the name and its counter stay one word.
  const std::string full = "eth0:1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16" + std::string(468, ' ');
  EXPECT_FALSE(counters_in(full, "eth0"));
}

TEST(LinkLocalAddress, IsTheInterfacesOwn) {
  test::add_bridge("br0");
  test::run("ip addr add fd00::1/64 dev br0 nodad");
  const test::FdCheck descriptors;
  char out[64] = "untouched";

  EXPECT_EQ(0u, ORP_UTIL_GetIpv6LinkAddress("br0", out, sizeof out)) << "not link-local";
  test::run("ip addr add fe80::a:0:0:1f/64 dev br0 nodad");
  EXPECT_EQ(0u, ORP_UTIL_GetIpv6LinkAddress("br", out, sizeof out));
  EXPECT_EQ(0u, ORP_UTIL_GetIpv6LinkAddress("br0", out, 0));
  EXPECT_STREQ("untouched", out);

  EXPECT_EQ(0u, ORP_UTIL_GetIpv6LinkAddress("br0", out, 14));
  EXPECT_STREQ("", out);
  EXPECT_EQ(1u, ORP_UTIL_GetIpv6LinkAddress("br0", out, 15));
  EXPECT_STREQ("fe80::a:0:0:1f", out);
}

TEST(Inet6Table, GivesTheFirstLinkLocalAddressOfExactlyThisInterface) {
  const auto found = [](const std::string &table) {
    return msgapi::net::find_link_local_address(readable(table), "eth0").has_value();
  };

  EXPECT_TRUE(found("fe800000000000000000000000000001 02 40 20 80     eth0\n"));
  EXPECT_TRUE(found("febf0000000000000000000000000001 02 40 20 80     eth0\n"));
  EXPECT_FALSE(found("fec00000000000000000000000000001 02 40 20 80     eth0\n")) << "site-local";
  EXPECT_FALSE(found("fe800000000000000000000000000001 02 40 20 80     eth01\n"));
  EXPECT_FALSE(found("fe800000000000000000000000000001 02 40 20 eth0\n")) << "five words";
  EXPECT_FALSE(found(std::string(200, 'f') + " 02 40 20 80 eth0\n")) << "far too long";
  EXPECT_TRUE(
      found("zz800000000000000000000000000001 02 40 20 80 eth0\n"
            "fe800000000000000000000000000001 02 40 20 80 eth0\n"))
      << "what cannot be read is passed over";
}

}  // namespace
