// Replies of routing netlink: whatever their lengths claim, the walk stays inside the datagram.
//
// Input: the datagram. The port id is that of its first message, so that the walk goes on.

#include <linux/netlink.h>

#include <cstdio>
#include <cstring>
#include <memory>

#include "base/bytes.h"
#include "util/netlink/link_stats.h"

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  return std::freopen("/dev/null", "w", stdout) == nullptr ? 1 : 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const auto exact = std::make_unique<uint8_t[]>(size);
  if (size > 0) std::memcpy(exact.get(), data, size);
  uint32_t port_id = 0;
  if (size >= sizeof(nlmsghdr)) port_id = msgapi::load<nlmsghdr>(exact.get()).nlmsg_pid;

  (void)msgapi::netlink::find_link_stats({exact.get(), size}, port_id);
  return 0;
}
