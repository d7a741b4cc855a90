#include "msg/receive.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <thread>

#include "base/drop_count.h"
#include "support/fake_log_server.h"
#include "support/fd_check.h"
#include "support/message_peer.h"

namespace msgapi::msg {
namespace {

using test::Connection;
using test::Frame;

constexpr uint32_t kShort_ms = 20;
constexpr uint32_t kLong_ms = 20000;

// One receive on `fd`, quietly.
struct Received {
  explicit Received(int fd, uint32_t timeout_ms = kLong_ms, uint32_t convert = 1) {
    Header *block = reinterpret_cast<Header *>(this);
    testing::internal::CaptureStdout();
    status = ORP_MSG_ReceiveWithEndian(fd, &block, timeout_ms, convert);
    console = testing::internal::GetCapturedStdout();
    const Owned<Header> owner(block);
    EXPECT_EQ(status == ORP_OK, block != nullptr);
    if (block == nullptr) return;
    frame = test::frame_of(block);
    EXPECT_EQ(std::string(16, '\0'), std::string(body(block) + block->ulDataLen, 16));
  }

  uint32_t status;
  std::string console;
  Frame frame;
};

TEST(Receive, TakesOneMessageInHostOrderWithZeroBytesBehindIt) {
  for (const bool swap : {false, true}) {
    Connection connection("self", swap);
    g_stMsgCtx.ulFlags |= 7u << ORP_MSG_CTX_SEND_BOARD_SHIFT;
    const uint32_t flags = g_stMsgCtx.ulFlags;
    connection.peer.send({.type = 0xaff12345, .to = "b", .data = 5, .sequence = 6, .from = "a"});
    connection.peer.send({.type = 0xa0001235, .body = "body"});

    EXPECT_EQ((Frame{0x12345, "b", "", 5, 6, "a"}), Received(connection.fd()).frame);
    EXPECT_EQ(flags | 5u << ORP_MSG_CTX_RECV_BOARD_SHIFT, g_stMsgCtx.ulFlags);
    EXPECT_EQ((Frame{.type = 0x1235, .body = "body"}), Received(connection.fd()).frame);
  }
}

TEST(Receive, LeavesTheHeaderAloneWithoutConversion) {
  Connection connection("self", /*swap=*/true);
  const uint32_t flags = g_stMsgCtx.ulFlags;
  const Frame frame = {.type = 0xbff12345, .body = "/var/run/msg/msg_file_1"};
  connection.peer.send_bytes(frame.bytes());

  EXPECT_EQ(frame, Received(connection.fd(), kLong_ms, /*convert=*/0).frame);
  EXPECT_EQ(flags, g_stMsgCtx.ulFlags);
}

TEST(Receive, TakesBodiesBeyondTheGuardedAllocator) {
  Connection connection;
  const Frame large = {.type = 1, .body = std::string(9 << 20, 'x')};
  std::thread writer([&] { connection.peer.send(large); });

  const Received received(connection.fd(), 0);
  writer.join();

  EXPECT_TRUE(large == received.frame);
}

// A peer sends `size` bytes of a message and then closes the connection, or stays silent.
TEST(Receive, GivesAMessageUpThatEndsAtAnyByte) {
  const std::string bytes = Frame{.type = 1, .body = "12345"}.bytes();
  for (size_t size = 0; size < bytes.size(); ++size) {
    for (const bool closes : {true, false}) {
      const test::FdCheck no_leak;
      Connection connection;
      connection.peer.send_bytes(bytes.substr(0, size));
      if (closes) connection.peer.close();
      const uint32_t dropped = g_dropped.read;

      const Received received(connection.fd(), size > 40 || closes ? kShort_ms : 5);

      const uint32_t silent = closes ? ORP_ERR_PEER_GONE : ORP_ERR_TIMEOUT;
      EXPECT_EQ(size > 0 && size < 40 ? ORP_ERR_SYSTEM : silent, received.status) << size;
      EXPECT_EQ(dropped + (size > 0 ? 1 : 0), g_dropped.read) << size;
      if (size == 0 || size >= 40) continue;
      EXPECT_EQ("msgapi fail to read for not a head length, ret=" + std::to_string(size) +
                    ", errno=0, fd=" + std::to_string(connection.fd()) +
                    ", pid=" + std::to_string(::getpid()) + "\n",
                received.console);
    }
  }
}

TEST(Receive, RefusesABodyBeyondTheLimitUnread) {
  test::FakeLogServer log;
  Connection connection;
  Header header = {0x1234, 0, "", "", 0, 0x8000001};
  const std::string_view bytes(reinterpret_cast<const char *>(&header), sizeof header);
  connection.peer.send_bytes(bytes);
  connection.peer.send_bytes("next");

  const Received received(connection.fd());

  EXPECT_EQ(ORP_ERR_MEMORY, received.status);
  EXPECT_NE(std::string::npos,
            received.console.find("msgapi too large body len, type=0x1234, data_len=134217729\n"));
  EXPECT_EQ("Too long msg:[0x1234] len:[134217729].\n", log.text());
  char rest[8];
  EXPECT_EQ(4, ::recv(connection.fd(), rest, sizeof rest, MSG_DONTWAIT));

  header.ulDataLen = 0x8000000;
  connection.peer.send_bytes(bytes);
  connection.peer.close();
  EXPECT_EQ(ORP_ERR_PEER_GONE, Received(connection.fd()).status) << "this one is waited for";
}

TEST(Receive, ReadsPipesAndRefusesWhatCannotBeRead) {
  const std::string bytes = Frame{.type = 1, .body = "body"}.bytes();
  ::close(0);  // a daemon without standard input may have any descriptor as 0
  int ends[2];
  ASSERT_EQ(0, ::pipe2(ends, O_CLOEXEC));
  ASSERT_EQ(0, ends[0]);
  const os::UniqueFd in(ends[0]), out(ends[1]);
  ASSERT_EQ(static_cast<ssize_t>(bytes.size()), ::write(out.get(), bytes.data(), bytes.size()));
  EXPECT_EQ("body", Received(in.get()).frame.body);
  ASSERT_EQ(40, ::write(out.get(), bytes.data(), 40));
  EXPECT_EQ(ORP_ERR_TIMEOUT, Received(in.get(), kShort_ms).status) << "no body comes";

  Header *message = nullptr;
  EXPECT_EQ(ORP_ERR_ARGUMENT, ORP_MSG_Recv(0, nullptr, 1));
  EXPECT_EQ(ORP_ERR_ARGUMENT, Received(-1).status);
  EXPECT_EQ(ORP_ERR_ARGUMENT, ORP_MSG_ReceiveManual(&message, 1)) << "no connection";
  EXPECT_EQ(ORP_ERR_TIMEOUT, Received(999).status) << "not open is not readable";
}

TEST(Receive, CollectsABodyThatComesByteByByteAmidSignals) {
  Connection connection;
  struct sigaction action = {};
  action.sa_handler = [](int) {};
  ::sigaction(SIGUSR1, &action, nullptr);
  const pthread_t receiver = ::pthread_self();
  for (const uint32_t timeout_ms : {kLong_ms, 0u}) {  // 0: the read itself waits
    std::thread writer([&] {
      const std::string bytes = Frame{.type = 1, .body = "12345"}.bytes();
      const auto interrupt = [&] {
        for (int i = 0; i < 200; ++i) {
          ::pthread_kill(receiver, SIGUSR1);
          std::this_thread::yield();
        }
      };
      interrupt();
      connection.peer.send_bytes(bytes.substr(0, 40));
      for (const char &byte : bytes.substr(40)) {
        interrupt();
        connection.peer.send_bytes({&byte, 1});
      }
    });

    const Received received(connection.fd(), timeout_ms);
    writer.join();

    EXPECT_EQ("12345", received.frame.body);
  }
}

}  // namespace
}  // namespace msgapi::msg
