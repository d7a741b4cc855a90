#include "util/netlink/link_stats.h"

#include <gmock/gmock.h>
#include <linux/if_link.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <deque>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "base/bytes.h"
#include "support/fd_check.h"
#include "support/network.h"

namespace {

std::vector<std::vector<uint8_t>> g_requests;
std::deque<int> g_receive_errors;  // errnos of the next receives, before one succeeds
int g_receive_flags;               // set in the flags of every receive

}  // namespace

extern "C" ssize_t sendto(int fd, const void *data, size_t size, int flags, const sockaddr *to,
                          socklen_t to_size) {
  const auto *bytes = static_cast<const uint8_t *>(data);
  if (to != nullptr && to->sa_family == AF_NETLINK) g_requests.emplace_back(bytes, bytes + size);
  return ::syscall(SYS_sendto, fd, data, size, flags, to, to_size);
}

extern "C" ssize_t recvmsg(int fd, msghdr *message, int flags) {
  if (!g_receive_errors.empty()) {
    errno = g_receive_errors.front();
    g_receive_errors.pop_front();
    return -1;
  }
  const ssize_t size = ::syscall(SYS_recvmsg, fd, message, flags);
  message->msg_flags |= g_receive_flags;
  return size;
}

static bool operator==(const ORP_UTIL_DEV_STATS_ST &a, const ORP_UTIL_DEV_STATS_ST &b) {
  return std::memcmp(&a, &b, sizeof a) == 0;
}

