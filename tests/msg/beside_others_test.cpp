// The connection beside other users of the loop, whose callbacks wait, connect or fail to.

#include <fcntl.h>
#include <unistd.h>

#include "base/drop_count.h"
#include "msg/connection_fixture.h"
#include "msgapi/process.h"
#include "msgapi/sockbase.h"

namespace msgapi::msg {
namespace {

using test::Frame;
using test::MessagePeer;

void ask() {
  uint32_t result;
  EXPECT_EQ(ORP_OK, ORP_MSG_SendAndRecvMsgData("peer", 0x1234, 0, 0, &result));
}

class BesideOthers : public Connect {
 protected:
  // Something on the loop that is ready once, and before the connection in the same pass.
  static void ask_in_the_same_pass() {
    int fds[2];
    ASSERT_EQ(0, ::pipe2(fds, O_CLOEXEC));
    ASSERT_EQ(0, ::close(fds[1]));
    ORP_UTIL_SOCKBASE_ST *other;
    const auto wait = [](ORP_UTIL_SOCKBASE_ST *self, uint32_t) {
      ORP_UTIL_SocketBaseListen(self, ORP_UTIL_SOCKBASE_NONE);
      ask();
    };
    ORP_UTIL_SockBaseReg(fds[0], 0, wait, ORP_UTIL_SOCKBASE_READ, 0, &other);
  }
  static void await_first_message() {
    char byte;
    ASSERT_EQ(1, ::recv(g_stMsgCtx.slSocket, &byte, 1, MSG_PEEK));
  }
};

TEST_F(BesideOthers, WhatAWaitPutsAsideComesBeforeWhatFollows) {
  ask_in_the_same_pass();
  connect([](MessagePeer &peer) {
    peer.send({.type = 1});
    const Frame request = peer.read();
    peer.send({.type = 2});
    peer.answer(request);
    peer.send({.type = 3});
    peer.send({.type = 0xeee});
  });
  await_first_message();
  run_loop();
  EXPECT_EQ((Types{1, 2, 3}), g_heard);
}

TEST_F(BesideOthers, AConnectionThatAWaitHasEmptiedHasLostNothing) {
  g_dropped = {};
  ask_in_the_same_pass();
  connect([](MessagePeer &peer) {
    peer.send({.type = 0xeee});
    peer.answer(peer.read());
    peer.closed();
  });
  await_first_message();
  run_loop();
  ORP_MSG_Destroy();
  EXPECT_EQ(0u, g_dropped.read);
}

TEST_F(BesideOthers, AConnectionMadeInAMessageProcedureHasLostNothing) {
  g_dropped = {};
  connect([](MessagePeer &peer) {
    peer.send({.type = 1});
    peer.closed();
  });
  static std::optional<test::FakeServer> next;
  ORP_MSG_RegisterMsgProc([](Header *) {
    ::unlink(ORP_MSG_SERVER_PATH);
    next.emplace([](MessagePeer &peer) {
      peer.accept_registration("self");
      peer.closed();
    });
    ORP_MSG_Destroy();
    EXPECT_EQ(ORP_OK, ORP_MSG_Init("self"));
    ORP_UTIL_TimerAdd(
        1, 1, [](ORP_WORD) { stop_loop(); }, 0);
  });
  run_loop();
  ORP_MSG_Destroy();
  next.reset();
  EXPECT_EQ(0u, g_dropped.read);
}

TEST_F(BesideOthers, WhatAnIdleProcedurePutsAsideNeedsNoFurtherEvent) {
  connect([](MessagePeer &peer) {
    const Frame request = peer.read();
    peer.send({.type = 0xeee});
    peer.answer(request);
    peer.closed();
  });
  ORP_UV_IdleStart(nullptr, [](OrpUvIdle *self) {
    if (self->head.data++ == 0) ask();
  });
  run_loop();
  ORP_MSG_Destroy();
}

TEST_F(BesideOthers, AConnectionMadeInACallbackOfASynchronousSpawnStays) {
  static std::function<void()> connect_now;
  connect_now = [this] { connect([](MessagePeer &peer) { peer.send({.type = 0xeee}); }); };
  char shell[] = "sh", option[] = "-c", command[] = "exit";
  char *arguments[] = {shell, option, command, nullptr};
  OrpUvSpawnOptions options = {};
  options.file = "/bin/sh";
  options.args = arguments;
  options.exitProc = [](OrpUvProcess *, int32_t, uint32_t, uint32_t) { connect_now(); };
  EXPECT_EQ(0u, OrpUvProcessSpawnSync(&options, 0));
  run_loop();
}

// A name that the server refuses, for example, is tried again and again.
TEST_F(BesideOthers, FailedRegistrationsLeaveNothingOnTheLoop) {
  const auto watchers_after = [](int failures) {
    for (int i = 0; i < failures; ++i) {
      test::FakeServer server([](MessagePeer &peer) { peer.read(); });
      ORP_MSG_Init("self");
      ::unlink(ORP_MSG_SERVER_PATH);
    }
    ORP_UTIL_TimerAdd(
        1, 1, [](ORP_WORD) { stop_loop(); }, 0);
    run_loop();
    size_t count = 0;
    const OrpUvWatcher *watcher = OrpUvLoopGetDefault()->watchers;
    for (; watcher != nullptr; watcher = watcher->link) ++count;
    return count;
  };
  const size_t once = watchers_after(1);
  EXPECT_EQ(once, watchers_after(3));
}

}  // namespace
}  // namespace msgapi::msg
