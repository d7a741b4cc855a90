// Messages that the client receives, and the procedures that take them.

#include "notify/client_fixture.h"

#include <algorithm>
#include <thread>
#include <tuple>

#include "base/memory.h"

namespace msgapi::notify {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

TEST_F(NotifyClient, HandsOverTheItemsThatLieInTheData) {
  connect();
  deliver(notification("nobody takes it"));
  EXPECT_EQ(ORP_NOTIFYCLT_OK, ORP_NOTIFYCLT_RegSyncMsgProc(kType, take_request));
  ORP_NOTIYCLT_RegMsgProc(nullptr, take_any_notification);
  deliver(notification("one"));
  EXPECT_THAT(g_calls, ElementsAre("any async 4660 \"one\" null"));

  EXPECT_EQ(ORP_NOTIFYCLT_OK, ORP_NOTIFYCLT_RegAsyncMsgProc(kType, take_notification));
  const std::tuple<const char *, uint32_t, uint32_t, const char *> cases[] = {
      {"", 0, 0, "async null null"},
      {"ab", 0, 0, "async \"ab\" null"},
      {"abcd", 2, 2, "async \"abcd\" \"cd\""},
      {"ab", 0, 2, "async \"ab\" \"ab\""},
      {"abcd", 2, 3, "async \"abcd\" null"},
      {"abcd", 2, UINT32_MAX, "async \"abcd\" null"},
      {"abcd", UINT32_MAX, 3, "async null null"},
  };

  for (const auto &[data, length1, length2, call] : cases) {
    g_calls.clear();
    deliver(incoming(77, 0, ORP_NOTIFYCLT_REQUEST, data, length1, length2));
    EXPECT_THAT(g_calls, ElementsAre(call)) << data << " " << length1 << " " << length2;
  }
}

TEST_F(NotifyClient, AnswersRequests) {
  connect();
  EXPECT_EQ("", answer_to(request("nobody")).data);
  ORP_NOTIYCLT_RegMsgProc(take_any_request, nullptr);
  EXPECT_EQ("answer", answer_to(request("who")).data);
  ORP_NOTIFYCLT_RegSyncMsgProc(kType, take_request);
  expect_message({{kType, 77, kOwnId, kOther, 1, ORP_NOTIFYCLT_REPLY, 6, 0, 0, 0, 0, 0}, "answer"},
                 answer_to(request("you")));

  // The server itself gets no answer, nor does a reply that nobody waits for.
  NotifyMessage from_server = request("server");
  from_server.head.source_id = ORP_NOTIFYCLT_SERVER;
  EXPECT_EQ(0u, answer_to(from_server).head.msg_type);
  EXPECT_EQ(0u, answer_to(reply(3, "late")).head.msg_type);
  EXPECT_THAT(g_calls, ElementsAre("any 4660", "sync \"who\"", "sync \"you\"", "sync \"server\"",
                                   "stray \"late\""));

  ORP_NOTIFYCLT_RegSyncMsgProc(kType, promise_a_reply);
  EXPECT_THAT(output_of([&] { EXPECT_EQ(0u, answer_to(request("")).head.msg_type); }),
              HasSubstr("memcpy_s failed, err = 22\n"));
  EXPECT_EQ(ORP_NOTIFYCLT_ERR_ARGUMENT, ORP_NOTIFYCLT_MsgFilterProc(nullptr));
}

TEST_F(NotifyClient, ReadsDataThatArrivesInPieces) {
  connect();
  ORP_NOTIFYCLT_RegAsyncMsgProc(kType, take_notification);
  const std::string bytes = notification("in pieces").bytes();
  server_.send(bytes.substr(0, 50));
  g_before_waiting = [&] { server_.send(bytes.substr(50)); };

  EXPECT_THAT(output_of(run_loop),
              HasSubstr("want len=9, got len=2, msg type=0x1234, src=26, dest=8!\n"));

  EXPECT_THAT(g_calls, ElementsAre("async \"in pieces\" null"));
}

TEST_F(NotifyClient, TakesEightMebibytes) {
  connect();
  static size_t length;
  ORP_NOTIFYCLT_RegAsyncMsgProc(
      kType, [](void *first, void *) { length = std::strlen(static_cast<char *>(first)); });
  std::thread sender([&] { server_.send(notification(std::string(0x800000, 'x'))); });

  output_of([&] {
    while (length == 0) run_loop();
  });

  sender.join();
  EXPECT_EQ(0x800000u, length);
}

TEST_F(NotifyClient, StaysInStepWithoutMemory) {
  connect();
  ORP_NOTIFYCLT_RegAsyncMsgProc(kType, take_notification);

  EXPECT_EQ("malloc msg header failed.\nrealloc failed in NotifyMsgRecv.\n", output_of([&] {
              server_.send(notification("kept"));
              msgapi::fail_allocation(1);  // of the head, which stays in the socket
              run_loop();
              server_.send(notification(std::string(5000, 'x')));
              server_.send(notification("next"));
              msgapi::fail_allocation(2);  // of the data
              run_loop();
            }));
  EXPECT_THAT(g_calls, ElementsAre("async \"kept\" null", "async \"next\" null"));
}

// A dead server is reported once, and the loop does not spin.
TEST_F(NotifyClient, StopsReadingWhenTheServerIsGone) {
  const std::string bytes = notification("data").bytes();
  const std::pair<size_t, const char *> cases[] = {
      {0, "error: notifyclient peer dead when read head, my pid="},
      {20, "ooo: notifyclient no match head len, my pid="},
      {48, "error: notifyclient peer dead when read body, my pid="},
      {51, "ooo: notifyclient no match body len, my pid="},
  };

  for (const auto &[size, line] : cases) {
    connect();
    server_.send(bytes.substr(0, size));
    server_.close();

    const std::string output = output_of(run_loop);

    EXPECT_THAT(output, StartsWith(line)) << size;
    EXPECT_GE(2, std::count(output.begin(), output.end(), '\n')) << output;
    EXPECT_GE(10u, OrpUvLoopGetCurIdx(nullptr));
    ORP_NOTIFYCLT_Destroy();
  }
}

}  // namespace
}  // namespace msgapi::notify
