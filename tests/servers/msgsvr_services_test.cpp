// What the message server does itself, beside forwarding: with clients that write raw bytes, and
// with curl.

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "cfmapi.h"
#include "cfmstore.h"
#include "msgapi/login.h"
#include "msgapi/login_records.h"
#include "msgapi/restful.h"
#include "support/message_peer.h"
#include "support/process.h"

namespace {

using test::RawClient;
using RawFrame = test::Frame;
using testing::HasSubstr;

class Services : public testing::Test {
 protected:
  void start(const std::vector<std::string> &arguments = {}) {
    server_ = std::make_unique<test::Process>("msgsvr", arguments);
    ASSERT_TRUE(server_->wait_for("ready")) << server_->output();
  }

  // Everything that `client` has sent is dealt with.
  static void settle(RawClient *client) {
    EXPECT_TRUE(client->drain([](const RawFrame &) {}));
  }

  static std::string content_of(const std::string &path) {
    std::ostringstream content;
    content << std::ifstream(path).rdbuf();
    return content.str();
  }

  // A connection to a port of 127.0.0.1, or -1.
  static int connect_to(uint16_t port) {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0) return fd;
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
  RawClient client("web");

  EXPECT_EQ(0u, client.ask({.type = 0x70a})->data);
  client.send({.type = 0x500e, .data = 3});
  EXPECT_TRUE(server_->wait_for("asks for a reboot, mode 3; not executed"));

  server_->stop(SIGTERM);
  start({"--factory-mode"});
  RawClient again("web");
  EXPECT_EQ(1u, again.ask({.type = 0x70a})->data);
}

TEST_F(Services, LetProcessesWaitForEachOther) {
  start();
  RawClient one("one");
  RawClient two("two");
  RawClient poster("poster");
  const std::string name("boot\0", 5);

  one.send({.type = 0x5018, .body = name, .sequence = 4});
  two.send({.type = 0x5018, .body = name, .sequence = 5});
  settle(&one);
  settle(&two);
  poster.send({.type = 0x5019, .body = std::string("other\0", 6)});
  settle(&poster);
  EXPECT_FALSE(one.receive(0));
  poster.send({.type = 0x5019, .body = name});
  EXPECT_EQ(4u, one.receive()->sequence);
  EXPECT_EQ(5u, two.receive()->sequence);

  // What nobody waited for is there for the next one, once.
  EXPECT_EQ(6u,
            one.ask({.type = 0x5018, .body = std::string("other\0", 6), .sequence = 6})->sequence);
  one.send({.type = 0x5018, .body = std::string("other\0", 6)});
  settle(&one);
  EXPECT_FALSE(one.receive(0));
  // A point without a name is none.
  EXPECT_EQ(ORP_MSG_UNDELIVERABLE, (one.send({.type = 0x5018}), one.receive()->type));
}

// Login control.

class Login : public Services {
 protected:
  static ORP_LCTRL_RESULT_ST ask(RawClient *client, uint32_t type, const std::string &address,
                                 const std::string &account, uint32_t outcome = ORP_LCTRL_FAILED) {
    ORP_LCTRL_REQUEST_ST request{};
    request.ulOutcome = outcome;
    address.copy(request.aucClient, sizeof request.aucClient - 1);
    account.copy(request.aucAccount, sizeof request.aucAccount - 1);
    const auto reply = client->ask({.type = type, .body = bytes_of(request)});
    ORP_LCTRL_RESULT_ST result{};
    EXPECT_TRUE(reply && reply->body.size() == sizeof result);
    if (reply)
      std::memcpy(&result, reply->body.data(), std::min(reply->body.size(), sizeof result));
    return result;
  }

