// Restful requests by HTTP, with curl and with clients that mean no good.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <memory>
#include <string>
#include <vector>

#include "msgapi/restful.h"
#include "servers/services.h"
#include "support/file.h"
#include "support/message_peer.h"
#include "support/process.h"

namespace {

using test::Frame;
using test::RawClient;
using testing::HasSubstr;

class Restful : public test::Services {
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

  // The application's next request, its body in place wherever it travelled.
  Frame next_request() {
    Frame request = app_->read();
    if ((request.type & ORP_MSG_TYPE_BODY_IN_FILE) != 0) {
      const std::string path = request.body.c_str();
      request.type &= ORP_MSG_TYPE_MASK;
      request.body.resize(std::filesystem::file_size(path));
      std::ifstream(path).read(request.body.data(),
                               static_cast<std::streamsize>(request.body.size()));
      std::filesystem::remove(path);
    }
    return request;
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
    const Frame request = next_request();
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
  EXPECT_THAT(
      curl("/dev/set", "-X OPTIONS -D -").get(),
      testing::AllOf(HasSubstr("405"), HasSubstr("Allow: GET, HEAD, POST, PUT, DELETE, PATCH")));
  for (const std::string path : {"/other/info", "/dev", "/dev/", "/dev/a/b"}) {
    EXPECT_EQ("404", status_of(path)) << path;
  }
  EXPECT_EQ("404", status_of("/dev/" + std::string(64, 'h')));

  // An answer that comes too late goes nowhere.
  auto slow = curl("/dev/info");
  const Frame request = next_request();
  EXPECT_EQ("504", status_in(slow.get()));
  EXPECT_TRUE(server_->wait_for("has not answered GET /dev/info"));
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
    const Frame request = next_request();
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
  const Frame request = next_request();
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
  const Frame request = next_request();
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
    const Frame request = next_request();
    ::close(fd);
    answer(app_.get(), request, "nobody reads this");
  }
  EXPECT_EQ("/dev info", target_of("/dev/info"));
}

TEST_F(Restful, AnswersHead) {
  auto got = curl("/dev/info", "-I");
  const Frame request = next_request();
  EXPECT_EQ(0u, head_of(request).ulCode);
  answer(app_.get(), request, "text");
  EXPECT_THAT(got.get(), testing::AllOf(HasSubstr("200 OK"), HasSubstr("Content-Length: 4"),
                                        testing::Not(HasSubstr("text|"))));
}

TEST_F(Restful, SaysAtOnceThatAnAnswerIsTooLong) {
  const auto begin = std::chrono::steady_clock::now();
  for (const bool in_file : {false, true}) {
    auto got = curl("/dev/info");
    const Frame request = next_request();
    const std::string text(ORP_MSG_MAX_DISPATCHED_BODY + 1, 't');
    if (in_file) {
      std::string path = std::string(ORP_MSG_HAND_OVER_PREFIX) + "6";
      std::ofstream(path) << text;
      path.resize(ORP_MSG_HAND_OVER_PATH_SIZE);
      app_->send({.type = request.type | ORP_MSG_TYPE_BODY_IN_FILE,
                  .to = "mic",
                  .body = path,
                  .sequence = request.sequence});
    } else {
      answer(app_.get(), request, text);
    }
    EXPECT_EQ("502", status_in(got.get()));
    EXPECT_TRUE(server_->wait_for("cannot be passed on: too long"));
    app_->drain();
  }
  EXPECT_LT(std::chrono::steady_clock::now() - begin, 2 * std::chrono::seconds(2)) << "no time-out";
}

// Connections that a client of HTTP means to keep, and what they get.
class HttpClients {
 public:
  ~HttpClients() {
    for (const int fd : fds_) ::close(fd);
  }
  // Opens one and sends the bytes; false when there is none.
  bool open(const std::string &bytes) {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_in address = test::loopback(8080);
    fds_.push_back(fd);
    return fd >= 0 &&
           ::connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0 &&
           ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) ==
               static_cast<ssize_t>(bytes.size());
  }
  // All that the last one gets until its end, or for ten seconds.
  std::string read() const {
    const timeval patience{10, 0};
    ::setsockopt(fds_.back(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    std::string got;
    char buffer[4096];
    for (ssize_t n; (n = ::recv(fds_.back(), buffer, sizeof buffer, 0)) > 0;) {
      got.append(buffer, static_cast<size_t>(n));
    }
    return got;
  }
  const std::vector<int> &fds() const { return fds_; }

 private:
  std::vector<int> fds_;
};

constexpr const char *kUnknown = "GET /unknown HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n";

TEST_F(Restful, LocksNobodyOut) {
  const rlimit limit{4096, 4096};
  ASSERT_EQ(0, ::setrlimit(RLIMIT_NOFILE, &limit));
  // Silent ones, such as stop in the head, and such as stop in the body.
  for (const std::string &begin :
       {std::string(), std::string("GET /dev/info HTTP/1.1\r\nHo"),
        std::string(
            "POST /dev/info HTTP/1.1\r\nHost: x\r\nContent-Length: 2000000\r\n\r\nbegin")}) {
    HttpClients idle;
    for (int i = 0; i < 500; ++i) ASSERT_TRUE(idle.open(begin)) << i;
    HttpClients honest;
    ASSERT_TRUE(honest.open(kUnknown));
    EXPECT_THAT(honest.read(), HasSubstr("404 Not Found")) << begin;
  }
  EXPECT_EQ("/dev info", target_of("/dev/info"));
}

TEST_F(Restful, GoesOnAfterManyConnectionsAndOddRequests) {
  for (int round = 0; round < 3; ++round) {
    HttpClients many;
    for (int i = 0; i < 150; ++i) many.open(kUnknown);
  }
  // No request, and none to come: it stays until its time is over or its place is wanted.
  HttpClients garbage;
  garbage.open(std::string("\0\xff\r\n", 4));
  std::string arguments = "GET /a?";
  for (int i = 0; i < 3000; ++i) arguments += "q=%41&";
  for (const std::string &odd :
       {arguments + " HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n",
        std::string("GET ") + std::string(100000, '/') + " HTTP/1.1\r\n\r\n",
        std::string("POST /dev/a HTTP/1.1\r\nHost: x\r\nContent-Length: -1\r\n\r\n"),
        std::string(
            "POST /dev/a HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked\r\n\r\nzz\r\n")}) {
    HttpClients client;
    client.open(odd);
    const auto begin = std::chrono::steady_clock::now();
    const std::string got = client.read();
    if (odd.starts_with(arguments)) {
      EXPECT_THAT(got, HasSubstr("414"));
    }
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(8))
        << odd.substr(0, 40);
  }
  EXPECT_EQ("/dev info", target_of("/dev/info"));
}

TEST_F(Restful, ServesAgainWhenThereAreDescriptorsAgain) {
#ifdef __SANITIZE_ADDRESS__
  GTEST_SKIP() << "the sanitizer's own checks need descriptors in the server";
#endif
  // No more descriptors than it has.
  const std::string descriptors = "/proc/" + std::to_string(server_->pid()) + "/fd/";
  rlim_t lowest_free = 0;
  while (std::filesystem::is_symlink(descriptors + std::to_string(lowest_free))) ++lowest_free;
  rlimit before;
  ASSERT_EQ(0, ::prlimit(server_->pid(), RLIMIT_NOFILE, nullptr, &before));
  const rlimit full{lowest_free, before.rlim_max};
  ASSERT_EQ(0, ::prlimit(server_->pid(), RLIMIT_NOFILE, &full, nullptr));
  HttpClients refused;
  for (int i = 0; i < 40; ++i) refused.open("");
  EXPECT_TRUE(server_->wait_for("a connection is refused")) << server_->output();
  ASSERT_EQ(0, ::prlimit(server_->pid(), RLIMIT_NOFILE, &before, nullptr));

  EXPECT_EQ("/dev info", target_of("/dev/info"));
}

TEST_F(Restful, LosesNoneOfManyLargeRequests) {
  constexpr int kCount = 40;
  server_->stop(SIGTERM);
  start({"--http", "8080", "--http-timeout", "60000"});
  app_ = std::make_unique<RawClient>("status");
  enter("/dev");
  std::ofstream("/var/large") << std::string(2000000, 'b');
  const std::string command =
      "for i in $(seq " + std::to_string(kCount) +
      "); do curl -s --max-time 60 -o /dev/null -w '%{http_code}\\n' --data-binary @/var/large "
      "http://127.0.0.1:8080/dev/set & done >/var/codes; wait";
  auto all = std::async(std::launch::async, [command] { return std::system(command.c_str()); });
  for (int i = 0; i < kCount; ++i) {
    const Frame request = next_request();
    EXPECT_EQ(2000000u, text_of(request).size());
    answer(app_.get(), request, "ok");
  }
  all.get();
  std::string expected;
  for (int i = 0; i < kCount; ++i) expected += "200\n";
  EXPECT_EQ(expected, test::contents("/var/codes"));
  EXPECT_TRUE(std::filesystem::is_empty("/var/run/msg")) << "no file stays";
}

TEST_F(Restful, RefusesWhatAnApplicationThatDoesNotReadCannotBeGiven) {
  server_->stop(SIGTERM);
  start({"--http", "8080", "--http-timeout", "1000", "--queue", "16384", "--cut-through", "4096"});
  app_ = std::make_unique<RawClient>("status");
  enter("/dev");
  const int small = 2048;
  ASSERT_EQ(0, ::setsockopt(app_->fd(), SOL_SOCKET, SO_RCVBUF, &small, sizeof small));
  // Its queue fills up, and what waits for it is dropped.
  RawClient other("other");
  for (const size_t size : {2000, 10}) {
    for (int i = 0; i < 400; ++i) {
      other.send({.type = 0x9999, .to = "status", .body = std::string(size, 'x')});
    }
  }
  other.drain();

  EXPECT_THAT(curl("/dev/set", "-d @/var/none -d body -D -").get(),
              testing::AllOf(HasSubstr("503"), HasSubstr("Retry-After: 1")));
  EXPECT_TRUE(std::filesystem::is_empty("/var/run/msg"));
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

TEST(MessageServerSocket, StaysALivingServersWhateverTheOtherLacks) {
  test::Process server("msgsvr");
  ASSERT_TRUE(server.wait_for("ready"));
  // With so few descriptors that at some point asking for the living server is what fails.
  for (int most = 3; most < 24; ++most) {
    const std::string command = "ulimit -n " + std::to_string(most) + "; timeout 5 \"" +
                                std::getenv("MSGAPI_BIN") + "/msgsvr\" 2>/dev/null";
    EXPECT_NE(0, std::system(command.c_str())) << most;
    ASSERT_TRUE(std::filesystem::exists(ORP_MSG_SERVER_PATH)) << most;
  }
  EXPECT_EQ(0u, RawClient("web").ask({.type = ORP_MSG_FACTORY_MODE}).data) << "it still serves";
}

}  // namespace