namespace {

using testing::IsEmpty;

constexpr uint32_t kPort = 0x98765421;

using Stats = ORP_UTIL_DEV_STATS_ST;

// Counters with a pattern that a failed reading must leave untouched.
const Stats &marked() {
  static Stats stats;
  std::memset(&stats, 0xA5, sizeof stats);
  return stats;
}

Stats stats_of(const char *name, decltype(ORP_UTIL_GetDevStats) read = ORP_UTIL_GetDevStats) {
  Stats stats = marked();
  read(name, &stats);
  return stats;
}

TEST(DevStats, MoveWithTheTraffic) {
  const Stats before = stats_of("lo");

  test::send_over_loopback(10, 1000);

  const Stats after = stats_of("lo");
  // Each datagram goes out once, and the answer reports that nobody listens.
  EXPECT_GE(after.tx_packets - before.tx_packets, 10u);
  EXPECT_GE(after.tx_bytes - before.tx_bytes, 10u * 1028);
  EXPECT_EQ(after, stats_of("lo", ORP_UTIL_get_dev_stats));
}

TEST(DevStats, AreUntouchedWithoutAnInterface) {
  for (const char *name : {"nosuch0", "", static_cast<const char *>(nullptr)}) {
    EXPECT_EQ(marked(), stats_of(name));
  }
  ORP_UTIL_GetDevStats("lo", nullptr);

  testing::internal::CaptureStdout();
  EXPECT_EQ(marked(), stats_of("a-name-of-16-chr"));
  EXPECT_EQ("copy interface name error .", testing::internal::GetCapturedStdout());
  EXPECT_THAT(g_requests, IsEmpty());
}

TEST(DevStats, KeepTheirSocketsAndNumberTheirRequests) {
  const std::set<int> at_first = test::open_descriptors();
  stats_of("lo");
  const std::set<int> after_one = test::open_descriptors();
  stats_of("lo");
  stats_of("nosuch0");

  EXPECT_EQ(at_first.size() + 2, after_one.size());
  EXPECT_EQ(after_one, test::open_descriptors());
  ASSERT_EQ(2u, g_requests.size());
  for (uint32_t i = 0; i < 2; ++i) {
    struct {
      nlmsghdr header;
      ifinfomsg link;
    } expected{};
    expected.header = {32, RTM_GETLINK, NLM_F_REQUEST, i + 1,
                       static_cast<uint32_t>(::getpid()) | 0x98765421};
    expected.link.ifi_index = static_cast<int>(::if_nametoindex("lo"));
    ASSERT_EQ(sizeof expected, g_requests[i].size());
    EXPECT_EQ(0, std::memcmp(&expected, g_requests[i].data(), sizeof expected));
  }
}

TEST(DevStats, AreReadByAForkedChildOnSocketsOfItsOwn) {
  stats_of("lo");
  const uint32_t own_port = static_cast<uint32_t>(::getpid()) | kPort;

  // Port ids are unique (netlink(7)): a child whose process id makes its parent's port id gets no
  // socket.
  for (bool port_differs = false; !port_differs;) {
    const pid_t child = ::fork();
    if (child == 0) ::_exit(stats_of("lo") == marked() ? 1 : 0);
    port_differs = (static_cast<uint32_t>(child) | kPort) != own_port;
    int status = -1;
    ASSERT_EQ(child, ::waitpid(child, &status, 0));
    EXPECT_EQ(port_differs ? 0 : 1, WEXITSTATUS(status));
  }

  EXPECT_NE(marked(), stats_of("lo"));
}

TEST(DevStats, WaitForTheAnswerAndAreUntouchedWhenItIsLostOrCut) {
  g_receive_errors = {EAGAIN, EINTR, EAGAIN};
  EXPECT_NE(marked(), stats_of("lo"));
  EXPECT_THAT(g_receive_errors, IsEmpty());
  for (const int flag : {MSG_TRUNC, MSG_ERRQUEUE}) {
    g_receive_flags = flag;
    EXPECT_EQ(marked(), stats_of("lo"));
  }
  g_receive_flags = 0;
  EXPECT_NE(marked(), stats_of("lo"));
  g_receive_errors = {ENOBUFS};
  EXPECT_EQ(marked(), stats_of("lo"));
}

// The counters in a reply of these records, whose lengths the test chooses. The reply ends with its
// block, so that reading past it is noticed.
template <typename... T>
std::optional<ORP_UTIL_DEV_STATS_ST> read(const T &...records) {
  std::string bytes;
  (bytes.append(reinterpret_cast<const char *>(&records), sizeof records), ...);
  const auto exact = std::make_unique<uint8_t[]>(bytes.size());
  std::memcpy(exact.get(), bytes.data(), bytes.size());
  return msgapi::netlink::find_link_stats({exact.get(), bytes.size()}, kPort);
}

nlmsghdr message(uint16_t type, uint32_t size, uint16_t flags = 0, uint32_t port = kPort) {
  return {static_cast<uint32_t>(sizeof(nlmsghdr)) + size, type, flags, 1, port};
}

nlmsghdr link(uint32_t attributes, uint16_t flags = 0, uint32_t port = kPort) {
  return message(RTM_NEWLINK, static_cast<uint32_t>(sizeof(ifinfomsg)) + attributes, flags, port);
}

constexpr ifinfomsg kInterface{};
constexpr rtattr kStats{100, IFLA_STATS};
constexpr rtattr kOther{8, IFLA_MTU};

std::array<uint32_t, 24> counters(uint32_t value) {
  std::array<uint32_t, 24> all;
  all.fill(value);
  return all;
}

TEST(LinkStatsReply, TakesTheFirstCountersMeantForThisReader) {
  EXPECT_EQ(0u, read(link(96), kInterface, rtattr{96, IFLA_STATS}, counters(3))->rx_nohandler)
      << "an older kernel does not count them";
  EXPECT_EQ(4u, read(link(200), kInterface, kStats, counters(4), kStats, counters(5))->rx_bytes);
  EXPECT_EQ(6u, read(link(100, 0, 1), kInterface, kStats, counters(5), message(NLMSG_NOOP, 0),
                     link(8), kInterface, kOther, 0, link(100), kInterface, kStats, counters(6))
                    ->rx_bytes)
      << "somebody else's answer and other messages first";
}

TEST(LinkStatsReply, GivesNothingForDamagedMessages) {
  const nlmsghdr shortest{15, RTM_NEWLINK, 0, 1, kPort};
  const nlmsghdr longest{0xFFFFFFFF, RTM_NEWLINK, 0, 1, kPort};

  EXPECT_FALSE(read(shortest, kInterface, kStats, counters(1)));
  EXPECT_FALSE(read(longest, kInterface, kStats, counters(1))) << "rounding it up wraps";
  EXPECT_FALSE(read(link(101), kInterface, kStats, counters(1))) << "longer than the reply";
  EXPECT_FALSE(read(message(RTM_NEWLINK, 8), kStats, 0)) << "no interface record";
  EXPECT_FALSE(read(link(99), kInterface, kStats, counters(1))) << "attribute beyond its message";
  EXPECT_FALSE(read(link(104), kInterface, rtattr{3, IFLA_STATS}, kStats, counters(1)));
  EXPECT_FALSE(read(link(104), kInterface, rtattr{0, IFLA_MTU}, kStats, counters(1)));
}

TEST(LinkStatsReply, ReportsErrorsAndAnswersThatAreTooLong) {
  constexpr uint32_t kErrorSize = sizeof(nlmsgerr);
  const auto behind_error = [](const nlmsghdr &header, int error) {
    errno = 0;
    return read(header, nlmsgerr{error, {}}, link(100), kInterface, kStats, counters(1));
  };
  EXPECT_FALSE(behind_error(message(NLMSG_ERROR, kErrorSize), -ENODEV));
  EXPECT_EQ(ENODEV, errno);
  EXPECT_FALSE(behind_error(message(NLMSG_ERROR, kErrorSize - 1), -ENODEV));
  EXPECT_EQ(0, errno) << "too short to hold an error";
  EXPECT_FALSE(behind_error(message(NLMSG_ERROR, kErrorSize), INT32_MIN));
  EXPECT_TRUE(behind_error(message(NLMSG_ERROR, kErrorSize, 0, 5), -ENODEV)) << "not ours";

  testing::internal::CaptureStdout();
  EXPECT_FALSE(read(link(100, 0x20), kInterface, kStats, counters(1)));
  EXPECT_FALSE(read(link(104), kInterface, rtattr{104, IFLA_STATS}, counters(1), 0));
  EXPECT_EQ(
      "kernel return too long message to save\r"
      "NetlinkStatsMakeOutPut memcpy result error.",
      testing::internal::GetCapturedStdout());
}

}  // namespace
