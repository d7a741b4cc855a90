// What trace records say about a message. Tools read the records, so their texts must not change.

#include <gmock/gmock.h>

#include <functional>
#include <string>
#include <vector>

#include "msg/connection_fixture.h"
#include "support/trace_records.h"

namespace msgapi::msg {
namespace {

using testing::ElementsAre;
using testing::MatchesRegex;

constexpr uint32_t kRequest = 0x1234;
constexpr uint32_t kOther = 0x4321;

std::vector<std::string> records_of(const std::function<void()> &action) {
  return test::trace_records("msg type:", action);
}

TEST(TraceRecords, TellOfEachMessageOnItsWay) {
  test::Connection connection("self");
  connection.peer.send({.type = kOther, .to = "self", .data = 9, .from = "somebody123x"});
  connection.peer.send({.type = kRequest, .to = "self", .data = 5, .from = "peer"});
  Header request = build_header("peer", kRequest, 7);
  Header *answer = nullptr;

  EXPECT_THAT(
      records_of([&] { EXPECT_EQ(ORP_OK, ORP_MSG_SendAndRecv(&request, &answer, 20000)); }),
      ElementsAre("write_message msg 8: Send msg type:[0x1234] app:[self] data:[7] len:[0] "
                  "dst:[peer] src:[self] on board [0] ...",
                  "receive_message msg 8: recvd msg type:[0x4321] app:[self] data:[9] len:[0] "
                  "dst:[self] src:[somebody123x] on board 0 with flags [0x0]:0 ...",
                  "put_aside msg 8: Backup not matched msg type:[0x4321] app:[self] data:[9] "
                  "len:[0] dst:[self] src:[somebody123x] return 0.",
                  "receive_message msg 8: recvd msg type:[0x1234] app:[self] data:[5] len:[0] "
                  "dst:[self] src:[peer] on board 0 with flags [0x0]:0 ..."));
  Owned<Header>(answer).reset();
  ORP_MSG_DestroyQueue(&g_stMsgCtx.pstQueue);
}

TEST(TraceRecords, TellWhatCameAlsoAfterAProcedureHasChangedIt) {
  const test::MessageBlock message =
      test::make_block({.type = kRequest, .to = "self", .data = 3, .from = "peer"});
  ORP_MSG_RegisterMsgProc(ORP_MSG_DefaultMsgProcs);
  ORP_MSG_RegMsgProc(
      kRequest,
      [](Header *taken) {
        taken->ulMsgType = kOther;
        taken->ulMsgData = 4;
      },
      0, nullptr);

  EXPECT_THAT(records_of([&] { ORP_MSG_FilterProc(message.get()); }),
              ElementsAre("filter track 8: [start msg 0:0x1234] msg type:[0x1234] app:[] data:[3] "
                          "len:[0] dst:[self] src:[peer]",
                          MatchesRegex("call_registered msg 8: Match msg type:\\[0x1234\\] "
                                       "app:\\[\\] data:\\[3\\] len:\\[0\\] dst:\\[self\\] "
                                       "src:\\[peer\\] with function 0x[0-9a-f]+ \\[\\]."),
                          "dispatch msg 8: Process msg type:[0x1234] app:[] data:[4] len:[0] "
                          "dst:[self] src:[peer] finished.",
                          "filter track 8: [end msg 0:0x1234] msg type:[0x1234] app:[] data:[3] "
                          "len:[0] dst:[self] src:[peer]"));
}

using TraceRecordsOfTheLoop = Connect;

TEST_F(TraceRecordsOfTheLoop, TellOfMessagesAndAnswers) {
  connect([](test::MessagePeer &peer) {
    const test::Frame request = peer.read();
    peer.send({.type = kRequest, .data = 5, .sequence = request.sequence, .from = "peer"});
  });
  Header request = build_header("peer", kRequest, 0);
  const auto finish = [](Header *, uint32_t, ORP_WORD) { stop_loop(); };
  EXPECT_EQ(ORP_OK, ORP_MSG_AsyncSendAndReceive(&request, kIdle_ms, 0, finish));

  EXPECT_THAT(
      records_of([] { run_loop(); }),
      ElementsAre(MatchesRegex("read_length msg 8: recvd msg type:\\[0x1234\\] "
                               "app:\\[self\\] data:\\[5\\] len:\\[0\\] dst:\\[\\] "
                               "src:\\[peer\\] on board 0 with flags 0x0 \\.\\.\\."),
                  MatchesRegex("MsgWatcherTracedProc track 8: \\[start msg [0-9]+:0x1234\\] "
                               "msg type:\\[0x1234\\] app:\\[self\\] data:\\[5\\] "
                               "len:\\[0\\] dst:\\[\\] src:\\[peer\\]"),
                  MatchesRegex("MsgWatcherTracedProc track 8: \\[end msg [0-9]+:0x1234\\] "
                               "msg type:\\[0x1234\\] app:\\[self\\] data:\\[5\\] "
                               "len:\\[0\\] dst:\\[\\] src:\\[peer\\]")));
}

}  // namespace
}  // namespace msgapi::msg
