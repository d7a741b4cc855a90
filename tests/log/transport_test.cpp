#include <gmock/gmock.h>
#include <linux/netlink.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/time.h>

#include <chrono>
#include <csignal>
#include <thread>

#include "base/memory.h"
#include "log/transport.h"
#include "msgapi/log.h"
#include "support/fake_log_server.h"
#include "support/fd_check.h"

namespace {

using msgapi::os::UniqueFd;
using std::chrono::milliseconds;
using test::FakeLogServer;
using test::message_bytes;

UniqueFd open_client(const char *name) {
  int32_t fd = -1;
  EXPECT_EQ(0, MlogSocketOpen(name, &fd));
  return UniqueFd(fd);
}

template <typename Call>
milliseconds duration_of(Call call) {
  const auto start = std::chrono::steady_clock::now();
  call();
  return std::chrono::duration_cast<milliseconds>(std::chrono::steady_clock::now() - start);
}

milliseconds time_limit(int fd, int option) {
  timeval limit{};
  socklen_t size = sizeof limit;
  ::getsockopt(fd, SOL_SOCKET, option, &limit, &size);
  return milliseconds(limit.tv_sec * 1000 + limit.tv_usec / 1000);
}

// From now on interrupts the system calls of this thread every 50 ms.
void interrupt_again_and_again() {
  struct sigaction action {};
  action.sa_handler = [](int) {};
  ::sigaction(SIGALRM, &action, nullptr);
  const itimerval every{.it_interval = {0, 50000}, .it_value = {0, 50000}};
  ::setitimer(ITIMER_REAL, &every, nullptr);
}

TEST(MlogSocketOpen, CreatesTheDirectoryAndReplacesAStaleSocket) {
  ::rmdir("/var/mlog");
  ::umask(077);

  const UniqueFd first = open_client("client");
  const UniqueFd second = open_client("client");

  struct stat status {};
  EXPECT_EQ(0, ::stat("/var/mlog/client", &status));
  EXPECT_EQ(mode_t{S_IFSOCK | 0660}, status.st_mode);
  EXPECT_EQ(0, ::stat("/var/mlog", &status));
  EXPECT_EQ(mode_t{S_IFDIR | 0770}, status.st_mode);
}

TEST(MlogSocketOpen, RefusesWhatCannotNameAClient) {
  const test::FdCheck fds;
  int32_t fd = 0;

  for (const char *name : {"", ".", "a/b", "../x", "/var/mlog/x", "mlogServer"}) {
    EXPECT_EQ(-2, MlogSocketOpen(name, &fd)) << name;
    EXPECT_EQ(-1, fd);
  }
  EXPECT_EQ(-2, MlogSocketOpen(nullptr, &fd));
  EXPECT_EQ(-2, MlogSocketOpen("x", nullptr));
  // A socket address holds 108 bytes, the NUL included.
  EXPECT_EQ(-2, MlogSocketOpen(std::string(98, 'x').c_str(), &fd));
  open_client(std::string(97, 'x').c_str());
}

TEST(MlogSocketOpen, SaysWhenTheDirectoryCannotBeMade) {
  EXPECT_EXIT(
      {
        ::dup2(STDERR_FILENO, STDOUT_FILENO);
        ::mkdir("/var/empty", 0700);
        int32_t fd = 0;
        const bool failed = ::chroot("/var/empty") == 0 && MlogSocketOpen("client", &fd) == -2;
        std::fflush(stdout);
        ::_exit(failed && fd == -1 ? 0 : 1);
      },
      testing::ExitedWithCode(0), "\\[MLOG\\]\\[ERROR\\]\\[[0-9]+\\]: create mlog ipc path failed");
}

TEST(MlogSocketClose, ClosesTheDescriptorWhateverTheName) {
  const test::FdCheck fds;

  EXPECT_EQ(-2, MlogSocketClose(open_client("client").release(), nullptr));
  EXPECT_EQ(-2, MlogSocketClose(-1, std::string(118, 'x').c_str()));
  EXPECT_EQ(0, MlogSocketClose(-1, std::string(117, 'x').c_str()));
  EXPECT_EQ(0, MlogSocketClose(-1, "client"));
  EXPECT_NE(0, ::access("/var/mlog/client", F_OK));
}

TEST(MlogSendMsg, SendsHeadAndPayloadToANameOrItsPath) {
  FakeLogServer server;
  ::close(0);  // the client gets that number, which is one like any other
  const UniqueFd client = open_client("client");
  MlogMsg message{.type = 7, .length = 3, .payload = "abcdef"};

  for (const char *name : {"mlogServer", "/var/mlog/mlogServer"}) {
    EXPECT_EQ(0, MlogSendMsg(client.get(), &message, name));
    EXPECT_EQ(message_bytes(7, 3, "abc"), server.receive());
  }
  EXPECT_EQ(-2, MlogSendMsg(client.get(), &message, "absent"));
  EXPECT_EQ(-2, MlogSendMsg(client.get(), &message, std::string(98, 'x').c_str()));
  message.length = UINT32_MAX;
  EXPECT_EQ(-2, MlogSendMsg(client.get(), &message, "mlogServer"));

  // The block may be larger than the record.
  std::string block = message_bytes(7, MLOG_MAX_PAYLOAD + 1, std::string(1017, 'y'));
  EXPECT_EQ(0, MlogSendMsg(client.get(), reinterpret_cast<MlogMsg *>(block.data()), "mlogServer"));
  EXPECT_EQ(block, server.receive());
}

TEST(MlogSendMsg, GivesUpOnAFullQueueAfterTwoSecondsOfWaiting) {
  const FakeLogServer server;
  const UniqueFd client = open_client("client");
  test::fill_queue(client.get());
  interrupt_again_and_again();
  const MlogMsg message{};

  const milliseconds took =
      duration_of([&] { EXPECT_EQ(-2, MlogSendMsg(client.get(), &message, "mlogServer")); });

  EXPECT_GE(took, milliseconds(1990));
  rusage usage{};
  ::getrusage(RUSAGE_SELF, &usage);
  EXPECT_EQ(0, usage.ru_stime.tv_sec) << "it waits and does not spin";
}

// The log client's exchange. Its two seconds begin before it sends.
TEST(ExchangeInTime, GoesOnWhenAFullQueueGetsRoomAndWaitsForTheRestOfItsTime) {
  FakeLogServer server;
  const UniqueFd client = open_client("client");
  test::fill_queue(client.get());
  MlogMsg message{};

  std::thread reader([&] {
    // When the sender has limited its wait, it has met the full queue.
    while (time_limit(client.get(), SO_SNDTIMEO) == milliseconds(0)) {
    }
    std::this_thread::sleep_for(milliseconds(20));  // a part of the two seconds
    while (!server.receive().empty()) {
    }
  });
  EXPECT_EQ(-2, code(msgapi::log::exchange_in_time(client.get(), &message))) << "nobody answers";
  reader.join();

  EXPECT_GT(time_limit(client.get(), SO_RCVTIMEO), milliseconds(0));
  EXPECT_LE(time_limit(client.get(), SO_RCVTIMEO), milliseconds(1990));
}

TEST(MlogRecvMsg, AcceptsAMessageWhoseLengthAgreesWithItsSize) {
  const UniqueFd receiver = open_client("receiver");
  const UniqueFd sender = open_client("sender");
  const sockaddr_un address = test::unix_address("/var/mlog/receiver");
  struct {
    std::string bytes;
    uint32_t capacity;
    int32_t result;
  } const cases[] = {
      {message_bytes(1, 3, "abc"), 3, 0},
      {message_bytes(1, 3, "abc"), 1016, 0},
      {message_bytes(1, 3, "abc"), 2, -2},  // cut off
      {message_bytes(1, 0xFFFFFFFF), 1016, -2},
      {message_bytes(1, 0).substr(0, 7), 1016, -2},
      {"", 1016, -2},
      {message_bytes(1, 0), 0, 0},
  };
  for (const auto &c : cases) {
    ::sendto(sender.get(), c.bytes.data(), c.bytes.size(), 0,
             reinterpret_cast<const sockaddr *>(&address), sizeof address);
    MlogMsg message{};
    message.length = c.capacity;

    EXPECT_EQ(c.result, MlogRecvMsg(receiver.get(), &message, 1, nullptr, 0))
        << c.bytes << ' ' << c.capacity;
  }
}

TEST(MlogRecvMsg, StoresTheSendersPath) {
  ::close(0);  // the receiver gets that number
  const UniqueFd receiver = open_client("receiver");
  const UniqueFd sender = open_client("sender");
  const UniqueFd unnamed(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  const MlogMsg message{};
  MlogMsg got{};
  char path[110] = "old";

  MlogSendMsg(sender.get(), &message, "receiver");
  EXPECT_EQ(0, MlogRecvMsg(receiver.get(), &got, 1, path, sizeof path));
  EXPECT_STREQ("/var/mlog/sender", path);
  MlogSendMsg(sender.get(), &message, "receiver");
  EXPECT_EQ(-2, MlogRecvMsg(receiver.get(), &got, 1, path, 16));
  MlogSendMsg(unnamed.get(), &message, "receiver");
  EXPECT_EQ(0, MlogRecvMsg(receiver.get(), &got, 1, path, sizeof path));
  EXPECT_STREQ("", path);

  // A path that fills the address to its last byte.
  const std::string longest = MLOG_IPC_PATH + std::string(98, 'x');
  const sockaddr_un address = test::unix_address(longest);
  const UniqueFd full(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  ASSERT_EQ(0, ::bind(full.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address));
  MlogSendMsg(full.get(), &message, "receiver");
  EXPECT_EQ(0, MlogRecvMsg(receiver.get(), &got, 1, path, sizeof path));
  EXPECT_EQ(longest, path);
}

TEST(MlogRecvMsg, TimesOutThoughSignalsKeepComing) {
  const UniqueFd receiver = open_client("receiver");
  interrupt_again_and_again();
  MlogMsg message{};

  EXPECT_EQ(-2, MlogRecvMsg(-1, &message, 1, nullptr, 0));
  EXPECT_EQ(-2, MlogRecvMsg(receiver.get(), nullptr, 1, nullptr, 0));
  message.length = MLOG_MAX_PAYLOAD + 1;
  EXPECT_EQ(-2, MlogRecvMsg(receiver.get(), &message, 1, nullptr, 0));
  message.length = 0;
  EXPECT_GE(
      duration_of([&] { EXPECT_EQ(-2, MlogRecvMsg(receiver.get(), &message, 1, nullptr, 0)); }),
      milliseconds(950));
}

TEST(MlogRecvMsg, CapsTheTimeoutAtThirtySeconds) {
  const UniqueFd receiver = open_client("receiver");
  const MlogMsg message{};
  MlogMsg got{};
  for (const auto &[asked_s, set_s] : {std::pair{60u, 30}, {UINT32_MAX, 30}, {7u, 7}, {0u, 0}}) {
    MlogSendMsg(receiver.get(), &message, "receiver");
    EXPECT_EQ(0, MlogRecvMsg(receiver.get(), &got, asked_s, nullptr, 0));
    EXPECT_EQ(std::chrono::seconds(set_s), time_limit(receiver.get(), SO_RCVTIMEO)) << asked_s;
  }
}

TEST(MlogSendRecvMsg, ExchangesInOneBlock) {
  FakeLogServer server;
  ::close(0);  // the client gets that number, which is one like any other
  const UniqueFd client = open_client("client");
  MlogMsg message{.type = 4, .length = 8, .payload = "request"};

  std::thread answering([&] {
    server.receive(true);
    server.reply(message_bytes(5, 3, "yes"));
  });
  EXPECT_EQ(0, MlogSendRecvMsg(client.get(), &message, &message, 2, "mlogServer"));
  answering.join();

  EXPECT_EQ(5u, message.type);
  EXPECT_STREQ("yesuest", message.payload);
  EXPECT_EQ(-2, MlogSendRecvMsg(client.get(), &message, nullptr, 1, "mlogServer"));
  MlogMsg reply{.type = 0, .length = 1017, .payload = {}};
  EXPECT_EQ(-2, MlogSendRecvMsg(client.get(), &message, &reply, 1, "mlogServer"));
  EXPECT_EQ("", server.receive()) << "a bad capacity is seen before anything is sent";
}

// The kernel of a development machine has no log channel; a socket pair carries the same bytes.
struct NetlinkPair {
  NetlinkPair() {
    int fds[2] = {-1, -1};
    EXPECT_EQ(0, ::socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, fds));
    ours.reset(fds[0]);
    kernels.reset(fds[1]);
  }
  UniqueFd ours;
  UniqueFd kernels;
};

std::string netlink_bytes(uint32_t length, const std::string &payload) {
  nlmsghdr head{};
  head.nlmsg_len = length;
  return std::string(reinterpret_cast<const char *>(&head), sizeof head) + payload;
}

TEST(MlogNetlinkSend, SendsAPaddedMessageOfType3) {
  const NetlinkPair pair;
  const struct {
    nlmsghdr head;
    char data[8];
  } expected = {{21, 3, 0, 0, static_cast<uint32_t>(::getpid())}, "abcde"};

  EXPECT_EQ(0, MlogNetlinkSend(pair.ours.get(), "abcde", 5));

  char bytes[64];
  ASSERT_EQ(24, ::recv(pair.kernels.get(), bytes, sizeof bytes, MSG_DONTWAIT));
  EXPECT_EQ(0, std::memcmp(&expected, bytes, 24));

  EXPECT_EQ(-4, MlogNetlinkSend(-1, "x", 1));
  EXPECT_EQ(-4, MlogNetlinkSend(pair.ours.get(), nullptr, 1));
  EXPECT_EQ(-4, MlogNetlinkSend(pair.ours.get(), "x", 0));
  testing::internal::CaptureStdout();
  EXPECT_EQ(-4, MlogNetlinkSend(pair.ours.get(), "x", UINT32_MAX));
  EXPECT_EQ(-4, MlogNetlinkSend(0, "x", 1));
  EXPECT_THAT(
      testing::internal::GetCapturedStdout(),
      testing::MatchesRegex("error: not host tool, but malloc 4M, return NULL, "
                            "malloc len=4294967295\n"
                            "\\[MLOG\\]\\[ERROR\\]\\[[0-9]+\\]: send netlink message failed\n"));
  msgapi::fail_allocation(1);
  EXPECT_EQ(-4, MlogNetlinkSend(pair.ours.get(), "x", 1));
}

TEST(MlogNetlinkReceive, CopiesThePayloadThatTheHeadStates) {
  const NetlinkPair pair;
  struct {
    std::string bytes;
    uint32_t size;
    int32_t result;
    const char *says;
  } const cases[] = {
      {netlink_bytes(19, "abcdefg"), 3, 0, ""},
      {netlink_bytes(532, std::string(516, 'x')), 516, 0, ""},
      {netlink_bytes(19, "abc"), 2, -4, "copy receive netlink message failed"},
      {netlink_bytes(0xFFFFFFFF, "abc"), 0xFFFFFFFF, -4, "copy receive netlink message failed"},
      {netlink_bytes(533, std::string(517, 'x')), 517, -4, "copy receive netlink message failed"},
      {netlink_bytes(16, "abc"), 16, -4, ""},
      {"short", 16, -4, ""},
  };
  for (const auto &c : cases) {
    ::send(pair.kernels.get(), c.bytes.data(), c.bytes.size(), 0);
    char out[520] = "";
    testing::internal::CaptureStdout();

    EXPECT_EQ(c.result, MlogNetlinkReceive(pair.ours.get(), out, c.size)) << c.bytes;

    EXPECT_THAT(testing::internal::GetCapturedStdout(), testing::HasSubstr(c.says));
    if (c.result == 0) {
      EXPECT_EQ(0, std::memcmp(out, c.bytes.data() + 16, c.size));
    }
  }
}

TEST(MlogNetlinkOpen, SaysWhenTheKernelHasNoLogChannel) {
  int32_t fd = 0;
  testing::internal::CaptureStdout();

  EXPECT_EQ(-4, MlogNetlinkOpen(&fd));

  EXPECT_EQ(-1, fd);
  EXPECT_THAT(testing::internal::GetCapturedStdout(),
              testing::EndsWith("]: create netlink socket failed\n"));
}

}  // namespace