  static ORP_LCTRL_ROUND_ST round(RawClient *client, const char *address) {
    ORP_LCTRL_QUERY_ST query{};
    ::inet_pton(AF_INET, address, &query.ulClient);
    const auto reply = client->ask({.type = ORP_LCTRL_MSG_GET_ROUND, .body = bytes_of(query)});
    ORP_LCTRL_ROUND_ST record{};
    EXPECT_TRUE(reply && reply->body.size() == sizeof record);
    if (reply)
      std::memcpy(&record, reply->body.data(), std::min(reply->body.size(), sizeof record));
    return record;
  }
};

TEST_F(Login, ForbidsAClientAnAccountAfterTooManyFailures) {
  start();
  RawClient web("web");
  const ORP_LCTRL_LIMIT_ST limit{3, 1000};
  web.send({.type = ORP_LCTRL_MSG_SET_MAX_FAILED, .body = bytes_of(limit)});

  for (uint32_t failed = 1; failed < 3; ++failed) {
    const auto result = ask(&web, ORP_LCTRL_MSG_LOGIN, "10.0.0.2", "admin");
    EXPECT_EQ(ORP_LCTRL_ALLOWED, result.ulVerdict);
    EXPECT_EQ(failed, result.ulFailedTimes);
    EXPECT_EQ(3 - failed, result.ulTimesLeft);
  }
  // A success starts the count anew.
  EXPECT_EQ(3u,
            ask(&web, ORP_LCTRL_MSG_LOGIN, "10.0.0.2", "admin", ORP_LCTRL_SUCCEEDED).ulTimesLeft);
  for (int i = 0; i < 2; ++i) ask(&web, ORP_LCTRL_MSG_LOGIN, "10.0.0.2", "admin");
  const auto last = ask(&web, ORP_LCTRL_MSG_LOGIN, "10.0.0.2", "admin");
  EXPECT_EQ(ORP_LCTRL_FORBIDDEN, last.ulVerdict);
  EXPECT_EQ(1u, last.ulRound);
  EXPECT_THAT(last.ulForbiddenTime, testing::AllOf(testing::Gt(990u), testing::Le(1000u)));

  // Not even with the right password; others and other accounts may.
  EXPECT_EQ(ORP_LCTRL_FORBIDDEN,
            ask(&web, ORP_LCTRL_MSG_LOGIN, "10.0.0.2", "admin", ORP_LCTRL_SUCCEEDED).ulVerdict);
  EXPECT_EQ(ORP_LCTRL_FORBIDDEN, ask(&web, ORP_LCTRL_MSG_CHECK, "10.0.0.2", "admin").ulVerdict);
  EXPECT_EQ(ORP_LCTRL_ALLOWED, ask(&web, ORP_LCTRL_MSG_CHECK, "10.0.0.2", "user").ulVerdict);
  EXPECT_EQ(ORP_LCTRL_ALLOWED, ask(&web, ORP_LCTRL_MSG_CHECK, "10.0.0.3", "admin").ulVerdict);
  EXPECT_EQ(1u, round(&web, "10.0.0.2").ulRound);
  EXPECT_EQ(1u, round(&web, "0.0.0.0").ulRound);
  EXPECT_EQ(0u, round(&web, "10.0.0.3").ulRound);
  // A short record gets an answer that says so.
  EXPECT_EQ("", web.ask({.type = ORP_LCTRL_MSG_LOGIN, .body = std::string(199, 'x')})->body);
}

TEST_F(Login, RemembersAcrossRestartsAndForgetsWhenTold) {
  start();
  auto web = std::make_unique<RawClient>("web");
  const ORP_LCTRL_LIMIT_ST limit{1, 500};
  web->send({.type = ORP_LCTRL_MSG_SET_MAX_FAILED, .body = bytes_of(limit)});
  for (const char *client : {"10.0.0.2", "10.0.0.3"}) {
    EXPECT_EQ(1u, ask(web.get(), ORP_LCTRL_MSG_LOGIN, client, "admin").ulRound);
  }
  EXPECT_EQ(0, server_->stop(SIGTERM));
  struct stat status {};
  ASSERT_EQ(0, ::stat("/var/msgsvr-login.json", &status));
  EXPECT_EQ(mode_t{S_IFREG | 0600}, status.st_mode);

  start();
  web = std::make_unique<RawClient>("web");
  const auto kept = ask(web.get(), ORP_LCTRL_MSG_CHECK, "10.0.0.2", "admin");
  EXPECT_EQ(ORP_LCTRL_FORBIDDEN, kept.ulVerdict);
  EXPECT_GT(kept.ulForbiddenTime, 400u);
  EXPECT_EQ(1u, kept.ulTimesLeft);
  uint32_t address = 0;
  ::inet_pton(AF_INET, "10.0.0.2", &address);
  web->send({.type = ORP_LCTRL_MSG_CLEAR_FORBIDDEN, .body = bytes_of(address)});
  EXPECT_EQ(0u, round(web.get(), "10.0.0.2").ulRound);
  EXPECT_EQ(1u, round(web.get(), "10.0.0.3").ulRound);
  address = 0;
  web->send({.type = ORP_LCTRL_MSG_CLEAR_FORBIDDEN, .body = bytes_of(address)});
  EXPECT_EQ(0u, round(web.get(), "0.0.0.0").ulRound);

  // Kept a moment after the change, so that a server that is killed loses next to nothing.
  ask(web.get(), ORP_LCTRL_MSG_LOGIN, "10.9.9.9", "admin");
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  while (content_of("/var/msgsvr-login.json").find("10.9.9.9") == std::string::npos) {
    settle(web.get());
    ASSERT_LT(std::chrono::steady_clock::now(), deadline);
  }
  server_->stop(SIGKILL);
  start();
  RawClient late("web");
  EXPECT_EQ(1u, round(&late, "10.9.9.9").ulRound);
  server_->stop(SIGTERM);

  std::ofstream("/var/msgsvr-login.json") << "{\"clients\": [{";
  start();
  EXPECT_THAT(server_->output(), HasSubstr("is damaged"));
  RawClient fresh("web");
  EXPECT_EQ(0u, round(&fresh, "10.9.9.9").ulRound);
}

TEST_F(Login, ForbidsForLongerWithEveryRound) {
  start();
  RawClient web("web");
  const ORP_LCTRL_LIMIT_ST limit{1, 1};
  web.send({.type = ORP_LCTRL_MSG_SET_MAX_FAILED, .body = bytes_of(limit)});

  EXPECT_EQ(1u, ask(&web, ORP_LCTRL_MSG_LOGIN, "10.0.0.2", "admin").ulForbiddenTime);
  while (ask(&web, ORP_LCTRL_MSG_CHECK, "10.0.0.2", "admin").ulVerdict == ORP_LCTRL_FORBIDDEN) {
  }
  const auto second = ask(&web, ORP_LCTRL_MSG_LOGIN, "10.0.0.2", "admin");
  EXPECT_EQ(2u, second.ulRound);
  EXPECT_EQ(2u, second.ulForbiddenTime);
}

// Restful requests.

class Restful : public Services {
 protected:
  struct HttpAnswer {
    std::string status;
    std::string type;
    std::string body;
  };

