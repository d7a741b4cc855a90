// Applications that the message server starts when somebody connects to them.

#include <gmock/gmock.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <optional>
#include <string>

#include "common/listen.h"
#include "msgapi/dynapp.h"
#include "servers/services.h"
#include "support/file.h"
#include "support/message_peer.h"
#include "support/network.h"
#include "support/process.h"

namespace {

using servers::UniqueFd;
using test::Frame;
using test::RawClient;
using test::Services;
using testing::HasSubstr;
using testing::Optional;

class DynamicApps : public Services {
 protected:
  // Starts the server with one application: a Python program that finds its socket as `s`.
  void start_with(const std::string &program, const std::string &listen,
                  const std::string &more = "") {
    std::ofstream("/var/dyn.py") << "import os, socket, sys\ns = socket.socket(fileno=3)\n"
                                 << program;
    std::ofstream("/var/apps.json")
        << R"({"applications": [{"name": "dyn", "executable": "/usr/bin/python3",)"
        << R"("arguments": ["/var/dyn.py"], "listen": ")" << listen << "\"" << more << "}]}";
    start({"--apps", "/var/apps.json", "--tcp", "127.0.0.1:7070"});
  }

  static Frame request(uint32_t action, const std::string &name = "dyn") {
    return {.type = ORP_MSG_DYNAPP_UPDATE, .body = test::padded(name), .data = action};
  }

  // Connects and returns everything that the application sends; none when nobody listens.
  static std::optional<std::string> visit() {
    const int fd = test::connect_to(7001);
    if (fd < 0) return std::nullopt;
    char text[256] = "";
    [[maybe_unused]] const ssize_t count = ::recv(fd, text, sizeof text - 1, MSG_WAITALL);
    ::close(fd);
    return text;
  }

  static constexpr const char *kTcp = "tcp:127.0.0.1:7001";
  static constexpr const char *kServeForEver =
      "n = 0\n"
      "while True:\n"
      "  c, _ = s.accept(); n += 1\n"
      "  c.send(b'%d' % n); c.close()\n";
};

TEST_F(DynamicApps, StartAtTheFirstConnection) {
  // The server's own are not passed on.
  ::setenv("LISTEN_FDS", "7", 1);
  ::setenv("LISTEN_FDNAMES", "bus", 1);
  start_with(
      "c, _ = s.accept()\n"
      "right = os.environ['LISTEN_PID'] == str(os.getpid()) and os.environ['LISTEN_FDS'] == '1' "
      "and 'LISTEN_FDNAMES' not in os.environ\n"
      "c.send(b'%d %d' % (right, os.getpid()))\n",
      kTcp);
  EXPECT_THAT(server_->output(), testing::Not(HasSubstr("is started")));

  const auto first = visit();
  EXPECT_THAT(first, Optional(testing::StartsWith("1 ")));
  // The application has ended well; the next connection starts it again.
  ASSERT_TRUE(server_->wait_for("dyn has ended: exit status 0"));
  EXPECT_THAT(visit(), testing::AllOf(Optional(testing::StartsWith("1 ")), testing::Ne(first)));
}

TEST_F(DynamicApps, AreRestartedMoreAndMoreSlowlyWhenTheyCrash) {
  start_with("sys.exit(3)", kTcp);

  const auto visitor = std::async(std::launch::async, visit);

  EXPECT_TRUE(server_->wait_for("dyn has ended: exit status 3"));
  EXPECT_TRUE(server_->wait_for("started again in 1000 ms"));
  EXPECT_TRUE(server_->wait_for("started again in 2000 ms"));
  server_->stop(SIGTERM);
}

TEST_F(DynamicApps, AreTriedAgainWhenTheServerHasDescriptorsAgain) {
#ifdef __SANITIZE_ADDRESS__
  GTEST_SKIP() << "the sanitizer's own checks need descriptors in the server";
#endif
  start_with(kServeForEver, kTcp);
  rlimit before{};
  ASSERT_EQ(0, ::prlimit(server_->pid(), RLIMIT_NOFILE, nullptr, &before));
  const rlimit full{3, before.rlim_max};
  ASSERT_EQ(0, ::prlimit(server_->pid(), RLIMIT_NOFILE, &full, nullptr));
  const auto visitor = std::async(std::launch::async, visit);
  EXPECT_TRUE(server_->wait_for("dyn cannot be started: /usr/bin/python3: Too many open files"));
  ASSERT_EQ(0, ::prlimit(server_->pid(), RLIMIT_NOFILE, &before, nullptr));
  EXPECT_TRUE(server_->wait_for("dyn is started"));
}

