// The kernel's tables under /proc/net, read from descriptors.
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <optional>
#include <string_view>

#include "msgapi/bridge.h"

namespace msgapi::net {

// Whether a socket of /proc/net/tcp listens on `port`; prints a line for every line up to it that
// holds no socket.
bool has_tcp_listener(int fd, uint32_t port);

// The counters of the first line of /proc/net/dev with `name` directly before a ":".
std::optional<ORP_UTIL_IFC_STAT_ST> find_interface_counters(int fd, std::string_view name);

// The first address of fe80::/10 that /proc/net/if_inet6 lists for `name`.
std::optional<in6_addr> find_link_local_address(int fd, std::string_view name);

}  // namespace msgapi::net
