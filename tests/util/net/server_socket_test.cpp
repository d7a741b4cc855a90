#include <fcntl.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "msgapi/net.h"
#include "os/fd.h"
#include "support/fd_check.h"
#include "support/file.h"
#include "support/network.h"

namespace {

using msgapi::os::UniqueFd;
using test::bound_address;

struct Server {
  UniqueFd fd;
  std::string printed;
};

Server create(const char *address, uint32_t port, uint32_t flags, const char *device = nullptr) {
  testing::internal::CaptureStdout();
  const uint32_t fd = ORP_UTIL_SocketCreateServerEx(address, port, flags, device);
  const int saved = errno;
  Server server{UniqueFd(static_cast<int>(fd)), testing::internal::GetCapturedStdout()};
  errno = saved;
  return server;
}

int option(const Server &server, int level, int name) {
  return test::socket_option(server.fd.get(), level, name);
}

sockaddr_in6 address_of(const Server &server) {
  sockaddr_in6 address{};
  socklen_t size = sizeof address;
  EXPECT_EQ(0, ::getsockname(server.fd.get(), reinterpret_cast<sockaddr *>(&address), &size));
  return address;
}

uint32_t scope_of(const Server &server) {
  return address_of(server).sin6_scope_id;
}

// Whether the server gets a datagram that arrives on "lo".
bool hears_loopback(const Server &server) {
  const sockaddr_in6 address = address_of(server);
  const UniqueFd client(::socket(address.sin6_family, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  // The wildcard address as a destination means this machine.
  EXPECT_EQ(0,
            ::connect(client.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address));
  EXPECT_EQ(1, ::send(client.get(), "x", 1, 0));
  char data;
  EXPECT_EQ(-1, ::recv(client.get(), &data, 1, MSG_DONTWAIT));
  return errno != ECONNREFUSED;
}

// The output about an option of the platform's kernel: `text`, unless this kernel knows the option.
std::string refusal(int family, int level, int name, const char *text) {
  const UniqueFd fd(::socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const int one = 1;
  return ::setsockopt(fd.get(), level, name, &one, sizeof one) == 0 ? "" : text;
}

TEST(ServerSocket, HasTheStandardOptions) {
  const test::FdCheck descriptors;
  const Server tcp = create("127.0.0.1", 0, 0);
  ASSERT_TRUE(tcp.fd);
  EXPECT_EQ(refusal(AF_INET, IPPROTO_IP, 21, "\n===========set receive dev failed"), tcp.printed);
  EXPECT_EQ("127.0.0.1", bound_address(tcp.fd.get()));
  EXPECT_EQ(0, option(tcp, SOL_SOCKET, SO_ACCEPTCONN)) << "not listening";
  EXPECT_EQ(1, option(tcp, SOL_SOCKET, SO_REUSEADDR));
  EXPECT_EQ(1, option(tcp, IPPROTO_IP, IP_RECVTOS));
  EXPECT_EQ(1, option(tcp, IPPROTO_TCP, TCP_NODELAY));
  EXPECT_EQ(FD_CLOEXEC, ::fcntl(tcp.fd.get(), F_GETFD));

  const Server udp = create(nullptr, 0, ORP_SOCKET_DATAGRAM);
  ASSERT_TRUE(udp.fd);
  EXPECT_EQ("0.0.0.0", bound_address(udp.fd.get()));
  timeval timeout{};
  socklen_t size = sizeof timeout;
  EXPECT_EQ(0, ::getsockopt(udp.fd.get(), SOL_SOCKET, SO_RCVTIMEO, &timeout, &size));
  EXPECT_EQ(2, timeout.tv_sec);
}

TEST(ServerSocket, IsIpv6OnlyAndReportsTheOptionOfThePlatformsKernel) {
  const test::FdCheck descriptors;
  const Server tcp = create("::1", 0, 0);
  ASSERT_TRUE(tcp.fd);
  EXPECT_EQ(refusal(AF_INET6, IPPROTO_IP, 21, "\n===========set receive dev failed") +
                refusal(AF_INET6, IPPROTO_IPV6, 97, "\n===========set ipv6 receive  dev failed"),
            tcp.printed);
  EXPECT_EQ("::1", bound_address(tcp.fd.get()));
  EXPECT_EQ(1, option(tcp, IPPROTO_IPV6, IPV6_V6ONLY));
  EXPECT_EQ(0, option(tcp, IPPROTO_IPV6, IPV6_RECVTCLASS));

  const Server udp = create(nullptr, 0, ORP_SOCKET_DATAGRAM | ORP_SOCKET_IPV6);
  ASSERT_TRUE(udp.fd);
  EXPECT_EQ("::", bound_address(udp.fd.get()));
  EXPECT_EQ(1, option(udp, IPPROTO_IPV6, IPV6_RECVTCLASS));
}

TEST(ServerSocket, IsBoundToAnInterfaceByName) {
  test::add_bridge("br7");
  const test::FdCheck descriptors;
  for (const uint32_t family : {0u, ORP_SOCKET_IPV6}) {
    const Server on_loopback = create("lo", 0, ORP_SOCKET_DATAGRAM | family);
    const Server on_bridge = create("br7", 0, ORP_SOCKET_DATAGRAM | family);
    ASSERT_TRUE(on_loopback.fd && on_bridge.fd);
    EXPECT_EQ(family == 0 ? "0.0.0.0" : "::", bound_address(on_bridge.fd.get()));
    EXPECT_TRUE(hears_loopback(on_loopback));
    EXPECT_FALSE(hears_loopback(on_bridge));
  }
}

TEST(ServerSocket, IsRefusedWhereItCannotBe) {
  const test::FdCheck descriptors;
  const Server taken = create("127.0.0.1", 4711, 0);
  ASSERT_TRUE(taken.fd);
  ASSERT_EQ(0, ::listen(taken.fd.get(), 1));

  EXPECT_FALSE(create("127.0.0.1", 4711, 0).fd);
  EXPECT_EQ(EADDRINUSE, errno);
  EXPECT_FALSE(create("127.0.0.1", 65536, 0).fd) << "no port";
  EXPECT_FALSE(create("nosuch0", 0, 0).fd) << "on every interface, rather than on this one?";
  EXPECT_FALSE(create("a-name-of-16-chr", 0, 0).fd);
  EXPECT_FALSE(create("127.0.0.1", 0, ORP_SOCKET_IPV6).fd) << "no address of this family";
  EXPECT_EQ(ORP_INVALID_SOCKET, ORP_UTIL_SocketCreateServer("192.0.2.1", 0, 0)) << "not local";
}

TEST(ServerSocketScope, IsBr0UnlessADeviceIsGiven) {
  for (const char *name : {"br0", "br1"}) {
    test::add_bridge(name);
    test::run(std::string("ip addr add fe80::7/64 nodad dev ") + name);
  }
  const test::FdCheck descriptors;
  const uint32_t br0 = ::if_nametoindex("br0");
  const uint32_t br1 = ::if_nametoindex("br1");

  EXPECT_EQ(br0, scope_of(create("fe80::7", 0, 0)));
  EXPECT_EQ(br1, scope_of(create("fe80::7", 0, 0, "br1")));
  EXPECT_EQ(br0, scope_of(create("fe80::7%br1", 0, 0))) << "a scope in the text does not count";
  EXPECT_FALSE(create("fe80::7", 0, 0, "nosuch0").fd);

  // A group of link scope needs an interface. br0 is filled in only for datagrams.
  EXPECT_EQ(br0, scope_of(create("ff02::1:3", 0, ORP_SOCKET_DATAGRAM)));
  EXPECT_EQ(br1, scope_of(create("ff02::1:3", 0, ORP_SOCKET_DATAGRAM, "br1")));

  test::run("ip link del br0");
  EXPECT_FALSE(create("fe80::7", 0, 0).fd) << "no br0";
}

TEST(UnixServerSocket, IsMadeForItsGroupUnlessACommandCannotHoldItsPath) {
  test::replace_program("chown", "echo \"$@\" >> /var/commands");
  std::ofstream("/var/run/service") << "an old file";
  const test::FdCheck descriptors;

  const Server server = create("/var/run/service", 0, ORP_SOCKET_UNIX);
  ASSERT_TRUE(server.fd);
  EXPECT_EQ("", server.printed);
  struct stat info;
  ASSERT_EQ(0, ::stat("/var/run/service", &info));
  EXPECT_EQ(S_IFSOCK | 0660u, info.st_mode);

  EXPECT_TRUE(create("/var/run/a b;id", 0, ORP_SOCKET_UNIX).fd);
  EXPECT_EQ(":2591 /var/run/service\n", test::contents("/var/commands"));
}

TEST(UnixServerSocket, CutsALongPath) {
  const std::string longest = "/var/run/" + std::string(107 - 9, 'x');
  const Server cut = create((longest + "yz").c_str(), 0, ORP_SOCKET_UNIX);
  EXPECT_TRUE(cut.fd);
  EXPECT_EQ("UtilCreateUnixDomainSock getpath error .", cut.printed);
  EXPECT_TRUE(std::filesystem::is_socket(longest));
}

TEST(UnixServerSocket, ReportsWhyItCannotBeBound) {
  const test::FdCheck descriptors;
  EXPECT_EQ("bind failed, rc=-1 errno=2", create("/nonexistent/x", 0, ORP_SOCKET_UNIX).printed);

  test::replace_program("chown", "rm /var/run/gone");
  const Server gone = create("/var/run/gone", 0, ORP_SOCKET_UNIX);
  EXPECT_FALSE(gone.fd);
  EXPECT_EQ("chmod for unixsock error.", gone.printed);
}

}  // namespace
