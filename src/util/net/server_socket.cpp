// Server sockets, bound and with the gateway's standard options, but not listening.

#include <net/if.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

#include "base/copy_failure.h"
#include "msgapi/net.h"
#include "orputil.h"
#include "os/fd.h"
#include "util/net/address_info.h"
#include "util/net/socket_option.h"

namespace msgapi::net {
namespace {

// Options of the platform's kernel that tell on which interface a packet arrived. In a stock kernel
// the first is IP_MINTTL (ip(7)), where 1 changes nothing, and the second does not exist.
constexpr int kIpReceiveDevice = 21;
constexpr int kIpv6ReceiveDevice = 97;

constexpr time_t kReceiveTimeout_s = 2;
constexpr unsigned kUnixSocketGroup = 2591;
constexpr mode_t kUnixSocketMode = 0660;

bool switch_on(int fd, int level, int option) {
  return set_option(fd, level, option, int{1});
}

bool set_general_options(int fd, bool datagram) {
  if (!switch_on(fd, SOL_SOCKET, SO_REUSEADDR)) return false;

  if (!switch_on(fd, IPPROTO_IP, IP_RECVTOS)) std::printf("\n===========set tos failed");
  if (!switch_on(fd, IPPROTO_IP, kIpReceiveDevice)) {
    std::printf("\n===========set receive dev failed");
  }
  (void)switch_on(fd, IPPROTO_TCP, TCP_NODELAY);
  if (datagram && !set_option(fd, SOL_SOCKET, SO_RCVTIMEO, timeval{kReceiveTimeout_s, 0})) {
    std::printf("set udp timeout error");
  }
  return true;
}

bool set_ipv6_options(int fd, bool datagram) {
  if (!switch_on(fd, IPPROTO_IPV6, IPV6_V6ONLY)) return false;

  if (datagram && !switch_on(fd, IPPROTO_IPV6, IPV6_RECVTCLASS)) {
    std::printf("\n===========set ipv6 traffic class failed");
  }
  if (!switch_on(fd, IPPROTO_IPV6, kIpv6ReceiveDevice)) {
    std::printf("\n===========set ipv6 receive  dev failed");
  }
  return true;
}

void set_scope(sockaddr_in6 *address, bool datagram, const char *device) {
  if (device != nullptr) {
    address->sin6_scope_id = ::if_nametoindex(device);
  } else if (datagram || IN6_IS_ADDR_LINKLOCAL(&address->sin6_addr)) {
    address->sin6_scope_id = ::if_nametoindex("br0");
  }
}

// A service that was asked for on one interface must not end up on all of them, so a name that is
// no interface's is a failure.
bool bind_to_device(int fd, const char *name) {
  ifreq request{};
  return copy_or_report(request.ifr_name, name) &&
         ::setsockopt(fd, SOL_SOCKET, SO_BINDTODEVICE, request.ifr_name, sizeof request.ifr_name) ==
             0;
}

bool bind_address(int fd, const ORP_UTIL_ADDRINFO_ST &record) {
  int result;
  do {
    result = ::bind(fd, record.addr, record.addrlen);
  } while (result != 0 && errno == EINTR);
  return result == 0;
}

os::UniqueFd create_network_server(const char *address, uint32_t port, uint32_t flags,
                                   const char *device) {
  const bool datagram = (flags & ORP_SOCKET_DATAGRAM) != 0;
  const bool ipv6 = (flags & ORP_SOCKET_IPV6) != 0 ||
                    (address != nullptr && std::strchr(address, ':') != nullptr);

  const char *interface = nullptr;
  AddressList list = parse_address(flags, address, port);
  if (!list && address != nullptr) {
    interface = address;
    list = parse_address(flags, nullptr, port);
  }

  ORP_UTIL_ADDRINFO_ST *record = list.get();
  while (record != nullptr && record->family != (ipv6 ? AF_INET6 : AF_INET)) record = record->next;
  if (record == nullptr || record->addr == nullptr) return {};

  os::UniqueFd fd(
      ::socket(record->family, (datagram ? SOCK_DGRAM : SOCK_STREAM) | SOCK_CLOEXEC, 0));
  if (!fd || !set_general_options(fd.get(), datagram)) return {};
  if (ipv6) {
    if (!set_ipv6_options(fd.get(), datagram)) return {};
    set_scope(reinterpret_cast<sockaddr_in6 *>(record->addr), datagram, device);
  }
  if (interface != nullptr && !bind_to_device(fd.get(), interface)) return {};
  return bind_address(fd.get(), *record) ? std::move(fd) : os::UniqueFd();
}

os::UniqueFd create_unix_server(const char *path) {
  if (path == nullptr) return {};
  ::unlink(path);
  os::UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!fd) return {};

  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (!copy_exact(address.sun_path, path)) {
    std::printf("UtilCreateUnixDomainSock getpath error .");
    copy_cut(address.sun_path, path);
  }
  const int result = ::bind(fd.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address);
  if (result != 0) {
    std::printf("bind failed, rc=%d errno=%d", result, errno);
    return {};
  }

  if (ORP_VALID_CmdArgs(address.sun_path) != 0) {
    ORP_UTIL_VExecCmdNoHang(__func__, __LINE__, "chown :%u %s", kUnixSocketGroup, address.sun_path);
  }
  if (::chmod(address.sun_path, kUnixSocketMode) != 0) {
    std::printf("chmod for unixsock error.");
    return {};
  }
  return fd;
}

static_assert(sizeof(sockaddr_un) == 110);

}  // namespace
}  // namespace msgapi::net

using namespace msgapi;
using namespace msgapi::net;

extern "C" uint32_t ORP_UTIL_SocketCreateServerEx(const char *address, uint32_t port,
                                                  uint32_t flags, const char *device) {
  os::UniqueFd fd = (flags & ORP_SOCKET_UNIX) != 0
                        ? create_unix_server(address)
                        : create_network_server(address, port, flags, device);
  return fd ? static_cast<uint32_t>(fd.release()) : ORP_INVALID_SOCKET;
}

extern "C" uint32_t ORP_UTIL_SocketCreateServer(const char *address, uint32_t port,
                                                uint32_t flags) {
  return ORP_UTIL_SocketCreateServerEx(address, port, flags, nullptr);
}
