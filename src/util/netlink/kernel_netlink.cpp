// Datagrams for the platform's load-balancing module in the kernel.

#include <sys/socket.h>

#include <cstdio>

#include "msgapi/netlink.h"
#include "os/fd.h"
#include "util/netlink/datagram.h"

namespace msgapi::netlink {
namespace {

constexpr int kLoadBalancing = 25;  // the platform's own netlink protocol

void send_to_kernel(int fd, const Datagram &datagram) {
  sockaddr_nl kernel{};
  kernel.nl_family = AF_NETLINK;
  iovec piece{datagram.block.get(), datagram.size};
  msghdr message{};
  message.msg_name = &kernel;
  message.msg_namelen = sizeof kernel;
  message.msg_iov = &piece;
  message.msg_iovlen = 1;
  if (::sendmsg(fd, &message, 0) < 0) std::perror("send failed for balance\n");
}

}  // namespace
}  // namespace msgapi::netlink

using namespace msgapi;
using namespace msgapi::netlink;

extern "C" uint32_t ORP_Netlink_SendToKernel(const void *data, uint32_t len, uint16_t port) {
  const os::UniqueFd fd(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, kLoadBalancing));
  if (!fd) return 1;

  if (!bind_to_port(fd.get(), port)) {
    std::perror("bind error\n");
    return 1;
  }

  // A length that wraps with its header is no datagram.
  if (data == nullptr || len > UINT32_MAX - NLMSG_HDRLEN) return 1;
  const Datagram datagram = build_datagram(data, len, port, port);
  if (!datagram.block) return 1;
  send_to_kernel(fd.get(), datagram);
  return 0;
}
