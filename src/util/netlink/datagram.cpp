#include "util/netlink/datagram.h"

#include <sys/socket.h>

#include <cstring>

#include "base/bytes.h"

namespace msgapi::netlink {

bool bind_to_port(int fd, uint32_t port_id) {
  sockaddr_nl address{};
  address.nl_family = AF_NETLINK;
  address.nl_pid = port_id;
  return ::bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
}

Datagram build_datagram(const void *data, uint32_t length, uint16_t type, uint32_t port_id) {
  // NLMSG_SPACE() would cut the sum to 32 bits.
  const uint64_t size = (uint64_t{NLMSG_HDRLEN} + length + 3) & ~uint64_t{3};
  Owned<char> block(static_cast<char *>(guarded_zalloc(size)));
  if (!block) return {};

  nlmsghdr header{};
  header.nlmsg_len = NLMSG_HDRLEN + length;
  header.nlmsg_type = type;
  header.nlmsg_pid = port_id;
  store(block.get(), header);
  std::memcpy(block.get() + NLMSG_HDRLEN, data, length);
  return {std::move(block), static_cast<size_t>(size)};
}

}  // namespace msgapi::netlink