  // Runs curl next to the test, which plays the application meanwhile.
  class Curl {
   public:
    explicit Curl(const std::string &arguments)
        : pipe_(::popen(("curl -s -g --max-time 10 -w '\\n%{http_code} %{content_type}' " +
                         arguments + " 2>/dev/null </dev/null")
                            .c_str(),
                        "re")) {}
    Curl(const Curl &) = delete;
    Curl &operator=(const Curl &) = delete;
    ~Curl() {
      if (pipe_ != nullptr) ::pclose(pipe_);
    }

    HttpAnswer answer() {
      std::string text;
      char buffer[4096];
      size_t count;
      while ((count = ::fread(buffer, 1, sizeof buffer, pipe_)) > 0) text.append(buffer, count);
      HttpAnswer answer;
      const size_t line = text.rfind('\n');
      answer.body = text.substr(0, line);
      std::istringstream rest(text.substr(line + 1));
      rest >> answer.status;
      std::getline(rest >> std::ws, answer.type);
      return answer;
    }

   private:
    FILE *pipe_;
  };

  static constexpr const char *kUrl = "http://127.0.0.1:8080";

  Restful() {
    start({"--http", "127.0.0.1:8080", "--http-timeout", "2000"});
    app_ = std::make_unique<RawClient>("status");
  }

