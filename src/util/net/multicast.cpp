// Membership in multicast groups.

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include "base/status.h"
#include "msgapi/net.h"
#include "util/net/socket_option.h"

namespace msgapi::net {
namespace {

Status join_ipv4(int fd, const char *group, const in_addr &local) {
  ip_mreq request{};
  if (::inet_aton(group, &request.imr_multiaddr) == 0) return Status::kBadArgument;
  request.imr_interface = local;
  if (!set_option(fd, IPPROTO_IP, IP_ADD_MEMBERSHIP, request)) return Status::kSystem;

  (void)set_option(fd, IPPROTO_IP, IP_MULTICAST_IF, local);
  return Status::kOk;
}

void join_ipv6(int fd, const char *group, const char *interface) {
  ipv6_mreq request{};
  if (::inet_pton(AF_INET6, group, &request.ipv6mr_multiaddr) != 1) return;
  request.ipv6mr_interface = ::if_nametoindex(interface);
  (void)set_option(fd, IPPROTO_IPV6, IPV6_ADD_MEMBERSHIP, request);
}

Status join(int fd, const char *group, const ORP_UTIL_ADDRINFO_ST &local, const char *interface) {
  if (local.family == AF_INET && local.addrlen >= sizeof(sockaddr_in)) {
    const auto *address = reinterpret_cast<const sockaddr_in *>(local.addr);
    const Status status = join_ipv4(fd, group, address->sin_addr);
    if (status != Status::kOk) return status;
  } else if (local.family == AF_INET6) {
    join_ipv6(fd, group, interface);
  } else {
    return Status::kBadArgument;
  }
  (void)set_option(fd, SOL_SOCKET, SO_BROADCAST, int{1});
  return Status::kOk;
}

}  // namespace
}  // namespace msgapi::net

using namespace msgapi;
using namespace msgapi::net;

extern "C" uint32_t ORP_UTIL_SocketSetTTL(int32_t fd, uint8_t ttl) {
  if (fd == -1) return ORP_ERR_ARGUMENT;
  return static_cast<uint32_t>(::setsockopt(fd, IPPROTO_IP, IP_MULTICAST_TTL, &ttl, sizeof ttl));
}

extern "C" uint32_t ORP_UTIL_SocketSetMcastIf(int32_t, const char *) {
  return 0;
}

extern "C" uint32_t ORP_UTIL_SocketJoinMcastEx(int32_t fd, const char *group,
                                               const ORP_UTIL_ADDRINFO_ST *local,
                                               const char *ifName) {
  if (fd < 0 || group == nullptr || local == nullptr || local->addr == nullptr ||
      ifName == nullptr) {
    return ORP_ERR_ARGUMENT;
  }
  return code(join(fd, group, *local, ifName));
}

extern "C" uint32_t ORP_UTIL_SocketJoinMcast(int32_t fd, const char *group,
                                             const ORP_UTIL_ADDRINFO_ST *local) {
  return ORP_UTIL_SocketJoinMcastEx(fd, group, local, "br0");
}
