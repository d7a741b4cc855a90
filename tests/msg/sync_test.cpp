#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "msg/drop_count.h"
#include "msg/header.h"
#include "msg/queue.h"
#include "support/allocation.h"
#include "support/message_peer.h"
#include "support/system_calls.h"

namespace msgapi::msg {
namespace {

using test::Connection;
using test::Frame;
using test::make_frame;

constexpr uint32_t kLong_ms = 20000;

// One exchange of the request `type` with "peer".
struct Exchange {
  explicit Exchange(uint32_t type, uint32_t timeout_ms = kLong_ms, const char *to = "peer") {
    ORP_MSG_SimpleBuilder(&request, to, type, 0);
    Header *block = &request;
    status = ORP_MSG_SendAndRecv(&request, &block, timeout_ms);
    EXPECT_EQ(status == ORP_OK, block != nullptr);
    response.reset(block);
  }
  Header request;
  uint32_t status;
  Owned<Header> response;
};

// Dispatches the pending queue; the types of its messages.
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
  connection.peer.write(make_frame({.type = 0x1, .seq = 42}));
  connection.peer.write(make_frame({.type = 0x2}));
  connection.peer.write(make_frame({.type = 0xa001234, .from = "other", .data = 5, .seq = 99}));
  connection.peer.write(make_frame({.type = 0x1234, .data = 6}));

  const Exchange exchange(0x1234);

