// Interface counters over routing netlink (rtnetlink(7)): one request, one answer, on a socket that
// the process keeps.
//
// The kernel answers an RTM_GETLINK request before send() returns. When it has no memory for the
// answer, the next receive fails. So a wait for the answer always ends.

#include "util/netlink/link_stats.h"

#include <linux/if_link.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "base/bytes.h"
#include "base/text.h"
#include "os/fd.h"
#include "os/wait.h"
#include "util/netlink/datagram.h"

namespace msgapi::netlink {
namespace {

static_assert(sizeof(ORP_UTIL_DEV_STATS_ST) == 96);
static_assert(sizeof(ORP_UTIL_DEV_STATS_ST) == sizeof(rtnl_link_stats));
static_assert(offsetof(ORP_UTIL_DEV_STATS_ST, rx_nohandler) ==
              offsetof(rtnl_link_stats, rx_nohandler));

// Makes this reader's port id differ from those of the process's other netlink users, which take
// the plain process id.
constexpr uint32_t kPortIdPattern = 0x98765421;

// A reply with this header flag did not fit on the kernel's side.
constexpr uint16_t kReplyTooLong = 0x20;

constexpr size_t kLinkHeaderSize = NLMSG_HDRLEN + sizeof(ifinfomsg);

struct StatsClient {
  pid_t owner;  // the process that the sockets were opened for; 0 is none
  int netlink_fd;
  int ioctl_fd;
  uint32_t port_id;
  uint32_t sequence;
  std::array<uint8_t, 2048> reply;
};

StatsClient g_client;

struct LinkRequest {
  nlmsghdr header;
  ifinfomsg link;
};
static_assert(sizeof(LinkRequest) == 32);

// The sockets belong to one process: a forked child shares the netlink socket's queue with its
// parent until it has one of its own.
bool open_client() {
  const pid_t self = ::getpid();
  if (g_client.owner == self) return true;

  if (g_client.owner != 0) {
    os::UniqueFd(g_client.netlink_fd).reset();
    os::UniqueFd(g_client.ioctl_fd).reset();
    g_client.owner = 0;
  }

  os::UniqueFd netlink(
      ::socket(AF_NETLINK, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, NETLINK_ROUTE));
  if (!netlink) return false;

  const uint32_t port_id = static_cast<uint32_t>(self) | kPortIdPattern;
  if (!bind_to_port(netlink.get(), port_id)) return false;

  os::UniqueFd ioctl_socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (!ioctl_socket) return false;

  g_client.owner = self;
  g_client.netlink_fd = netlink.release();
  g_client.ioctl_fd = ioctl_socket.release();
  g_client.port_id = port_id;
  return true;
}

// The interface's index, or 0.
int interface_index(const char *name) {
  ifreq request{};
  if (!copy_exact(request.ifr_name, name)) {
    std::printf("copy interface name error .");
    return 0;
  }
  return ::ioctl(g_client.ioctl_fd, SIOCGIFINDEX, &request) == 0 ? request.ifr_ifindex : 0;
}

bool send_request(int index) {
  LinkRequest request{};
  request.header.nlmsg_len = sizeof request;
  request.header.nlmsg_type = RTM_GETLINK;
  request.header.nlmsg_flags = NLM_F_REQUEST;
  request.header.nlmsg_seq = ++g_client.sequence;
  request.header.nlmsg_pid = g_client.port_id;
  request.link.ifi_index = index;

  sockaddr_nl kernel{};
  kernel.nl_family = AF_NETLINK;
  return ::sendto(g_client.netlink_fd, &request, sizeof request, 0,
                  reinterpret_cast<const sockaddr *>(&kernel), sizeof kernel) >= 0;
}

// Empty when nothing, or not all of it, could be received.
std::span<const uint8_t> receive_reply() {
  iovec piece{g_client.reply.data(), g_client.reply.size()};
  msghdr message{};
  message.msg_iov = &piece;
  message.msg_iovlen = 1;

  for (;;) {
    const ssize_t size = ::recvmsg(g_client.netlink_fd, &message, MSG_DONTWAIT);
    if (size > 0) {
      const bool whole = (message.msg_flags & (MSG_TRUNC | MSG_ERRQUEUE)) == 0;
      return std::span(g_client.reply).first(whole ? static_cast<size_t>(size) : 0);
    }
    if (size == 0) return {};
    if (errno == EAGAIN) {
      // Whatever ends this wait, the next receive reports it.
      (void)os::wait_readable(g_client.netlink_fd, INT32_MAX);
    } else if (errno != EINTR) {
      return {};
    }
  }
}

// The payload of the first attribute of `type`; attribute lengths that do not fit end the search.
std::optional<std::span<const uint8_t>> find_attribute(std::span<const uint8_t> attributes,
                                                       uint16_t type) {
  while (attributes.size() >= sizeof(rtattr)) {
    const auto head = load<rtattr>(attributes.data());
    if (head.rta_len < sizeof(rtattr) || head.rta_len > attributes.size()) break;
    if (head.rta_type == type) return attributes.first(head.rta_len).subspan(sizeof(rtattr));

    const size_t step = RTA_ALIGN(size_t{head.rta_len});
    if (step >= attributes.size()) break;
    attributes = attributes.subspan(step);
  }
  return std::nullopt;
}

}  // namespace

std::optional<ORP_UTIL_DEV_STATS_ST> find_link_stats(std::span<const uint8_t> reply,
                                                     uint32_t port_id) {
  while (reply.size() >= sizeof(nlmsghdr)) {
    const auto header = load<nlmsghdr>(reply.data());
    if (header.nlmsg_len < sizeof(nlmsghdr) || header.nlmsg_len > reply.size()) break;
    const auto message = reply.first(header.nlmsg_len);

    if (header.nlmsg_pid == port_id && header.nlmsg_type == NLMSG_ERROR) {
      if (message.size() >= NLMSG_HDRLEN + sizeof(nlmsgerr)) {
        errno = static_cast<int>(0 - load<uint32_t>(message.data() + NLMSG_HDRLEN));
      }
      return std::nullopt;
    }
    if (header.nlmsg_pid == port_id && header.nlmsg_type == RTM_NEWLINK) {
      if ((header.nlmsg_flags & kReplyTooLong) != 0) {
        std::printf("kernel return too long message to save\r");
        return std::nullopt;
      }
      const auto attributes =
          message.size() > kLinkHeaderSize ? message.subspan(kLinkHeaderSize) : message.first(0);
      if (const auto payload = find_attribute(attributes, IFLA_STATS)) {
        ORP_UTIL_DEV_STATS_ST stats{};
        if (payload->size() > sizeof stats) {
          std::printf("NetlinkStatsMakeOutPut memcpy result error.");
          return std::nullopt;
        }
        std::memcpy(&stats, payload->data(), payload->size());
        return stats;
      }
    }

    const size_t step = NLMSG_ALIGN(size_t{header.nlmsg_len});
    if (step >= reply.size()) break;
    reply = reply.subspan(step);
  }
  return std::nullopt;
}

}  // namespace msgapi::netlink

using namespace msgapi::netlink;

extern "C" void ORP_UTIL_GetDevStats(const char *ifName, ORP_UTIL_DEV_STATS_ST *stats) {
  if (ifName == nullptr || ifName[0] == '\0' || stats == nullptr) return;

  if (!open_client()) {
    std::printf("error for netlink init\r");
    return;
  }
  const int index = interface_index(ifName);
  if (index < 1 || !send_request(index)) return;

  const auto found = find_link_stats(receive_reply(), g_client.port_id);
  if (found) *stats = *found;
}

extern "C" void ORP_UTIL_get_dev_stats(const char *ifName, ORP_UTIL_DEV_STATS_ST *stats) {
  ORP_UTIL_GetDevStats(ifName, stats);
}
