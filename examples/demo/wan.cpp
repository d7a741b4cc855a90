// The demo's publisher: tells everybody who subscribed when a network interface goes up or down,
// as the kernel reports it on its routing netlink socket.

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>

#include <cstdio>

#include "msgapi.h"
#include "msgapi/kit.h"

namespace {

void publish(const ifinfomsg &link) {
  char name[IF_NAMESIZE];
  if (::if_indextoname(static_cast<unsigned>(link.ifi_index), name) == nullptr) return;
  const bool up = (link.ifi_flags & IFF_RUNNING) != 0;
  const uint32_t status =
      ORP_EVT_PublishEvent(ORP_MSG_EVENT_WAN, up ? "LinkUp" : "LinkDown", "interface", name);
  mlog_print("wan", MLOG_LEVEL_INFO, "%s is %s, published: %s", name, up ? "up" : "down",
             msgkit_status_sentence(MSGKIT_STATUS_EVENTS, status));
}

void read_changes(ORP_UTIL_SOCKBASE_ST *base, uint32_t /*event*/) {
  alignas(nlmsghdr) char buffer[8192];
  const ssize_t size = ::recv(base->io.fd, buffer, sizeof buffer, MSG_DONTWAIT);
  if (size <= 0) return;

  auto left = static_cast<size_t>(size);
  for (auto *message = reinterpret_cast<nlmsghdr *>(buffer); NLMSG_OK(message, left);
       message = NLMSG_NEXT(message, left)) {
    if (message->nlmsg_type != RTM_NEWLINK) continue;
    if (message->nlmsg_len < NLMSG_LENGTH(sizeof(ifinfomsg))) continue;
    publish(*static_cast<const ifinfomsg *>(NLMSG_DATA(message)));
  }
}

uint32_t watch_links() {
  const int fd = ::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
  sockaddr_nl address{};
  address.nl_family = AF_NETLINK;
  address.nl_groups = RTMGRP_LINK;
  if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0) {
    std::perror("wan: netlink");
    return ORP_ERR_SYSTEM;
  }
  const auto *watcher = ORP_UTIL_SockBaseRegNew(fd, 0, read_changes, ORP_UTIL_SOCKBASE_READ, 0);
  return watcher != nullptr ? ORP_OK : ORP_ERR_MEMORY;
}

}  // namespace

int main() {
  const MSGKIT_DAEMON_ST daemon = {"wan", watch_links, nullptr, nullptr, nullptr};
  return msgkit_run_daemon(&daemon);
}
