#include "msg/connection.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "msg/context.h"
#include "msg/drop_count.h"
#include "msg/header.h"
#include "msgapi/loop.h"
#include "msgapi/trace.h"
#include "support/allocation.h"
#include "support/fd_check.h"
#include "support/message_peer.h"
#include "uv/message_watcher.h"

namespace msgapi::msg {
namespace {

using test::FakeServer;
using test::Frame;
using test::make_frame;
using test::MessagePeer;

constexpr uint32_t kIdle_ms = 5000;  // ends a run of the loop that waits in vain

// Runs the loop until a callback stops it.
void run_loop() {
  EXPECT_EQ(ORP_OK, ORP_UV_LoopRun(nullptr, kIdle_ms)) << "nothing happened";
}

void stop_loop() {
  OrpUvLoopStop(OrpUvLoopGetDefault());
}

class Connect : public testing::Test {
 protected:
  ~Connect() override {
    ORP_MSG_Destroy();
    ORP_UV_LoopDestroy(OrpUvLoopGetDefault());
  }
};

TEST_F(Connect, RegistersItsNameAndTakesWhatTheServerConfirms) {
  FakeServer server([](MessagePeer &peer) {
    const Frame request = peer.accept_registration("renamed", /*swap=*/true);
    EXPECT_EQ("longer-than", request.from());
    EXPECT_EQ("", request.to());
    EXPECT_EQ("", request.body);
    EXPECT_EQ(1u, request.header.ulSeqNum);
    peer.write(make_frame({.type = 0x1234, .data = 5}));
    EXPECT_EQ("renamed", peer.read().from());
  });

  EXPECT_EQ(ORP_OK, ORP_MSG_InitWithoutHandle("longer-than-eleven"));

  EXPECT_STREQ("renamed", g_stMsgCtx.aucAppName);
  EXPECT_STREQ("renamed", g_appName);
  EXPECT_TRUE(headers_swapped());
  EXPECT_EQ(nullptr, g_stMsgCtx.pstWatcher);
  Header *message;
  ASSERT_EQ(ORP_OK, ORP_MSG_ReceiveManual(&message, 0));
  const Owned<Header> owner(message);
  EXPECT_EQ(0x1234u, message->ulMsgType);
  EXPECT_EQ(ORP_OK, ORP_MSG_SendSimpleMsg("peer", 0x77, 0));
}

TEST_F(Connect, HappensOnce) {
  FakeServer server([](MessagePeer &peer) {
    peer.accept_registration("first");
    EXPECT_TRUE(peer.closed());
  });
  EXPECT_EQ(ORP_OK, ORP_MSG_Init("first"));
  const int socket = g_stMsgCtx.slSocket;
  const OrpUvMsg *watcher = g_stMsgCtx.pstWatcher;

  EXPECT_EQ(ORP_OK, ORP_MSG_Init("second"));

  EXPECT_EQ(socket, g_stMsgCtx.slSocket);
  EXPECT_EQ(watcher, g_stMsgCtx.pstWatcher);
  EXPECT_STREQ("first", g_stMsgCtx.aucAppName);
  EXPECT_EQ(FD_CLOEXEC, ::fcntl(socket, F_GETFD));
  EXPECT_EQ(SIG_IGN, ::signal(SIGPIPE, SIG_IGN));
  ORP_MSG_Destroy();
}

TEST_F(Connect, FailsWithoutAServer) {
  const test::FdCheck no_leak;
  EXPECT_EQ(ORP_ERR_SOCKET, ORP_MSG_Init("self"));
  EXPECT_EQ(-1, g_stMsgCtx.slSocket);
  EXPECT_EQ(ORP_ERR_SOCKET, ORP_MSG_InitSlaveApp("self", "127.0.0.1", 1));
  EXPECT_EQ(ORP_ERR_SOCKET, ORP_MSG_InitSlaveApp("self", "localhost", 1));
  EXPECT_EQ(ORP_ERR_ARGUMENT, ORP_MSG_InitSlaveApp("self", nullptr, 1));
  rlimit before;
  ::getrlimit(RLIMIT_NOFILE, &before);
  const rlimit none = {3, before.rlim_max};
  ::setrlimit(RLIMIT_NOFILE, &none);
  EXPECT_EQ(ORP_ERR_SOCKET, ORP_MSG_Init("self"));
  ::setrlimit(RLIMIT_NOFILE, &before);
  EXPECT_EQ(-1, g_stMsgCtx.slSocket);
}

// A registration that fails shows as a destroyed context only.
struct BadRegistration {
  const char *what;
  std::function<void(MessagePeer &)> script;
  uint32_t slave_status;
};

std::vector<BadRegistration> bad_registrations() {
  std::vector<BadRegistration> cases = {
      {"no body words", [](MessagePeer &peer) { peer.answer(peer.read(), 0, "seven b"); },
       ORP_ERR_ARGUMENT},
      {"empty name",
       [](MessagePeer &peer) {
         (void)peer.read();
         peer.write(make_frame({.type = 0x1234, .body = "put aside, and not leaked"}));
         peer.write(make_frame({.type = ORP_MSG_REGISTER, .body = std::string(8, '\0')}));
       },
       ORP_ERR_EMPTY_NAME},
      {"undeliverable",
       [](MessagePeer &peer) {
         (void)peer.read();
         peer.write(make_frame({.type = 0x108, .data = ORP_MSG_REGISTER}));
       },
       ORP_ERR_PEER_GONE},
  };
  // A server that dies in the middle of its reply.
  const std::string reply =
      make_frame({.type = ORP_MSG_REGISTER, .to = "self", .body = std::string(8, '\0')}).bytes();
  for (size_t size = 0; size < reply.size(); ++size) {
    cases.push_back({"cut reply",
                     [part = reply.substr(0, size)](MessagePeer &peer) {
                       (void)peer.read();
                       peer.write_bytes(part);
                     },
                     size == 0 || size >= 40 ? ORP_ERR_PEER_GONE : ORP_ERR_SYSTEM});
  }
  return cases;
}

TEST_F(Connect, IsUndoneWhenTheRegistrationFails) {
  const test::FdCheck no_leak;
  for (const BadRegistration &c : bad_registrations()) {
    for (const bool remote : {false, true}) {
      uint16_t port = 0;
      FakeServer server(c.script, remote ? &port : nullptr);
      testing::internal::CaptureStdout();
      const uint32_t status = remote ? ORP_MSG_InitSlaveApp("self", "127.0.0.1", port)
                                     : ORP_MSG_InitWithoutHandle("self");
      testing::internal::GetCapturedStdout();

      EXPECT_EQ(remote ? c.slave_status : ORP_OK, status) << c.what;
      EXPECT_EQ(-1, g_stMsgCtx.slSocket) << c.what;
      EXPECT_STREQ("", g_stMsgCtx.aucAppName);
      EXPECT_STREQ("", g_appName);
    }
  }
}

TEST_F(Connect, ReachesAServerOfAnotherBoard) {
  uint16_t port;
  FakeServer server(
      [](MessagePeer &peer) {
        peer.accept_registration("self", /*swap=*/true);
        EXPECT_EQ(0x1234u, peer.read().type());
      },
      &port);

  EXPECT_EQ(ORP_OK, ORP_MSG_InitSlaveApp("self", "127.0.0.1", port));

  EXPECT_EQ(nullptr, g_stMsgCtx.pstWatcher);
  timeval send_timeout;
  socklen_t size = sizeof send_timeout;
  ::getsockopt(g_stMsgCtx.slSocket, SOL_SOCKET, SO_SNDTIMEO, &send_timeout, &size);
  EXPECT_EQ(1, send_timeout.tv_sec);
  EXPECT_EQ(FD_CLOEXEC, ::fcntl(g_stMsgCtx.slSocket, F_GETFD));
  EXPECT_EQ(ORP_OK, ORP_MSG_SendSimpleMsg("peer", 0x1234, 0));
}

TEST_F(Connect, SendsTheKeepAliveThatTheServerAskedFor) {
  for (int round = 0; round < 2; ++round) {
    FakeServer server([](MessagePeer &peer) {
      peer.accept_registration("self", false, /*keep_alive=*/1, /*period_s=*/1);
      const Frame keep_alive = peer.read();
      EXPECT_EQ(ORP_MSG_KEEP_ALIVE, keep_alive.type());
      EXPECT_EQ("", keep_alive.to());
      EXPECT_TRUE(peer.quiet()) << "one timer, also after a second connection";
      peer.write(make_frame({.type = 1}));
    });
    EXPECT_EQ(ORP_OK, ORP_MSG_Init("self"));
    ORP_MSG_RegisterMsgProc([](Header *) { stop_loop(); });
    run_loop();
    ORP_MSG_Destroy();
  }
}

// Everything a watcher on `self` hears in one run of the loop, until a message of type 0xEEE.
std::vector<uint32_t> g_heard;
void hear(Header *message) {
  if (message->ulMsgType == 0xeee) {
    stop_loop();
  } else {
    g_heard.push_back(message->ulMsgType);
  }
}

TEST_F(Connect, DeliversOrCountsEveryMessageOnTheLoop) {
  constexpr size_t kSent = 7;
  static std::string content;
  FakeServer server([](MessagePeer &peer) {
    peer.accept_registration("self");
    const Frame large = peer.read();
    EXPECT_EQ(260u, large.body.size());
    peer.write(large);
    peer.write(large);  // its file is gone by then
    peer.write(make_frame({.type = 0xaff00001}));
    peer.write(make_frame({.type = 2, .body = std::string(2048, 'x')}));
    Frame unnamed = make_frame({.type = 3});
    std::memset(unnamed.header.aucSendApp, 'x', 12);
    peer.write(unnamed);
    peer.write(make_frame({.type = 4, .body = std::string(0x200001, 'x')}));
    peer.write(make_frame({.type = 0xa0000eee}));
    (void)peer.read();
    peer.write_bytes(make_frame({.type = 5, .body = "cut short"}).bytes().substr(0, 44));
  });
  testing::internal::CaptureStdout();
  EXPECT_EQ(ORP_OK, ORP_MSG_Init("self"));
  ORP_MSG_RegisterMsgProc([](Header *message) {
    if (content.empty()) content.assign(body(message), message->ulDataLen);
    hear(message);
  });
  const std::string large(1 << 20, 'x');
  EXPECT_EQ(ORP_OK, ORP_MSG_SendMsgData("self", 0x1234, large.data(), 1 << 20));
  run_loop();
  (void)ORP_MSG_SendSimpleMsg("peer", 1, 0);
  EXPECT_EQ(ORP_ERR_TIMEOUT, ORP_UV_LoopRun(nullptr, 1));
  testing::internal::GetCapturedStdout();

  EXPECT_TRUE(large == content);
  EXPECT_EQ((std::vector<uint32_t>{0x1234, 1, 2}), g_heard);
  EXPECT_EQ(1u, g_dropped.name);
  EXPECT_EQ(1u, g_dropped.oversize);
  EXPECT_EQ(1u, uv::g_message_drops.incomplete);
  EXPECT_EQ(1u, uv::g_message_drops.read_failed);
  EXPECT_EQ(kSent, g_heard.size() + g_dropped.name + g_dropped.oversize +
                       uv::g_message_drops.incomplete + uv::g_message_drops.read_failed);
  EXPECT_TRUE(std::filesystem::is_empty("/var/run/msg"));
}

TEST_F(Connect, DispatchesWhatASynchronousWaitPutAsideBeforeWhatFollows) {
  FakeServer server([](MessagePeer &peer) {
    peer.accept_registration("self");
    const Frame request = peer.read();
    peer.write(make_frame({.type = 1}));
    peer.write(make_frame({.type = 2}));
    peer.answer(request);
    peer.write(make_frame({.type = 3}));
    peer.write(make_frame({.type = 0xeee}));
  });
  EXPECT_EQ(ORP_OK, ORP_MSG_Init("self"));
  ORP_MSG_RegisterMsgProc(hear);

  uint32_t result;
  EXPECT_EQ(ORP_OK, ORP_MSG_SendAndRecvMsgData("peer", 0x1234, 0, 0, &result));
  EXPECT_TRUE(g_heard.empty());
  EXPECT_EQ(ORP_OK, ORP_MSG_GetAndDispatch());

  EXPECT_EQ((std::vector<uint32_t>{1, 2, 3}), g_heard);
}

TEST_F(Connect, SurvivesAServerThatDiesAtAnyByte) {
  const std::string bytes = make_frame({.type = 7, .body = "12345"}).bytes();
  for (size_t size = 0; size < bytes.size(); ++size) {
    FakeServer server([part = bytes.substr(0, size)](MessagePeer &peer) {
      peer.accept_registration("self");
      peer.write(make_frame({.type = 1}));
      peer.write_bytes(part);
    });
    EXPECT_EQ(ORP_OK, ORP_MSG_Init("self"));
    ORP_MSG_RegisterMsgProc(hear);
    g_heard.clear();

    // Nothing else can happen on this loop: the run ends by its idle time, at no cost meanwhile.
    EXPECT_EQ(ORP_ERR_TIMEOUT, ORP_UV_LoopRun(nullptr, 1));

    EXPECT_EQ(std::vector<uint32_t>{1}, g_heard) << size;
    const uint32_t status = ORP_MSG_SendSimpleMsg("peer", 1, 0);
    EXPECT_EQ(ORP_ERR_PEER_GONE, status) << size;
    ORP_MSG_Destroy();
  }
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
  FakeServer server([](MessagePeer &peer) {
    peer.accept_registration("self");
    peer.answer(peer.read(), 5);
    EXPECT_TRUE(peer.closed());
  });

  EXPECT_EQ(ORP_OK, ORP_MSG_Init("self"));
  EXPECT_GT(g_stMsgCtx.slSocket, 1100);
  uint32_t result = 0;
  EXPECT_EQ(ORP_OK, ORP_MSG_SendAndRecvMsgData("peer", 0x1234, 0, 0, &result));
  EXPECT_EQ(5u, result);
  EXPECT_EQ(ORP_ERR_TIMEOUT, ORP_UV_LoopRun(nullptr, 1)) << "not watched, and no harm done";
  ORP_MSG_Destroy();
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
  FakeServer server([](MessagePeer &peer) {
    peer.accept_registration("self");
    peer.write(make_frame({.type = 5}));
    EXPECT_TRUE(peer.closed());
  });
  EXPECT_EQ(ORP_OK, ORP_MSG_Init("self"));
  ORP_MSG_RegisterMsgProc([](Header *message) {
    hear(message);
    ORP_MSG_Destroy();
    stop_loop();
  });
  const int number = g_stMsgCtx.slSocket;
  run_loop();
  EXPECT_EQ(std::vector<uint32_t>{5}, g_heard);

  int ends[2];
  ASSERT_EQ(0, ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends));
  MessagePeer other(ends[1]);
  ASSERT_EQ(number, ends[0]);
  ORP_MSG_RegisterMsgProc(hear);
  other.write(make_frame({.type = 6}));

