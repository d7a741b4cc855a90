// What the message server does itself, beside forwarding: with clients that write raw bytes, and
// with curl.

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
#include "support/file.h"
#include "support/message_peer.h"
#include "support/network.h"
#include "support/process.h"
#include "support/store.h"

namespace {

using test::Frame;
using test::RawClient;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Optional;

class Services : public testing::Test {
 protected:
  void start(const std::vector<std::string> &arguments = {}) {
    server_ = std::make_unique<test::Process>("msgsvr", arguments);
    ASSERT_TRUE(server_->wait_for("ready")) << server_->output();
  }

  // A connection to a port of 127.0.0.1, or -1.
  static int connect_to(uint16_t port) {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_in address = test::loopback(port);
    if (::connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0) return fd;
    ::close(fd);
    return -1;
  }

  template <typename T>
  static std::string bytes_of(const T &record) {
    return std::string(reinterpret_cast<const char *>(&record), sizeof record);
  }

  std::unique_ptr<test::Process> server_;
};

TEST_F(Services, TellTheFactoryModeAndRebootNothing) {
  start();
  EXPECT_EQ(0u, RawClient("web").ask({.type = 0x70a}).data);
  RawClient("web").send({.type = 0x500e, .data = 3});
  EXPECT_TRUE(server_->wait_for("asks for a reboot, mode 3; not executed"));

  server_->stop(SIGTERM);
  start({"--factory-mode"});
  EXPECT_EQ(1u, RawClient("web").ask({.type = 0x70a}).data);
}

TEST_F(Services, LetProcessesWaitForEachOther) {
  start();
  RawClient one("one");
  RawClient two("two");
  RawClient poster("poster");
  const auto wait_at = [](const std::string &name, uint32_t sequence) {
    return Frame{.type = 0x5018, .body = name + '\0', .sequence = sequence};
  };

  one.send(wait_at("boot", 4));
  two.send(wait_at("boot", 5));
  EXPECT_THAT(two.drain(), IsEmpty());
  poster.send({.type = 0x5019, .body = std::string("other\0", 6)});
  poster.drain();
  EXPECT_THAT(one.drain(), IsEmpty());
  poster.send({.type = 0x5019, .body = std::string("boot\0", 5)});
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

// Restful requests.

class Restful : public Services {
 protected:
  // Runs curl next to the test, which plays the application meanwhile: the body, the status and the
  // type of the answer.
  static std::future<std::string> curl(const std::string &path, const std::string &options = "") {
    const std::string command = "curl -sg --max-time 20 -w '|%{http_code}|%{content_type}' " +
                                options + " 'http://127.0.0.1:8080" + path + "' >/var/http";
    return std::async(std::launch::async, [command] {
      [[maybe_unused]] const int status = std::system(command.c_str());
      return test::contents("/var/http");
    });
  }

  Restful() {
    start({"--http", "8080", "--http-timeout", "2000"});
    app_ = std::make_unique<RawClient>("status");
    enter("/dev");
  }

  void enter(const std::string &texts) {
    app_->send({.type = ORP_MSG_RESTFUL_REGISTER, .body = texts + '\0'});
    app_->drain();
  }

  static ORP_MSG_RESTFUL_REQ_ST head_of(const Frame &frame) {
    ORP_MSG_RESTFUL_REQ_ST head{};
    EXPECT_GE(frame.body.size(), sizeof head + 1);
    frame.body.copy(reinterpret_cast<char *>(&head), sizeof head);
    return head;
  }
  static std::string text_of(const Frame &frame) {
    return frame.body.substr(sizeof(ORP_MSG_RESTFUL_REQ_ST)).c_str();
  }
  // As the library's dispatcher answers.
  static void answer(RawClient *client, const Frame &request, const std::string &text) {
    client->send({.type = request.type,
                  .to = request.from,
                  .body = text + '\0',
                  .data = request.data,
                  .sequence = request.sequence});
  }

  static std::string status_in(const std::string &got) { return got.substr(got.find('|') + 1, 3); }
  static std::string status_of(const std::string &path, const std::string &options = "") {
    return status_in(curl(path, options).get());
  }

  // The request that a GET of `path` becomes, as "PATH HANDLER", or the HTTP status without one.
  std::string target_of(const std::string &path) {
    auto got = curl(path);
    while (got.wait_for(std::chrono::seconds(0)) != std::future_status::ready) {
      const auto request = app_->receive(10);
      if (!request) continue;
      answer(app_.get(), *request, "");
      EXPECT_EQ("200", status_in(got.get()));
      return std::string(head_of(*request).aucPath) + " " + head_of(*request).aucHandler;
    }
    return status_in(got.get());
  }

  std::unique_ptr<RawClient> app_;
};

TEST_F(Restful, AnswersThroughTheApplication) {
  const struct {
    const char *options;
    uint32_t code;
    std::string text;
    std::string answer, type;
  } kCases[] = {
      {"", 0, "q=1&y=a%20b", " {\"up\": true}", "application/json"},
      {"-d @/var/body", 1, std::string(100000, 'b'), "{no json", "text/plain; charset=utf-8"},
      {"-X PUT -d a", 2, "a", "[]", "application/json"},
      {"-X DELETE", 3, "q=1&y=a%20b", "1", "text/plain; charset=utf-8"},
      {"-X PATCH -d b", 4, "b", "x", "text/plain; charset=utf-8"},
  };
  std::ofstream("/var/body") << std::string(100000, 'b');

  for (const auto &each : kCases) {
    auto got = curl("/dev/info?q=1&y=a%20b", each.options);
    const Frame request = app_->read();
    EXPECT_EQ(ORP_MSG_RESTFUL_REQUEST, request.type);
    EXPECT_EQ("status", request.to);
    EXPECT_EQ(each.code, head_of(request).ulCode);
    EXPECT_STREQ("/dev", head_of(request).aucPath);
    EXPECT_STREQ("info", head_of(request).aucHandler);
    EXPECT_TRUE(each.text == text_of(request)) << each.options;
    answer(app_.get(), request, each.answer);
    EXPECT_EQ(each.answer + "|200|" + each.type, got.get());
  }
}

TEST_F(Restful, SaysWhyThereIsNoAnswer) {
  EXPECT_EQ("405", status_of("/dev/set", "-X OPTIONS"));
  for (const std::string path : {"/other/info", "/dev", "/dev/", "/dev/a/b"}) {
    EXPECT_EQ("404", status_of(path)) << path;
  }
  EXPECT_EQ("404", status_of("/dev/" + std::string(64, 'h')));

  // An answer that comes too late goes nowhere.
  auto slow = curl("/dev/info");
  const Frame request = app_->read();
  EXPECT_EQ("504", status_in(slow.get()));
  answer(app_.get(), request, "late");
  app_->drain();

  auto gone = curl("/dev/info");
  app_->read();
  app_->close();
  EXPECT_EQ("502", status_in(gone.get()));
  EXPECT_EQ("404", status_of("/dev/info"));
}

TEST_F(Restful, RefusesBodiesThatNoApplicationWouldBeGiven) {
  const size_t longest = ORP_MSG_MAX_DISPATCHED_BODY - sizeof(ORP_MSG_RESTFUL_REQ_ST) - 1;
  std::ofstream("/var/longest") << std::string(longest, 'b');
  std::ofstream("/var/longer") << std::string(longest + 1, 'b');

  for (const char *how : {"", "-H 'Transfer-Encoding: chunked' ", "-H 'Expect:' "}) {
    const std::string options = std::string(how) + "-X POST --data-binary @/var/";
    EXPECT_EQ("413", status_of("/dev/set", options + "longer")) << how;
    auto fits = curl("/dev/set", options + "longest");
    const Frame request = app_->read();
    EXPECT_EQ(longest, text_of(request).size());
    answer(app_.get(), request, "ok");
    EXPECT_EQ("ok|200|text/plain; charset=utf-8", fits.get());
  }
}

TEST_F(Restful, FindsTheLongestMatchingRegistration) {
  for (const char *texts : {"/net/wan|/net/lan/up", "/api/*", "/api/?an/*/state|/api/**/deep"}) {
    enter(texts);
  }

  EXPECT_EQ("/dev info", target_of("/dev/info"));
  EXPECT_EQ("/net wan", target_of("/net/wan"));
  EXPECT_EQ("/net/lan up", target_of("/net/lan/up"));
  // Without a list the registration would stand for what is below it.
  EXPECT_EQ("404", target_of("/net/wan/up"));
  EXPECT_EQ("/api/* status", target_of("/api/wan/status"));
  EXPECT_EQ("/api/?an/* state", target_of("/api/lan/1/state"));
  EXPECT_EQ("/api/** deep", target_of("/api/x/y/z/deep"));
  EXPECT_EQ("404", target_of("/api/x/y/z/shallow"));
}

TEST_F(Restful, TakesTheApplicationsAnswerAloneAlsoFromAFile) {
  RawClient impostor("impostor");
  auto got = curl("/dev/info");
  const Frame request = app_->read();
  answer(&impostor, request, "forged");
  impostor.drain();
  Frame wrong = request;
  ++wrong.sequence;
  answer(app_.get(), wrong, "wrong");

  const std::string file = std::string(ORP_MSG_HAND_OVER_PREFIX) + "5";
  const std::string text(70000, 't');
  std::ofstream(file) << text << '\0';
  std::string path = file;
  path.resize(ORP_MSG_HAND_OVER_PATH_SIZE);
  app_->send({.type = request.type | ORP_MSG_TYPE_BODY_IN_FILE,
              .to = "mic",
              .body = path,
              .sequence = request.sequence});

  EXPECT_TRUE(text + "|200|text/plain; charset=utf-8" == got.get());
  EXPECT_FALSE(std::filesystem::exists(file));
}

TEST_F(Restful, PassesRequestsOfOtherApplicationsOn) {
  RawClient front("front");
  const ORP_MSG_RESTFUL_REQ_ST head{0, 0, "/dev", "info"};
  const std::string body = bytes_of(head) + "text" + '\0';

  front.send({.type = ORP_MSG_RESTFUL_REQUEST, .body = body, .sequence = 21});
  const Frame request = app_->read();
  EXPECT_EQ("front", request.from);
  EXPECT_EQ(body, request.body);
  answer(app_.get(), request, "direct");
  const Frame reply = front.read();
  EXPECT_EQ(21u, reply.sequence);
  EXPECT_STREQ("direct", reply.body.c_str());

  const ORP_MSG_RESTFUL_REQ_ST none{0, 0, "/none", "info"};
  front.send({.type = ORP_MSG_RESTFUL_REQUEST, .body = bytes_of(none) + '\0'});
  EXPECT_EQ(ORP_MSG_UNDELIVERABLE, front.read().type);
}

TEST_F(Restful, SurvivesHttpClientsThatLeave) {
  for (int i = 0; i < 10; ++i) {
    const int fd = connect_to(8080);
    const std::string get = "GET /dev/info HTTP/1.1\r\nHost: x\r\n\r\n";
    ASSERT_EQ(static_cast<ssize_t>(get.size()), ::send(fd, get.data(), get.size(), MSG_NOSIGNAL));
    const Frame request = app_->read();
    ::close(fd);
    answer(app_.get(), request, "nobody reads this");
  }
  EXPECT_EQ("/dev info", target_of("/dev/info"));
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
    client.send({.type = 0x5001, .body = test::padded("dyn"), .data = action});
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
  for (int i = 0; i < 2; ++i) EXPECT_EQ(0u, client.ask({.type = 0x504d}).data) << "all stop";
  EXPECT_FALSE(visit());

  client.send({.type = 0x5001, .body = test::padded("unknown"), .data = 0});
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

// The configuration manager.

class ConfigManager : public Services {
 protected:
  static constexpr uint32_t kSaveSync = 0x502b;
  static constexpr uint32_t kExport = 0x5026;
  static constexpr uint32_t kImport = 0x5027;
  static constexpr uint32_t kCheck = 0x5028;
  static constexpr const char *kFile = "/var/exported.cfg";

  ConfigManager() {
    std::filesystem::create_directories(CFM_STORE_DIRECTORY);
    test::define_number(CFM_PARA_LOGIN_WAIT, 3);
    start();
    client_ = std::make_unique<RawClient>("web");
  }

  static void set(uint32_t value) {
    EXPECT_EQ(CFM_OK, ORP_DBSetPara(nullptr, CFM_PARA_LOGIN_WAIT, &value, sizeof value));
  }
  static uint32_t get() {
    uint32_t value = 0;
    EXPECT_EQ(CFM_OK, ORP_DBGetPara(nullptr, CFM_PARA_LOGIN_WAIT, &value, sizeof value));
    return value;
  }

  uint32_t ask(uint32_t type, const std::string &path = "") {
    const std::string body = path.empty() ? "" : path + '\0';
    return client_->ask({.type = type, .body = body}).data;
  }

  std::unique_ptr<RawClient> client_;
};

TEST_F(ConfigManager, SavesAndBringsBackDefaults) {
  set(7);
  for (const uint32_t type : {0x5009u, 0x503fu}) client_->send({.type = type});
  for (const uint32_t type : {0x502bu, 0x502au, 0x5040u, 0x5033u}) EXPECT_EQ(0u, ask(type));
  EXPECT_EQ(7u, get());

  client_->send({.type = 0x500f, .body = std::string(8, '\0')});
  EXPECT_EQ(0u, ask(kSaveSync));  // done one after the other
  EXPECT_EQ(3u, get());
}

TEST_F(ConfigManager, ExportsAndImportsTheWholeStore) {
  set(7);
  client_->send({.type = 0x5035, .data = 2});
  ASSERT_EQ(0u, ask(kExport, kFile));
  set(9);

  EXPECT_EQ(0u, ask(kCheck, kFile));
  EXPECT_EQ(9u, get());
  EXPECT_EQ(0u, ask(kImport, kFile));
  EXPECT_EQ(7u, get());

  for (const char *secret : {"/var/cfm/export.key", kFile}) {
    EXPECT_EQ(std::filesystem::perms{0600}, std::filesystem::status(secret).permissions());
  }
  EXPECT_EQ(32u, std::filesystem::file_size("/var/cfm/export.key"));
  EXPECT_EQ(2, test::contents(kFile)[8]);
  EXPECT_THAT(test::contents(kFile), testing::Not(HasSubstr("SQLite")));
}

TEST_F(ConfigManager, RefusesWhatItDidNotWriteItself) {
  set(7);
  ASSERT_EQ(0u, ask(kExport, kFile));
  const std::string whole = test::contents(kFile);
  set(9);
  const auto refused = [&](const std::string &content) {
    std::ofstream(kFile) << content;
    const bool not_taken = ask(kImport, kFile) != 0;
    EXPECT_EQ(not_taken, ask(kCheck, kFile) != 0);
    EXPECT_EQ(not_taken, get() == 9);
    return not_taken;
  };

  const size_t step = std::max<size_t>(whole.size() / 200, 1);
  for (size_t at = 0; at < whole.size(); at += at < 100 ? 1 : step) {
    std::string damaged = whole;
    damaged[at] = static_cast<char>(damaged[at] ^ 0x10);
    ASSERT_TRUE(refused(damaged)) << at;
  }
  for (const size_t cut : {size_t{0}, size_t{1}, size_t{39}, size_t{55}, whole.size() - 1}) {
    EXPECT_TRUE(refused(whole.substr(0, cut))) << cut;
  }
  EXPECT_TRUE(refused(whole + "x"));
  EXPECT_FALSE(refused(whole));  // the test itself would notice
  EXPECT_EQ(7u, get());

  // A file of another device.
  set(9);
  std::filesystem::rename("/var/cfm/export.key", "/var/cfm/old.key");
  ASSERT_EQ(0u, ask(kExport, "/var/other.cfg"));
  EXPECT_TRUE(refused(whole));
  // A key that others can read is not used.
  std::filesystem::permissions("/var/cfm/export.key", std::filesystem::perms{0644});
  EXPECT_NE(0u, ask(kImport, "/var/other.cfg"));
  EXPECT_NE(0u, ask(kExport, "/var/third.cfg"));
}

TEST_F(ConfigManager, WritesOnlyWhereExportsMayBe) {
  std::filesystem::create_directory("/app/elsewhere");
  std::filesystem::create_symlink("/app/elsewhere", "/var/link");

  for (const char *path :
       {"", "relative", "/app/x.cfg", "/var/../app/x.cfg", "/var/link/x.cfg", "/var/cfm/cfm.db",
        "/var/cfm/../cfm/x.cfg", "/var/", "/var/none/x.cfg"}) {
    EXPECT_NE(0u, ask(kExport, path)) << path;
  }
  EXPECT_EQ(0u, ask(kExport, "/mnt/x.cfg"));
  EXPECT_TRUE(std::filesystem::is_empty("/app/elsewhere"));

  // A link in the file's own place is replaced, not followed.
  std::filesystem::create_symlink("/app/target", kFile);
  EXPECT_EQ(0u, ask(kExport, kFile));
  EXPECT_FALSE(std::filesystem::exists("/app/target"));
  EXPECT_EQ(0u, ask(kImport, kFile));
}

}  // namespace
