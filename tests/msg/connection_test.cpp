#include "msg/context.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "base/drop_count.h"
#include "msg/connection_fixture.h"
#include "msg/dm_message.h"
#include "msg/header.h"
#include "msgapi/dmmsg.h"
#include "msgapi/loop.h"
#include "msgapi/trace.h"
#include "support/allocation.h"
#include "support/fake_log_server.h"
#include "support/fd_check.h"
#include "support/message_peer.h"

namespace msgapi::msg {
namespace {

using test::FakeServer;
using test::Frame;
using test::MessagePeer;

constexpr uint16_t kPort = 7000;

// The server is on this board, or on another one.
TEST_F(Connect, RegistersItsNameAndTakesWhatTheServerConfirms) {
  for (const uint16_t port : {uint16_t{0}, kPort}) {
    const auto script = [](MessagePeer &peer) {
      EXPECT_EQ((Frame{.type = ORP_MSG_REGISTER, .sequence = 1, .from = "longer-than"}),
                peer.accept_registration("renamed", /*swap=*/true));
      peer.send({.type = 0x1234});
      peer.expect({.type = 0x77, .to = "peer", .from = "renamed"});
    };
    FakeServer server(script, port);
    EXPECT_EQ(ORP_OK, port == 0 ? ORP_MSG_InitWithoutHandle("longer-than-eleven")
                                : ORP_MSG_InitSlaveApp("longer-than-eleven", "127.0.0.1", port));

    EXPECT_STREQ("renamed", g_stMsgCtx.aucAppName);
    EXPECT_STREQ("renamed", g_appName);
    EXPECT_EQ(nullptr, g_stMsgCtx.pstWatcher);
    EXPECT_EQ(FD_CLOEXEC, ::fcntl(g_stMsgCtx.slSocket, F_GETFD));
    timeval send_timeout;
    socklen_t size = sizeof send_timeout;
    ::getsockopt(g_stMsgCtx.slSocket, SOL_SOCKET, SO_SNDTIMEO, &send_timeout, &size);
    EXPECT_EQ(port == 0 ? 0 : 1, send_timeout.tv_sec);
    Header *message = nullptr;
    EXPECT_EQ(ORP_OK, ORP_MSG_ReceiveManual(&message, 0));
    const Owned<Header> owner(message);
    EXPECT_EQ(0x1234u, message->ulMsgType);
    EXPECT_EQ(ORP_OK, ORP_MSG_SendSimpleMsg("peer", 0x77, 0));
    ORP_MSG_Destroy();
  }
}

TEST_F(Connect, HappensOnce) {
  connect([](MessagePeer &) {});
  const int socket = g_stMsgCtx.slSocket;

  EXPECT_EQ(ORP_OK, ORP_MSG_Init("second"));

  EXPECT_EQ(socket, g_stMsgCtx.slSocket);
  EXPECT_STREQ("self", g_stMsgCtx.aucAppName);
  EXPECT_EQ(SIG_IGN, ::signal(SIGPIPE, SIG_IGN));
}

TEST_F(Connect, FailsWithoutAServerAndSaysWhy) {
  test::FakeLogServer log;
  const test::FdCheck no_leak;
  EXPECT_EQ(ORP_ERR_SOCKET, ORP_MSG_Init("self"));
  EXPECT_EQ(ORP_ERR_SOCKET, ORP_MSG_InitSlaveApp("self", "127.0.0.1", 1));
  EXPECT_EQ(ORP_ERR_SOCKET, ORP_MSG_InitSlaveApp("self", "localhost", 1));
  EXPECT_EQ(ORP_ERR_ARGUMENT, ORP_MSG_InitSlaveApp("self", nullptr, 1));
  EXPECT_EQ(-1, g_stMsgCtx.slSocket);

  const std::string prefix = "Cannot connect to the message server ";
  EXPECT_EQ(prefix +
                "/var/run/msgsvr: No such file or directory (errno 2): no message server runs "
                "here.\n",
            log.text());
  EXPECT_EQ(prefix + "127.0.0.1: Connection refused (errno 111): the message server has ended.\n",
            log.text());
  EXPECT_EQ(prefix + "localhost: Invalid argument (errno 22): no connection.\n", log.text());
  EXPECT_EQ("", log.text());
}

TEST_F(Connect, OfAUserWhoMayNotSaysWhichPathAndWhy) {
  test::FakeLogServer log;
  FakeServer server([](MessagePeer &) {});
  ASSERT_EQ(0, ::chmod(ORP_MSG_SERVER_PATH, 0600));
  for (const char *path : {MLOG_IPC_PATH, MLOG_IPC_PATH MLOG_SERVER_NAME}) {
    ASSERT_EQ(0, ::chmod(path, 0777));
  }
  constexpr uid_t kNobody = 65534;
  if (::seteuid(kNobody) != 0) GTEST_SKIP() << "this sandbox has no other users";

  EXPECT_EQ(ORP_ERR_SOCKET, ORP_MSG_Init("self"));

  EXPECT_EQ(0, ::seteuid(0));
  EXPECT_EQ(
      "Cannot connect to the message server /var/run/msgsvr: Permission denied (errno 13): this "
      "user may not use it.\n",
      log.text());
  const test::RawClient nobody_else("", test::RawClient::Register::kNo);  // ends the server
}

// Afterwards the context is as after its destruction.
TEST_F(Connect, IsUndoneWhenTheRegistrationFails) {
  const test::FdCheck no_leak;
  const Frame reply = {.type = ORP_MSG_REGISTER, .to = "self", .body = std::string(8, '\0')};
  Frame unnamed = reply, short_one = reply;
  unnamed.to.clear();
  short_one.body.pop_back();
  std::vector<std::pair<std::string, uint32_t>> replies = {
      {short_one.bytes(), ORP_ERR_ARGUMENT},
      {Frame{.type = 1, .body = "put aside, and not leaked"}.bytes() + unnamed.bytes(),
       ORP_ERR_EMPTY_NAME},
      {Frame{.type = ORP_MSG_UNDELIVERABLE, .data = ORP_MSG_REGISTER}.bytes(), ORP_ERR_PEER_GONE},
  };
  // A server that dies in the middle of its reply.
  for (size_t size = 0; size < reply.bytes().size(); ++size) {
    const bool between = size == 0 || size >= 40;
    replies.emplace_back(reply.bytes().substr(0, size),
                         between ? ORP_ERR_PEER_GONE : ORP_ERR_SYSTEM);
  }

  for (const auto &[bytes, slave_status] : replies) {
    for (const uint16_t port : {uint16_t{0}, kPort}) {
      FakeServer server(
          [part = bytes](MessagePeer &peer) {
            peer.read();
            peer.send_bytes(part);
          },
          port);
      const uint32_t status = port == 0 ? ORP_MSG_InitWithoutHandle("self")
                                        : ORP_MSG_InitSlaveApp("self", "127.0.0.1", port);

      EXPECT_EQ(port == 0 ? ORP_OK : slave_status, status) << bytes.size();
      EXPECT_EQ(-1, g_stMsgCtx.slSocket) << bytes.size();
      EXPECT_STREQ("", g_appName);
    }
  }
}

TEST_F(Connect, SendsTheKeepAliveThatTheServerAskedFor) {
  for (int round = 0; round < 2; ++round) {
    FakeServer server([](MessagePeer &peer) {
      peer.accept_registration("self", false, /*keep_alive=*/1, /*period_s=*/1);
      peer.expect({.type = ORP_MSG_KEEP_ALIVE});
      EXPECT_TRUE(peer.quiet()) << "one timer, also after a second connection";
      peer.send({.type = 0xeee});
    });
    EXPECT_EQ(ORP_OK, ORP_MSG_Init("self"));
    ORP_MSG_RegisterMsgProc(hear);
    run_loop();
    ORP_MSG_Destroy();
  }
}

TEST_F(Connect, DeliversOrCountsEveryMessageOnTheLoop) {
  static std::string content;
  connect([](MessagePeer &peer) {
    const Frame large = peer.read();
    peer.send(large);
    peer.send(large);  // its file is gone by then
    peer.send({.type = 0xaff00001});
    peer.send({.type = 2, .body = std::string(2048, 'x')});
    peer.send({.type = 3, .from = "unterminated"});
    peer.send({.type = 4, .body = std::string(0x200001, 'x')});
    peer.send({.type = 0xa0000eee});
    peer.send_bytes(Frame{.type = 5, .body = "cut short"}.bytes().substr(0, 44));
  });
  ORP_MSG_RegisterMsgProc([](Header *message) {
    if (content.empty()) content.assign(body(message), message->ulDataLen);
    hear(message);
  });
  const std::string large(1 << 20, 'x');
  EXPECT_EQ(ORP_OK, ORP_MSG_SendMsgData("self", 0x1234, large.data(), 1 << 20));
  run_loop();
  await_script();
  run_loop_dry();

  EXPECT_TRUE(large == content);
  EXPECT_EQ((Types{0x1234, 1, 2}), g_heard);
  EXPECT_EQ(1u, g_dropped.name);
  EXPECT_EQ(1u, g_dropped.oversize);
  EXPECT_EQ(1u, g_dropped.completion);
  EXPECT_EQ(1u, g_dropped.read);
  EXPECT_TRUE(std::filesystem::is_empty("/var/run/msg"));
}

// Like a message that the application reads itself; dm_message_test.cpp has the cases.
TEST_F(Connect, HoldsADmBodyToItsMessageBeforeItIsDispatched) {
  static std::vector<uint32_t> magics;
  connect([](MessagePeer &peer) {
    const DmBody claims_more{ORP_DMMSG_MAGIC, sizeof(DmBody) + 1, 0, 0, 0, 0};
    const std::string body(reinterpret_cast<const char *>(&claims_more), sizeof claims_more);
    for (const uint32_t type : {uint32_t{ORP_DMMSG_TYPE}, 1u})
      peer.send({.type = type, .body = body});
    peer.send({.type = 0xeee});
  });
  ORP_MSG_RegisterMsgProc([](Header *message) {
    if (message->ulMsgType == 0xeee) return stop_loop();
    magics.push_back(reinterpret_cast<const DmBody *>(body(message))->magic);
  });

  run_loop();

  EXPECT_EQ((std::vector<uint32_t>{0, ORP_DMMSG_MAGIC}), magics)
      << "a body that claims more than arrived is none; other types' bodies are their own";
}

TEST_F(Connect, DispatchesWhatASynchronousWaitPutAsideBeforeWhatFollows) {
  connect([](MessagePeer &peer) {
    const Frame request = peer.read();
    peer.send({.type = 1});
    peer.send({.type = 2});
    peer.answer(request);
    peer.send({.type = 3});
    peer.send({.type = 0xeee});
  });

  uint32_t result;
  EXPECT_EQ(ORP_OK, ORP_MSG_SendAndRecvMsgData("peer", 0x1234, 0, 0, &result));
  EXPECT_TRUE(g_heard.empty());
  EXPECT_EQ(ORP_OK, ORP_MSG_GetAndDispatch());
  EXPECT_EQ((Types{1, 2, 3}), g_heard);
}

TEST_F(Connect, SurvivesAServerThatDiesAtAnyByte) {
  const std::string bytes = Frame{.type = 7, .body = "12345"}.bytes();
  for (size_t size = 0; size < bytes.size(); ++size) {
    connect([part = bytes.substr(0, size)](MessagePeer &peer) {
      peer.send({.type = 1});
      peer.send_bytes(part);
    });
    g_heard.clear();
    await_script();
    run_loop_dry();  // does not spin after the end of the stream

    EXPECT_EQ(Types{1}, g_heard) << size;
    EXPECT_EQ(ORP_ERR_PEER_GONE, ORP_MSG_SendSimpleMsg("peer", 1, 0)) << size;
    ORP_MSG_Destroy();
  }
  EXPECT_EQ(bytes.size() - 1, g_dropped.read) << "each begun message";
}

TEST_F(Connect, LeavesTheSocketOpenWithoutMemoryForTheWatcher) {
  FakeServer server([](MessagePeer &peer) { EXPECT_TRUE(peer.closed()); });

  fail_allocation(1);
  EXPECT_EQ(ORP_ERR_MEMORY, ORP_MSG_Init("self"));

  EXPECT_GE(g_stMsgCtx.slSocket, 0);
  EXPECT_EQ(nullptr, g_stMsgCtx.pstWatcher);
  ORP_MSG_Destroy();
}

TEST_F(Connect, WorksOnDescriptorsBeyondADescriptorSet) {
  std::vector<os::UniqueFd> used;
  const rlimit room = {4096, 4096};
  ::setrlimit(RLIMIT_NOFILE, &room);
  while (used.empty() || used.back().get() < 1100) {
    used.emplace_back(::open("/dev/null", O_RDONLY | O_CLOEXEC));
  }
  connect([](MessagePeer &peer) { peer.answer(peer.read(), 5); });

  EXPECT_GT(g_stMsgCtx.slSocket, 1100);
  uint32_t result = 0;
  EXPECT_EQ(ORP_OK, ORP_MSG_SendAndRecvMsgData("peer", 0x1234, 0, 0, &result));
  EXPECT_EQ(5u, result);
  run_loop_dry();  // not watched, and no harm done
}

TEST(Destroy, NeverClosesDescriptor0AndCountsTheMessagesItGivesUp) {
  ORP_MSG_AppendQueue(&g_stMsgCtx.pstQueue, allocate_message(0).release());
  ORP_MSG_QUEUE_NODE_ST *given_up = g_stMsgCtx.pstQueue;

  for (const int socket : {-1, 0}) {
    g_stMsgCtx.slSocket = socket;
    ORP_MSG_Destroy();
    EXPECT_EQ(-1, g_stMsgCtx.slSocket);
    EXPECT_GE(::fcntl(0, F_GETFD), 0);
  }
  EXPECT_EQ(1u, g_dropped.queue);
  EXPECT_EQ(nullptr, g_stMsgCtx.pstQueue);
  ORP_MSG_DestroyQueue(&given_up);
}

TEST_F(Connect, NeverReadsALaterSocketOfTheSameNumberAsMessages) {
  connect([](MessagePeer &peer) { peer.send({.type = 5}); });
  ORP_MSG_RegisterMsgProc([](Header *message) {
    hear(message);
    ORP_MSG_Destroy();
    stop_loop();
  });
  const int number = g_stMsgCtx.slSocket;
  run_loop();

  int ends[2];
  ASSERT_EQ(0, ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends));
  const os::UniqueFd own_end(ends[0]);
  ASSERT_EQ(number, ends[0]);
  MessagePeer other(ends[1]);
  ORP_MSG_RegisterMsgProc(hear);
  other.send({.type = 6});
  run_loop_dry();
  EXPECT_EQ(Types{5}, g_heard);
}

TEST_F(Connect, OutlivesItsLoop) {
  connect([](MessagePeer &) {});
  ORP_UV_LoopDestroy(OrpUvLoopGetDefault());
  EXPECT_EQ(nullptr, running_watcher());
}

TEST(TraceStream, IsKeptOnlyWhenTracingIsEnabledAndItCanBeWritten) {
  const test::FdCheck no_leak;
  ORP_MSG_TraceProc(::open("/dev/null", O_WRONLY | O_CLOEXEC));
  EXPECT_EQ(nullptr, g_stMsgCtx.pstTraceStream);
  g_stMsgCtx.ulTraceEnabled = 1;
  ORP_MSG_TraceProc(::open("/dev/null", O_WRONLY | O_CLOEXEC));
  EXPECT_EQ(::fileno(g_stMsgCtx.pstTraceStream), g_stMsgCtx.slTraceFd);
  EXPECT_EQ('x', std::fputc('x', g_stMsgCtx.pstTraceStream));
  ORP_MSG_TraceProc(::open("/dev/null", O_RDONLY | O_CLOEXEC));
  EXPECT_EQ(-1, g_stMsgCtx.slTraceFd);
  EXPECT_EQ(nullptr, g_stMsgCtx.pstTraceStream);
}

}  // namespace
}  // namespace msgapi::msg