  static void enter(RawClient *client, const std::string &texts) {
    client->send({.type = ORP_MSG_RESTFUL_REGISTER, .body = texts + '\0'});
    settle(client);
  }

  static ORP_MSG_RESTFUL_REQ_ST head_of(const RawFrame &frame) {
    ORP_MSG_RESTFUL_REQ_ST head{};
    EXPECT_GE(frame.body.size(), sizeof head + 1);
    std::memcpy(&head, frame.body.data(), std::min(frame.body.size(), sizeof head));
    return head;
  }
  static std::string text_of(const RawFrame &frame) {
    return frame.body.substr(sizeof(ORP_MSG_RESTFUL_REQ_ST)).c_str();
  }
  // As the library's dispatcher answers.
  static void answer(RawClient *client, const RawFrame &request, const std::string &text) {
    client->send({.type = request.type,
                  .to = request.from,
                  .body = text + '\0',
                  .data = request.data,
                  .sequence = request.sequence});
  }

  // The request that a GET of `path` becomes, as "PATH HANDLER", or the HTTP status without one.
  std::string target_of(const std::string &path) {
    Curl curl("'" + std::string(kUrl) + path + "'");
    if (const auto request = app_->receive(1000)) {
      answer(app_.get(), *request, "");
      EXPECT_EQ("200", curl.answer().status);
      const auto head = head_of(*request);
      return std::string(head.aucPath) + " " + head.aucHandler;
    }
    return curl.answer().status;
  }