  EXPECT_EQ(ORP_ERR_TIMEOUT, ORP_UV_LoopRun(nullptr, 1));
  EXPECT_EQ(std::vector<uint32_t>{5}, g_heard);
  ::close(ends[0]);
}

TEST_F(Connect, OutlivesItsLoop) {
  FakeServer server([](MessagePeer &peer) {
    peer.accept_registration("self");
    EXPECT_TRUE(peer.closed());
  });
  EXPECT_EQ(ORP_OK, ORP_MSG_Init("self"));

  ORP_UV_LoopDestroy(OrpUvLoopGetDefault());

  EXPECT_EQ(nullptr, running_watcher());
  ORP_MSG_Destroy();
}

// ---- Asynchronous requests ----

std::string g_answers;
void note_answer(Header *message, uint32_t timed_out, ORP_WORD data) {
  g_answers += timed_out != 0 ? 't' : static_cast<char>(message->ulMsgData);
  EXPECT_EQ(timed_out != 0, message == nullptr);
  g_answers += static_cast<char>(data);
}

uint32_t request_async(uint32_t type, uint32_t timeout_ms, char data,
                       ORP_MSG_ANSWER_PROC callback = note_answer) {
  Header request;
  ORP_MSG_SimpleBuilder(&request, "peer", type, 0);
  return ORP_MSG_AsyncSendAndReceive(&request, timeout_ms, static_cast<ORP_WORD>(data), callback);
}

TEST_F(Connect, AnswersAsynchronousRequestsByTypeAndNumber) {
  FakeServer server([](MessagePeer &peer) {
    peer.accept_registration("self");
    const Frame first = peer.read();
    const Frame second = peer.read();
    peer.answer(second, '2');
    Frame wrong_number = first;
    wrong_number.header.ulSeqNum += 100;
    peer.answer(wrong_number, 'w');
    Frame flagged = first;
    flagged.header.ulMsgType |= 0x2a000000;
    peer.answer(flagged, '1');
    peer.answer(first, 'l');  // late: the request is done
    peer.write(make_frame({.type = 0xeee}));
  });
  EXPECT_EQ(ORP_OK, ORP_MSG_Init("self"));
  ORP_MSG_RegisterMsgProc(hear);

  EXPECT_EQ(ORP_OK, request_async(0x1234, kIdle_ms, 'a'));
  EXPECT_EQ(ORP_OK, request_async(0x1234, kIdle_ms, 'b'));
  run_loop();

  EXPECT_EQ("2b1a", g_answers);
  EXPECT_EQ((std::vector<uint32_t>{0x1234, 0x1234}), g_heard);
}

TEST_F(Connect, TimesAsynchronousRequestsOut) {
  FakeServer server([](MessagePeer &peer) {
    peer.accept_registration("self");
    EXPECT_TRUE(peer.read().type() == 0x1234);
    EXPECT_TRUE(peer.closed());
  });
  EXPECT_EQ(ORP_OK, ORP_MSG_Init("self"));

  EXPECT_EQ(ORP_OK,
            request_async(0x1234, 10, 'a', [](Header *message, uint32_t timed_out, ORP_WORD data) {
              note_answer(message, timed_out, data);
              stop_loop();
            }));
  run_loop();

  EXPECT_EQ("ta", g_answers);
  ORP_MSG_Destroy();
}

TEST_F(Connect, LetsAnAnswerProcedureStartTheNextRequestAndDestroyTheContext) {
  FakeServer server([](MessagePeer &peer) {
    peer.accept_registration("self");
    peer.answer(peer.read(), '1');
    peer.answer(peer.read(), '2');
    EXPECT_TRUE(peer.closed());
  });
  EXPECT_EQ(ORP_OK, ORP_MSG_Init("self"));

  request_async(0x1234, kIdle_ms, 'a', [](Header *message, uint32_t timed_out, ORP_WORD data) {
    note_answer(message, timed_out, data);
    request_async(0x1235, kIdle_ms, 'b', [](Header *next, uint32_t late, ORP_WORD word) {
      note_answer(next, late, word);
      ORP_MSG_Destroy();
      stop_loop();
    });
  });
  run_loop();

  EXPECT_EQ("1a2b", g_answers);
}

TEST_F(Connect, RefusesAsynchronousRequestsItCannotFollow) {
  Header request = {};
  EXPECT_EQ(ORP_ERR_ARGUMENT, request_async(1, 1, 'a')) << "no watcher";
  FakeServer server([](MessagePeer &peer) {
    peer.accept_registration("self");
    for (int i = 0; i < 3; ++i) EXPECT_EQ(0x1234u, peer.read().type()) << "sent all the same";
  });
  EXPECT_EQ(ORP_OK, ORP_MSG_Init("self"));
  EXPECT_EQ(ORP_ERR_ARGUMENT, ORP_MSG_AsyncSendAndReceive(nullptr, 1, 0, note_answer));
  EXPECT_EQ(ORP_ERR_ARGUMENT, ORP_MSG_AsyncSendAndReceive(&request, 1, 0, nullptr));
  EXPECT_EQ(2u, test::fail_every_allocation([] {
              const uint32_t status = request_async(0x1234, kIdle_ms, 'a');
              EXPECT_EQ(status == ORP_OK ? ORP_OK : ORP_ERR_MEMORY, status);
              return status == ORP_OK;
            }));
}

}  // namespace
}  // namespace msgapi::msg
