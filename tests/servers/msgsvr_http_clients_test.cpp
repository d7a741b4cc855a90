// HTTP clients of the message server that are many, slow or hostile.

#include <gmock/gmock.h>
#include <signal.h>
#include <sys/resource.h>
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
#include <string>
#include <vector>

#include "servers/http_client.h"
#include "servers/restful.h"
#include "support/file.h"
#include "support/message_peer.h"

namespace {

using test::Frame;
using test::HttpClient;
using test::RawClient;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

class HttpServer : public test::Restful {};

constexpr const char *kUnknown =
    "GET /unknown HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n\r\n";

TEST_F(HttpServer, LocksNobodyOut) {
  const rlimit limit{4096, 4096};
  ASSERT_EQ(0, ::setrlimit(RLIMIT_NOFILE, &limit));
  // Connections that are silent, that stop within the head, and that stop within the body.
  for (const std::string &begin :
       {std::string(), std::string("GET /dev/info HTTP/1.1\r\nHo"),
        std::string("POST /dev/info HTTP/1.1\r\nHost: localhost\r\nContent-Length: "
                    "2000000\r\n\r\nbegin")}) {
    std::vector<HttpClient> idle(500);
    for (const HttpClient &each : idle) ASSERT_TRUE(each.send(begin));
    HttpClient honest;
    ASSERT_TRUE(honest.send(kUnknown));
    EXPECT_THAT(honest.read(), HasSubstr("404 Not Found")) << begin;
  }
  EXPECT_EQ("/dev info", target_of("/dev/info"));
}

TEST_F(HttpServer, GoesOnAfterManyConnectionsAndOddRequests) {
  for (int round = 0; round < 3; ++round) {
    const std::vector<HttpClient> many(150);
    for (const HttpClient &each : many) each.send(kUnknown);
  }
  // Until the server has noticed that they left, it has no place for others.
  for (bool is_full = true; is_full;) {
    std::vector<HttpClient> next(4);
    for (const HttpClient &each : next) each.send(kUnknown);
    is_full = std::ranges::any_of(next, [](HttpClient &each) {
      return each.read().empty() || each.got().starts_with("HTTP/1.1 503 ");
    });
  }
  // No request, and none will come: the connection stays until its time is over or its place is
  // needed.
  const HttpClient garbage;
  garbage.send(std::string("\0\xff\r\n", 4));
  std::string arguments = "GET /a?";
  for (int i = 0; i < 3000; ++i) arguments += "q=%41&";
  for (const std::string &odd :
       {arguments + " HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n\r\n",
        std::string("GET ") + std::string(100000, '/') + " HTTP/1.1\r\n\r\n",
        std::string("POST /dev/a HTTP/1.1\r\nHost: localhost\r\nContent-Length: -1\r\n\r\n"),
        std::string("POST /dev/a HTTP/1.1\r\nHost: localhost\r\nTransfer-Encoding: "
                    "chunked\r\n\r\nzz\r\n")}) {
    HttpClient client;
    client.send(odd);
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

TEST_F(HttpServer, LosesNoneOfManyLargeRequests) {
  constexpr int kCount = 40;
  serve({"--http-timeout", "60000"});
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

TEST_F(HttpServer, RefusesWhatAnApplicationThatDoesNotReadCannotBeGiven) {
  serve({"--queue", "16384", "--cut-through", "4096"});
  const int small = 2048;
  ASSERT_EQ(0, ::setsockopt(app_->fd(), SOL_SOCKET, SO_RCVBUF, &small, sizeof small));
  // The client's queue fills up, and what waits for it is dropped.
  RawClient other("other");
  for (const size_t size : {2000, 10}) {
    for (int i = 0; i < 400; ++i) {
      other.send({.type = test::kUnservedType, .to = "status", .body = std::string(size, 'x')});
    }
  }
  other.drain();

  EXPECT_THAT(curl("/dev/set", "-d @/var/none -d body -D -").get(),
              testing::AllOf(HasSubstr("503"), HasSubstr("Retry-After: 1")));
  EXPECT_TRUE(std::filesystem::is_empty("/var/run/msg"));
}

TEST_F(HttpServer, GoesOnAfterConnectionsThatAreResetBeforeItLooks) {
  ::kill(server_->pid(), SIGSTOP);
  for (int i = 0; i < 3; ++i) {
    const int fd = test::connect_to(8080);
    const linger reset{1, 0};
    ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
    ::close(fd);
  }
  ::kill(server_->pid(), SIGCONT);
  EXPECT_EQ("/dev info", target_of("/dev/info"));
}

// An application that does not read for a while, with so much in its queue that requests are held.
class HeldRequests : public HttpServer {
 protected:
  // Together more than the smallest queue takes, however full it is.
  static constexpr size_t kRequests = 16;
  static constexpr size_t kSize = 1800;

  void serve_slowly(const std::string &timeout_ms) {
    serve({"--queue", "16384", "--cut-through", "4096", "--patience", "60000", "--http-timeout",
           timeout_ms});
    other_ = std::make_unique<RawClient>("other");
  }

  // Fills the queue of `name` until the server has not read from `other` for a while: the queue is
  // half full then.
  void fill(const std::string &name) {
    std::string row;
    for (int i = 0; i < 10; ++i) {
      row += Frame{.type = test::kType, .to = name, .body = std::string(1000, 'x')}.bytes("other");
    }
    RawClient settle("settle");
    size_t at = 0;
    for (int full = 0; full < 50;) {
      const ssize_t sent =
          ::send(other_->fd(), row.data() + at, row.size() - at, MSG_DONTWAIT | MSG_NOSIGNAL);
      if (sent > 0) at = (at + static_cast<size_t>(sent)) % row.size();
      full = sent > 0 ? 0 : full + 1;
      if (sent <= 0) settle.drain();
    }
  }

  // Clients that have asked one after the other and wait for the answers.
  static std::vector<HttpClient> ask() {
    std::vector<HttpClient> clients;
    while (clients.size() < kRequests) {
      EXPECT_TRUE(
          clients.emplace_back().send("GET /dev/info?" + std::string(kSize, 'q') +
                                      " HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n\r\n"));
    }
    return clients;
  }

  // The application's next request, after what filled its queue; none when none comes.
  static std::optional<Frame> next_of(RawClient *client, int timeout_ms) {
    while (auto frame = client->receive(timeout_ms)) {
      if ((frame->type & ORP_MSG_TYPE_MASK) == ORP_MSG_RESTFUL_REQUEST) return frame;
    }
    return std::nullopt;
  }

  std::unique_ptr<RawClient> other_;
};

TEST_F(HeldRequests, AreSentWhenTheApplicationReadsAgain) {
  serve_slowly("30000");
  fill("status");
  std::vector<HttpClient> clients = ask();

  for (size_t i = 0; i < kRequests; ++i) {
    const auto request = next_of(app_.get(), test::kPatience_ms);
    ASSERT_TRUE(request) << i;
    EXPECT_EQ(std::string(kSize, 'q'), text_of(*request));
    answer(app_.get(), *request, "ok");
  }
  for (HttpClient &each : clients) EXPECT_THAT(each.read(), HasSubstr("200 OK"));
}

// Together they are more than the queue and the sockets take, so each waits for its own room.
TEST_F(HeldRequests, AreSentOnlyAsTheyFit) {
  constexpr size_t kCount = 24;
  const std::string body(900000, 'b');
  RawClient board = serve_board({"--patience", "60000"});
  other_ = std::make_unique<RawClient>("other");
  fill("board");
  std::vector<HttpClient> clients(kCount);
  for (const HttpClient &each : clients) {
    ASSERT_TRUE(
        each.send("POST /board/set HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n"
                  "Content-Length: " +
                  std::to_string(body.size()) + "\r\n\r\n" + body));
  }
  const size_t whole = sizeof(ORP_MSG_RESTFUL_REQ_ST) + body.size() + 1;
  for (size_t held = 0; held < kCount;) {
    app_->drain();
    held = std::ranges::count_if(std::filesystem::directory_iterator("/var/run/msg"),
                                 [whole](const auto &entry) { return entry.file_size() == whole; });
  }

  for (size_t left = kCount; left > 0;) {
    ORP_MSG_HEADER_ST header{};
    const std::string head = board.receive_bytes(sizeof header);
    ASSERT_EQ(sizeof header, head.size()) << left;
    std::memcpy(&header, head.data(), sizeof header);
    ASSERT_EQ(header.ulDataLen, board.receive_bytes(header.ulDataLen).size());
    if (header.ulMsgType != ORP_MSG_RESTFUL_REQUEST) continue;
    answer(&board, {.type = header.ulMsgType, .sequence = header.ulSeqNum, .from = "mic"}, "ok");
    --left;
  }
  for (HttpClient &each : clients) EXPECT_THAT(each.read(), HasSubstr("200 OK"));
}

TEST_F(HeldRequests, AreRefusedInTheEnd) {
  serve_slowly("500");
  fill("status");
  std::vector<HttpClient> clients = ask();

  size_t busy = 0;
  size_t silent = 0;
  for (HttpClient &each : clients) {
    if (each.read().starts_with("HTTP/1.1 503 ")) ++busy;
    if (each.got().starts_with("HTTP/1.1 504 ")) ++silent;
  }
  EXPECT_EQ(kRequests, busy + silent);
  EXPECT_GT(busy, 0u);
  EXPECT_TRUE(server_->wait_for("has no room in status[" + std::to_string(::getpid()) +
                                "]'s queue and is refused"));
  // What was refused is not sent later, and the next request finds room.
  other_->close();
  size_t sent = 0;
  while (next_of(app_.get(), 300)) ++sent;
  EXPECT_EQ(silent, sent);
  EXPECT_EQ("/dev info", target_of("/dev/info"));
}

// The server reads a body only for an application that does not share its files.
TEST_F(HttpServer, RefusesARequestWhoseBodyIsLostAtOnce) {
  RawClient board = serve_board();
  HttpClient client;
  const std::string half(50000, 'b');
  ASSERT_TRUE(
      client.send("POST /board/set HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n"
                  "Content-Length: 100000\r\n\r\n" +
                  half));
  const auto files = [] { return std::filesystem::directory_iterator("/var/run/msg"); };
  while (files() == std::filesystem::directory_iterator()) board.drain();
  std::filesystem::remove(files()->path());
  ASSERT_TRUE(client.send(half));

  EXPECT_THAT(client.read(), AllOf(HasSubstr("503"), HasSubstr("the body is lost")));
  EXPECT_TRUE(server_->wait_for("the body of POST /board/set is lost: No such file"));
  EXPECT_TRUE(board.quiet());
}

}  // namespace