  std::unique_ptr<RawClient> app_;
};

TEST_F(Restful, AnswersARequestThroughTheApplication) {
  enter(app_.get(), "/dev");
  Curl get("'" + std::string(kUrl) + "/dev/info?x=1&y=a%20b'");

  const auto request = app_->receive();
  ASSERT_TRUE(request);
  EXPECT_EQ(ORP_MSG_RESTFUL_REQUEST, request->type);
  EXPECT_EQ("status", request->to);
  const auto head = head_of(*request);
  EXPECT_EQ(0u, head.ulCode);
  EXPECT_STREQ("/dev", head.aucPath);
  EXPECT_STREQ("info", head.aucHandler);
  EXPECT_EQ("x=1&y=a%20b", text_of(*request));
  answer(app_.get(), *request, " {\"up\": true}");

  const HttpAnswer got = get.answer();
  EXPECT_EQ("200", got.status);
  EXPECT_EQ("application/json", got.type);
  EXPECT_EQ(" {\"up\": true}", got.body);
}

TEST_F(Restful, TellsMethodsApartAndPassesBodiesOn) {
  enter(app_.get(), "/dev");
  const std::vector<std::pair<std::string, uint32_t>> methods = {
      {"-X POST", 1}, {"-X PUT", 2}, {"-X DELETE", 3}, {"-X PATCH", 4}};
  const std::string body(100000, 'b');
  std::ofstream("/var/body") << body;

  for (const auto &[option, code] : methods) {
    Curl curl(option + " --data-binary @/var/body " + kUrl + "/dev/set?q=1");
    const auto request = app_->receive();
    ASSERT_TRUE(request);
    EXPECT_EQ(code, head_of(*request).ulCode);
    EXPECT_TRUE(body == text_of(*request));
    answer(app_.get(), *request, "{no json");
    const HttpAnswer got = curl.answer();
    EXPECT_EQ("text/plain; charset=utf-8", got.type);
    EXPECT_EQ("{no json", got.body);
  }
  EXPECT_EQ("405", Curl(std::string("-X OPTIONS ") + kUrl + "/dev/set").answer().status);
}

TEST_F(Restful, SaysWhyThereIsNoAnswer) {
  enter(app_.get(), "/dev");

  EXPECT_EQ("404", Curl(std::string(kUrl) + "/other/info").answer().status);
  EXPECT_EQ("404", Curl(std::string(kUrl) + "/dev").answer().status);
  EXPECT_EQ("404", Curl(std::string(kUrl) + "/dev/" + std::string(64, 'h')).answer().status);

  // An answer that comes too late goes nowhere.
  Curl slow(std::string(kUrl) + "/dev/info");
  const auto request = app_->receive();
  ASSERT_TRUE(request);
  EXPECT_EQ("504", slow.answer().status);
  answer(app_.get(), *request, "late");
  settle(app_.get());

  Curl gone(std::string(kUrl) + "/dev/info");
  ASSERT_TRUE(app_->receive());
  app_->close();
  EXPECT_EQ("502", gone.answer().status);
  EXPECT_EQ("404", Curl(std::string(kUrl) + "/dev/info").answer().status);
}

TEST_F(Restful, RefusesBodiesThatNoApplicationWouldBeGiven) {
  enter(app_.get(), "/dev");
  const size_t longest = ORP_MSG_MAX_DISPATCHED_BODY - sizeof(ORP_MSG_RESTFUL_REQ_ST) - 1;
  std::ofstream("/var/longest") << std::string(longest, 'b');
  std::ofstream("/var/longer") << std::string(longest + 1, 'b');

  for (const char *how : {"", "-H 'Transfer-Encoding: chunked' ", "-H 'Expect:' "}) {
    const std::string options = std::string(how) + "-X POST --data-binary @/var/";
    EXPECT_EQ("413", Curl(options + "longer " + kUrl + "/dev/set").answer().status) << how;
    Curl fits(options + "longest " + kUrl + "/dev/set");
    const auto request = app_->receive();
    ASSERT_TRUE(request) << how;
    EXPECT_EQ(longest, text_of(*request).size());
    answer(app_.get(), *request, "ok");
    EXPECT_EQ("200", fits.answer().status);
  }
}

TEST_F(Restful, FindsTheLongestMatchingRegistration) {
  RawClient other("other");
  enter(&other, "/");
  enter(app_.get(), "/dev");
  enter(app_.get(), "/net/wan|/net/lan/up");
  enter(app_.get(), "/api/*");
  enter(app_.get(), "/api/?an/*/state|/api/**/deep");

  EXPECT_EQ("/dev info", target_of("/dev/info"));
  EXPECT_EQ("404", target_of("/dev/info/more"));
  EXPECT_EQ("/net wan", target_of("/net/wan"));
  EXPECT_EQ("/net/lan up", target_of("/net/lan/up"));
  // Without a list the registration would stand for what is below it.
  EXPECT_EQ("404", target_of("/net/wan/up"));
  EXPECT_EQ("/api/* status", target_of("/api/wan/status"));
  EXPECT_EQ("/api/?an/* state", target_of("/api/lan/1/state"));
  EXPECT_EQ("/api/** deep", target_of("/api/x/y/z/deep"));
  EXPECT_EQ("404", target_of("/api/x/y/z/shallow"));
}

TEST_F(Restful, IsNotFooledByAnswersOfOthers) {
  enter(app_.get(), "/dev");
  RawClient impostor("impostor");
  Curl curl(std::string(kUrl) + "/dev/info");
  const auto request = app_->receive();
  ASSERT_TRUE(request);

  answer(&impostor, *request, "forged");
  settle(&impostor);
  RawFrame wrong = *request;
  ++wrong.sequence;
  answer(app_.get(), wrong, "wrong");
  answer(app_.get(), *request, "right");

  EXPECT_EQ("right", curl.answer().body);
}

TEST_F(Restful, TakesLargeAnswersFromFiles) {
  enter(app_.get(), "/dev");
  Curl curl(std::string(kUrl) + "/dev/list");
  const auto request = app_->receive();
  ASSERT_TRUE(request);
  const std::string file = std::string(ORP_MSG_HAND_OVER_PREFIX) + "5";
  const std::string text(70000, 't');
  std::ofstream(file) << text << '\0';
  std::string path = file;
  path.resize(ORP_MSG_HAND_OVER_PATH_SIZE);

  app_->send({.type = request->type | ORP_MSG_TYPE_BODY_IN_FILE,
              .to = "mic",
              .body = path,
              .sequence = request->sequence});

  EXPECT_TRUE(text == curl.answer().body);
  EXPECT_FALSE(std::filesystem::exists(file));
}

TEST_F(Restful, PassesRequestsOfOtherApplicationsOn) {
  enter(app_.get(), "/dev");
  RawClient front("front");
  ORP_MSG_RESTFUL_REQ_ST head{};
  std::strcpy(head.aucPath, "/dev");
  std::strcpy(head.aucHandler, "info");
  const std::string body = bytes_of(head) + "text" + '\0';

  front.send({.type = ORP_MSG_RESTFUL_REQUEST, .body = body, .sequence = 21});
  const auto request = app_->receive();
  ASSERT_TRUE(request);
  EXPECT_EQ("front", request->from);
  EXPECT_EQ(body, request->body);
  answer(app_.get(), *request, "direct");
  const auto reply = front.receive();
  ASSERT_TRUE(reply);
  EXPECT_EQ(21u, reply->sequence);
  EXPECT_STREQ("direct", reply->body.c_str());

  std::strcpy(head.aucPath, "/none");
  front.send({.type = ORP_MSG_RESTFUL_REQUEST, .body = bytes_of(head) + '\0'});
  EXPECT_EQ(ORP_MSG_UNDELIVERABLE, front.receive()->type);
}

TEST_F(Restful, SurvivesHttpClientsThatLeave) {
  enter(app_.get(), "/dev");
  for (int i = 0; i < 10; ++i) {
    const int fd = connect_to(8080);
    const std::string get = "GET /dev/info HTTP/1.1\r\nHost: x\r\n\r\n";
    ASSERT_EQ(static_cast<ssize_t>(get.size()), ::send(fd, get.data(), get.size(), MSG_NOSIGNAL));
    const auto request = app_->receive();
    ASSERT_TRUE(request);
    ::close(fd);
    answer(app_.get(), *request, "nobody reads this");
  }
  EXPECT_EQ("/dev info", target_of("/dev/info"));
}

// Dynamic applications.

class DynamicApps : public Services {
 protected:
  // Starts the server with one application: a Python program that finds its socket as `s`.
  void start_with(const std::string &program, const std::string &listen,
                  const std::string &more = "") {
    std::string quoted;
    for (const char c : "import os, socket, sys, time\ns = socket.socket(fileno=3)\n" + program) {
      if (c == '"' || c == '\\') quoted += '\\';
      quoted += c == '\n' ? std::string("\\n") : std::string(1, c);
    }
    std::ofstream("/var/apps.json")
        << "{\"applications\": [{\"name\": \"dyn\", \"executable\": \"/usr/bin/python3\","
        << "\"arguments\": [\"-c\", \"" << quoted << "\"], \"listen\": \"" << listen << "\"" << more
        << "}]}";
    start({"--apps", "/var/apps.json"});
  }

