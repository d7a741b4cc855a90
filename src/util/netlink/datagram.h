// What the library's netlink users share: the address of a socket, and a datagram for the kernel
// (netlink(7)).
#pragma once

#include <linux/netlink.h>

#include <cstdint>

#include "base/memory.h"

namespace msgapi::netlink {

// Binds the socket to `port_id`, which tells it apart from the other netlink sockets of this
// machine. False with errno.
bool bind_to_port(int fd, uint32_t port_id);

// One netlink message with `length` bytes of data, padded to whole words. Null without memory.
struct Datagram {
  Owned<char> block;
  size_t size;
};
Datagram build_datagram(const void *data, uint32_t length, uint16_t type, uint32_t port_id);

}  // namespace msgapi::netlink
