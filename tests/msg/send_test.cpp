#include <gtest/gtest.h>
#include <linux/sockios.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <optional>
#include <thread>
#include <vector>

#include "msgapi/msg.h"
#include "os/wait.h"
#include "support/fake_log_server.h"
#include "support/fd_check.h"
#include "support/file.h"
#include "support/largest_file.h"
#include "support/message_peer.h"

namespace {

using test::Connection;
using test::Frame;
using test::MessageBlock;
using test::padded;

MessageBlock message(uint32_t type, const std::string &body = {}) {
  return test::make_block({.type = type, .to = "peer", .body = body, .data = 7, .sequence = 3});
}

std::vector<std::string> hand_over_files() {
  std::vector<std::string> paths;
  for (const auto &entry : std::filesystem::directory_iterator("/var/run/msg")) {
    paths.push_back(entry.path());
  }
  return paths;
}

TEST(Send, WritesInTheConnectionsByteOrderAndRestoresTheHeader) {
  for (const bool swap : {false, true}) {
    Connection connection("self", swap);
    g_stMsgCtx.ulFlags |= 5u << ORP_MSG_CTX_SEND_BOARD_SHIFT | 2u << ORP_MSG_CTX_RECV_BOARD_SHIFT;
    const MessageBlock block = message(0xeff12345, "body");

    EXPECT_EQ(ORP_OK, ORP_MSG_Send(block.get()));
    // Bits 20 to 28 travel.
    EXPECT_EQ((Frame{0xaff12345, "peer", "body", 7, 3, "self"}), connection.peer.read());
    EXPECT_TRUE(connection.peer.quiet());
    EXPECT_EQ(0x12345u, block->ulMsgType);
    EXPECT_EQ(4u, block->ulDataLen);

    connection.peer.close();
    block->ulMsgType = 0xfff12345;
    EXPECT_EQ(ORP_ERR_PEER_GONE, ORP_MSG_Send(block.get()));
    EXPECT_EQ(0x12345u, block->ulMsgType);
  }
}

TEST(Send, RefusesWhatItCannotSend) {
  const MessageBlock block = message(1);
  EXPECT_EQ(ORP_ERR_ARGUMENT, ORP_MSG_Send(nullptr));
  EXPECT_EQ(ORP_ERR_NOT_CONNECTED, ORP_MSG_Send(block.get()));
  EXPECT_EQ(ORP_ERR_ARGUMENT, ORP_MSG_SendEx(0, nullptr));
  EXPECT_EQ(ORP_ERR_ARGUMENT, ORP_MSG_SendTo(-1, block.get(), nullptr, 0));
  EXPECT_EQ(ORP_OK, ORP_MSG_SendRealTimeMsg(block.get()));
}

TEST(Send, LeavesTheHeaderAsSentAfterAnotherWriteError) {
  test::FakeLogServer log;
  // Not connected, and not broken either.
  const msgapi::os::UniqueFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  g_stMsgCtx.ulFlags = ORP_MSG_CTX_SWAP | 1u << ORP_MSG_CTX_SEND_BOARD_SHIFT;
  const MessageBlock block = message(0x1234);

  EXPECT_EQ(ORP_ERR_SYSTEM, ORP_MSG_SendTo(socket.get(), block.get(), nullptr, 0));

  EXPECT_EQ(0x34120020u, block->ulMsgType);
  EXPECT_EQ(
      "Send msg type:[0x34120020] app:[] data:[117440512] len:[0] dst:[peer] src:[] on board [1] "
      "return err:[107].\n",
      log.text());
}

TEST(Send, ReportsADescriptorThatIsNotOpenAsNotWritable) {
  test::FakeLogServer log;
  for (const uint32_t size : {4u, 5000u}) {
    const MessageBlock block = message(0xfff01234, std::string(size, 'x'));
    EXPECT_EQ(ORP_ERR_NOT_WRITABLE, ORP_MSG_SendTo(999, block.get(), nullptr, 0));

    EXPECT_EQ("Send msg type:[0xfff01234] app:[] data:[7] len:[" + std::to_string(size) +
                  "] dst:[peer] src:[] with fd [999] select with errno [9].\n",
              log.text());
    EXPECT_EQ(0xfff01234u, block->ulMsgType) << "untouched";
    EXPECT_TRUE(hand_over_files().empty());
  }
}

TEST(Send, WaitsForRoomWhateverInterruptsIt) {
  Connection connection;
  struct sigaction action = {};
  action.sa_handler = [](int) {};  // without SA_RESTART: calls end with EINTR
  ::sigaction(SIGUSR1, &action, nullptr);
  const int small = 4096;
  ::setsockopt(connection.fd(), SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
  constexpr uint32_t kCount = 300;  // far more than the socket holds
  const std::string body(2048, 'b');

  std::atomic<bool> done = false;
  const pthread_t sender = ::pthread_self();
  std::string received;
  std::thread reader([&] {
    received = connection.peer.receive_bytes(kCount * (40 + body.size()));
    done = true;
  });
  std::thread interrupter([&] {
    while (!done) {
      ::pthread_kill(sender, SIGUSR1);
      std::this_thread::yield();
    }
  });
  std::string sent;
  for (uint32_t i = 0; i < kCount; ++i) {
    EXPECT_EQ(ORP_OK, ORP_MSG_Send(message(i, body).get()));
    sent += Frame{i, "peer", body, 7, 3, "self"}.bytes();
  }
  reader.join();
  interrupter.join();
  EXPECT_TRUE(sent == received);
}

// A TCP socket may have room for a part of a message while it does not count as writable.
TEST(Send, LeavesNoPartOfAMessageOnAConnectionToAnotherBoardThatIsFull) {
  constexpr uint16_t kPort = 7000;
  std::atomic<bool> read_on = false;
  const MessageBlock block = message(0x1234, std::string(2048, 'b'));
  std::optional<test::FakeServer> server;
  server.emplace(
      [&](test::MessagePeer &peer) {
        peer.accept_registration("self");
        while (!read_on) std::this_thread::sleep_for(std::chrono::milliseconds(5));
        EXPECT_TRUE(peer.closed());
      },
      kPort);
  ASSERT_EQ(ORP_OK, ORP_MSG_InitSlaveApp("self", "127.0.0.1", kPort));
  const int socket = g_stMsgCtx.slSocket;
  const auto writable = [socket] {
    return msgapi::os::wait_writable(socket, 50) == msgapi::os::Readiness::kReady;
  };
  const auto unsent = [socket] {
    int count = 0;
    ::ioctl(socket, SIOCOUTQ, &count);
    return count;
  };
  const auto pause = [] { std::this_thread::sleep_for(std::chrono::milliseconds(200)); };
  const std::string filler(4096, 'f');
  int before;
  do {  // the kernel moves bytes to the peer for a while
    while (writable()) ::send(socket, filler.data(), filler.size(), MSG_DONTWAIT);
    before = unsent();
    pause();
  } while (writable() || unsent() != before);
  ASSERT_LT(0, ::send(socket, "f", 1, MSG_DONTWAIT)) << "there is room";

  std::thread sender([&] { EXPECT_EQ(ORP_OK, ORP_MSG_Send(block.get())); });
  pause();
  EXPECT_EQ(before + 1, unsent());
  read_on = true;
  sender.join();
  ORP_MSG_Destroy();
  server.reset();
}

TEST(SendHook, ClaimsAMessageOrDivertsIt) {
  Connection connection;
  int ends[2];
  ASSERT_EQ(0, ::socketpair(AF_UNIX, SOCK_STREAM, 0, ends));
  test::MessagePeer other(ends[1]);
  static uint32_t claims;
  static int diverted_to;
  diverted_to = ends[0];
  g_pfMsgSendHook = [](ORP_MSG_HEADER_ST *, uint32_t *handled, int32_t *descriptor) -> uint32_t {
    EXPECT_EQ(0u, *handled);
    EXPECT_EQ(g_stMsgCtx.slSocket, *descriptor);
    *handled = claims;
    *descriptor = diverted_to;
    return 5;
  };

  EXPECT_EQ(ORP_OK, ORP_MSG_Send(message(0x1234).get()));
  EXPECT_EQ(0x1234u, other.read().type);
  claims = 1;
  EXPECT_EQ(5u, ORP_MSG_Send(message(0x1234).get()));
  EXPECT_EQ(5u, ORP_MSG_SendEx(g_stMsgCtx.slSocket, nullptr)) << "asked before anything is checked";
  EXPECT_TRUE(other.quiet());
  EXPECT_TRUE(connection.peer.quiet());
  claims = 0;
  EXPECT_EQ(ORP_ERR_ARGUMENT, ORP_MSG_SendEx(g_stMsgCtx.slSocket, nullptr));
  g_pfMsgSendHook = nullptr;
  ::close(ends[0]);
}

TEST(SendData, DiffersInTheSequenceNumberWithAndWithoutABody) {
  Connection connection;

  EXPECT_EQ(ORP_OK, ORP_MSG_SendSimpleMsg("peer", 1, 11));
  EXPECT_EQ(ORP_OK, ORP_MSG_SendSimpleMsgWithSeqNum("peer", 2, 12, 99));
  EXPECT_EQ(ORP_OK, ORP_MSG_SendMsgData("peer", 3, "body", 5));
  EXPECT_EQ(ORP_OK, ORP_MSG_SendMsgData(nullptr, 4, nullptr, 5));
  EXPECT_EQ(ORP_OK, ORP_MSG_SendMsgDataWithData("peer", 5, "body", 5, 15));
  EXPECT_EQ(ORP_OK, ORP_MSG_SendMsgDataWithDataSeq("peer", 6, "body", 5, 16, 98));
  EXPECT_EQ(ORP_OK, ORP_MSG_SendMsgDataWithDataSeq("peer", 7, nullptr, 5, 17, 97));

  const std::string body("body\0", 5);
  for (const Frame &expected : {Frame{1, "peer", "", 11, 1, "self"},
                                {2, "peer", "", 12, 99, "self"},
                                {3, "peer", body, 0, 0, "self"},
                                {4, "", "", 0, 3, "self"},
                                {5, "peer", body, 15, 0, "self"},
                                {6, "peer", body, 16, 98, "self"},
                                {7, "peer", "", 17, 97, "self"}}) {
    EXPECT_EQ(expected, connection.peer.read());
  }

  EXPECT_EQ(ORP_ERR_MEMORY, ORP_MSG_SendMsgData("peer", 1, "x", 0xffffffd7));
  EXPECT_EQ(ORP_ERR_MEMORY, ORP_MSG_SendMsgData("peer", 1, "x", 0xffffffd6));
  msgapi::fail_allocation(1);
  EXPECT_EQ(ORP_ERR_MEMORY, ORP_MSG_SendMsgData("peer", 1, "x", 1));
}

TEST(Subscription, NamesTheApplicationToTheServer) {
  Connection connection;
  EXPECT_EQ(ORP_OK, ORP_MSG_SubscribeEventForOtherApp(ORP_MSG_EVENT_TESSEL, nullptr));
  EXPECT_EQ(ORP_OK, ORP_MSG_UnSubscribeEventForOtherApp(ORP_MSG_EVENT_TESSEL, nullptr));
  EXPECT_EQ(ORP_OK,
            ORP_MSG_SubscribeEventForOtherApp(ORP_MSG_EVENT_TESSEL, "elevenchars-and-more"));
  EXPECT_EQ(ORP_OK, ORP_MSG_UnSubscribeEventForOtherApp(ORP_MSG_EVENT_TESSEL, "app"));

  connection.peer.expect(
      {.type = ORP_MSG_SUBSCRIBE, .body = padded("elevenchars"), .data = ORP_MSG_EVENT_TESSEL});
  connection.peer.expect(
      {.type = ORP_MSG_UNSUBSCRIBE, .body = padded("app"), .data = ORP_MSG_EVENT_TESSEL});
}

TEST(LargeBody, TravelsInAFileOfItsOwnFrom2049Bytes) {
  Connection connection("self");
  g_stMsgCtx.ulFlags = 3u << ORP_MSG_CTX_SEND_BOARD_SHIFT;
  EXPECT_EQ(ORP_OK, ORP_MSG_Send(message(1, std::string(2048, 'x')).get()));
  EXPECT_EQ(2048u, connection.peer.read().body.size());
  EXPECT_TRUE(hand_over_files().empty());

  const std::string body(2049, 'x');
  const MessageBlock block = message(0xfff01234, body);
  ::umask(077);
  EXPECT_EQ(ORP_OK, ORP_MSG_Send(block.get()));

  const std::vector<std::string> files = hand_over_files();
  ASSERT_EQ(1u, files.size());
  EXPECT_EQ(0u, files[0].find("/var/run/msg/msg_file_"));
  connection.peer.expect(
      {.type = 0x7ff01234, .to = "peer", .body = padded(files[0], 260), .data = 7, .from = "self"});
  EXPECT_EQ(body, test::contents(files[0]));
  struct stat info;
  ASSERT_EQ(0, ::stat(files[0].c_str(), &info));
  EXPECT_EQ(01204u, info.st_mode & 07777u);
  EXPECT_EQ(0xfff01234u, block->ulMsgType) << "the caller's message is untouched";
  EXPECT_EQ(2049u, block->ulDataLen);
}

TEST(LargeBody, LeavesNoFileWhenTheSendFails) {
  const test::FdCheck no_leak;
  Connection connection;
  connection.peer.close();
  const MessageBlock block = message(1, std::string(5000, 'x'));

  EXPECT_EQ(ORP_ERR_PEER_GONE, ORP_MSG_Send(block.get()));
  EXPECT_TRUE(hand_over_files().empty());
  msgapi::fail_allocation(1);
  EXPECT_EQ(ORP_ERR_NOT_WRITABLE, ORP_MSG_Send(block.get()));
  EXPECT_TRUE(hand_over_files().empty());

  const test::LargestFile limit(4096);
  testing::internal::CaptureStdout();
  EXPECT_EQ(ORP_ERR_HAND_OVER, ORP_MSG_Send(block.get()));
  EXPECT_TRUE(hand_over_files().empty());
  std::filesystem::remove_all("/var/run/msg");
  EXPECT_EQ(ORP_ERR_HAND_OVER, ORP_MSG_Send(block.get()));
  const std::string line = "\n----------------msg write file failed--------------------";
  EXPECT_EQ(line + line, testing::internal::GetCapturedStdout());
}

}  // namespace