  // Connects and returns all that the application sends; nullopt when nobody listens.
  static std::optional<std::string> visit() {
    const int fd = connect_to(7001);
    if (fd < 0) return std::nullopt;
    std::string text;
    char buffer[256];
    ssize_t count;
    while ((count = ::read(fd, buffer, sizeof buffer)) > 0) {
      text.append(buffer, static_cast<size_t>(count));
    }
    ::close(fd);
    return text;
  }

  static std::string name_field() { return std::string("dyn\0\0\0\0\0\0\0\0\0", 12); }
  static constexpr const char *kTcp = "tcp:127.0.0.1:7001";
  static constexpr const char *kServeForEver =
      "n = 0\n"
      "while True:\n"
      "  c, _ = s.accept(); n += 1\n"
      "  c.send(b'%d %d' % (os.getpid(), n)); c.close()\n";
};

TEST_F(DynamicApps, StartAtTheFirstConnection) {
  start_with(
      "c, _ = s.accept()\n"
      "c.send(b'%d %s %s' % (os.getpid(), os.environ['LISTEN_PID'].encode(),"
      " os.environ['LISTEN_FDS'].encode()))\n",
      kTcp);
  EXPECT_THAT(server_->output(), testing::Not(HasSubstr("is started")));

  const auto first = visit();
  ASSERT_TRUE(first);
  std::istringstream words(*first);
  int pid = 0;
  int announced = 0;
  int count = 0;
  words >> pid >> announced >> count;
  EXPECT_GT(pid, 0);
  EXPECT_EQ(pid, announced);
  EXPECT_EQ(1, count);
  // It ended well; the next connection starts it anew.
  ASSERT_TRUE(server_->wait_for("dyn has ended: exit status 0"));
  const auto second = visit();
  ASSERT_TRUE(second);
  EXPECT_NE(first, second);
}

TEST_F(DynamicApps, AreRestartedMoreAndMoreSlowlyWhenTheyCrash) {
  start_with("sys.exit(3)", kTcp);

  std::thread visitor([] { visit(); });

  EXPECT_TRUE(server_->wait_for("dyn has ended: exit status 3"));
  EXPECT_TRUE(server_->wait_for("started again in 1000 ms"));
  EXPECT_TRUE(server_->wait_for("started again in 2000 ms"));
  server_->stop(SIGTERM);
  visitor.join();
}

TEST_F(DynamicApps, AreSwitchedOffAndOnAndRestarted) {
  start_with(kServeForEver, kTcp);
  RawClient client("web");
  const auto update = [&](uint32_t action) {
    client.send({.type = 0x5001, .body = name_field(), .data = action});
    settle(&client);
  };

  const auto first = visit();
  ASSERT_TRUE(first);
  update(2);
  ASSERT_TRUE(server_->wait_for("dyn has ended: signal 15"));
  ASSERT_TRUE(server_->wait_for("dyn is started"));
  const auto second = visit();
  ASSERT_TRUE(second);
  EXPECT_NE(*first, *second);
  EXPECT_THAT(*second, testing::EndsWith(" 1"));

  update(1);
  ASSERT_TRUE(server_->wait_for("dyn has ended"));
  EXPECT_FALSE(visit());
  update(0);
  EXPECT_TRUE(visit());

  client.send({.type = 0x5001, .body = std::string("unknown\0\0\0\0\0", 12), .data = 0});
  EXPECT_EQ(ORP_MSG_UNDELIVERABLE, client.receive()->type);
}

TEST_F(DynamicApps, AllStopAtOnce) {
  start_with(kServeForEver, kTcp);
  RawClient client("web");
  ASSERT_TRUE(visit());

  const auto reply = client.ask({.type = 0x504d});

  ASSERT_TRUE(reply);
  EXPECT_EQ(0u, reply->data);
  EXPECT_TRUE(server_->wait_for("dyn has ended"));
  EXPECT_FALSE(visit());
  EXPECT_TRUE(client.ask({.type = 0x504d}));
}

TEST_F(DynamicApps, RunAsTheirUserOnAUnixSocket) {
  std::ifstream map("/proc/self/uid_map");
  unsigned long inside = 0;
  unsigned long outside = 0;
  unsigned long count = 0;
  map >> inside >> outside >> count;
  if (count == 1) GTEST_SKIP() << "this sandbox knows no other users";

  start_with("c, _ = s.accept()\nc.send(b'%d %d' % (os.getuid(), len(os.getgroups())))\n",
             "unix:/var/dyn.sock", ", \"user\": \"nobody\", \"mode\": \"0600\"");
  struct stat status {};
  ASSERT_EQ(0, ::stat("/var/dyn.sock", &status));
  EXPECT_EQ(0600u, status.st_mode & 0777);
  RawClient visitor("x", RawClient::Register::kNo, "/var/dyn.sock");
  EXPECT_EQ("65534 1", visitor.receive_bytes(7));

  server_->stop(SIGTERM);
  EXPECT_FALSE(std::filesystem::exists("/var/dyn.sock"));
}

TEST_F(DynamicApps, NeedAConfigurationThatMakesSense) {
  for (const char *bad :
       {"{", "{}",
        R"({"applications": [{"name": "mic", "executable": "/x", "listen": "unix:/x"}]})",
        R"({"applications": [{"name": "much-too-long", "executable": "/x", "listen": "unix:/x"}]})",
        R"({"applications": [{"name": "a", "executable": "x", "listen": "unix:/x"}]})",
        R"({"applications": [{"name": "a", "executable": "/x", "listen": "7001"}]})",
        R"({"applications": [{"name": "a", "executable": "/x", "listen": "tcp:nowhere:1"}]})",
        R"({"applications": [{"name": "a", "executable": "/x", "listen": "unix:/var/x",)"
        R"( "user": "nobody at all"}]})",
        R"({"applications": [{"name": "a", "executable": "/x", "listen": "unix:/var/x",)"
        R"( "mode": "rw"}]})"}) {
    std::ofstream("/var/apps.json") << bad;
    test::Process server("msgsvr", {"--apps", "/var/apps.json"});
    EXPECT_EQ(1, server.wait()) << bad;
  }
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
    const uint32_t number = 3;
    const CFM_VALUE values[] = {
        {CFM_AREA_PARAMETER, 0, 0, CFM_PARA_LOGIN_WAIT, CFM_TYPE_NUMBER, 4, &number, 4},
        {CFM_AREA_APP_DATA, 0, 0, CFM_APPDATA_PRIVACY_HANDLED, CFM_TYPE_BYTES, 1, "\0", 1}};
    EXPECT_EQ(CFM_OK, CFM_StoreDefine(values, 2, CFM_DEFINE_DEFAULT));
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
    const auto reply = client_->ask({.type = type, .body = body}, 15000);
    return reply ? reply->data : 0xffffffff;
  }

