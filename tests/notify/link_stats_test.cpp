#include "notify/link_stats.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <deque>
#include <set>
#include <string>
#include <vector>

#include "base/bytes.h"
#include "os/fd.h"
#include "support/fd_check.h"

namespace {

std::vector<std::vector<uint8_t>> g_requests;
std::deque<int> g_receive_errors;  // what the next receives fail with before one is let through
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

namespace {

using testing::IsEmpty;
using testing::SizeIs;

constexpr uint32_t kPort = 0x98765421;

ORP_UTIL_DEV_STATS_ST marked_stats() {
  ORP_UTIL_DEV_STATS_ST stats;
  std::memset(&stats, 0xA5, sizeof stats);
  return stats;
}

bool is_marked(const ORP_UTIL_DEV_STATS_ST &stats) {
  const ORP_UTIL_DEV_STATS_ST marked = marked_stats();
  return std::memcmp(&marked, &stats, sizeof stats) == 0;
}

ORP_UTIL_DEV_STATS_ST stats_of(const char *name) {
  ORP_UTIL_DEV_STATS_ST stats = marked_stats();
  ORP_UTIL_GetDevStats(name, &stats);
  return stats;
}

// Sends `count` datagrams of `size` bytes to a closed port of this machine.
void send_over_loopback(uint32_t count, size_t size) {
  const msgapi::os::UniqueFd fd(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(9);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  const std::string data(size, 'x');
  for (uint32_t i = 0; i < count; ++i) {
    ::sendto(fd.get(), data.data(), data.size(), 0, reinterpret_cast<sockaddr *>(&address),
             sizeof address);
  }
}

TEST(DevStats, MoveWithTheTraffic) {
  const ORP_UTIL_DEV_STATS_ST before = stats_of("lo");
  ASSERT_FALSE(is_marked(before));

  send_over_loopback(10, 1000);

  const ORP_UTIL_DEV_STATS_ST after = stats_of("lo");
  // Each datagram goes out once and is answered by the report that nobody listens.
  EXPECT_GE(after.tx_packets - before.tx_packets, 10u);
  EXPECT_GE(after.tx_bytes - before.tx_bytes, 10u * 1028);
  EXPECT_LT(after.tx_bytes - before.tx_bytes, 20u * 1028);
  EXPECT_EQ(after.tx_packets, after.rx_packets);
  EXPECT_EQ(after.tx_bytes, after.rx_bytes);

  ORP_UTIL_DEV_STATS_ST by_older_name = marked_stats();
  ORP_UTIL_get_dev_stats("lo", &by_older_name);
  EXPECT_EQ(0, std::memcmp(&after, &by_older_name, sizeof after));
}

TEST(DevStats, AreUntouchedWithoutAnInterface) {
  stats_of("lo");
  g_requests.clear();

  EXPECT_TRUE(is_marked(stats_of("nosuch0")));
  EXPECT_TRUE(is_marked(stats_of("")));
  EXPECT_TRUE(is_marked(stats_of(nullptr)));
  ORP_UTIL_GetDevStats("lo", nullptr);

  testing::internal::CaptureStdout();
  EXPECT_TRUE(is_marked(stats_of("a-name-of-16-chr")));
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
  ASSERT_THAT(g_requests, SizeIs(2));
  for (uint32_t i = 0; i < 2; ++i) {
    ASSERT_THAT(g_requests[i], SizeIs(32));
    const auto header = msgapi::load<nlmsghdr>(g_requests[i].data());
    EXPECT_EQ(32u, header.nlmsg_len);
    EXPECT_EQ(RTM_GETLINK, header.nlmsg_type);
    EXPECT_EQ(NLM_F_REQUEST, header.nlmsg_flags);
    EXPECT_EQ(i + 1, header.nlmsg_seq);
    EXPECT_EQ(static_cast<uint32_t>(::getpid()) | 0x98765421, header.nlmsg_pid);
    const auto link = msgapi::load<ifinfomsg>(g_requests[i].data() + sizeof header);
    EXPECT_EQ(static_cast<int>(::if_nametoindex("lo")), link.ifi_index);
    EXPECT_EQ(0, link.ifi_family);
    EXPECT_EQ(0u, link.ifi_change);
  }
}

TEST(DevStats, AreReadByAForkedChildOnSocketsOfItsOwn) {
  stats_of("lo");
  const uint32_t own_port = static_cast<uint32_t>(::getpid()) | kPort;

  // A child whose process id makes the same port id cannot have a socket beside its parent's.
  for (bool port_differs = false; !port_differs;) {
    const pid_t child = ::fork();
    if (child == 0) ::_exit(is_marked(stats_of("lo")) ? 1 : 0);
    port_differs = (static_cast<uint32_t>(child) | kPort) != own_port;
    int status = -1;
    ASSERT_EQ(child, ::waitpid(child, &status, 0));
    EXPECT_EQ(port_differs ? 0 : 1, WEXITSTATUS(status));
  }

  EXPECT_FALSE(is_marked(stats_of("lo")));
}

TEST(DevStats, WaitForAnAnswerThatIsNotThereYet) {
  g_receive_errors = {EAGAIN, EINTR, EAGAIN};
  EXPECT_FALSE(is_marked(stats_of("lo")));
  EXPECT_THAT(g_receive_errors, IsEmpty());
}

TEST(DevStats, AreUntouchedWhenTheAnswerIsLostOrCut) {
  g_receive_errors = {ENOBUFS};
  EXPECT_TRUE(is_marked(stats_of("lo")));
  // The answer that was not taken is still there: take it away.
  stats_of("lo");

  for (int flag : {MSG_TRUNC, MSG_ERRQUEUE}) {
    g_receive_flags = flag;
    EXPECT_TRUE(is_marked(stats_of("lo")));
  }
  g_receive_flags = 0;
  EXPECT_FALSE(is_marked(stats_of("lo")));
}

TEST(DevStats, TryAgainAfterAFailedSetUp) {
  rlimit before;
  ASSERT_EQ(0, ::getrlimit(RLIMIT_NOFILE, &before));

  {
    const test::FdCheck descriptors;
    const rlimit few{32, before.rlim_max};
    // No descriptor for the sockets at all, then one for the first of the two.
    for (uint32_t spare : {0u, 1u}) {
      testing::internal::CaptureStdout();
      ::setrlimit(RLIMIT_NOFILE, &few);
      std::vector<msgapi::os::UniqueFd> taken;
      for (int fd; (fd = ::dup(0)) >= 0;) taken.emplace_back(fd);
      taken.resize(taken.size() - spare);

      EXPECT_TRUE(is_marked(stats_of("lo")));

      ::setrlimit(RLIMIT_NOFILE, &before);
      EXPECT_EQ("error for netlink init\r", testing::internal::GetCapturedStdout());
    }
  }
  EXPECT_FALSE(is_marked(stats_of("lo")));
}

// Builds replies of the kernel, and damaged ones.
class Reply {
 public:
  Reply &message(uint16_t type, uint16_t flags = 0, uint32_t port = kPort) {
    start_ = bytes_.size();
    append(nlmsghdr{sizeof(nlmsghdr), type, flags, 1, port});
    return *this;
  }
  Reply &link(uint16_t flags = 0, uint32_t port = kPort) {
    message(RTM_NEWLINK, flags, port).append(ifinfomsg{});
    return grown();
  }
  Reply &attribute(uint16_t type, size_t size, uint8_t fill) {
    append(rtattr{static_cast<uint16_t>(sizeof(rtattr) + size), type});
    bytes_.resize((bytes_.size() + size + 3) & ~size_t{3}, fill);
    return grown();
  }
  template <typename T>
  Reply &body(const T &value) {
    append(value);
    return grown();
  }
  // Overwrites the length field of the last message.
  Reply &claiming(uint32_t length) {
    msgapi::store(bytes_.data() + start_, length);
    return *this;
  }
  Reply &cut_to(size_t size) {
    bytes_.resize(size);
    return *this;
  }

  // On a block of exactly this size, so that reading past it is noticed.
  std::optional<ORP_UTIL_DEV_STATS_ST> read() const {
    const auto exact = std::make_unique<uint8_t[]>(bytes_.size());
    std::memcpy(exact.get(), bytes_.data(), bytes_.size());
    return msgapi::find_link_stats({exact.get(), bytes_.size()}, kPort);
  }
  size_t size() const { return bytes_.size(); }

 private:
  template <typename T>
  void append(const T &value) {
    const auto *first = reinterpret_cast<const uint8_t *>(&value);
    bytes_.insert(bytes_.end(), first, first + sizeof value);
  }
  Reply &grown() { return claiming(static_cast<uint32_t>(bytes_.size() - start_)); }

  std::vector<uint8_t> bytes_;
  size_t start_ = 0;
};

TEST(LinkStatsReply, TakesTheFirstCountersMeantForThisReader) {
  const auto plain = Reply().link().attribute(3, 5, 1).attribute(7, 96, 2).read();
  ASSERT_TRUE(plain);
  EXPECT_EQ(0x02020202u, plain->rx_packets);
  EXPECT_EQ(0x02020202u, plain->rx_nohandler);

  const auto twice = Reply().link().attribute(7, 96, 3).attribute(7, 96, 4).read();
  ASSERT_TRUE(twice);
  EXPECT_EQ(0x03030303u, twice->tx_packets);

  const auto shorter = Reply().link().attribute(7, 92, 5).read();
  ASSERT_TRUE(shorter) << "an older kernel";
  EXPECT_EQ(0x05050505u, shorter->tx_compressed);
  EXPECT_EQ(0u, shorter->rx_nohandler);

  const auto foreign = Reply().link(0, 1).attribute(7, 96, 6).link().attribute(7, 96, 7).read();
  ASSERT_TRUE(foreign) << "somebody else's answer first";
  EXPECT_EQ(0x07070707u, foreign->rx_bytes);

  EXPECT_TRUE(
      Reply().message(NLMSG_NOOP).link().attribute(1, 1, 1).link().attribute(7, 96, 1).read());
}

TEST(LinkStatsReply, GivesNothingForDamagedOrOtherMessages) {
  const Reply whole = Reply().link().attribute(3, 5, 1).attribute(7, 96, 2);
  for (size_t size = 0; size < whole.size(); ++size) {
    EXPECT_FALSE(Reply(whole).cut_to(size).read()) << size;
  }

  EXPECT_FALSE(Reply(whole).claiming(15).read()) << "shorter than a header";
  EXPECT_FALSE(Reply(whole).claiming(0xFFFFFFFF).read()) << "length whose rounding wraps";
  EXPECT_FALSE(Reply().message(RTM_NEWLINK).attribute(7, 4, 1).read()) << "no interface record";
  EXPECT_FALSE(Reply().link().body(rtattr{3, 7}).read()) << "attribute shorter than its head";
  EXPECT_FALSE(Reply().link().body(rtattr{101, 7}).read()) << "attribute longer than its message";
  EXPECT_FALSE(Reply().link().body(rtattr{0, 3}).attribute(7, 96, 1).read()) << "would not advance";
  EXPECT_FALSE(Reply().link().attribute(50, 96, 1).read()) << "unknown attribute";
}

TEST(LinkStatsReply, ReportsErrorsAndAnswersThatAreTooLong) {
  errno = 0;
  EXPECT_FALSE(
      Reply().message(NLMSG_ERROR).body(nlmsgerr{-ENODEV, {}}).link().attribute(7, 96, 1).read());
  EXPECT_EQ(ENODEV, errno);

  errno = 0;
  EXPECT_FALSE(Reply().message(NLMSG_ERROR).body(int{-ENODEV}).link().attribute(7, 96, 1).read());
  EXPECT_EQ(0, errno) << "too short to hold an error";
  EXPECT_FALSE(Reply().message(NLMSG_ERROR).body(nlmsgerr{INT32_MIN, {}}).read());
  EXPECT_TRUE(Reply().message(NLMSG_ERROR, 0, 5).link().attribute(7, 96, 1).read()) << "not ours";

  testing::internal::CaptureStdout();
  EXPECT_FALSE(Reply().link(0x20).attribute(7, 96, 1).read());
  EXPECT_EQ("kernel return too long message to save\r", testing::internal::GetCapturedStdout());

  testing::internal::CaptureStdout();
  EXPECT_FALSE(Reply().link().attribute(7, 100, 1).read());
  EXPECT_EQ("NetlinkStatsMakeOutPut memcpy result error.", testing::internal::GetCapturedStdout());
}

}  // namespace
