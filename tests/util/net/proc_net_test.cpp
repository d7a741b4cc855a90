#include "util/net/proc_net.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "msgapi/net.h"
#include "os/fd.h"
#include "support/fd_check.h"
#include "support/network.h"

namespace {

using msgapi::os::UniqueFd;
using test::readable;

constexpr const char *kHeading =
    "  sl  local_address rem_address   st tx_queue rx_queue tr tm->when retrnsmt\n";

std::string failed_lines(int count) {
  std::string text;
  while (count-- > 0) text += std::to_string(::getpid()) + " msgapi parse tcpfile failed!\n";
  return text;
}

bool listens(const std::string &table, uint32_t port, int expected_failed_lines) {
  testing::internal::CaptureStdout();
  const bool found = msgapi::has_tcp_listener(readable(table), port);
  EXPECT_EQ(failed_lines(expected_failed_lines), testing::internal::GetCapturedStdout()) << table;
  return found;
}

uint32_t in_use(uint32_t port) {
  testing::internal::CaptureStdout();
  const uint32_t result = ORP_UTIL_CheckTCPPortInUse(port);
  EXPECT_EQ(failed_lines(1), testing::internal::GetCapturedStdout()) << "the heading";
  return result;
}

// A TCP socket bound to `address` and any port, and that port.
uint16_t bind_tcp(const UniqueFd &fd, in_addr_t address) {
  sockaddr_in place{};
  place.sin_family = AF_INET;
  place.sin_addr.s_addr = htonl(address);
  socklen_t size = sizeof place;
  EXPECT_EQ(0, ::bind(fd.get(), reinterpret_cast<sockaddr *>(&place), size));
  EXPECT_EQ(0, ::getsockname(fd.get(), reinterpret_cast<sockaddr *>(&place), &size));
  return ntohs(place.sin_port);
}

UniqueFd tcp_socket() {
  return UniqueFd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
}

TEST(TcpPortInUse, IsTrueFromListenToClose) {
  const test::FdCheck descriptors;
  for (in_addr_t address : {INADDR_LOOPBACK, INADDR_ANY}) {
    UniqueFd server = tcp_socket();
    const uint16_t port = bind_tcp(server, address);
    EXPECT_EQ(0u, in_use(port)) << "bound only";

    ASSERT_EQ(0, ::listen(server.get(), 1));
    EXPECT_EQ(1u, in_use(port));
    EXPECT_EQ(0u, in_use(port + 0x10000u)) << "no port at all";

    // A connection's sockets have the port too, and one of them stays in TIME_WAIT.
    UniqueFd client = tcp_socket();
    const uint16_t client_port = bind_tcp(client, INADDR_LOOPBACK);
    sockaddr_in place{};
    place.sin_family = AF_INET;
    place.sin_port = htons(port);
    place.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(0, ::connect(client.get(), reinterpret_cast<sockaddr *>(&place), sizeof place));
    UniqueFd accepted(::accept4(server.get(), nullptr, nullptr, SOCK_CLOEXEC));
    EXPECT_EQ(0u, in_use(client_port)) << "connected";

    server.reset();
    EXPECT_EQ(0u, in_use(port)) << "only a connection is left";
    accepted.reset();
    client.reset();
    EXPECT_EQ(0u, in_use(port)) << "TIME_WAIT";
  }
}

TEST(TcpPortInUse, LooksAtIpv4Only) {
  const UniqueFd server(static_cast<int>(ORP_UTIL_SocketCreateServer("::1", 4711, 0)));
  ASSERT_EQ(0, ::listen(server.get(), 1));
  EXPECT_EQ(0u, in_use(4711));
}

TEST(TcpPortTable, ReportsLinesWithoutASocket) {
  const std::string listening = "   0: 0100007F:1F90 00000000:0000 0A 00000000:00000000 00:0 0\n";
  const std::string connected = "   1: 0100007F:1F91 0100007F:1F90 01 00000000:00000000 00:0 0\n";

  EXPECT_TRUE(listens(kHeading + connected + listening, 0x1F90, 1));
  EXPECT_FALSE(listens(kHeading + connected + listening, 0x1F91, 1)) << "not listening";
  EXPECT_FALSE(listens(kHeading + connected + listening, 0, 1)) << "remote port";
  EXPECT_TRUE(listens(listening + "garbage\n", 0x1F90, 0)) << "what follows is not read";
  EXPECT_FALSE(listens("   0: 0100007F:1F90 00000000:0000 0A\n", 0x1F90, 1)) << "six fields";
  EXPECT_FALSE(listens("   0: 0100007G:1F90 00000000:0000 0A 0 0\n", 0x1F90, 1)) << "digits";
  EXPECT_FALSE(listens("   0: " + std::string(65, '0') + ":1F90 0:0 0A 0\n", 0x1F90, 1))
      << "address too long";
  EXPECT_FALSE(listens(std::string(600, 'x'), 1, 3)) << "one line read as three";
  EXPECT_FALSE(listens("", 1, 0));
}

TEST(InterfaceCounters, MoveWithTheTraffic) {
  const test::FdCheck descriptors;
  ORP_UTIL_IFC_STAT_ST before{}, after{};
  ASSERT_EQ(0u, ORP_UTIL_GetIfcStatInfoEx("lo", &before));

  test::send_over_loopback(10, 1000);

  ASSERT_EQ(0u, ORP_UTIL_GetIfcStatInfoEx("lo", &after));
  EXPECT_GE(after.ulTxPackets - before.ulTxPackets, 10u);
  EXPECT_GE(after.ulTxBytes - before.ulTxBytes, 10u * 1028);
  EXPECT_EQ(after.ulTxBytes, after.ulRxBytes);
  EXPECT_EQ(after.ulTxPackets, after.ulRxPackets);
}

TEST(InterfaceCounters, AreUntouchedWithoutTheInterface) {
  ORP_UTIL_IFC_STAT_ST counters;
  std::memset(&counters, 0xA5, sizeof counters);
  for (const char *name : {"nosuch0", "", "lo:", static_cast<const char *>(nullptr)}) {
    EXPECT_EQ(0u, ORP_UTIL_GetIfcStatInfoEx(name, &counters));
  }
  EXPECT_EQ(0u, ORP_UTIL_GetIfcStatInfoEx("lo", nullptr));
  EXPECT_EQ(0xA5A5A5A5u, counters.ulRxBytes);
  EXPECT_EQ(0xA5A5A5A5u, counters.ulTxDrops);
}

std::optional<ORP_UTIL_IFC_STAT_ST> counters_in(const std::string &lines, const char *name) {
  return msgapi::find_interface_counters(readable("Inter-|\n face |\n" + lines), name);
}

TEST(InterfaceTable, IsReadInEveryFormOfTheKernel) {
  const auto spaced = counters_in("  eth0: 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16\n", "eth0");
  ASSERT_TRUE(spaced);
  EXPECT_EQ(1u, spaced->ulRxBytes);
  EXPECT_EQ(2u, spaced->ulRxPackets);
  EXPECT_EQ(3u, spaced->ulRxErrors);
  EXPECT_EQ(4u, spaced->ulRxDrops);
  EXPECT_EQ(9u, spaced->ulTxBytes);
  EXPECT_EQ(10u, spaced->ulTxPackets);
  EXPECT_EQ(11u, spaced->ulTxErrors);
  EXPECT_EQ(12u, spaced->ulTxDrops);

  const auto close = counters_in("eth0:123 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16\n", "eth0");
  ASSERT_TRUE(close);
  EXPECT_EQ(123u, close->ulRxBytes);

  const auto wide = counters_in(
      "eth0: 4294967298 2 3 4 5 6 7 8 18446744073709551615 10 11 12 13 14 15 16\n", "eth0");
  ASSERT_TRUE(wide) << "counters of 64 bits";
  EXPECT_EQ(2u, wide->ulRxBytes);
  EXPECT_EQ(0xFFFFFFFFu, wide->ulTxBytes);
}

TEST(InterfaceTable, IsSearchedForTheNameBeforeAColon) {
  const std::string ones = ": 1 1 1 1 1 1 1 1 1 1 1 1 1 1 1 1\n";
  const std::string twos = ": 2 2 2 2 2 2 2 2 2 2 2 2 2 2 2 2\n";

  EXPECT_EQ(2u, counters_in("eth0.7" + ones + "eth0" + twos, "eth0")->ulRxBytes);
  EXPECT_EQ(1u, counters_in("lan_eth0" + ones + "eth0" + twos, "eth0")->ulRxBytes)
      << "the end of a name will do";
  EXPECT_EQ(1u, counters_in("ethethX" + ones, "ethX")->ulRxBytes);
  EXPECT_FALSE(counters_in("eth0: 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15\n", "eth0")) << "one short";
  EXPECT_FALSE(counters_in("eth0\n", "eth0")) << "no colon";
  EXPECT_FALSE(msgapi::find_interface_counters(readable("eth0" + ones), "eth0")) << "a heading";
  // No room for a blank in a line as long as the buffer: the name and its counter stay one word.
  const std::string full = "eth0:1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16" + std::string(468, ' ');
  EXPECT_FALSE(counters_in(full, "eth0"));
}

TEST(LinkLocalAddress, IsTheInterfacesOwn) {
  test::add_bridge("br0");
  const test::FdCheck descriptors;
  char out[64] = "untouched";

  EXPECT_EQ(0u, ORP_UTIL_GetIpv6LinkAddress("br0", out, sizeof out));
  test::run("ip addr add fd00::1/64 dev br0 nodad");
  EXPECT_EQ(0u, ORP_UTIL_GetIpv6LinkAddress("br0", out, sizeof out)) << "not link-local";
  EXPECT_STREQ("untouched", out);

  test::run("ip addr add fe80::a:0:0:1f/64 dev br0 nodad");
  EXPECT_EQ(1u, ORP_UTIL_GetIpv6LinkAddress("br0", out, sizeof out));
  EXPECT_STREQ("fe80::a:0:0:1f", out);

  EXPECT_EQ(0u, ORP_UTIL_GetIpv6LinkAddress("lo", out, sizeof out));
  EXPECT_EQ(0u, ORP_UTIL_GetIpv6LinkAddress("br", out, sizeof out));
  EXPECT_EQ(0u, ORP_UTIL_GetIpv6LinkAddress(nullptr, out, sizeof out));
  EXPECT_EQ(0u, ORP_UTIL_GetIpv6LinkAddress("br0", nullptr, 64));
  EXPECT_EQ(0u, ORP_UTIL_GetIpv6LinkAddress("br0", out, 0));
  EXPECT_STREQ("fe80::a:0:0:1f", out);
  EXPECT_EQ(0u, ORP_UTIL_GetIpv6LinkAddress("br0", out, 14));
  EXPECT_STREQ("", out);
  EXPECT_EQ(1u, ORP_UTIL_GetIpv6LinkAddress("br0", out, 15));
}

TEST(Inet6Table, GivesTheFirstLinkLocalAddressOfExactlyThisInterface) {
  const auto found = [](const std::string &table) {
    return msgapi::find_link_local_address(readable(table), "eth0").has_value();
  };

  EXPECT_TRUE(found("fe800000000000000000000000000001 02 40 20 80     eth0\n"));
  EXPECT_TRUE(found("febf0000000000000000000000000001 02 40 20 80     eth0\n"));
  EXPECT_FALSE(found("fec00000000000000000000000000001 02 40 20 80     eth0\n")) << "site-local";
  EXPECT_FALSE(found("fe800000000000000000000000000001 02 40 20 80     eth01\n"));
  EXPECT_FALSE(found("fe800000000000000000000000000001 02 40 20 eth0\n")) << "five words";
  EXPECT_FALSE(found("fe8000000000000000000000000000012 02 40 20 80 eth0\n")) << "33 digits";
  EXPECT_FALSE(found(std::string(200, 'f') + " 02 40 20 80 eth0\n")) << "far too long";
  EXPECT_TRUE(
      found("zz800000000000000000000000000001 02 40 20 80 eth0\n"
            "fe800000000000000000000000000001 02 40 20 80 eth0\n"))
      << "what cannot be read is passed over";
}

}  // namespace
