#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <string>

#include "msgapi/net.h"
#include "msgapi/status.h"
#include "os/fd.h"
#include "support/fd_check.h"
#include "support/file.h"
#include "support/network.h"
#include "util/net/address_info.h"

namespace {

using List = msgapi::net::AddressList;
using msgapi::os::UniqueFd;

List address(const char *text) {
  return List(ORP_UTIL_ParseIPAddress(ORP_SOCKET_DATAGRAM, text, 0));
}

UniqueFd udp_socket(int family = AF_INET) {
  return UniqueFd(::socket(family, SOCK_DGRAM | SOCK_CLOEXEC, 0));
}

int broadcasts(const UniqueFd &fd) {
  return test::socket_option(fd.get(), SOL_SOCKET, SO_BROADCAST);
}

TEST(Multicast, ReachesTheMembersOfAGroup) {
  const test::FdCheck descriptors;
  const List loopback = address("127.0.0.1");
  const UniqueFd receiver(
      static_cast<int>(ORP_UTIL_SocketCreateServer("239.1.2.3", 4711, ORP_SOCKET_DATAGRAM)));
  const UniqueFd sender = udp_socket();
  ASSERT_TRUE(receiver);

  EXPECT_EQ(0u, ORP_UTIL_SocketJoinMcast(receiver.get(), "239.1.2.3", loopback.get()));
  EXPECT_EQ(0u, ORP_UTIL_SocketJoinMcast(sender.get(), "239.1.2.3", loopback.get()));
  EXPECT_EQ(1, broadcasts(receiver));

  // Without a route this leaves only by the interface that the join has chosen. An emulated system
  // may not be able to choose.
  const in_addr any{};
  if (::setsockopt(udp_socket().get(), IPPROTO_IP, IP_MULTICAST_IF, &any, sizeof any) != 0) {
    test::run("ip route add 239.0.0.0/8 dev lo");
  }
  sockaddr_in group = test::loopback(4711);
  group.sin_addr.s_addr = ::inet_addr("239.1.2.3");
  char data[8] = "";
  EXPECT_EQ(2,
            ::sendto(sender.get(), "hi", 2, 0, reinterpret_cast<sockaddr *>(&group), sizeof group));
  EXPECT_EQ(2, ::recv(receiver.get(), data, sizeof data, 0));
  EXPECT_STREQ("hi", data);
}

TEST(Multicast, JoinsIpv6GroupsAtTheInterface) {
  test::add_bridge("br0");
  test::add_bridge("br1");
  const test::FdCheck descriptors;
  const List any = address("::");
  const UniqueFd fd = udp_socket(AF_INET6);

  EXPECT_EQ(0u, ORP_UTIL_SocketJoinMcast(fd.get(), "ff02::1:abcd", any.get()));
  EXPECT_EQ(0u, ORP_UTIL_SocketJoinMcastEx(fd.get(), "ff02::2:abcd", any.get(), "br1"));
  EXPECT_EQ(1, broadcasts(fd));

  const std::string groups = test::contents("/proc/net/igmp6");
  EXPECT_THAT(groups, testing::ContainsRegex("br0 +ff02000000000000000000000001abcd"));
  EXPECT_THAT(groups, testing::ContainsRegex("br1 +ff02000000000000000000000002abcd"));

  // Failures of IPv6 joins are not reported.
  EXPECT_EQ(0u, ORP_UTIL_SocketJoinMcast(fd.get(), "not a group", any.get()));
}

TEST(Multicast, RefusesWhatItCannotJoin) {
  const List loopback = address("127.0.0.1");
  const UniqueFd fd = udp_socket();
  ORP_UTIL_ADDRINFO_ST empty{}, foreign = *loopback, cut = *loopback;
  empty.family = AF_INET;
  foreign.family = AF_UNIX;
  cut.addrlen = 4;

  for (const ORP_UTIL_ADDRINFO_ST *local :
       {&empty, &foreign, &cut, static_cast<ORP_UTIL_ADDRINFO_ST *>(nullptr)}) {
    EXPECT_EQ(ORP_ERR_ARGUMENT, ORP_UTIL_SocketJoinMcast(fd.get(), "239.1.2.3", local));
  }
  const auto join = [&](int socket, const char *group) {
    return ORP_UTIL_SocketJoinMcast(socket, group, loopback.get());
  };
  EXPECT_EQ(ORP_ERR_ARGUMENT, join(-1, "239.1.2.3"));
  EXPECT_EQ(ORP_ERR_ARGUMENT, join(fd.get(), "239.1.2.x"));
  EXPECT_EQ(ORP_ERR_SYSTEM, join(fd.get(), "10.1.2.3")) << "no group";
  EXPECT_EQ(0, broadcasts(fd));
}

TEST(Multicast, SetsTheTimeToLive) {
  const UniqueFd fd = udp_socket();
  EXPECT_EQ(0u, ORP_UTIL_SocketSetTTL(fd.get(), 37));
  EXPECT_EQ(37, test::socket_option(fd.get(), IPPROTO_IP, IP_MULTICAST_TTL));
  EXPECT_EQ(ORP_ERR_ARGUMENT, ORP_UTIL_SocketSetTTL(-1, 37));
  EXPECT_EQ(0xFFFFFFFFu, ORP_UTIL_SocketSetTTL(1000, 37)) << "not open";
  EXPECT_EQ(0u, ORP_UTIL_SocketSetMcastIf(-1, nullptr));
}

}  // namespace
