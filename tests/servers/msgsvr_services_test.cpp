// What the message server does itself, beside forwarding: with clients that write raw bytes.

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <future>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "cfmapi.h"
#include "msgapi/login.h"
#include "msgapi/login_records.h"
#include "msgapi/restful.h"
#include "servers/services.h"
#include "support/file.h"
#include "support/message_peer.h"
#include "support/network.h"
#include "support/process.h"
#include "support/store.h"

namespace {

using test::Frame;
using test::RawClient;
using test::Services;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Optional;

TEST_F(Services, TellTheFactoryModeAndRebootNothing) {
  start();
  EXPECT_EQ(0u, RawClient("web").ask({.type = ORP_MSG_FACTORY_MODE}).data);
  RawClient("web").send({.type = ORP_MSG_REBOOT, .data = 3});
  EXPECT_TRUE(server_->wait_for("asks for a reboot, mode 3; not executed"));

  server_->stop(SIGTERM);
  start({"--factory-mode"});
  EXPECT_EQ(1u, RawClient("web").ask({.type = ORP_MSG_FACTORY_MODE}).data);
}

TEST_F(Services, LetProcessesWaitForEachOther) {
  start();
  RawClient one("one");
  RawClient two("two");
  RawClient poster("poster");
  const auto wait_at = [](const std::string &name, uint32_t sequence) {
    return Frame{.type = ORP_MSG_SYNC_WAIT, .body = name + '\0', .sequence = sequence};
  };

  one.send(wait_at("boot", 4));
  two.send(wait_at("boot", 5));
  EXPECT_THAT(two.drain(), IsEmpty());
  poster.send({.type = ORP_MSG_SYNC_POST, .body = std::string("other\0", 6)});
  poster.drain();
  EXPECT_THAT(one.drain(), IsEmpty());
  poster.send({.type = ORP_MSG_SYNC_POST, .body = std::string("boot\0", 5)});
  EXPECT_EQ(4u, one.read().sequence);
  EXPECT_EQ(5u, two.read().sequence);

  // What nobody waited for is there for the next one, once.
  EXPECT_EQ(6u, one.ask(wait_at("other", 6)).sequence);
  one.send(wait_at("other", 7));
  EXPECT_THAT(one.drain(), IsEmpty());
  one.send(wait_at("", 8));
  EXPECT_EQ(ORP_MSG_UNDELIVERABLE, one.read().type) << "a point without a name is none";
}

// Login control.

class Login : public Services {
 protected:
  Login() { restart(); }

  void restart(int signal = SIGTERM) {
    if (server_) server_->stop(signal);
    start();
    web_ = std::make_unique<RawClient>("web");
  }

  template <typename Result, typename Record>
  Result exchange(uint32_t type, const Record &record) {
    const Frame reply = web_->ask({.type = type, .body = bytes_of(record)});
    Result result{};
    EXPECT_EQ(sizeof result, reply.body.size());
    reply.body.copy(reinterpret_cast<char *>(&result), sizeof result);
    return result;
  }

  ORP_LCTRL_RESULT_ST attempt(const std::string &address, uint32_t outcome = ORP_LCTRL_FAILED,
                              const std::string &account = "admin",
                              uint32_t type = ORP_LCTRL_MSG_LOGIN) {
    ORP_LCTRL_REQUEST_ST request{};
    request.ulOutcome = outcome;
    address.copy(request.aucClient, sizeof request.aucClient - 1);
    account.copy(request.aucAccount, sizeof request.aucAccount - 1);
    return exchange<ORP_LCTRL_RESULT_ST>(type, request);
  }

  ORP_LCTRL_RESULT_ST check(const std::string &address, const std::string &account = "admin") {
    return attempt(address, ORP_LCTRL_SUCCEEDED, account, ORP_LCTRL_MSG_CHECK);
  }

  static uint32_t number_of(const char *address) {
    uint32_t number = 0;
    ::inet_pton(AF_INET, address, &number);
    return number;
  }

