#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>
#include <vector>

#include "msgapi/msg.h"
#include "support/allocation.h"
#include "support/fd_check.h"
#include "support/log_lines.h"
#include "support/message_peer.h"
#include "support/system_calls.h"

namespace {

using test::Connection;
using test::Frame;

// A message in a block as the interface wants it.
class Block {
 public:
  explicit Block(uint32_t type, const std::string &body = {})
      : bytes_(test::make_frame({.type = type, .to = "peer", .data = 7, .seq = 3, .body = body})
                   .bytes()) {}
  ORP_MSG_HEADER_ST *get() { return reinterpret_cast<ORP_MSG_HEADER_ST *>(bytes_.data()); }
  ORP_MSG_HEADER_ST *operator->() { return get(); }
  const std::string &bytes() const { return bytes_; }

 private:
  std::string bytes_;
};

std::vector<std::string> hand_over_files() {
  std::vector<std::string> paths;
  for (const auto &entry : std::filesystem::directory_iterator("/var/run/msg")) {
    paths.push_back(entry.path());
  }
  return paths;
}

std::string contents(const std::string &path) {
  std::ifstream file(path);
  return (std::ostringstream() << file.rdbuf()).str();
}

TEST(Send, WritesTheMessageInTheConnectionsByteOrderAndRestoresIt) {
  for (const bool swap : {false, true}) {
    Connection connection("self", swap);
    g_stMsgCtx.ulFlags |= 5u << ORP_MSG_CTX_SEND_BOARD_SHIFT | 2u << ORP_MSG_CTX_RECV_BOARD_SHIFT;
    Block message(0xeff12345, "body");

    EXPECT_EQ(ORP_OK, ORP_MSG_Send(message.get()));

    const Frame frame = connection.peer.read();
    EXPECT_EQ(0xaff12345u, frame.type()) << "bits 20 to 28 travel";
    EXPECT_EQ("self", frame.from());
    EXPECT_EQ("peer", frame.to());
    EXPECT_EQ(7u, frame.header.ulMsgData);
    EXPECT_EQ(3u, frame.header.ulSeqNum);
    EXPECT_EQ("body", frame.body);
    EXPECT_TRUE(connection.peer.quiet());
    EXPECT_EQ(0x12345u, message->ulMsgType);
    EXPECT_EQ(4u, message->ulDataLen);
  }
}

TEST(Send, RefusesWhatItCannotSend) {
  Block message(1);

  EXPECT_EQ(ORP_ERR_ARGUMENT, ORP_MSG_Send(nullptr));
  EXPECT_EQ(ORP_ERR_NOT_CONNECTED, ORP_MSG_Send(message.get()));
  EXPECT_EQ(ORP_ERR_ARGUMENT, ORP_MSG_SendEx(0, nullptr));
  EXPECT_EQ(ORP_ERR_ARGUMENT, ORP_MSG_SendTo(-1, message.get(), nullptr, 0));
  EXPECT_EQ(ORP_ERR_ARGUMENT, ORP_MSG_SendTo(0, nullptr, nullptr, 0));
  EXPECT_EQ(ORP_OK, ORP_MSG_SendRealTimeMsg(message.get()));
}

TEST(Send, ReportsAVanishedPeerAndRestoresTheHeader) {
  for (const bool swap : {false, true}) {
    Connection connection("self", swap);
    connection.peer.close();
    Block message(0xfff12345, "body");

    EXPECT_EQ(ORP_ERR_PEER_GONE, ORP_MSG_Send(message.get()));

    EXPECT_EQ(0x12345u, message->ulMsgType);
    EXPECT_EQ(4u, message->ulDataLen);
  }
}

TEST(Send, LeavesTheHeaderAsSentAfterAnotherWriteError) {
  test::LogLines log;
  // Not connected, and not broken either.
  const msgapi::os::UniqueFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  g_stMsgCtx.ulFlags = ORP_MSG_CTX_SWAP | 1u << ORP_MSG_CTX_SEND_BOARD_SHIFT;
  Block message(0x1234);

  testing::internal::CaptureStdout();
  EXPECT_EQ(ORP_ERR_SYSTEM, ORP_MSG_SendTo(socket.get(), message.get(), nullptr, 0));
  testing::internal::GetCapturedStdout();

  EXPECT_EQ(0x34120020u, message->ulMsgType);
  EXPECT_EQ(
      "Send msg type:[0x34120020] app:[] data:[117440512] len:[0] dst:[peer] src:[] on board [1] "
      "return err:[107].\n",
      log.next());
}

TEST(Send, ReportsADescriptorThatIsNotOpenAsNotWritable) {
  test::LogLines log;
  Block message(0xfff01234, std::string(5000, 'x'));
  const std::string before = message.bytes();

  testing::internal::CaptureStdout();
  EXPECT_EQ(ORP_ERR_NOT_WRITABLE, ORP_MSG_SendTo(999, message.get(), nullptr, 0));
  EXPECT_EQ(
      "Send msg type:[0xfff01234] app:[] data:[7] len:[5000] dst:[peer] src:[] with fd [999] "
      "select with errno [9].\n",
      log.next());
  message->ulDataLen = 4;
  EXPECT_EQ(ORP_ERR_NOT_WRITABLE, ORP_MSG_SendTo(999, message.get(), nullptr, 0));
  testing::internal::GetCapturedStdout();

  message->ulDataLen = 5000;
  EXPECT_EQ(before, message.bytes()) << "untouched";
  EXPECT_TRUE(hand_over_files().empty());
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
    received = connection.peer.read_bytes(kCount * (40 + body.size()));
    done = true;
  });
  std::thread interrupter([&] {
    while (!done) {
      ::pthread_kill(sender, SIGUSR1);
      std::this_thread::yield();
    }
  });
  std::string sent;
  uint32_t failures = 0;
  testing::internal::CaptureStdout();
  for (uint32_t i = 0; i < kCount; ++i) {
    Block message(i, body);
    if (ORP_MSG_Send(message.get()) != ORP_OK) ++failures;
    sent += message.bytes();
  }
  reader.join();
  interrupter.join();
  testing::internal::GetCapturedStdout();

  EXPECT_EQ(0u, failures);
  EXPECT_TRUE(sent == received);
}