// An application that takes its time to end, and another that never runs.
TEST_F(DynamicApps, AreWaitedForWhileTheyEnd) {
  start_with(
      "import signal, time\n"
      "def end(*a):\n"
      "  while not os.path.exists('/var/go'): time.sleep(0.01)\n"
      "  os._exit(3)\n"
      "signal.signal(signal.SIGTERM, end)\n"
      "while True:\n"
      "  c, _ = s.accept()\n"
      "  c.send(b'up')\n",
      "unix:/var/dyn.sock",
      R"(}, {"name": "idle", "executable": "/bin/true", "listen": "unix:/var/idle.sock")");
  const auto is_up = [] {
    return RawClient("x", RawClient::Register::kNo, "/var/dyn.sock").receive_bytes(2);
  };
  RawClient client("web");
  const auto update = [&](uint32_t action) {
    client.send(request(action));
    EXPECT_THAT(client.drain(), testing::IsEmpty());
  };
  ASSERT_EQ("up", is_up());
  // Off and on again before it has ended: it was asked to, so this is no crash.
  update(ORP_DYNAPP_OFF);
  update(ORP_DYNAPP_ON);
  std::ofstream("/var/go");
  ASSERT_TRUE(server_->wait_for("dyn has ended: exit status 3"));
  std::filesystem::remove("/var/go");
  EXPECT_EQ("up", is_up());

  // Who asks for the end of all is answered then, once, and may have gone.
  RawClient("leaver").send({.type = ORP_MSG_DYNAPP_STOP_ALL});
  for (const uint32_t sequence : {4u, 5u}) {
    client.send({.type = ORP_MSG_DYNAPP_STOP_ALL, .sequence = sequence});
  }
  EXPECT_THAT(client.drain(), testing::IsEmpty());
  std::ofstream("/var/go");
  EXPECT_EQ(5u, client.read().sequence);
  EXPECT_THAT(client.drain(), testing::IsEmpty());
  EXPECT_THAT(server_->output(), testing::Not(HasSubstr("started again in")));
  EXPECT_FALSE(std::filesystem::exists("/var/idle.sock"));
}

TEST_F(DynamicApps, AreSwitchedOffAndOnAndRestarted) {
  start_with(kServeForEver, kTcp);
  RawClient client("web");
  const auto update = [&](uint32_t action) {
    client.send(request(action));
    client.drain();
  };

  update(ORP_DYNAPP_RESTART);
  ASSERT_TRUE(server_->wait_for("dyn is started")) << "before anybody has come";
  EXPECT_EQ("1", visit());
  EXPECT_EQ("2", visit());
  update(ORP_DYNAPP_RESTART);
  ASSERT_TRUE(server_->wait_for("dyn has ended: signal 15"));
  ASSERT_TRUE(server_->wait_for("dyn is started"));
  EXPECT_EQ("1", visit());

  // A board's process is none of the application's own.
  RawClient board("board", uint16_t{7070});
  expect_refusal(board, request(ORP_DYNAPP_OFF));
  EXPECT_EQ("2", visit());

  update(ORP_DYNAPP_OFF);
  ASSERT_TRUE(server_->wait_for("dyn has ended"));
  EXPECT_FALSE(visit());
  update(ORP_DYNAPP_RESTART);
  EXPECT_FALSE(visit()) << "it stays off";
  {
    const UniqueFd taken = servers::listen_tcp("127.0.0.1:7001");
    update(ORP_DYNAPP_ON);
    ASSERT_TRUE(server_->wait_for("127.0.0.1:7001: Address already in use"));
  }
  update(99);
  ASSERT_TRUE(server_->wait_for("asks for the unknown action 99 of dyn"));
  EXPECT_FALSE(visit());
  update(ORP_DYNAPP_ON);
  EXPECT_EQ("1", visit());
  for (int i = 0; i < 2; ++i)
    EXPECT_EQ(0u, client.ask({.type = ORP_MSG_DYNAPP_STOP_ALL}).data) << "all stop";
  EXPECT_FALSE(visit());

  expect_refusal(client, request(ORP_DYNAPP_ON, "unknown"));
  Frame endless = request(ORP_DYNAPP_ON);
  endless.body = "dyn";
  expect_refusal(client, endless);
}

