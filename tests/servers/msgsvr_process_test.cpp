// The message server as a process: sockets, addresses, signals, descriptors.

#include <gmock/gmock.h>
#include <signal.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "servers/message_server.h"
#include "support/message_peer.h"
#include "support/process.h"

namespace {

using test::kType;
using test::RawClient;
using testing::HasSubstr;

class MsgsvrProcess : public test::MessageServer {};

TEST_F(MsgsvrProcess, PrintsStatisticsAndLeavesNoSocketBehind) {
  start();
  EXPECT_EQ(std::filesystem::perms{0666},
            std::filesystem::status(ORP_MSG_SERVER_PATH).permissions());
  RawClient a("web");
  a.send({.type = kType, .to = "nobody"});
  a.read();

  ::kill(server_->pid(), SIGUSR1);
  EXPECT_TRUE(server_->wait_for("1 clients of 1 connections"));
  EXPECT_TRUE(server_->wait_for("no such name 1"));
  EXPECT_TRUE(server_->wait_for("client web[" + std::to_string(::getpid()) + "]: in 2 messages"));

  EXPECT_EQ(0, server_->stop(SIGTERM));
  EXPECT_TRUE(a.closed());
  EXPECT_FALSE(std::filesystem::exists(ORP_MSG_SERVER_PATH));
}

TEST(MessageServerAddresses, AreCheckedAndNamed) {
  for (const char *option : {"--http", "--tcp"}) {
    test::Process server("msgsvr", {option, "99999"});
    EXPECT_EQ(1, server.wait()) << option;
  }
  test::Process server("msgsvr", {"--http", "8080", "--tcp", "127.0.0.1:7000"});
  EXPECT_TRUE(server.wait_for("ready on /var/run/msgsvr, TCP 127.0.0.1:7000, HTTP 127.0.0.1:8080"));
}

TEST(MessageServerOptions, ThatCannotBeAreNamed) {
  const struct {
    std::vector<std::string> options;
    const char *complaint;
  } cases[] = {
      {{"--queue", "65536", "--cut-through", "65536"}, "--queue must be at least 2 times"},
      {{"--mode", "0888"}, "--mode 0888 is no octal mode"},
      {{"--mode", "1777"}, "--mode 1777 is no octal mode"},
      {{"--tcp-from", "lan"}, "--tcp-from lan is no ADDRESS"},
  };
  for (const auto &[options, complaint] : cases) {
    test::Process server("msgsvr", options);
    EXPECT_EQ(2, server.wait()) << complaint;
    EXPECT_THAT(server.output(), HasSubstr(complaint));
  }
}

TEST(MessageServerSocket, StaysALivingServersWhateverTheOtherLacks) {
  test::Process server("msgsvr");
  ASSERT_TRUE(server.wait_for("ready"));
  // With so few descriptors, asking for the running server is the call that fails at some point.
  for (int most = 3; most < 24; ++most) {
    const std::string command = "ulimit -n " + std::to_string(most) + "; timeout 5 \"" +
                                std::getenv("MSGAPI_BIN") + "/msgsvr\" 2>/dev/null";
    EXPECT_NE(0, std::system(command.c_str())) << most;
    ASSERT_TRUE(std::filesystem::exists(ORP_MSG_SERVER_PATH)) << most;
  }
  EXPECT_EQ(0u, RawClient("web").ask({.type = ORP_MSG_FACTORY_MODE}).data) << "it still serves";
}

}  // namespace
