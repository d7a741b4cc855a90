// The message server as a process: sockets, addresses, signals, descriptors.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
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

TEST_F(MsgsvrProcess, ServesOtherBoardsOverTcp) {
  start({"--tcp", "127.0.0.1:7070"});
  RawClient a("a");
  RawClient board("board", uint16_t{7070});

  expect_delivery(&a, &board);
  expect_delivery(&board, &a);
  board.close();
  settle();
  a.send({.type = kType, .to = "board", .sequence = 2});
  expect_undeliverable(&a, kType, 2);
}

TEST_F(MsgsvrProcess, PrintsStatisticsAndLeavesNoSocketBehind) {
  start();
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

TEST_F(MsgsvrProcess, ReplacesADeadServersSocketButNotALivingOnes) {
  start();
  EXPECT_EQ(std::filesystem::perms{0666},
            std::filesystem::status(ORP_MSG_SERVER_PATH).permissions());

  test::Process second("msgsvr");
  EXPECT_EQ(1, second.wait());
  EXPECT_THAT(second.output(), HasSubstr("a server is running there"));
  settle();

  server_->stop(SIGKILL);
  start();
  settle();
}

TEST_F(MsgsvrProcess, RefusesConnectionsItHasNoDescriptorsForAndGoesOn) {
#ifdef __SANITIZE_ADDRESS__
  GTEST_SKIP() << "the sanitizer's own checks need descriptors in the server";
#endif
  start();
  // The server uses its hard limit, which is lowered from outside.
  const rlimit few{32, 32};
  ASSERT_EQ(0, ::prlimit(server_->pid(), RLIMIT_NOFILE, &few, nullptr));
  RawClient a("a");

  std::vector<RawClient> many;
  for (int i = 0; i < 40; ++i) many.emplace_back("many", RawClient::Register::kNo);
  EXPECT_TRUE(server_->wait_for("a connection is refused"));
  expect_delivery(&a, &a);
  many.clear();
  while (open_descriptors() > idle_descriptors_ + 1) a.drain();
  RawClient late("late");
  expect_delivery(&a, &late);
}

TEST(MessageServerAddresses, AreCheckedAndNamed) {
  for (const char *bad :
       {"99999", "127.0.0.1:65536", "127.0.0.1:0", "127.0.0.1:", "127.0.0.1:8o"}) {
    for (const char *option : {"--http", "--tcp"}) {
      test::Process server("msgsvr", {option, bad});
      EXPECT_EQ(1, server.wait()) << option << ' ' << bad;
    }
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
