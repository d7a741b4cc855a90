#include "util/net/address_info.h"

#include <gmock/gmock.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <array>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "cfmstore.h"
#include "msgapi/status.h"
#include "os/fd.h"
#include "support/allocation.h"
#include "support/fd_check.h"
#include "support/network.h"
#include "support/process.h"

namespace {

using msgapi::net::AddressList;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

AddressList parse(const char *host, uint32_t port = 80, uint32_t flags = 0) {
  return AddressList(ORP_UTIL_ParseIPAddress(flags, host, port));
}

// "host port" of every record.
std::vector<std::string> texts(const ORP_UTIL_ADDRINFO_ST *list) {
  std::vector<std::string> result;
  for (; list != nullptr; list = list->next) {
    char host[NI_MAXHOST], port[NI_MAXSERV];
    EXPECT_EQ(0, ::getnameinfo(list->addr, list->addrlen, host, sizeof host, port, sizeof port,
                               NI_NUMERICHOST | NI_NUMERICSERV));
    EXPECT_EQ(list->family, list->addr->sa_family);
    result.push_back(std::string(host) + " " + port);
  }
  return result;
}

TEST(ParseIpAddress, TakesNumericTextOnly) {
  EXPECT_THAT(texts(parse("192.0.2.7", 65535).get()), ElementsAre("192.0.2.7 65535"));
  EXPECT_THAT(texts(parse("2001:db8::7", 0).get()), ElementsAre("2001:db8::7 0"));
  EXPECT_THAT(texts(parse(nullptr).get()), UnorderedElementsAre("0.0.0.0 80", ":: 80"));
  EXPECT_EQ(SOCK_DGRAM, parse("192.0.2.7", 80, ORP_SOCKET_DATAGRAM)->socktype);

  for (const char *host : {"localhost", "192.0.2.256", ""}) EXPECT_FALSE(parse(host)) << host;
  EXPECT_FALSE(parse("192.0.2.7", 65536));
}

TEST(AddrInfo, IsMadeFromASocketAddress) {
  sockaddr_in6 address{};
  address.sin6_family = AF_INET6;
  address.sin6_addr = in6addr_loopback;
  const auto *place = reinterpret_cast<const sockaddr *>(&address);

  const AddressList list(
      ORP_UTIL_MakeAddrInfo(ORP_SOCKET_IPV6 | ORP_SOCKET_DATAGRAM, place, sizeof address));
  const AddressList plain(ORP_UTIL_MakeAddrInfo(0, place, sizeof address));
  ASSERT_TRUE(list && plain);
  EXPECT_THAT((std::array{list->flags, list->family, list->socktype, list->protocol}),
              ElementsAre(0, AF_INET6, SOCK_DGRAM, 0));
  EXPECT_EQ(static_cast<void *>(list.get() + 1), list->addr) << "one block";
  ASSERT_EQ(sizeof address, list->addrlen);
  EXPECT_EQ(0, std::memcmp(&address, list->addr, sizeof address));
  EXPECT_EQ(AF_INET, plain->family) << "the flags say it, not the address";
  list->addrlen = 16;
  EXPECT_EQ(0u, ORP_UTIL_IsAddrLoopback(list.get())) << "cut short";
}

TEST(AddrInfo, IsNotMadeFromNothingOrTooMuch) {
  const sockaddr address{};
  testing::internal::CaptureStdout();
  EXPECT_EQ(nullptr, ORP_UTIL_MakeAddrInfo(0, &address, 0xFFFFFFDF));
  EXPECT_EQ(nullptr, ORP_UTIL_MakeAddrInfo(0, nullptr, 16));
  EXPECT_EQ("ORP_UTIL_MakeAddrInfo copy sockaddr error", testing::internal::GetCapturedStdout());

  EXPECT_EQ(nullptr, ORP_UTIL_MakeAddrInfo(0, &address, 0xFFFFFFDE)) << "no memory for it";
}

TEST(AddrInfo, IsCopiedWholeOrInPart) {
  const AddressList list = parse(nullptr);
  char name[] = "a.name";
  list->canonname = name;
  const auto expected = texts(list.get());
  ASSERT_EQ(2u, expected.size());

  const AddressList whole(ORP_UTIL_CopyAddrInfo(list.get(), 1));
  EXPECT_EQ(expected, texts(whole.get()));
  EXPECT_STREQ("a.name", whole->canonname);
  EXPECT_NE(name, whole->canonname);
  EXPECT_NE(list->addr, whole->addr);

  const AddressList first(ORP_UTIL_CopyAddrInfo(list.get(), 0));
  EXPECT_THAT(texts(first.get()), ElementsAre(expected[0]));

  ORP_UTIL_ADDRINFO_ST bare{};
  bare.addrlen = 16;
  EXPECT_EQ(0u, AddressList(ORP_UTIL_CopyAddrInfo(&bare, 1))->addrlen) << "no address";
}

TEST(AddrInfo, WithoutMemoryIsReportedAsThat) {
  EXPECT_EQ(1u, test::fail_every_allocation([] {
              ORP_UTIL_ADDRINFO_ST *out = nullptr;
              const uint32_t result = ORP_UTIL_GetIpAddresses("127.0.0.1", 0, 80, &out);
              EXPECT_TRUE(result == 0 || result == ORP_ERR_MEMORY);
              return AddressList(out) != nullptr;
            }));
}

TEST(AddrInfo, IsComparedWithoutPorts) {
  const auto same = [](const char *host, const char *other) {
    return ORP_UTIL_IsAddrInfoSame(parse(host, 80).get(), parse(other, 81).get());
  };
  EXPECT_EQ(1u, same("192.0.2.7", "192.0.2.7"));
  EXPECT_EQ(0u, same("192.0.2.7", "192.0.2.8"));
  EXPECT_EQ(1u, same("2001:db8::7", "2001:db8::7"));
  EXPECT_EQ(0u, same("fe80::7%1", "fe80::7%2")) << "the scope counts";
  EXPECT_EQ(0u, same("192.0.2.7", "::ffff:192.0.2.7")) << "lengths differ";

  const AddressList left = parse("192.0.2.7"), right = parse("192.0.2.7");
  reinterpret_cast<sockaddr_in *>(right->addr)->sin_zero[0] = 1;
  EXPECT_EQ(1u, ORP_UTIL_IsAddrInfoSame(left.get(), right.get())) << "padding";
  left->addrlen = right->addrlen = 12;
  EXPECT_EQ(1u, ORP_UTIL_IsAddrInfoSame(left.get(), right.get()));
  left->addrlen = right->addrlen = 11;
  EXPECT_EQ(0u, ORP_UTIL_IsAddrInfoSame(left.get(), right.get()));
  left->addr = nullptr;
  EXPECT_EQ(0u, ORP_UTIL_IsAddrInfoSame(left.get(), left.get()));
}

TEST(AddrInfo, IsLoopbackForTwoAddressesOnly) {
  const auto loopback = [](const char *host) { return ORP_UTIL_IsAddrLoopback(parse(host).get()); };
  EXPECT_EQ(1u, loopback("127.0.0.1"));
  EXPECT_EQ(1u, loopback("::1"));
  EXPECT_EQ(0u, loopback("127.0.0.2"));
  EXPECT_EQ(0u, loopback("::ffff:127.0.0.1"));
}

// The relay example, which knows two names, as this test's name server.
test::Process name_server(std::vector<std::string> options = {}) {
  std::ofstream("/var/hosts") << "192.0.2.7 printer.lan\n2001:db8::7 printer.lan\n"
                                 "2001:db8::8 camera.lan\n";
  std::ofstream("/var/resolv.conf") << "nameserver 127.0.0.1\noptions attempts:1 timeout:5\n";
  test::run("mount --bind /var/resolv.conf $(readlink -f /etc/resolv.conf)");
  options.insert(options.end(), {"--hosts", "/var/hosts"});
  return test::Process("dns_relay", options);
}

struct Resolved {
  uint32_t result;
  std::vector<std::string> addresses;
};

Resolved resolve(const char *host, uint32_t port = 80) {
  auto *out = reinterpret_cast<ORP_UTIL_ADDRINFO_ST *>(1);
  const uint32_t result = ORP_UTIL_GetIpAddresses(host, 0, port, &out);
  const AddressList list(out);
  return {result, texts(out)};
}

void set_any_family(uint32_t value) {
  const CFM_VALUE setting{CFM_AREA_PARAMETER, 0, 0,      CFM_PARA_RESOLVE_ANY_FAMILY,
                          CFM_TYPE_NUMBER,    4, &value, 4};
  ASSERT_EQ(CFM_OK, CFM_StoreDefine(&setting, 1, 0));
}

TEST(GetIpAddresses, AsksForIpv4UnlessTheConfigurationSaysOtherwise) {
  test::Process server = name_server();
  ASSERT_TRUE(server.wait_for("listening"));
  EXPECT_THAT(resolve("printer.lan").addresses, ElementsAre("192.0.2.7 80")) << "no store";

  set_any_family(2);
  const test::FdCheck descriptors;
  EXPECT_THAT(resolve("printer.lan").addresses, ElementsAre("192.0.2.7 80"));
  EXPECT_EQ(ORP_ERR_SYSTEM, resolve("2001:db8::9").result) << "IPv6 text is no IPv4 address";
  const Resolved unknown = resolve("camera.lan");
  EXPECT_EQ(ORP_ERR_SYSTEM, unknown.result) << "no IPv4 address";
  EXPECT_THAT(unknown.addresses, IsEmpty()) << "set to null first";

  set_any_family(1);
  EXPECT_THAT(resolve("printer.lan").addresses,
              UnorderedElementsAre("192.0.2.7 80", "2001:db8::7 80"));
  EXPECT_THAT(resolve("2001:db8::9").addresses, ElementsAre("2001:db8::9 80"));
  EXPECT_THAT(resolve("192.0.2.9", 65535).addresses, ElementsAre("192.0.2.9 65535"));

  testing::internal::CaptureStdout();
  EXPECT_EQ(ORP_ERR_ARGUMENT, resolve("127.0.0.1", 65536).result);
  EXPECT_EQ("ORP_UTIL_GetIpAddresses copy port error.", testing::internal::GetCapturedStdout());
}

TEST(GetIpAddresses, TriesOnceMoreWhenTheResolverSaysSo) {
  // Counts the relay's queries and never answers, so that the relay reports a failure.
  const msgapi::os::UniqueFd upstream(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  const sockaddr_in place = test::loopback(5301);
  ASSERT_EQ(0, ::bind(upstream.get(), reinterpret_cast<const sockaddr *>(&place), sizeof place));
  test::Process server = name_server({"--upstream", "127.0.0.1#5301", "--timeout", "10"});
  ASSERT_TRUE(server.wait_for("listening"));

  EXPECT_EQ(ORP_ERR_SYSTEM, resolve("nobody.lan.").result);

  int queries = 0;
  for (char byte; ::recv(upstream.get(), &byte, 1, MSG_DONTWAIT) > 0;) ++queries;
  EXPECT_EQ(2, queries);
}

TEST(GetIpAddresses, LeavesAllToAHook) {
  ORP_UTIL_RegNameResolveFunc([](const char *host, ORP_WORD argument, uint32_t port,
                                 ORP_UTIL_ADDRINFO_ST **out) -> uint32_t {
    EXPECT_STREQ("any host", host);
    EXPECT_EQ(99u, argument);
    EXPECT_EQ(nullptr, *out);
    *out = ORP_UTIL_ParseIPAddress(0, "192.0.2.33", port);
    return 4711;
  });

  auto *out = reinterpret_cast<ORP_UTIL_ADDRINFO_ST *>(1);
  EXPECT_EQ(4711u, ORP_UTIL_GetIpAddresses("any host", 99, 81, &out));
  EXPECT_THAT(texts(AddressList(out).get()), ElementsAre("192.0.2.33 81"));

  ORP_UTIL_RegNameResolveFunc(nullptr);
  EXPECT_THAT(resolve("192.0.2.1").addresses, ElementsAre("192.0.2.1 80"));
}

}  // namespace
