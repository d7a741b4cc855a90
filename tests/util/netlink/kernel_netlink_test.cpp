// A stock kernel has no netlink protocol 25. These tests replace it with a protocol that the kernel
// has, and look at what is sent.

#include <gtest/gtest.h>
#include <linux/netlink.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "base/memory.h"
#include "msgapi/netlink.h"
#include "os/fd.h"
#include "support/fd_check.h"

namespace {

bool g_protocol_exists = true;
constexpr int kStandIn = NETLINK_KOBJECT_UEVENT;
int g_send_error;  // the errno of sending; 0: it succeeds
std::vector<uint8_t> g_sent;
sockaddr_nl g_destination;

}  // namespace

extern "C" int socket(int domain, int type, int protocol) noexcept {
  const bool load_balancing = g_protocol_exists && domain == AF_NETLINK && protocol == 25;
  const int known = load_balancing ? kStandIn : protocol;
  return static_cast<int>(::syscall(SYS_socket, domain, type, known));
}

extern "C" ssize_t sendmsg(int, const msghdr *message, int) {
  const auto *bytes = static_cast<const uint8_t *>(message->msg_iov[0].iov_base);
  g_sent.assign(bytes, bytes + message->msg_iov[0].iov_len);
  std::memcpy(&g_destination, message->msg_name, sizeof g_destination);
  errno = g_send_error;
  return g_send_error == 0 ? static_cast<ssize_t>(g_sent.size()) : -1;
}

namespace {

TEST(SendToKernel, SendsOnePaddedDatagram) {
  const test::FdCheck descriptors;
  EXPECT_EQ(0u, ORP_Netlink_SendToKernel("\1\2\3\4\5", 5, 0x1234));

  EXPECT_EQ(0u, g_destination.nl_pid);
  const struct {
    nlmsghdr header;
    char data[8];
  } expected = {{21, 0x1234, 0, 0, 0x1234}, "\1\2\3\4\5"};
  ASSERT_EQ(sizeof expected, g_sent.size());
  EXPECT_EQ(0, std::memcmp(&expected, g_sent.data(), sizeof expected));

  EXPECT_EQ(0u, ORP_Netlink_SendToKernel("", 0, 7));
  EXPECT_EQ(16u, g_sent.size()) << "a header alone";

  g_send_error = ECONNREFUSED;
  testing::internal::CaptureStderr();
  EXPECT_EQ(0u, ORP_Netlink_SendToKernel("x", 1, 7));
  EXPECT_EQ("send failed for balance\n: Connection refused\n",
            testing::internal::GetCapturedStderr());
}

TEST(SendToKernel, FailsWhenThePortIdIsTaken) {
  const msgapi::os::UniqueFd other(::socket(AF_NETLINK, SOCK_RAW, kStandIn));
  sockaddr_nl address{};
  address.nl_family = AF_NETLINK;
  address.nl_pid = 77;
  ASSERT_EQ(0, ::bind(other.get(), reinterpret_cast<sockaddr *>(&address), sizeof address));
  testing::internal::CaptureStderr();

  EXPECT_EQ(1u, ORP_Netlink_SendToKernel("x", 1, 77));

  EXPECT_EQ("bind error\n: Address already in use\n", testing::internal::GetCapturedStderr());
  EXPECT_TRUE(g_sent.empty());
}

TEST(SendToKernel, FailsWithoutADatagram) {
  EXPECT_EQ(1u, ORP_Netlink_SendToKernel(nullptr, 1, 7));
  // The padded size, or the length with its header, does not fit into 32 bits.
  for (const uint32_t length : {0xFFFFFFEDu, 0xFFFFFFFFu, 0x800000u}) {
    EXPECT_EQ(1u, ORP_Netlink_SendToKernel("x", length, 7)) << length;
  }
  msgapi::fail_allocation(1);
  EXPECT_EQ(1u, ORP_Netlink_SendToKernel("x", 1, 7));
  g_protocol_exists = false;
  EXPECT_EQ(1u, ORP_Netlink_SendToKernel("x", 1, 7)) << "the kernel does not know the protocol";
  EXPECT_TRUE(g_sent.empty());
}

}  // namespace
