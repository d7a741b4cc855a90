#include "msgapi/kit.h"

#include <gmock/gmock.h>
#include <signal.h>
#include <unistd.h>

#include <string>
#include <thread>
#include <vector>

#include "catalogue/statuses.h"
#include "msgapi.h"
#include "support/fd_check.h"
#include "support/message_peer.h"

namespace {

using test::FakeServer;
using test::Frame;
using test::MessagePeer;
using testing::ElementsAre;

constexpr uint32_t kEnd = 0xeee;  // stops the loop

std::vector<std::string> g_seen;

void run_loop() {
  EXPECT_EQ(ORP_OK, OrpUvLoopRun(nullptr, test::kPatience_ms)) << "nothing happened";
}

void stop_loop() {
  OrpUvLoopStop(OrpUvLoopGetDefault());
}

void changed(uint32_t server, uint32_t connected) {
  g_seen.push_back((server == MSGKIT_MESSAGE_SERVER ? "messages " : "notifications ") +
                   std::to_string(connected));
}

void changed_and_stop(uint32_t server, uint32_t connected) {
  changed(server, connected);
  stop_loop();
}

void hear(ORP_MSG_HEADER_ST *message) {
  if (message->ulMsgType == kEnd) return stop_loop();
  g_seen.push_back("message " + std::to_string(message->ulMsgType));
}

class Kit : public testing::Test {
 protected:
  ~Kit() override {
    msgkit_disconnect();
    ORP_UV_LoopDestroy(OrpUvLoopGetDefault());
  }
};

uint32_t no_event(uint32_t, const void *, uint32_t) {
  return 0;
}
uint32_t no_answer(const ORP_MSG_RESTFUL_REQ_ST *, char **) {
  return 1;
}
const ORP_MSG_RESTFUL_ROW_ST kRows[] = {{"one", no_answer}, {"two", no_answer}, {nullptr, nullptr}};

void expect_announcements(MessagePeer *peer) {
  peer->accept_registration("self");
  peer->expect({.type = ORP_MSG_SUBSCRIBE, .data = ORP_MSG_ALL_EVENTS});
  peer->expect(
      {.type = ORP_MSG_SUBSCRIBE, .body = test::padded("self"), .data = ORP_MSG_EVENT_WAN});
  peer->expect({.type = ORP_MSG_RESTFUL_REGISTER, .body = std::string("/plain", 7)});
  peer->expect({.type = ORP_MSG_RESTFUL_REGISTER, .body = std::string("/rows/one|/rows/two", 20)});
}

TEST_F(Kit, ConnectsAgainAsTheFirstTimeAndTellsOfBoth) {
  EXPECT_EQ(ORP_OK, msgkit_subscribe(ORP_MSG_ALL_EVENTS, no_event));
  EXPECT_EQ(ORP_OK, msgkit_subscribe(ORP_MSG_EVENT_WAN, no_event));
  EXPECT_EQ(ORP_OK, msgkit_serve_path("/plain", kRows, 0));
  EXPECT_EQ(ORP_OK, msgkit_serve_path("/rows", kRows, 1));
  ORP_MSG_RegisterMsgProc(hear);
  const test::FdCheck no_leak;
  uint32_t last_sequence = 0;
  size_t watchers = 0;
  for (int round = 0; round < 3; ++round) {
    FakeServer server([round, &last_sequence](MessagePeer &peer) {
      expect_announcements(&peer);
      peer.send({.type = 7});
      peer.send({.type = kEnd});
      const Frame frame = peer.read();
      EXPECT_EQ(8u, frame.type);
      EXPECT_GT(frame.sequence, last_sequence) << "numbers go on";
      last_sequence = frame.sequence;
    });
    if (round == 0) {
      EXPECT_EQ(ORP_OK, msgkit_stay_connected("self", changed));
    }
    run_loop();
    EXPECT_EQ(1u, msgkit_is_connected(MSGKIT_MESSAGE_SERVER));
    EXPECT_EQ(ORP_OK, ORP_MSG_SendSimpleMsg("peer", 8, 0));

    size_t now = 0;
    for (const OrpUvWatcher *each = OrpUvLoopGetDefault()->watchers; each != nullptr;
         each = each->link) {
      if ((each->status & ORP_UV_DELETED) == 0) ++now;
    }
    if (watchers == 0) watchers = now;
    EXPECT_EQ(watchers, now) << "nothing is left in the loop";
  }
  msgkit_disconnect();

  EXPECT_THAT(g_seen, ElementsAre("messages 1", "message 7", "messages 0", "messages 1",
                                  "message 7", "messages 0", "messages 1", "message 7"));
  EXPECT_EQ(0u, msgkit_is_connected(MSGKIT_MESSAGE_SERVER));
  OrpUvLoopRun(nullptr, 1);  // frees what was deleted
}

TEST_F(Kit, DispatchesEverythingThatArrivedBeforeTheEnd) {
  ORP_MSG_RegisterMsgProc(hear);
  {
    FakeServer server([](MessagePeer &peer) {
      peer.accept_registration("self");
      const Frame request = peer.read();
      peer.send({.type = 1});  // put aside
      peer.answer(request);
      for (uint32_t type = 2; type < 5; ++type) peer.send({.type = type, .body = "text"});
      peer.send_bytes(Frame{.type = 9, .body = "cut short"}.bytes().substr(0, 44));
    });
    EXPECT_EQ(ORP_OK, msgkit_stay_connected("self", changed_and_stop));
    uint32_t answer;
    EXPECT_EQ(ORP_OK, ORP_MSG_SendAndRecvMsgData("peer", 0x1234, 0, 0, &answer));
  }
  stop_loop();
  OrpUvLoopRun(nullptr, 1);  // takes the stop of the first connection
  run_loop();

  EXPECT_THAT(g_seen, ElementsAre("messages 1", "message 1", "message 2", "message 3", "message 4",
                                  "messages 0"));
}

TEST_F(Kit, EndsRequestsWhoseAnswerCannotComeAndLetsThemDisconnect) {
  {
    FakeServer server([](MessagePeer &peer) {
      peer.accept_registration("self");
      peer.read();
      peer.read();
    });
    EXPECT_EQ(ORP_OK, msgkit_stay_connected("self", changed));
    for (const uint32_t timeout_ms : {0u, 3600000u}) {
      ORP_MSG_HEADER_ST request;
      ORP_MSG_SimpleBuilder(&request, "peer", 0x1234, 0);
      EXPECT_EQ(ORP_OK, ORP_MSG_AsyncSendAndReceive(
                            &request, timeout_ms, timeout_ms,
                            [](ORP_MSG_HEADER_ST *message, uint32_t timed_out, ORP_WORD data) {
                              EXPECT_EQ(nullptr, message);
                              EXPECT_EQ(1u, timed_out);
                              g_seen.push_back("request " + std::to_string(data));
                              msgkit_disconnect();
                              stop_loop();
                            }));
    }
  }
  run_loop();

  EXPECT_THAT(g_seen, ElementsAre("messages 1", "request 0", "request 3600000"));
}

TEST_F(Kit, KeepsTryingUntilThereIsAServer) {
  EXPECT_EQ(ORP_OK, msgkit_stay_connected("self", changed_and_stop));
  EXPECT_EQ(ORP_ERR_ARGUMENT, msgkit_stay_connected("again", changed));
  EXPECT_EQ(0u, msgkit_is_connected(MSGKIT_MESSAGE_SERVER));
  ORP_MSG_RegisterMsgProc(hear);  // meanwhile
  ORP_UTIL_TimerAdd(
      300, 1, [](ORP_WORD) { stop_loop(); }, 0);
  run_loop();
  EXPECT_TRUE(g_seen.empty());

  FakeServer server([](MessagePeer &peer) {
    peer.accept_registration("self");
    peer.send({.type = 7});
    peer.send({.type = kEnd});
  });
  run_loop();
  run_loop();
  EXPECT_THAT(g_seen, ElementsAre("messages 1", "message 7"));
}

TEST_F(Kit, RefusesWhatItCannotKeep) {
  for (const char *name : {static_cast<const char *>(nullptr), "", "twelve-chars"}) {
    EXPECT_EQ(ORP_ERR_ARGUMENT, msgkit_stay_connected(name, changed));
  }
  EXPECT_EQ(ORP_ERR_ARGUMENT, msgkit_subscribe(ORP_MSG_EVENT_WAN, nullptr));
  EXPECT_EQ(ORP_ERR_ARGUMENT, msgkit_subscribe(0x1234, no_event));
  EXPECT_EQ(ORP_ERR_ARGUMENT, msgkit_serve_path(nullptr, kRows, 0));
  EXPECT_EQ(0u, msgkit_is_connected(99));
}

// ---- Signals ----

TEST_F(Kit, DeliversSignalsInTheLoopAndLeavesThemToChildren) {
  for (const int signal : {SIGKILL, SIGSTOP, SIGSEGV, SIGCHLD, 0, 1000}) {
    EXPECT_EQ(ORP_ERR_ARGUMENT, msgkit_on_signal(signal, [](int32_t) {})) << signal;
  }
  for (const int signal : {SIGTERM, SIGUSR1}) {
    EXPECT_EQ(ORP_OK, msgkit_on_signal(signal, [](int32_t number) {
                g_seen.push_back("signal " + std::to_string(number));
                if (number == SIGTERM) stop_loop();
              }));
  }
  ::raise(SIGUSR1);
  std::thread([] { ::raise(SIGTERM); }).join();
  EXPECT_TRUE(g_seen.empty()) << "not before the loop runs";
  run_loop();
  EXPECT_THAT(g_seen, ElementsAre("signal 10", "signal 15"));

  static bool exited;
  char program[] = "sleep", argument[] = "1000";
  char *const arguments[] = {program, argument, nullptr};
  OrpUvSpawnOptions options = {};
  options.file = program;
  options.args = arguments;
  options.exitProc = [](OrpUvProcess *, int32_t, uint32_t, uint32_t signal) {
    EXPECT_EQ(static_cast<uint32_t>(SIGTERM), signal);
    exited = true;
    stop_loop();
  };
  OrpUvProcess *process = nullptr;
  ASSERT_EQ(ORP_OK, OrpUvProcessSpawn(nullptr, &process, &options));
  EXPECT_EQ(0u, OrpUvProcessKill(process, SIGTERM));
  run_loop();
  EXPECT_TRUE(exited);

  EXPECT_EQ(ORP_OK, msgkit_on_signal(SIGTERM, nullptr));
  struct sigaction action;
  ::sigaction(SIGTERM, nullptr, &action);
  EXPECT_EQ(SIG_DFL, action.sa_handler);
}

// ---- Texts ----

TEST(KitStatus, HasEveryTextOfTheCatalogue) {
  size_t compared = 0;
  for (const catalogue::StatusNumber &status : catalogue::statuses()) {
    if (status.family == catalogue::StatusFamily::kPlain) continue;
    const auto family = static_cast<uint32_t>(status.family);
    EXPECT_EQ(status.name, msgkit_status_name(family, status.number));
    EXPECT_EQ(status.sentence, msgkit_status_sentence(family, status.number));
    ++compared;
  }
  EXPECT_GT(compared, 50u);
  EXPECT_STREQ("ORP_ERR_TIMEOUT", msgkit_status_name(MSGKIT_STATUS_EVENTS, ORP_ERR_TIMEOUT));
  EXPECT_STREQ("?", msgkit_status_name(MSGKIT_STATUS_MESSAGES, 0x1ffff));
  EXPECT_STREQ("unknown status", msgkit_status_sentence(99, 0));
}

// ---- A whole daemon ----

void stop_said() {
  g_seen.emplace_back("stop");
}

TEST_F(Kit, RunsADaemonUntilItIsAskedToExit) {
  FakeServer server([](MessagePeer &peer) {
    peer.accept_registration("self");
    ::kill(::getpid(), SIGHUP);
    peer.send({.type = ORP_MSG_EXIT, .to = "self", .from = "asker"});
    peer.expect({.type = ORP_MSG_EXIT, .to = "asker"});
    EXPECT_TRUE(peer.closed());
  });
  const MSGKIT_DAEMON_ST daemon = {"self",
                                   [] {
                                     g_seen.emplace_back("start");
                                     return ORP_OK;
                                   },
                                   changed, nullptr, stop_said};
  EXPECT_EQ(0, msgkit_run_daemon(&daemon));
  EXPECT_THAT(g_seen, ElementsAre("start", "messages 1", "stop"));
}

TEST_F(Kit, EndsADaemonOnASignalWhereverTheLoopRuns) {
  const MSGKIT_DAEMON_ST daemon = {"self",
                                   [] {
                                     ORP_UTIL_TimerAdd(
                                         10, 1,
                                         [](ORP_WORD) {
                                           ::raise(SIGTERM);
                                           run_loop();  // within a procedure
                                           g_seen.emplace_back("inner");
                                         },
                                         0);
                                     return ORP_OK;
                                   },
                                   nullptr, nullptr, stop_said};
  EXPECT_EQ(0, msgkit_run_daemon(&daemon));
  EXPECT_THAT(g_seen, ElementsAre("inner", "stop"));
}

TEST_F(Kit, EndsADaemonThatCannotStart) {
  const MSGKIT_DAEMON_ST daemon = {"self", [] { return ORP_ERR_SYSTEM; }, changed, nullptr,
                                   stop_said};
  EXPECT_EQ(1, msgkit_run_daemon(&daemon));
  EXPECT_TRUE(g_seen.empty());
  EXPECT_EQ(1, msgkit_run_daemon(nullptr));
}

}  // namespace