TEST_F(DynamicApps, RunAsTheirUserOnAUnixSocket) {
  if (::seteuid(65534) != 0) GTEST_SKIP() << "this sandbox knows no other users";
  ASSERT_EQ(0, ::seteuid(0));
  start_with("c, _ = s.accept()\nc.send(b'%d %d' % (os.getuid(), len(os.getgroups())))\n",
             "unix:/var/dyn.sock", ", \"user\": \"nobody\", \"mode\": \"0600\"");
  EXPECT_EQ(std::filesystem::perms{0600}, std::filesystem::status("/var/dyn.sock").permissions());
  RawClient visitor("x", RawClient::Register::kNo, "/var/dyn.sock");
  EXPECT_EQ("65534 1", visitor.receive_bytes(7));

  server_->stop(SIGTERM);
  EXPECT_FALSE(std::filesystem::exists("/var/dyn.sock"));

  // However many groups its user has.
  std::ofstream groups("/var/group");
  groups << test::contents("/etc/group");
  for (int i = 0; i < 70; ++i) groups << "many" << i << ":x:" << 7000 + i << ":nobody\n";
  groups.close();
  ASSERT_EQ(0, ::mount("/var/group", "/etc/group", nullptr, MS_BIND, nullptr));
  start({"--apps", "/var/apps.json"});
  RawClient next("x", RawClient::Register::kNo, "/var/dyn.sock");
  EXPECT_EQ("65534 71", next.receive_bytes(8));
}

TEST_F(DynamicApps, NeedAConfigurationThatMakesSense) {
  const struct {
    const char *entry;
    const char *complaint;
  } kBad[] = {
      {"{", "parse error"},
      {"", "application number 1: \"name\" is missing"},
      {R"("name": "a", "listen": "unix:/x")", "application a: \"executable\" is missing"},
      {R"("name": "a", "executable": "/x")", "application a: \"listen\" is missing"},
      {R"("name": 7, "executable": "/x", "listen": "unix:/x")", "\"name\" is not a text"},
      {R"("name": "a", "executable": "/x", "listen": "unix:/x", "uesr": "nobody")",
       "application a: \"uesr\" is unknown"},
      {R"("name": "mic", "executable": "/x", "listen": "unix:/x")", "no application name"},
      {R"("name": "much-too-long", "executable": "/x", "listen": "unix:/x")",
       "no application name"},
      {R"("name": "a", "executable": "x", "listen": "unix:/x")",
       "x: \"executable\" is no absolute"},
      {R"("name": "a", "executable": "/x", "listen": "unix:/x", "arguments": "-v")",
       "\"arguments\" is not a list of texts"},
      {R"("name": "a", "executable": "/x", "listen": "unix:/x", "arguments": ["-v", 7])",
       "\"arguments\" is not a list of texts"},
      {R"("name": "a", "executable": "/x", "listen": "7001")", "\"listen\" is neither"},
      {R"("name": "a", "executable": "/x", "listen": "tcp:nowhere:1")", "application a: cannot"},
      {R"("name": "a", "executable": "/x", "listen": "unix:/var/x", "user": "nobody at all")",
       "there is no user nobody at all"},
      {R"("name": "a", "executable": "/x", "listen": "unix:/var/x", "mode": "0o7")", "octal"},
      {R"("name": "a", "executable": "/x", "listen": "unix:/var/x"},
          {"name": "a", "executable": "/x", "listen": "unix:/var/y")",
       "application a: there is another one of this name"}};
  const auto refusal = [](const std::string &text) {
    std::ofstream("/var/apps.json") << text;
    test::Process server("msgsvr", {"--apps", "/var/apps.json"});
    EXPECT_EQ(1, server.wait()) << text;
    EXPECT_THAT(server.output(), HasSubstr("/var/apps.json: ")) << text;
    return server.output();
  };
  for (const auto &[entry, complaint] : kBad) {
    const std::string text = R"({"applications": [{)" + std::string(entry) + "}]}";
    EXPECT_THAT(refusal(text), HasSubstr(complaint));
  }
  for (const char *text : {"{}", "[]", R"({"applications": {}})", R"({"applications": [7]})"}) {
    refusal(text);
  }
  test::Process server("msgsvr", {"--apps", "/var/none.json"});
  EXPECT_EQ(1, server.wait());
  EXPECT_THAT(server.output(), HasSubstr("cannot read /var/none.json"));
}

TEST_F(DynamicApps, AreNamedWithTheReasonWhenTheyCannotBeStarted) {
  std::ofstream("/var/apps.json")
      << R"({"applications": [{"name": "dyn", "executable": "/var/no-such-program",)"
      << R"("listen": "tcp:127.0.0.1:7001"}]})";
  test::Process server("msgsvr", {"--apps", "/var/apps.json"});
  EXPECT_TRUE(server.wait_for("dyn cannot be started at present: /var/no-such-program: No such"));
  EXPECT_TRUE(server.wait_for("ready"));

  const auto visitor = std::async(std::launch::async, visit);
  EXPECT_TRUE(
      server.wait_for("dyn cannot be started: /var/no-such-program: it cannot be executed: "
                      "No such file or directory"));
  EXPECT_TRUE(server.wait_for("started again in 1000 ms"));
  server.stop(SIGTERM);
}

}  // namespace