  std::unique_ptr<RawClient> client_;
};

TEST_F(ConfigManager, SavesAndBringsBackDefaults) {
  set(7);
  for (const uint32_t type : {0x502bu, 0x502au, 0x5040u}) EXPECT_EQ(0u, ask(type)) << type;
  for (const uint32_t type : {0x5009u, 0x503fu}) client_->send({.type = type});
  EXPECT_EQ(0u, ask(kSaveSync));
  EXPECT_EQ(7u, get());

  client_->send({.type = 0x500f, .body = std::string(8, '\0')});
  EXPECT_EQ(0u, ask(kSaveSync));  // done one after the other
  EXPECT_EQ(3u, get());

  set(7);
  EXPECT_EQ(0u, ask(0x5033));
  EXPECT_EQ(7u, get());
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
    struct stat status {};
    ASSERT_EQ(0, ::stat(secret, &status)) << secret;
    EXPECT_EQ(mode_t{S_IFREG | 0600}, status.st_mode) << secret;
  }
  EXPECT_EQ(32u, std::filesystem::file_size("/var/cfm/export.key"));
  EXPECT_EQ(2, content_of(kFile)[8]);
  EXPECT_THAT(content_of(kFile), testing::Not(HasSubstr("SQLite")));
}

TEST_F(ConfigManager, RefusesWhatItDidNotWriteItself) {
  set(7);
  ASSERT_EQ(0u, ask(kExport, kFile));
  const std::string whole = content_of(kFile);
  set(9);
  const auto refused = [&](const std::string &content) {
    std::ofstream(kFile) << content;
    const bool not_good = ask(kCheck, kFile) != 0;
    const bool not_taken = ask(kImport, kFile) != 0;
    EXPECT_EQ(not_good, not_taken);
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
    ASSERT_TRUE(refused(whole.substr(0, cut))) << cut;
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