TEST(Send, WorksOnDescriptorsBeyondADescriptorSet) {
  Connection connection;
  for (const int number : {1000, 1023, 1024, 1100}) {
    const msgapi::os::UniqueFd high(::fcntl(connection.fd(), F_DUPFD_CLOEXEC, number));
    Block message(0x1234, std::string(number == 1100 ? 3000 : 3, 'x'));

    EXPECT_EQ(ORP_OK, ORP_MSG_SendTo(high.get(), message.get(), nullptr, 0));
    EXPECT_EQ(0x1234u, connection.peer.read().type() & ORP_MSG_TYPE_MASK);
  }
}

TEST(SendHook, ClaimsAMessageOrDivertsIt) {
  Connection connection;
  int ends[2];
  ASSERT_EQ(0, ::socketpair(AF_UNIX, SOCK_STREAM, 0, ends));
  test::MessagePeer other(ends[1]);
  static int diverted_to;
  diverted_to = ends[0];
  Block message(0x1234);

  g_pfMsgSendHook = [](ORP_MSG_HEADER_ST *, uint32_t *handled, int32_t *) -> uint32_t {
    EXPECT_EQ(0u, *handled);
    *handled = 1;
    return 5;
  };
  EXPECT_EQ(5u, ORP_MSG_Send(message.get()));

  g_pfMsgSendHook = [](ORP_MSG_HEADER_ST *, uint32_t *, int32_t *descriptor) -> uint32_t {
    EXPECT_EQ(g_stMsgCtx.slSocket, *descriptor);
    *descriptor = diverted_to;
    return 5;
  };
  EXPECT_EQ(ORP_OK, ORP_MSG_Send(message.get()));
  g_pfMsgSendHook = nullptr;

  EXPECT_EQ(0x1234u, other.read().type());
  EXPECT_TRUE(connection.peer.quiet());
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

  struct Expected {
    uint32_t data;
    uint32_t seq;
    size_t body;
  };
  const Expected expected[] = {{11, 1, 0}, {12, 99, 0}, {0, 0, 5},  {0, 3, 0},
                               {15, 0, 5}, {16, 98, 5}, {17, 97, 0}};
  uint32_t type = 1;
  for (const Expected &e : expected) {
    const Frame frame = connection.peer.read();
    EXPECT_EQ(type, frame.type());
    EXPECT_EQ(type == 4 ? "" : "peer", frame.to());
    EXPECT_EQ(e.data, frame.header.ulMsgData) << type;
    EXPECT_EQ(e.seq, frame.header.ulSeqNum) << type;
    EXPECT_EQ(e.body, frame.body.size()) << type;
    ++type;
  }
}

TEST(SendData, RefusesBodiesItHasNoMemoryFor) {
  Connection connection;
  EXPECT_EQ(ORP_ERR_MEMORY, ORP_MSG_SendMsgData("peer", 1, "x", 0xffffffd7));
  EXPECT_EQ(ORP_ERR_MEMORY, ORP_MSG_SendMsgData("peer", 1, "x", 0xffffffd6));
  EXPECT_EQ(1u, test::fail_every_allocation(
                    [] { return ORP_MSG_SendMsgData("peer", 1, "x", 1) == ORP_OK; }));
}

