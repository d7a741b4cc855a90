// Asynchronous requests: their answers come from the loop.

#include <gtest/gtest.h>

#include <string>
#include <thread>

#include "msg/connection_fixture.h"
#include "msg/header.h"
#include "support/allocation.h"

namespace msgapi::msg {
namespace {

using test::Frame;
using test::MessagePeer;

using AsyncRequest = Connect;

std::string g_answers;
void note_answer(Header *message, uint32_t timed_out, ORP_WORD data) {
  g_answers += timed_out != 0 ? 't' : static_cast<char>(message->ulMsgData);
  EXPECT_EQ(timed_out != 0, message == nullptr);
  g_answers += static_cast<char>(data);
}

uint32_t request_async(uint32_t type, uint32_t timeout_ms, char data,
                       ORP_MSG_ANSWER_PROC callback = note_answer) {
  Header request = build_header("peer", type, 0);
  return ORP_MSG_AsyncSendAndReceive(&request, timeout_ms, static_cast<ORP_WORD>(data), callback);
}

TEST_F(AsyncRequest, AnswersAsynchronousRequestsByTypeAndNumberOrTimesThemOut) {
  connect([](MessagePeer &peer) {
    const Frame first = peer.read();
    peer.answer(peer.read(), '2');
    peer.answer({.type = 0x1234, .sequence = first.sequence + 100}, 'w');
    peer.answer({.type = 0x2a001234, .sequence = first.sequence}, '1');
    peer.answer(first, 'l');  // late: the request is done
    peer.send({.type = 0xeee});
    peer.expect({.type = 0x1235, .to = "peer"});
  });

  EXPECT_EQ(ORP_OK, request_async(0x1234, kIdle_ms, 'a'));
  EXPECT_EQ(ORP_OK, request_async(0x1234, kIdle_ms, 'b'));
  run_loop();
  EXPECT_EQ((Types{0x1234, 0x1234}), g_heard);
  request_async(0x1235, 10, 'c', [](Header *message, uint32_t timed_out, ORP_WORD data) {
    note_answer(message, timed_out, data);
    stop_loop();
  });
  run_loop();
  EXPECT_EQ("2b1atc", g_answers);
}

TEST_F(AsyncRequest, KeepsTheAnswerOfAnAsynchronousRequestThatASynchronousWaitReads) {
  connect([](MessagePeer &peer) {
    const Frame first = peer.read();
    const Frame second = peer.read();
    const Frame wait = peer.read();
    peer.send({.type = 1});
    peer.answer(second, '2');
    peer.answer(first, '1');
    peer.answer(first, 'l');  // late: the request is done
    peer.send({.type = 2});
    std::this_thread::sleep_for(std::chrono::milliseconds(60));
    peer.answer(wait);
    peer.send({.type = 0xeee});
  });
  ORP_MSG_RegisterMsgProc([](Header *message) {
    g_answers += message->ulMsgType == 0x34 ? 's' : '-';
    hear(message);
  });

  // The second request gets its answer in time. It would time out all the same if the timer did not
  // look for the answer: the timer is due before the loop is idle.
  EXPECT_EQ(ORP_OK, request_async(0x34, kIdle_ms, 'a'));
  EXPECT_EQ(ORP_OK, request_async(0x34, 20, 'b'));
  uint32_t result;
  EXPECT_EQ(ORP_OK, ORP_MSG_SendAndRecvMsgData("peer", 0x35, 0, 0, &result));
  EXPECT_EQ("", g_answers) << "no procedure runs within a wait";
  run_loop();
  EXPECT_EQ("2b-1as--", g_answers) << "the second by its timer, the rest as it came";
  EXPECT_EQ((Types{1, 0x34, 2}), g_heard);
}

TEST_F(AsyncRequest, LetsAnAnswerProcedureStartTheNextRequestAndDestroyTheContext) {
  connect([](MessagePeer &peer) {
    peer.answer(peer.read(), '1');
    peer.answer(peer.read(), '2');
  });
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

TEST_F(AsyncRequest, RefusesAsynchronousRequestsItCannotFollow) {
  Header request = {};
  EXPECT_EQ(ORP_ERR_ARGUMENT, request_async(1, 1, 'a')) << "no watcher";
  connect([](MessagePeer &peer) {
    for (int i = 0; i < 3; ++i) peer.expect({.type = 0x1234, .to = "peer"});  // sent all the same
  });
  EXPECT_EQ(ORP_ERR_ARGUMENT, ORP_MSG_AsyncSendAndReceive(nullptr, 1, 0, note_answer));
  EXPECT_EQ(ORP_ERR_ARGUMENT, ORP_MSG_AsyncSendAndReceive(&request, 1, 0, nullptr));
  EXPECT_EQ(2u, test::fail_every_allocation(
                    [] { return request_async(0x1234, kIdle_ms, 'a') != ORP_ERR_MEMORY; }));
}

}  // namespace
}  // namespace msgapi::msg
