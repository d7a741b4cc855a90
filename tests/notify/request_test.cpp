// Synchronous requests of the client.

#include "notify/client_fixture.h"

#include <fcntl.h>

#include <cstdlib>

#include "msgapi/sockbase.h"

namespace msgapi::notify {
namespace {

using testing::ElementsAre;
using testing::EndsWith;
using testing::StartsWith;

TEST_F(NotifyClient, GetsTheReplyToItsRequest) {
  connect();
  const uint32_t argument = 99;
  void *data = nullptr;
  uint32_t length = 0;
  server_.send(reply(2, "the reply"));
  server_.send(reply(3, "unwanted"));
  server_.send(reply(4, ""));

  EXPECT_EQ(ORP_NOTIFYCLT_OK,
            ORP_NOTIFYCLT_SendSynNotify(kOther, kType, "question", 8, &data, &length, &argument));
  EXPECT_EQ(9u, length);
  EXPECT_STREQ("the reply", static_cast<char *>(data));
  std::free(data);
  expect_message(
      {{kType, 2, kOwnId, kOther, 1, ORP_NOTIFYCLT_REQUEST, 8, 0, 0, 99, 0, 0}, "question"},
      server_.receive());

  EXPECT_EQ(ORP_NOTIFYCLT_OK, ask()) << "nobody wants the data";
  EXPECT_EQ(ORP_NOTIFYCLT_OK, ask(&data, &length));
  EXPECT_EQ(nullptr, data);
}

// Another callback asks in the pass in which the connection is ready, too. The connection's own
// turn must not wait when the request has read everything; messages that were put aside come first.
TEST_F(NotifyClient, KeepsTheOrderAfterARequestOfAnotherCallback) {
  ORP_NOTIFYCLT_RegAsyncMsgProc(kType, take_notification);
  const msgapi::os::UniqueFd ready(::open("/dev/null", O_RDONLY | O_CLOEXEC));
  static ORP_UTIL_SOCKBASE_ST *other;
  const auto ask_once = [](ORP_UTIL_SOCKBASE_ST *self, uint32_t) {
    EXPECT_EQ(ORP_NOTIFYCLT_OK, ask());
    ORP_UTIL_SocketBaseListen(self, ORP_UTIL_SOCKBASE_NONE);
  };
  ASSERT_EQ(0u, ORP_UTIL_SockBaseReg(ready.get(), 0, ask_once, ORP_UTIL_SOCKBASE_READ, 0, &other));
  connect();
  server_.send(reply(2, ""));
  EXPECT_EQ("", output_of(run_loop));

  ORP_NOTIFYCLT_RegSyncMsgProc(kType, take_request);
  ORP_UTIL_SocketBaseListen(other, ORP_UTIL_SOCKBASE_READ);
  for (const NotifyMessage &message :
       {notification("1"), request("2"), reply(1, "late"), reply(3, ""), notification("4")}) {
    server_.send(message);
  }
  run_loop();

  EXPECT_THAT(g_calls,
              ElementsAre("async \"1\" null", "sync \"2\"", "stray \"late\"", "async \"4\" null"));
}

class NotifyClientInside : public NotifyClient {
 protected:
  // A request in each of two deliveries. The second one puts `last` aside; `then` follows it.
  void ask_in_two_deliveries(const std::string &last, const std::function<void()> &then) {
    connect();
    ORP_NOTIFYCLT_RegAsyncMsgProc(kType, take_notification);
    server_.send(notification("asks"));
    server_.send(notification("put aside"));
    server_.send(reply(2, ""));
    g_during_call = [=, this] {
      EXPECT_EQ(ORP_NOTIFYCLT_OK, ask());
      g_during_call = [=, this] {
        server_.send(notification(last));
        server_.send(reply(3, ""));
        EXPECT_EQ(ORP_NOTIFYCLT_OK, ask());
        then();
      };
    };
  }
};

TEST_F(NotifyClientInside, AProcedureMayDestroyTheClient) {
  ask_in_two_deliveries("never", ORP_NOTIFYCLT_Destroy);
  run_loop();
  EXPECT_THAT(g_calls, ElementsAre("async \"asks\" null", "async \"put aside\" null"));
}

TEST_F(NotifyClientInside, WhatADeliveryPutsAsideNeedsNoFurtherEvent) {
  ask_in_two_deliveries("last",
                        [] { g_during_call = [] { OrpUvLoopStop(OrpUvLoopGetDefault()); }; });
  EXPECT_EQ(ORP_OK, ORP_UV_LoopRun(nullptr, 5000));
  EXPECT_EQ(3u, g_calls.size());
}

TEST_F(NotifyClient, ReportsWhyThereIsNoReply) {
  connect();
  g_wait_divisor = 1000;

  const std::string output = output_of([&] {
    EXPECT_EQ(ORP_NOTIFYCLT_ERR_TIMEOUT, ask());
    NotifyMessage too_long = reply(3, "");
    too_long.head.data_len = ORP_NOTIFYCLT_MAX_DATA + 1;
    server_.send(std::string(reinterpret_cast<const char *>(&too_long.head), sizeof too_long.head));
    EXPECT_EQ(ORP_NOTIFYCLT_ERR_MEMORY, ask());
    server_.send(std::string("short"));
    EXPECT_EQ(ORP_NOTIFYCLT_ERR_IO, ask());
    server_.stop_sending();
    EXPECT_EQ(ORP_NOTIFYCLT_ERR_PEER_GONE, ask());
  });

  const std::string pid = std::to_string(::getpid());
  EXPECT_THAT(
      output,
      StartsWith("notifyclient: timeout to wait data when recv, timeout=20000, pid=" + pid +
                 "ooo notifyclient data Length too long: 800001, msg 1234 from 26 to 8.\n"));
  EXPECT_THAT(
      output,
      EndsWith("error: notify server dead when recv, destory client, my pid=" + pid + "!\n"));
}

}  // namespace
}  // namespace msgapi::notify
