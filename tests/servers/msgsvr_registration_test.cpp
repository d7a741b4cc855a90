// Names of processes at the message server, and whether the processes are alive.

#include <gmock/gmock.h>
#include <unistd.h>

#include <string>

#include "servers/message_server.h"
#include "support/message_peer.h"

namespace {

using test::Frame;
using test::padded;
using test::RawClient;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

class MsgsvrRegistration : public test::MessageServer {
 protected:
  static uint32_t processes_named(RawClient *client, const std::string &name) {
    return client->ask({.type = ORP_MSG_COUNT_PROCESSES, .body = padded(name)}).data;
  }
};

TEST_F(MsgsvrRegistration, ConfirmsANameUnlessItIsItsOwnAndSaysWhatItWants) {
  start({"--keepalive", "30"});

  const auto reply = RawClient("web", RawClient::Register::kNo).enter();
  ASSERT_TRUE(reply);
  const uint32_t words[] = {1, 30};
  const Frame expected = {.type = ORP_MSG_REGISTER,
                          .to = "web",
                          .body = {reinterpret_cast<const char *>(words), sizeof words},
                          .sequence = 1};
  EXPECT_EQ(expected, *reply);
  EXPECT_EQ("", RawClient("mic", RawClient::Register::kNo).enter().value_or(expected).to);
}

TEST_F(MsgsvrRegistration, GivesTheOldestOfSeveralProcessesTheMessages) {
  start();
  RawClient a("a");
  RawClient oldest("twin");
  RawClient younger("twin");

  uint32_t count = 2;
  for (RawClient *twin : {&oldest, &younger}) {
    EXPECT_EQ(count--, processes_named(&a, "twin"));
    expect_delivery(&a, twin);
    twin->close();
    settle();
  }
  EXPECT_EQ(0u, processes_named(&a, "twin"));
}

TEST_F(MsgsvrRegistration, AsksAllProcessesOfANameToExit) {
  start();
  RawClient a("a");
  RawClient one("dhcps");
  RawClient two("dhcps");

  a.send({.type = ORP_MSG_EXIT, .body = padded("dhcps")});

  for (RawClient *client : {&one, &two}) {
    const Frame got = client->read();
    EXPECT_EQ(uint32_t{ORP_MSG_EXIT}, got.type);
    EXPECT_EQ("dhcps", got.to);
    // The acknowledgement is no request and brings no notice.
    client->send({.type = ORP_MSG_EXIT, .to = got.from});
    EXPECT_THAT(client->drain(), IsEmpty());
  }
}

TEST_F(MsgsvrRegistration, LogsAClientThatMissesThreeKeepAlives) {
  start({"--keepalive", "1"});
  RawClient silent("silent");
  RawClient excused("excused");
  excused.send({.type = ORP_MSG_STOP_WATCHDOG});

  ASSERT_TRUE(server_->wait_for("silent[" + std::to_string(::getpid()) +
                                "] has sent no keep-alive for 3 periods"));
  silent.send({.type = ORP_MSG_KEEP_ALIVE});
  EXPECT_TRUE(server_->wait_for("is alive again"));
  EXPECT_THAT(server_->output(), Not(HasSubstr("excused")));
}

}  // namespace
