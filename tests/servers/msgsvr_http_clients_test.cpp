// HTTP clients of the message server that are many, slow or hostile.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <memory>
#include <string>
#include <vector>

#include "servers/restful.h"
#include "support/file.h"
#include "support/message_peer.h"

namespace {

using test::Frame;
using test::RawClient;
using testing::HasSubstr;
using testing::Not;

class HttpServer : public test::Restful {};

// HTTP connections that their client wants to keep, and what they get.
class HttpClients {
 public:
  ~HttpClients() {
    for (const int fd : fds_) ::close(fd);
  }
  // Opens a connection and sends the bytes; false when that fails.
  bool open(const std::string &bytes) {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_in address = test::loopback(8080);
    fds_.push_back(fd);
    return fd >= 0 &&
           ::connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0 &&
           ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) ==
               static_cast<ssize_t>(bytes.size());
  }
  // Everything that the last connection gets until its end, or within ten seconds.
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
    HttpClients idle;
    for (int i = 0; i < 500; ++i) ASSERT_TRUE(idle.open(begin)) << i;
    HttpClients honest;
    ASSERT_TRUE(honest.open(kUnknown));
    EXPECT_THAT(honest.read(), HasSubstr("404 Not Found")) << begin;
  }
  EXPECT_EQ("/dev info", target_of("/dev/info"));
}

TEST_F(HttpServer, GoesOnAfterManyConnectionsAndOddRequests) {
  for (int round = 0; round < 3; ++round) {
    HttpClients many;
    for (int i = 0; i < 150; ++i) many.open(kUnknown);
  }
  // No request, and none will come: the connection stays until its time is over or its place is
  // needed.
  HttpClients garbage;
  garbage.open(std::string("\0\xff\r\n", 4));
  std::string arguments = "GET /a?";
  for (int i = 0; i < 3000; ++i) arguments += "q=%41&";
  for (const std::string &odd :
       {arguments + " HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n\r\n",
        std::string("GET ") + std::string(100000, '/') + " HTTP/1.1\r\n\r\n",
        std::string("POST /dev/a HTTP/1.1\r\nHost: localhost\r\nContent-Length: -1\r\n\r\n"),
        std::string("POST /dev/a HTTP/1.1\r\nHost: localhost\r\nTransfer-Encoding: "
                    "chunked\r\n\r\nzz\r\n")}) {
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

TEST_F(HttpServer, ServesAgainWhenThereAreDescriptorsAgain) {
#ifdef __SANITIZE_ADDRESS__
  GTEST_SKIP() << "the sanitizer's own checks need descriptors in the server";
#endif
  // The server may open no more descriptors than it has.
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

}  // namespace
