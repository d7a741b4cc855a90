// The kernel's answer to a request for one interface's counters.
#pragma once

#include <cstdint>
#include <optional>
#include <span>

#include "msgapi/netlink.h"

namespace msgapi::netlink {

// The counters in `reply`, a datagram of netlink messages; messages for another port than `port_id`
// are ignored. None when there are no counters in it or they are longer than the record. An error
// message ends the search and leaves its number in errno.
std::optional<ORP_UTIL_DEV_STATS_ST> find_link_stats(std::span<const uint8_t> reply,
                                                     uint32_t port_id);

}  // namespace msgapi::netlink
