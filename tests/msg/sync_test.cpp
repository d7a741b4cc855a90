#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <numeric>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "base/drop_count.h"
#include "msg/header.h"
#include "msg/queue.h"
#include "msg/receive.h"
#include "support/message_peer.h"
#include "support/system_calls.h"

namespace msgapi::msg {
namespace {

using test::Connection;
using test::padded;

constexpr uint32_t kPatience_ms = 20000;

// One exchange of the request `type` with "peer".
struct Exchange {
  explicit Exchange(uint32_t type, uint32_t timeout_ms = kPatience_ms, const char *to = "peer",
                    decltype(ORP_MSG_SendAndRecv) *exchange = ORP_MSG_SendAndRecv) {
    Header request = build_header(to, type, 0);
    Header *block = &request;
    status = exchange(&request, &block, timeout_ms);
    const Owned<Header> owner(block);
    EXPECT_EQ(status == ORP_OK, block != nullptr);
    if (block != nullptr) data = block->ulMsgData;
  }
  uint32_t status;
  uint32_t data = 0;  // of the answer
};

// Dispatches what was put aside. Returns the types of the messages.
std::vector<uint32_t> drained() {
  static std::vector<uint32_t> types;
  types.clear();
  ORP_MSG_RegisterMsgProc([](Header *message) { types.push_back(message->ulMsgType); });
  ORP_MSG_QueueClear();
  ORP_MSG_RegisterMsgProc(nullptr);
  return types;
}

TEST(SendAndRecv, HandsOutTheAnswerAndKeepsTheRestInOrder) {
  Connection connection("self", /*swap=*/true);
  g_stMsgCtx.ulSeqNum = 40;
  connection.peer.send({.type = 0x1, .sequence = 42});
  connection.peer.send({.type = 0x2});
  connection.peer.send({.type = 0xa001234, .data = 5, .sequence = 99, .from = "other"});
  connection.peer.send({.type = 0x1234, .data = 6});

  EXPECT_EQ(5u, Exchange(0x1234).data) << "any sender, any sequence number";
  connection.peer.expect({.type = 0x1234, .to = "peer", .sequence = 42});
  EXPECT_EQ((std::vector<uint32_t>{1, 2}), drained());
  EXPECT_EQ(6u, Exchange(0x1234).data);
}

TEST(SendAndRecv, EndsWhenTheServerCannotDeliverOrIsGone) {
  Connection connection;
  connection.peer.send({.type = ORP_MSG_UNDELIVERABLE, .data = 0x9999});
  connection.peer.send({.type = ORP_MSG_UNDELIVERABLE, .data = 0xf01234});

  EXPECT_EQ(ORP_ERR_PEER_GONE, Exchange(0xf01234).status);
  EXPECT_EQ((std::vector<uint32_t>{ORP_MSG_UNDELIVERABLE}), drained())
      << "the notice about another request";
  ::shutdown(connection.peer.fd(), SHUT_WR);
  EXPECT_EQ(ORP_ERR_PEER_GONE, Exchange(0x1234).status);
}

TEST(SendAndRecv, EndsAfterItsTimeWhateverArrives) {
  Connection connection;
  std::atomic<bool> done = false;
  std::thread chatter([&] {
    while (!done) {
      connection.peer.send({.type = 1});
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
  });

  EXPECT_EQ(ORP_ERR_TIMEOUT, Exchange(0x1234, 60).status);
  done = true;
  chatter.join();
  EXPECT_LT(drained().size(), 999u);
}

TEST(SendAndRecv, SkipsAtMost999OtherMessages) {
  for (const uint32_t count : {999u, 1000u}) {
    Connection connection;
    std::vector<uint32_t> others(count);
    std::iota(others.begin(), others.end(), 1);
    std::thread server([&] {
      for (const uint32_t type : others) connection.peer.send({.type = type});
      connection.peer.send({.type = 0x1234});
    });
    EXPECT_EQ(count == 999 ? ORP_OK : ORP_ERR_TIMEOUT, Exchange(0x1234).status);
    server.join();
    EXPECT_EQ(others, drained());
  }
}

TEST(SendAndRecv, DropsAndCountsWhatItCannotQueue) {
  Connection connection;
  connection.peer.send({.type = 1});
  connection.peer.send({.type = 2});
  connection.peer.send({.type = 0x1234});

  fail_allocation(2);  // the node of the first message; the first allocation is its block
  EXPECT_EQ(ORP_OK, Exchange(0x1234).status);
  EXPECT_EQ((std::vector<uint32_t>{2}), drained());
  EXPECT_EQ(1u, g_dropped.queue);
}

TEST(SystemCalls, AnExchangeIsOneSendOneWaitAndOneReadForEachPart) {
#ifdef __i386__
  GTEST_SKIP() << "sending is one of the calls in socketcall(2) here";
#endif
  if (!test::can_count_system_calls()) GTEST_SKIP() << "tracing is not possible here";
  Connection connection;
  for (const std::string body : {"", "body"}) {
    auto calls = test::system_calls([&] { connection.peer.send({.type = 0x1234, .body = body}); },
                                    [] {
                                      if (Exchange(0x1234, 0).status != ORP_OK) ::_exit(1);
                                    });
    // On most machines reading the clock is no system call (vdso(7)).
    std::erase_if(calls, [](const auto &call) { return call.number == SYS_clock_gettime; });
    ASSERT_EQ(body.empty() ? 3u : 4u, calls.size());
    EXPECT_EQ(SYS_sendto, calls[0].number);
    EXPECT_EQ(60000u, calls[1].arguments[2]) << "a time-out of 0 waits 60 s";
  }
  connection.peer.send({.type = 1});
  const auto calls = test::system_calls([] {}, [&] { await_readable(connection.fd(), 0); });
  EXPECT_EQ(20000u, calls.at(0).arguments[2]) << "without an exchange 20 s";
}

TEST(SendAndRecv, RefusesBadArguments) {
  Header request = {};
  Header *response = &request;
  for (auto *exchange : {ORP_MSG_SendAndRecv, ORP_MSG_SendAndReceiveWithAppName}) {
    response = &request;
    EXPECT_EQ(ORP_ERR_ARGUMENT, exchange(nullptr, &response, 1));
    EXPECT_EQ(nullptr, response);
    EXPECT_EQ(ORP_ERR_ARGUMENT, exchange(&request, nullptr, 1));
  }
  for (auto *wait : {ORP_MSG_RecvResp, ORP_MSG_RecvResWithAppName}) {
    response = &request;
    EXPECT_EQ(ORP_ERR_ARGUMENT, wait(nullptr, &response, 1));
    EXPECT_EQ(nullptr, response);
    EXPECT_EQ(ORP_ERR_ARGUMENT, wait(&request, nullptr, 1));
  }
  EXPECT_EQ(ORP_ERR_NOT_CONNECTED, ORP_MSG_SendAndRecv(&request, &response, 1));
  EXPECT_EQ(ORP_ERR_ARGUMENT, ORP_MSG_ReceiveWithType(1, &response, 1)) << "no connection";
}

TEST(SendAndReceiveWithAppName, TakesTheAnswerOfTheAskedApplicationOnly) {
  Connection connection;
  connection.peer.send({.type = 0x1234, .data = 1, .from = "peer2"});
  connection.peer.send({.type = 0x1234, .data = 2, .from = "pee"});
  connection.peer.send({.type = 0x1234, .data = 3, .from = "peer"});

  EXPECT_EQ(3u, Exchange(0x1234, kPatience_ms, "peer", ORP_MSG_SendAndReceiveWithAppName).data);
  EXPECT_EQ(2u, drained().size());
}

TEST(LoopBack, HandsTheRequestToTheGateAndReadsTheAnswerFromTheServer) {
  Connection connection("self");
  ORP_MSG_RegisterMsgProc([](Header *message) {
    EXPECT_STREQ("self", message->aucSendApp);
    ORP_MSG_SendSimpleMsgWithSeqNum(message->aucSendApp, message->ulMsgType, 77, message->ulSeqNum);
  });
  std::thread server([&] { connection.peer.send(connection.peer.read()); });
  EXPECT_EQ(77u, Exchange(0x1234, kPatience_ms, "self").data);
  server.join();
}

TEST(LoopBack, NeedsANameAndNeverTakesTheRegistration) {
  for (const char *name : {"", "self"}) {
    Connection connection(name);
    connection.peer.send({.type = ORP_MSG_REGISTER});
    EXPECT_EQ(ORP_OK, Exchange(ORP_MSG_REGISTER, kPatience_ms, name).status);
    connection.peer.expect({.type = ORP_MSG_REGISTER, .to = name});
  }
}

TEST(SendHook, IsBypassedByRequestsOfUnnamedProcessesAndMic) {
  static int asked;
  const auto hook = [](ORP_MSG_HEADER_ST *, uint32_t *, int32_t *) -> uint32_t {
    ++asked;
    return 0;
  };
  g_pfMsgSendHook = hook;
  const std::tuple<const char *, uint32_t, decltype(&ORP_MSG_SendAndRecv), int> kCases[] = {
      {"", 0x1234, ORP_MSG_SendAndRecv, 0},
      {"mic", 0x1234, ORP_MSG_SendAndRecv, 0},
      {"mic2", 0x1234, ORP_MSG_SendAndRecv, 1},
      {"mic", ORP_MSG_REGISTER, ORP_MSG_SendAndRecv, 1},
      {"mic", 0x1234, ORP_MSG_SendAndReceiveWithAppName, 1}};
  for (const auto &[name, type, exchange, times] : kCases) {
    asked = 0;
    Connection connection(name);
    connection.peer.send({.type = type, .from = "peer"});
    EXPECT_EQ(ORP_OK, Exchange(type, kPatience_ms, "peer", exchange).status);
    EXPECT_EQ(times, asked) << name << " " << type;
    EXPECT_TRUE(g_pfMsgSendHook == +hook) << "restored";
  }
  g_pfMsgSendHook = nullptr;
}

TEST(SendAndRecvMsgData, ReturnsTheDataWordOfTheAnswer) {
  Connection connection;
  connection.peer.send({.type = 0x1234, .data = 99});
  uint32_t result = 1;
  EXPECT_EQ(ORP_OK, ORP_MSG_SendAndRecvMsgData("peer", 0x1234, 5, kPatience_ms, &result));
  connection.peer.expect({.type = 0x1234, .to = "peer", .data = 5});
  EXPECT_EQ(ORP_ERR_TIMEOUT, ORP_MSG_SendAndRecvMsgData("peer", 0x1234, 5, 1, &result));
  EXPECT_EQ(0u, result);
}

TEST(ProcessCount, IsAskedFromTheServer) {
  Connection connection;
  connection.peer.send({.type = ORP_MSG_COUNT_PROCESSES, .data = 3});

  EXPECT_EQ(3u, ORP_MSG_GetNumOfProcesses("app"));

  connection.peer.expect({.type = ORP_MSG_COUNT_PROCESSES, .body = padded("app")});
  EXPECT_EQ(0u, ORP_MSG_GetNumOfProcesses(nullptr));
  connection.peer.close();
  EXPECT_EQ(0u, ORP_MSG_GetNumOfProcesses("app"));
}

TEST(SafeExit, AsksTheApplicationAndTellsTheServer) {
  Connection connection;
  EXPECT_EQ(ORP_OK, ORP_MSG_SafeExitProcesses(nullptr));
  connection.peer.send({.type = ORP_MSG_EXIT, .from = "app"});
  EXPECT_EQ(ORP_OK, ORP_MSG_SafeExitProcesses("app"));
  connection.peer.send({.type = ORP_MSG_UNDELIVERABLE, .data = ORP_MSG_EXIT});
  EXPECT_EQ(ORP_ERR_PEER_GONE, ORP_MSG_SafeExitProcesses("app")) << "the first of the two fails";

  for (int i = 0; i < 2; ++i) {
    connection.peer.expect({.type = ORP_MSG_EXIT, .to = "app"});
    connection.peer.expect({.type = ORP_MSG_EXIT, .body = padded("app")});
  }
}

TEST(Queue, OwnsNodesAndMessages) {
  QueueNode *head = nullptr;
  Header *first = allocate_message(0).release();
  Header *second = allocate_message(0).release();
  EXPECT_EQ(ORP_ERR_ARGUMENT, ORP_MSG_AppendQueue(nullptr, first));
  EXPECT_EQ(ORP_ERR_ARGUMENT, ORP_MSG_AppendQueue(&head, nullptr));
  fail_allocation(1);
  EXPECT_EQ(ORP_ERR_MEMORY, ORP_MSG_AppendQueue(&head, first));

  EXPECT_EQ(ORP_OK, ORP_MSG_AppendQueue(&head, first));
  EXPECT_EQ(ORP_OK, ORP_MSG_AppendQueueEx(&head, second, 7));
  EXPECT_EQ(first, head->pstMsg);
  EXPECT_EQ(second, head->pstNext->pstMsg);
  EXPECT_EQ(7u, head->pstNext->ulExtra);
  ORP_MSG_DestroyQueue(&head);
  EXPECT_EQ(nullptr, head);
  EXPECT_EQ(2u, g_dropped.queue);
  ORP_MSG_DestroyQueue(nullptr);
}

TEST(Queue, DrainsAlsoWhatIsAddedMeanwhile) {
  ORP_MSG_AppendQueue(&g_stMsgCtx.pstQueue, allocate_message(0).release());
  static int calls;
  ORP_MSG_RegisterMsgProc([](Header *) {
    if (++calls < 3) ORP_MSG_AppendQueue(&g_stMsgCtx.pstQueue, allocate_message(0).release());
    if (calls == 2) ORP_MSG_QueueClear();
  });

  ORP_MSG_QueueClear();

  EXPECT_EQ(3, calls);
  EXPECT_EQ(nullptr, g_stMsgCtx.pstQueue);
}

}  // namespace
}  // namespace msgapi::msg
