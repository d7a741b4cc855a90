// Datagrams for the platform's load-balancing module in the kernel.

#include <linux/netlink.h>
#include <sys/socket.h>

#include <cstdio>
#include <cstring>
#include <optional>
#include <span>

#include "base/memory.h"
#include "msgapi/netlink.h"
#include "os/fd.h"

namespace msgapi {
namespace {

constexpr int kLoadBalancing = 25;  // the platform's own netlink protocol

struct Datagram {
  Owned<uint8_t> block;
  uint32_t size;
};

std::optional<Datagram> build_datagram(const void *data, uint32_t length, uint16_t port) {
  // The kernel's own macro would cut the sum to 32 bits.
  const uint64_t size = (uint64_t{NLMSG_HDRLEN} + length + 3) & ~uint64_t{3};
  if (data == nullptr || size > UINT32_MAX) return std::nullopt;

  Owned<uint8_t> block(static_cast<uint8_t *>(guarded_zalloc(size)));
  if (!block) return std::nullopt;

  nlmsghdr header{};
  header.nlmsg_len = NLMSG_HDRLEN + length;
  header.nlmsg_type = port;
  header.nlmsg_pid = port;
  std::memcpy(block.get(), &header, sizeof header);
  std::memcpy(block.get() + NLMSG_HDRLEN, data, length);
  return Datagram{std::move(block), static_cast<uint32_t>(size)};
}

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
}  // namespace msgapi

using namespace msgapi;

extern "C" uint32_t ORP_Netlink_SendToKernel(const void *data, uint32_t len, uint16_t port) {
  const os::UniqueFd fd(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, kLoadBalancing));
  if (!fd) return 1;

  sockaddr_nl self{};
  self.nl_family = AF_NETLINK;
  self.nl_pid = port;
  if (::bind(fd.get(), reinterpret_cast<const sockaddr *>(&self), sizeof self) != 0) {
    std::perror("bind error\n");
    return 1;
  }

  const std::optional<Datagram> datagram = build_datagram(data, len, port);
  if (!datagram) return 1;
  send_to_kernel(fd.get(), *datagram);
  return 0;
}