TEST(Subscription, NamesTheApplicationToTheServer) {
  Connection connection;

  EXPECT_EQ(ORP_OK, ORP_MSG_SubscribeEventForOtherApp(0x2da05, nullptr));
  EXPECT_EQ(ORP_OK, ORP_MSG_UnSubscribeEventForOtherApp(0x2da05, nullptr));
  EXPECT_TRUE(connection.peer.quiet());
  EXPECT_EQ(ORP_OK, ORP_MSG_SubscribeEventForOtherApp(0x2da05, "elevenchars-and-more"));
  EXPECT_EQ(ORP_OK, ORP_MSG_UnSubscribeEventForOtherApp(0x2da05, "app"));

  const Frame subscribed = connection.peer.read();
  EXPECT_EQ(0x702u, subscribed.type());
  EXPECT_EQ(0x2da05u, subscribed.header.ulMsgData);
  EXPECT_EQ("", subscribed.to());
  EXPECT_EQ(std::string("elevenchars\0", 12), subscribed.body);
  const Frame cancelled = connection.peer.read();
  EXPECT_EQ(0x703u, cancelled.type());
  EXPECT_EQ(std::string("app\0\0\0\0\0\0\0\0\0", 12), cancelled.body);
}

TEST(LargeBody, TravelsInAFileOfItsOwnFrom2049Bytes) {
  Connection connection("self");
  g_stMsgCtx.ulFlags = 3u << ORP_MSG_CTX_SEND_BOARD_SHIFT;
  Block inline_message(1, std::string(2048, 'x'));
  EXPECT_EQ(ORP_OK, ORP_MSG_Send(inline_message.get()));
  EXPECT_EQ(2048u, connection.peer.read().body.size());
  EXPECT_TRUE(hand_over_files().empty());

  const std::string body(2049, 'x');
  Block message(0xfff01234, body);
  ::umask(077);
  EXPECT_EQ(ORP_OK, ORP_MSG_Send(message.get()));

  const Frame frame = connection.peer.read();
  const std::vector<std::string> files = hand_over_files();
  ASSERT_EQ(1u, files.size());
  EXPECT_EQ(0u, files[0].find("/var/run/msg/msg_file_"));
  EXPECT_EQ(0x7ff01234u, frame.type());
  EXPECT_EQ("self", frame.from());
  EXPECT_EQ(files[0] + std::string(260 - files[0].size(), '\0'), frame.body);
  EXPECT_EQ(body, contents(files[0]));
  struct stat info;
  ASSERT_EQ(0, ::stat(files[0].c_str(), &info));
  EXPECT_EQ(01204u, info.st_mode & 07777u);
  EXPECT_EQ(0xfff01234u, message->ulMsgType) << "the caller's message is untouched";
  EXPECT_EQ(2049u, message->ulDataLen);
}

TEST(LargeBody, LeavesNoFileWhenTheSendFails) {
  const test::FdCheck no_leak;
  Connection connection;
  connection.peer.close();
  Block message(1, std::string(5000, 'x'));

  EXPECT_EQ(ORP_ERR_PEER_GONE, ORP_MSG_Send(message.get()));
  EXPECT_TRUE(hand_over_files().empty());
  EXPECT_EQ(1u, message->ulMsgType);

  msgapi::fail_allocation(1);
  EXPECT_EQ(ORP_ERR_NOT_WRITABLE, ORP_MSG_Send(message.get()));
  EXPECT_TRUE(hand_over_files().empty());
}

TEST(LargeBody, ReportsAFileThatCannotBeWrittenAndLeavesNone) {
  Connection connection;
  ::signal(SIGXFSZ, SIG_IGN);
  const rlimit limit = {4096, 4096};
  ASSERT_EQ(0, ::setrlimit(RLIMIT_FSIZE, &limit));
  Block message(1, std::string(5000, 'x'));

  testing::internal::CaptureStdout();
  EXPECT_EQ(ORP_ERR_HAND_OVER, ORP_MSG_Send(message.get()));
  EXPECT_TRUE(hand_over_files().empty());
  std::filesystem::remove_all("/var/run/msg");
  EXPECT_EQ(ORP_ERR_HAND_OVER, ORP_MSG_Send(message.get()));

  const std::string line = "\n----------------msg write file failed--------------------";
  EXPECT_EQ(line + line, testing::internal::GetCapturedStdout());
  EXPECT_TRUE(connection.peer.quiet());
}

TEST(SystemCalls, AMessageThatFindsRoomIsOneSend) {
  if (!test::can_count_system_calls()) GTEST_SKIP() << "tracing is not possible here";
  Connection connection;
  Block bare(1);
  Block full(1, std::string(2048, 'x'));

  EXPECT_EQ(std::vector<long>{SYS_sendto},
            test::system_call_numbers([] {}, [&] { ORP_MSG_Send(bare.get()); }));
  EXPECT_EQ(std::vector<long>{SYS_sendto},
            test::system_call_numbers([] {}, [&] { ORP_MSG_Send(full.get()); }));
}

}  // namespace
