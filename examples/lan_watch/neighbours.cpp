#include "neighbours.h"

#include <arpa/inet.h>
#include <linux/neighbour.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <system_error>

#include "msgapi/mac.h"

namespace lan_watch {
namespace {

// What one message says about a host.
struct Entry {
  std::string mac;
  std::string address;  // "" in a forwarding table
};

std::string mac_text(std::span<const char> bytes) {
  char text[ORP_MAC_TEXT_SIZE];
  const auto *mac = reinterpret_cast<const uint8_t *>(bytes.data());
  return ORP_UTIL_Macntoa(mac, static_cast<uint32_t>(bytes.size()), text, sizeof text) ? text : "";
}

std::string address_text(int family, std::span<const char> bytes) {
  char text[INET6_ADDRSTRLEN];
  const size_t size = family == AF_INET ? sizeof(in_addr) : sizeof(in6_addr);
  if (bytes.size() != size) return "";
  return ::inet_ntop(family, bytes.data(), text, sizeof text) == nullptr ? "" : text;
}

Entry parse_entry(int family, std::span<const char> attributes) {
  Entry entry;
  while (attributes.size() >= sizeof(rtattr)) {
    rtattr head;
    std::memcpy(&head, attributes.data(), sizeof head);
    if (head.rta_len < sizeof head || head.rta_len > attributes.size()) break;

    const auto payload = attributes.subspan(sizeof head, head.rta_len - sizeof head);
    if (head.rta_type == NDA_LLADDR) entry.mac = mac_text(payload);
    if (head.rta_type == NDA_DST && family != AF_BRIDGE)
      entry.address = address_text(family, payload);
    attributes = attributes.subspan(std::min<size_t>(RTA_ALIGN(head.rta_len), attributes.size()));
  }
  return entry;
}

}  // namespace

Neighbours::Neighbours()
    : fd_(::socket(AF_NETLINK, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, NETLINK_ROUTE)) {
  sockaddr_nl address{};
  address.nl_family = AF_NETLINK;
  address.nl_groups = RTMGRP_NEIGH;
  if (fd_ < 0 || ::bind(fd_, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0) {
    throw std::system_error(errno, std::system_category(), "routing netlink");
  }

  // One question at a time: the kernel refuses a second one while it answers.
  for (const int family : {AF_UNSPEC, AF_BRIDGE}) {
    ask(family);
    update();
  }
}

Neighbours::~Neighbours() {
  ::close(fd_);
}

void Neighbours::ask(int family) {
  struct {
    nlmsghdr header;
    ndmsg neighbour;
  } request{};
  request.header.nlmsg_len = sizeof request;
  request.header.nlmsg_type = RTM_GETNEIGH;
  request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  request.neighbour.ndm_family = static_cast<uint8_t>(family);
  if (::send(fd_, &request, sizeof request, 0) < 0) {
    throw std::system_error(errno, std::system_category(), "asking for neighbours");
  }
}

void Neighbours::update() {
  char datagram[32768];
  for (ssize_t size; (size = ::recv(fd_, datagram, sizeof datagram, 0)) > 0;) {
    std::span<const char> rest(datagram, static_cast<size_t>(size));
    while (rest.size() >= sizeof(nlmsghdr)) {
      nlmsghdr header;
      std::memcpy(&header, rest.data(), sizeof header);
      if (header.nlmsg_len < sizeof header || header.nlmsg_len > rest.size()) break;
      take_message(rest.first(header.nlmsg_len));
      rest = rest.subspan(std::min<size_t>(NLMSG_ALIGN(header.nlmsg_len), rest.size()));
    }
  }
}

void Neighbours::take_message(std::span<const char> message) {
  nlmsghdr header;
  ndmsg neighbour;
  constexpr size_t kHeadSize = sizeof header + sizeof neighbour;
  if (message.size() < kHeadSize) return;
  std::memcpy(&header, message.data(), sizeof header);
  std::memcpy(&neighbour, message.data() + sizeof header, sizeof neighbour);
  if (header.nlmsg_type != RTM_NEWNEIGH && header.nlmsg_type != RTM_DELNEIGH) return;

  const Entry entry = parse_entry(neighbour.ndm_family, message.subspan(kHeadSize));
  if (entry.mac.empty()) return;

  // A bridge's own entries, and addresses that nobody has.
  constexpr unsigned kNotAHost = NUD_NOARP | NUD_FAILED | NUD_INCOMPLETE;
  const bool own = neighbour.ndm_family == AF_BRIDGE && (neighbour.ndm_state & NUD_PERMANENT) != 0;
  if (header.nlmsg_type == RTM_NEWNEIGH && !own && (neighbour.ndm_state & kNotAHost) == 0) {
    auto &addresses = hosts_[entry.mac];
    if (!entry.address.empty()) addresses.insert(entry.address);
    return;
  }

  const auto host = hosts_.find(entry.mac);
  if (host == hosts_.end()) return;
  if (!entry.address.empty()) {
    host->second.erase(entry.address);
  } else if (header.nlmsg_type == RTM_DELNEIGH) {
    hosts_.erase(host);  // it left its bridge
  }
}

}  // namespace lan_watch
