#include "common/network.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>

#include <vector>

namespace {

using servers::Network;

sockaddr_storage address_of(const char *text) {
  sockaddr_storage storage{};
  auto *ip4 = reinterpret_cast<sockaddr_in *>(&storage);
  auto *ip6 = reinterpret_cast<sockaddr_in6 *>(&storage);
  if (::inet_pton(AF_INET, text, &ip4->sin_addr) == 1) {
    storage.ss_family = AF_INET;
  } else {
    EXPECT_EQ(1, ::inet_pton(AF_INET6, text, &ip6->sin6_addr)) << text;
    storage.ss_family = AF_INET6;
  }
  return storage;
}

TEST(Network, HoldsTheAddressesOfItsPrefix) {
  const struct {
    const char *network;
    std::vector<const char *> inside, outside;
  } cases[] = {
      {"192.168.1.7", {"192.168.1.7", "::ffff:192.168.1.7"}, {"192.168.1.6", "::c0a8:107"}},
      {"10.9.8.0/24", {"10.9.8.0", "10.9.8.255"}, {"10.9.9.0", "10.9.7.255"}},
      {"172.16.0.0/12",
       {"172.16.0.0", "172.31.255.255", "::ffff:172.20.0.1"},
       {"172.32.0.0", "172.15.255.255", "fd00::1"}},
      {"128.0.0.0/1", {"255.0.0.1"}, {"127.0.0.1"}},
      {"0.0.0.0/0", {"255.1.2.3", "0.0.0.0"}, {"::1"}},
      {"fd00::/8", {"fdff::1"}, {"fe00::1", "10.0.0.1"}},
      {"2001:db8:8000::/33", {"2001:db8:ffff::1"}, {"2001:db8:7fff:ffff::", "2001:db9:8000::"}},
      {"::/0", {"::1", "1.2.3.4"}, {}},
  };
  for (const auto &each : cases) {
    const auto network = Network::parse(each.network);
    ASSERT_TRUE(network) << each.network;
    for (const char *text : each.inside) {
      EXPECT_TRUE(network->contains(address_of(text))) << each.network << ' ' << text;
    }
    for (const char *text : each.outside) {
      EXPECT_FALSE(network->contains(address_of(text))) << each.network << ' ' << text;
    }
  }
  sockaddr_storage local{};
  local.ss_family = AF_UNIX;
  EXPECT_FALSE(Network::parse("::/0")->contains(local));
}

TEST(Network, IsNoneForOtherTexts) {
  for (const char *text : {"", "/8", "10.0.0.0/", "10.0.0.0/33", "10.0.0.0/-1", "10.0.0.0/8x",
                           "10.0.0.0/x", "10.0.0.0/99999999999", "::/129", "10.0.0/8", "host"}) {
    EXPECT_FALSE(Network::parse(text)) << text;
  }
}

}  // namespace