  ASSERT_EQ(ORP_OK, exchange.status);
  EXPECT_EQ(5u, exchange.response->ulMsgData) << "any sender, any sequence number";
  EXPECT_EQ(42u, connection.peer.read().header.ulSeqNum);
  EXPECT_EQ((std::vector<uint32_t>{1, 2}), drained());
  EXPECT_EQ(6u, Exchange(0x1234).response->ulMsgData);
}

TEST(SendAndRecv, EndsWhenTheServerCannotDeliverOrIsGone) {
  Connection connection;
  connection.peer.write(make_frame({.type = 0x108, .data = 0x9999}));
  connection.peer.write(make_frame({.type = 0x108, .data = 0xf01234}));

  EXPECT_EQ(ORP_ERR_PEER_GONE, Exchange(0xf01234).status);
  EXPECT_EQ((std::vector<uint32_t>{0x108}), drained()) << "the notice about another request";
  ::shutdown(connection.peer.fd(), SHUT_WR);
  EXPECT_EQ(ORP_ERR_PEER_GONE, Exchange(0x1234).status);
}

TEST(SendAndRecv, EndsAfterItsTimeWhateverArrives) {
  Connection connection;
  std::atomic<bool> done = false;
  std::thread chatter([&] {
    while (!done) {
      connection.peer.write(make_frame({.type = 1}));
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
  });

  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(ORP_ERR_TIMEOUT, Exchange(0x1234, 60).status);
  const auto took = std::chrono::steady_clock::now() - start;
  done = true;
  chatter.join();

  EXPECT_GE(took, std::chrono::milliseconds(50));
  EXPECT_LT(took, std::chrono::seconds(10));
  drained();
}

// `count` unrelated messages, then the answer.
uint32_t exchange_behind(uint32_t count) {
  Connection connection;
  std::thread server([&] {
    for (uint32_t i = 1; i <= count; ++i) connection.peer.write(make_frame({.type = i}));
    connection.peer.write(make_frame({.type = 0x1234}));
  });
  const Exchange exchange(0x1234);
  server.join();
  return exchange.status;
}

TEST(SendAndRecv, SkipsAtMost999OtherMessages) {
  std::vector<uint32_t> expected;
  for (uint32_t i = 1; i <= 999; ++i) expected.push_back(i);

  EXPECT_EQ(ORP_OK, exchange_behind(999));
  EXPECT_EQ(expected, drained());
  EXPECT_EQ(ORP_ERR_TIMEOUT, exchange_behind(1000));
  expected.push_back(1000);
  EXPECT_EQ(expected, drained());
}

TEST(SendAndRecv, DropsAndCountsWhatItCannotQueue) {
  Connection connection;
  connection.peer.write(make_frame({.type = 1}));
  connection.peer.write(make_frame({.type = 2}));
  connection.peer.write(make_frame({.type = 0x1234}));

  fail_allocation(2);  // the node of the first message; the first allocation is its block
  const Exchange exchange(0x1234);

  EXPECT_EQ(ORP_OK, exchange.status);
  EXPECT_EQ((std::vector<uint32_t>{2}), drained());
  EXPECT_EQ(1u, g_dropped.queue);
}

TEST(SystemCalls, AnExchangeWaitsOnce) {
  if (!test::can_count_system_calls()) GTEST_SKIP() << "tracing is not possible here";
  Connection connection;
  auto calls = test::system_calls(
      [&] { connection.peer.write(make_frame({.type = 0x1234, .body = "body"})); },
      [] {
        if (Exchange(0x1234, 0).status != ORP_OK) ::_exit(1);
      });

  // Where the clock can be read without entering the kernel it is not among them.
  std::erase_if(calls, [](const auto &call) { return call.number == SYS_clock_gettime; });

  ASSERT_EQ(4u, calls.size()) << "send, wait, header, body";
  EXPECT_EQ(60000u, calls[1].arguments[2]) << "a time-out of 0 waits 60 s";
}

TEST(SendAndRecv, RefusesBadArguments) {
  Header request = {};
  Header *response = &request;

  EXPECT_EQ(ORP_ERR_ARGUMENT, ORP_MSG_SendAndRecv(nullptr, &response, 1));
  EXPECT_EQ(nullptr, response);
  EXPECT_EQ(ORP_ERR_ARGUMENT, ORP_MSG_SendAndRecv(&request, nullptr, 1));
  EXPECT_EQ(ORP_ERR_ARGUMENT, ORP_MSG_SendAndReceiveWithAppName(nullptr, &response, 1));
  EXPECT_EQ(ORP_ERR_ARGUMENT, ORP_MSG_RecvResp(nullptr, &response, 1));
  EXPECT_EQ(ORP_ERR_ARGUMENT, ORP_MSG_RecvResWithAppName(&request, nullptr, 1));
  EXPECT_EQ(ORP_ERR_ARGUMENT, ORP_MSG_ReceiveWithType(1, nullptr, 1));
  EXPECT_EQ(ORP_ERR_NOT_CONNECTED, ORP_MSG_SendAndRecv(&request, &response, 1));
  EXPECT_EQ(ORP_ERR_ARGUMENT, ORP_MSG_ReceiveWithType(1, &response, 1)) << "no connection";
}

TEST(SendAndReceiveWithAppName, TakesTheAnswerOfTheAskedApplicationOnly) {
  Connection connection;
  connection.peer.write(make_frame({.type = 0x1234, .from = "peer2", .data = 1}));
  connection.peer.write(make_frame({.type = 0x1234, .from = "pee", .data = 2}));
  connection.peer.write(make_frame({.type = 0x1234, .from = "peer", .data = 3}));
  Header request;
  ORP_MSG_SimpleBuilder(&request, "peer", 0x1234, 0);

  Header *response;
  ASSERT_EQ(ORP_OK, ORP_MSG_SendAndReceiveWithAppName(&request, &response, kLong_ms));
  const Owned<Header> owner(response);

  EXPECT_EQ(3u, response->ulMsgData);
  EXPECT_EQ(2u, drained().size());
}

TEST(LoopBack, HandsTheRequestToTheGateAndReadsTheAnswerFromTheServer) {
  Connection connection("self");
  ORP_MSG_RegisterMsgProc([](Header *message) {
    EXPECT_STREQ("self", message->aucSendApp);
    ORP_MSG_SendSimpleMsgWithSeqNum(message->aucSendApp, message->ulMsgType, 77, message->ulSeqNum);
  });
  std::thread server([&] {
    const Frame answer = connection.peer.read();
    EXPECT_EQ("self", answer.to());
    connection.peer.write(answer);
  });

  const Exchange exchange(0x1234, kLong_ms, "self");
  server.join();

  ASSERT_EQ(ORP_OK, exchange.status);
  EXPECT_EQ(77u, exchange.response->ulMsgData);
}

TEST(LoopBack, NeedsANameAndNeverTakesTheRegistration) {
  for (const char *name : {"", "self"}) {
    Connection connection(name);
    connection.peer.write(make_frame({.type = ORP_MSG_REGISTER}));
    EXPECT_EQ(ORP_OK, Exchange(ORP_MSG_REGISTER, kLong_ms, name).status);
    EXPECT_EQ(ORP_MSG_REGISTER, connection.peer.read().type());
  }
}

TEST(SendHook, IsBypassedByRequestsOfUnnamedProcessesAndMic) {
  static int asked;
  const auto hook = [](ORP_MSG_HEADER_ST *, uint32_t *, int32_t *) -> uint32_t {
    ++asked;
    return 0;
  };
  g_pfMsgSendHook = hook;
  struct Case {
    const char *name;
    uint32_t type;
    int asked;
  };
  for (const Case &c : {Case{"", 0x1234, 0}, Case{"mic", 0x1234, 0}, Case{"mic2", 0x1234, 1},
                        Case{"", ORP_MSG_REGISTER, 1}, Case{"mic", ORP_MSG_REGISTER, 1}}) {
    asked = 0;
    Connection connection(c.name);
    connection.peer.write(make_frame({.type = c.type}));
    EXPECT_EQ(ORP_OK, Exchange(c.type).status);
    EXPECT_EQ(c.asked, asked) << c.name << " " << c.type;
    EXPECT_TRUE(g_pfMsgSendHook == +hook) << "restored";
  }

  asked = 0;
  Connection connection("mic");
  connection.peer.write(make_frame({.type = 0x1234, .from = "peer"}));
  Header request;
  ORP_MSG_SimpleBuilder(&request, "peer", 0x1234, 0);
  Header *response;
  EXPECT_EQ(ORP_OK, ORP_MSG_SendAndReceiveWithAppName(&request, &response, kLong_ms));
  std::free(response);
  EXPECT_EQ(1, asked);
  g_pfMsgSendHook = nullptr;
}

TEST(SendAndRecvMsgData, ReturnsTheDataWordOfTheAnswer) {
  Connection connection;
  connection.peer.write(make_frame({.type = 0x1234, .data = 99}));

  uint32_t result = 1;
  EXPECT_EQ(ORP_OK, ORP_MSG_SendAndRecvMsgData("peer", 0x1234, 5, kLong_ms, &result));
  EXPECT_EQ(99u, result);
  EXPECT_EQ(5u, connection.peer.read().header.ulMsgData);

  EXPECT_EQ(ORP_ERR_ARGUMENT, ORP_MSG_SendAndRecvMsgData("peer", 0x1234, 5, 1, nullptr));
  connection.peer.close();
  EXPECT_EQ(ORP_ERR_PEER_GONE, ORP_MSG_SendAndRecvMsgData("peer", 0x1234, 5, 1, &result));
  EXPECT_EQ(99u, result) << "untouched";
}

TEST(ProcessCount, IsAskedFromTheServer) {
  Connection connection;
  connection.peer.write(make_frame({.type = 0x705, .data = 3}));

  EXPECT_EQ(3u, ORP_MSG_GetNumOfProcesses("app"));

  const Frame request = connection.peer.read();
  EXPECT_EQ(0x705u, request.type());
  EXPECT_EQ("", request.to());
  EXPECT_EQ(0u, request.header.ulMsgData);
  EXPECT_EQ(std::string("app\0\0\0\0\0\0\0\0\0", 12), request.body);
  EXPECT_EQ(0u, ORP_MSG_GetNumOfProcesses(nullptr));
  connection.peer.close();
  EXPECT_EQ(0u, ORP_MSG_GetNumOfProcesses("app"));
}

TEST(SafeExit, AsksTheApplicationAndTellsTheServer) {
  Connection connection;
  connection.peer.write(make_frame({.type = 0x706, .from = "app"}));

  EXPECT_EQ(ORP_OK, ORP_MSG_SafeExitProcesses("app"));

  const Frame asked = connection.peer.read();
  EXPECT_EQ(0x706u, asked.type());
  EXPECT_EQ("app", asked.to());
  EXPECT_EQ("", asked.body);
  const Frame told = connection.peer.read();
  EXPECT_EQ(0x706u, told.type());
  EXPECT_EQ("", told.to());
  EXPECT_EQ(std::string("app\0\0\0\0\0\0\0\0\0", 12), told.body);

  EXPECT_EQ(ORP_OK, ORP_MSG_SafeExitProcesses(nullptr));
  connection.peer.write(make_frame({.type = 0x108, .data = 0x706}));
  EXPECT_EQ(ORP_ERR_PEER_GONE, ORP_MSG_SafeExitProcesses("app")) << "the first of the two fails";
  EXPECT_EQ(0x706u, connection.peer.read().type());
  EXPECT_EQ(12u, connection.peer.read().body.size());
}

TEST(Queue, OwnsNodesAndMessages) {
  QueueNode *head = nullptr;
  Owned<Header> message = allocate_message(0);

  EXPECT_EQ(ORP_ERR_ARGUMENT, ORP_MSG_AppendQueue(nullptr, message.get()));
  EXPECT_EQ(ORP_ERR_ARGUMENT, ORP_MSG_AppendQueue(&head, nullptr));
  EXPECT_EQ(1u, test::fail_every_allocation(
                    [&] { return ORP_MSG_AppendQueue(&head, message.get()) == ORP_OK; }));
  Header *first = message.release();
  Header *second = allocate_message(0).release();
  EXPECT_EQ(ORP_OK, ORP_MSG_AppendQueueEx(&head, second, 7));

  EXPECT_EQ(first, head->pstMsg);
  EXPECT_EQ(0u, head->ulExtra);
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