  uint32_t round_of(const char *address) {
    const ORP_LCTRL_QUERY_ST query{number_of(address), {}};
    return exchange<ORP_LCTRL_ROUND_ST>(ORP_LCTRL_MSG_GET_ROUND, query).ulRound;
  }

  void clear(const char *address) {
    web_->send({.type = ORP_LCTRL_MSG_CLEAR_FORBIDDEN, .body = bytes_of(number_of(address))});
  }

  void set_limit(ORP_LCTRL_LIMIT_ST limit) {
    web_->send({.type = ORP_LCTRL_MSG_SET_MAX_FAILED, .body = bytes_of(limit)});
  }

  static constexpr const char *kState = "/var/msgsvr-login.json";
  std::unique_ptr<RawClient> web_;
};

TEST_F(Login, ForbidsAClientAnAccountAfterTooManyFailures) {
  set_limit({3, 1000});

  for (uint32_t failed = 1; failed < 3; ++failed) {
    const auto result = attempt("10.0.0.2");
    EXPECT_EQ(ORP_LCTRL_ALLOWED, result.ulVerdict);
    EXPECT_EQ(failed, result.ulFailedTimes);
    EXPECT_EQ(3 - failed, result.ulTimesLeft);
  }
  EXPECT_EQ(3u, attempt("10.0.0.2", ORP_LCTRL_SUCCEEDED).ulTimesLeft) << "the count starts anew";
  for (int i = 0; i < 2; ++i) attempt("10.0.0.2");
  const auto last = attempt("10.0.0.2");
  EXPECT_EQ(ORP_LCTRL_FORBIDDEN, last.ulVerdict);
  EXPECT_EQ(1u, last.ulRound);
  EXPECT_THAT(last.ulForbiddenTime, testing::AllOf(testing::Gt(900u), testing::Le(1000u)));

  // Not even with the right password; others and other accounts may.
  EXPECT_EQ(ORP_LCTRL_FORBIDDEN, attempt("10.0.0.2", ORP_LCTRL_SUCCEEDED).ulVerdict);
  EXPECT_EQ(ORP_LCTRL_FORBIDDEN, check("10.0.0.2").ulVerdict);
  EXPECT_EQ(ORP_LCTRL_ALLOWED, check("10.0.0.2", "user").ulVerdict);
  EXPECT_EQ(ORP_LCTRL_ALLOWED, check("10.0.0.3").ulVerdict);
  EXPECT_EQ(1u, round_of("10.0.0.2"));
  EXPECT_EQ(1u, round_of("0.0.0.0"));
  EXPECT_EQ(0u, round_of("10.0.0.3"));
  // A short record gets an answer that says so.
  EXPECT_EQ("", web_->ask({.type = ORP_LCTRL_MSG_LOGIN, .body = std::string(199, 'x')}).body);
}

TEST_F(Login, RemembersAcrossRestartsAndForgetsWhenTold) {
  set_limit({1, 500});
  for (const char *client : {"10.0.0.2", "10.0.0.3"}) EXPECT_EQ(1u, attempt(client).ulRound);
  restart();
  EXPECT_EQ(std::filesystem::perms{0600}, std::filesystem::status(kState).permissions());

  const auto kept = check("10.0.0.2");
  EXPECT_EQ(ORP_LCTRL_FORBIDDEN, kept.ulVerdict);
  EXPECT_GT(kept.ulForbiddenTime, 400u);
  EXPECT_EQ(1u, kept.ulTimesLeft);
  clear("10.0.0.2");
  EXPECT_EQ(0u, round_of("10.0.0.2"));
  EXPECT_EQ(1u, round_of("10.0.0.3"));
  clear("0.0.0.0");
  EXPECT_EQ(0u, round_of("0.0.0.0"));

  // Kept a moment after the change, so that a server that is killed loses next to nothing.
  attempt("10.9.9.9");
  while (test::contents(kState).find("10.9.9.9") == std::string::npos) web_->drain();
  restart(SIGKILL);
  EXPECT_EQ(1u, round_of("10.9.9.9"));

  server_->stop(SIGKILL);
  std::ofstream(kState) << "{\"clients\": [{";
  restart();
  EXPECT_THAT(server_->output(), HasSubstr("is damaged"));
  EXPECT_EQ(0u, round_of("10.9.9.9"));
}

TEST_F(Login, ForbidsForLongerWithEveryRound) {
  set_limit({1, 1});

  EXPECT_EQ(1u, attempt("10.0.0.2").ulForbiddenTime);
  while (check("10.0.0.2").ulVerdict == ORP_LCTRL_FORBIDDEN) continue;
  const auto second = attempt("10.0.0.2");
  EXPECT_EQ(2u, second.ulRound);
  EXPECT_EQ(2u, second.ulForbiddenTime);
}

// Dynamic applications.

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
    start({"--apps", "/var/apps.json"});
  }

  // Connects and returns all that the application sends; nullopt when nobody listens.
  static std::optional<std::string> visit() {
    const int fd = connect_to(7001);
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
  start_with(
      "c, _ = s.accept()\n"
      "right = os.environ['LISTEN_PID'] == str(os.getpid()) and os.environ['LISTEN_FDS'] == '1'\n"
      "c.send(b'%d %d' % (right, os.getpid()))\n",
      kTcp);
  EXPECT_THAT(server_->output(), testing::Not(HasSubstr("is started")));

  const auto first = visit();
  EXPECT_THAT(first, Optional(testing::StartsWith("1 ")));
  // It ended well; the next connection starts it anew.
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

TEST_F(DynamicApps, AreSwitchedOffAndOnAndRestarted) {
  start_with(kServeForEver, kTcp);
  RawClient client("web");
  const auto update = [&](uint32_t action) {
    client.send({.type = ORP_MSG_DYNAPP_UPDATE, .body = test::padded("dyn"), .data = action});
    client.drain();
  };

  EXPECT_EQ("1", visit());
  EXPECT_EQ("2", visit());
  update(2);
  ASSERT_TRUE(server_->wait_for("dyn has ended: signal 15"));
  ASSERT_TRUE(server_->wait_for("dyn is started"));
  EXPECT_EQ("1", visit());

  update(1);
  ASSERT_TRUE(server_->wait_for("dyn has ended"));
  EXPECT_FALSE(visit());
  update(0);
  EXPECT_EQ("1", visit());
  for (int i = 0; i < 2; ++i)
    EXPECT_EQ(0u, client.ask({.type = ORP_MSG_DYNAPP_STOP_ALL}).data) << "all stop";
  EXPECT_FALSE(visit());

  client.send({.type = ORP_MSG_DYNAPP_UPDATE, .body = test::padded("unknown"), .data = 0});
  EXPECT_EQ(ORP_MSG_UNDELIVERABLE, client.read().type);
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
      {R"("name": "a", "executable": "/x", "listen": "7001")", "\"listen\" is neither"},
      {R"("name": "a", "executable": "/x", "listen": "tcp:nowhere:1")", "application a: cannot"},
      {R"("name": "a", "executable": "/x", "listen": "unix:/var/x", "user": "nobody at all")",
       "there is no user nobody at all"},
      {R"("name": "a", "executable": "/x", "listen": "unix:/var/x", "mode": "0o7")", "octal"},
      {R"("name": "a", "executable": "/x", "listen": "unix:/var/x"},
          {"name": "a", "executable": "/x", "listen": "unix:/var/y")",
       "application a: there is another one of this name"}};
  for (const auto &[entry, complaint] : kBad) {
    std::ofstream("/var/apps.json") << R"({"applications": [{)" << entry << "}]}";
    test::Process server("msgsvr", {"--apps", "/var/apps.json"});
    EXPECT_EQ(1, server.wait()) << entry;
    EXPECT_THAT(server.output(),
                testing::AllOf(HasSubstr("/var/apps.json: "), HasSubstr(complaint)));
  }
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
