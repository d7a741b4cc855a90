// The thread that speaks HTTP, with limits that a test can reach: who gets a place, who must wait,
// and what takes too long. The test plays the message loop.

#include <gmock/gmock.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "common/event_loop.h"
#include "common/listen.h"
#include "msgsvr/http_front.h"
#include "servers/http_client.h"
#include "support/network.h"

namespace {

using msgsvr::HttpLimits;
using std::chrono::milliseconds;
using Client = test::HttpClient;
using testing::AllOf;
using testing::HasSubstr;
using testing::StartsWith;

// Two bodies of this size are more than the daemon holds at a time.
constexpr size_t kLong = 20 << 20;

const std::string kGet = "GET /a HTTP/1.1\r\nHost: localhost\r\n\r\n";

std::string post(size_t size) {
  return "POST /a HTTP/1.1\r\nHost: localhost\r\nContent-Length: " + std::to_string(size) +
         "\r\n\r\n";
}

class HttpDaemon : public testing::Test {
 protected:
  struct Request {
    uint64_t id;
    msgsvr::HttpRequest request;
  };

  void start(const HttpLimits &limits, const std::string &at = "127.0.0.1:8080") {
    front_.emplace(
        &loop_, servers::listen_tcp(at), limits,
        [this](uint64_t id, msgsvr::HttpRequest request) {
          requests_.push_back({id, std::move(request)});
        },
        [](uint64_t) {});
  }

  // Turns the loop until that is true, for a bounded time.
  template <typename Condition>
  bool turn_until(Condition condition) {
    for (int i = 0; i < 1000; ++i) {
      if (condition()) return true;
      loop_.turn(10);
    }
    return false;
  }
  bool turn_until_requests(size_t count) {
    return turn_until([&] { return requests_.size() == count; });
  }
  bool answer_comes(Client &client, const std::string &status) {
    return turn_until([&] { return client.got().starts_with("HTTP/1.1 " + status); });
  }

  // When the other one's request has come, the first has the room of a long body: no other has any.
  bool takes_room(Client &first, Client &other) {
    first.send(post(kLong) + "begin");
    other.send(kGet);
    return turn_until_requests(1);
  }

  servers::EventLoop loop_;
  std::deque<Request> requests_;
  std::optional<msgsvr::HttpFront> front_;
};

TEST_F(HttpDaemon, AnswersOpenRequestsWhenItEnds) {
  start({.patience = milliseconds(60000)});
  Client client;
  client.send(kGet);
  ASSERT_TRUE(turn_until_requests(1));

  front_.reset();

  EXPECT_THAT(client.got(), AllOf(StartsWith("HTTP/1.1 503 "), HasSubstr("Retry-After: 1\r\n"),
                                  HasSubstr("the server ends")));
  EXPECT_TRUE(client.ended());
}

TEST_F(HttpDaemon, TellsAClientWhoseAnswerIsLost) {
  start({.patience = milliseconds(20)});
  Client client;
  client.send(kGet);
  ASSERT_TRUE(turn_until_requests(1));
  EXPECT_TRUE(answer_comes(client, "504 ")) << client.got();
  EXPECT_THAT(client.got(), HasSubstr("no answer"));

  // The answer that comes now is nobody's, and the connection serves the next request.
  front_->answer(requests_[0].id, {200, "late"});
  client.send(kGet);
  ASSERT_TRUE(turn_until_requests(2));
  front_->answer(requests_[1].id, {200, "in time"});
  EXPECT_TRUE(turn_until([&] { return client.got().ends_with("in time"); })) << client.got();
  EXPECT_THAT(client.got(), testing::Not(HasSubstr("late")));
}

TEST_F(HttpDaemon, EndsATransferThatTakesTooLongButNoIdleConnection) {
  HttpLimits limits{.longest_body = 100, .patience = milliseconds(60000)};
  limits.longest_transfer = milliseconds(100);
  start(limits);
  Client idle;
  Client slow;
  Client slower;
  Client answered;
  slow.send(post(10) + "begin");
  slower.send("GET /a HTTP/1.1\r\nHo");
  answered.send(kGet);

  EXPECT_TRUE(turn_until([&] { return slow.ended() && slower.ended(); }));
  EXPECT_EQ("", slow.got());
  // An application's time is no transfer's.
  ASSERT_EQ(1u, requests_.size());
  front_->answer(requests_[0].id, {200, "whole"});
  EXPECT_TRUE(answer_comes(answered, "200 ")) << answered.got();
  EXPECT_FALSE(idle.ended());
  idle.send(kGet);
  EXPECT_TRUE(turn_until_requests(2));
}

TEST_F(HttpDaemon, RefusesABodyForWhichThereIsNoRoomInTime) {
  start({.longest_body = kLong, .patience = milliseconds(300)});
  Client first, get;
  ASSERT_TRUE(takes_room(first, get));
  Client second;
  second.send(post(kLong));

  // It is read only now, and thrown away.
  EXPECT_TRUE(second.send(std::string(kLong, 'b')));
  EXPECT_TRUE(answer_comes(second, "503 ")) << second.got();
  EXPECT_THAT(second.got(), AllOf(HasSubstr("Retry-After: 1"), HasSubstr("no room for the body")));
  EXPECT_EQ(1u, requests_.size());
  EXPECT_FALSE(first.ended());
}

TEST_F(HttpDaemon, TakesRoomBackFromABodyThatDoesNotCome) {
  start({.longest_body = kLong, .patience = milliseconds(20000)});
  Client first, get;
  ASSERT_TRUE(takes_room(first, get));
  Client second;
  second.send(post(kLong));
  Client third;
  third.send(post(kLong));
  // The bytes of the second go on coming, so it keeps its room while the third waits.
  constexpr size_t kPiece = kLong / 320;
  for (size_t sent = 0; sent < kLong; sent += kPiece) {
    loop_.turn(10);
    ASSERT_TRUE(second.send(std::string(kPiece, 'b')));
  }
  ASSERT_TRUE(turn_until_requests(2));
  EXPECT_EQ(kLong, requests_[1].request.body.text_size());

  // What is left of it is thrown away.
  EXPECT_TRUE(first.send(std::string(kLong - 5, 'b')));
  EXPECT_TRUE(answer_comes(first, "503 ")) << first.got();
  EXPECT_THAT(first.got(), HasSubstr("no room for the body"));
}

TEST_F(HttpDaemon, GivesThePlaceOfAWaitingRequestToANewConnection) {
  start({.longest_body = kLong, .patience = milliseconds(60000), .connections = 2});
  Client answered;
  answered.send(post(kLong) + std::string(kLong, 'b'));
  ASSERT_TRUE(turn_until_requests(1));
  EXPECT_EQ(kLong, requests_[0].request.body.text_size());
  Client waiting;
  waiting.send(post(kLong));
  Client next;
  next.send(kGet);

  EXPECT_TRUE(turn_until_requests(2));
  EXPECT_TRUE(turn_until([&] { return waiting.ended(); }));
  // Requests that are being answered keep their places.
  Client refused;
  EXPECT_TRUE(answer_comes(refused, "503 ")) << refused.got();
  EXPECT_TRUE(turn_until([&] { return refused.ended(); }));
  for (const Request &each : requests_) front_->answer(each.id, {200, "ok"});
  EXPECT_TRUE(answer_comes(answered, "200 "));
  EXPECT_TRUE(answer_comes(next, "200 "));
}

TEST_F(HttpDaemon, RefusesWithoutCountingIfNobodyCounts) {
  HttpLimits limits{.patience = milliseconds(60000), .json = true};
  limits.guard.emplace();
  start(limits);
  Client client;
  client.send("GET /a HTTP/1.1\r\nHost: evil.example\r\n\r\n");
  EXPECT_TRUE(turn_until([&] { return client.got().ends_with("}\n"); })) << client.got();
  EXPECT_THAT(client.got(), AllOf(StartsWith("HTTP/1.1 421 "), HasSubstr("application/json"),
                                  HasSubstr("{\"error\":\"this server has another name\"}")));
  EXPECT_TRUE(requests_.empty());
}

// The network with the most connections gives up the one that has been quiet the longest.
TEST_F(HttpDaemon, SharesThePlacesAmongNetworks) {
  if (::access("/proc/net/if_inet6", F_OK) != 0) GTEST_SKIP() << "this kernel has no IPv6";
  for (const char *address : {"fd00::1/64", "fd00::2/64", "fd01::1/64"}) {
    test::run(std::string("ip address add ") + address + " dev lo nodad");
  }
  const struct {
    const char *what;
    std::vector<std::string> clients;  // in the order of their coming
    size_t replaced;
  } kCrowds[] = {
      {"the oldest of the largest", {"::1", "127.0.0.2", "127.0.0.1", "127.0.0.1"}, 2},
      {"whole IPv4 addresses", {"127.0.0.1", "127.0.0.2", "::1", "::1"}, 2},
      {"half IPv6 addresses", {"::1", "fd01::1", "fd00::1", "fd00::2"}, 2},
      {"the oldest if all are alike", {"fd01::1", "::1", "fd00::1", "127.0.0.3"}, 0},
  };
  for (const auto &[what, addresses, replaced] : kCrowds) {
    SCOPED_TRACE(what);
    requests_.clear();
    start({.patience = milliseconds(60000), .connections = addresses.size()}, "[::]:8080");
    std::deque<Client> clients(addresses.begin(), addresses.end());
    Client next("127.0.0.1");
    next.send(kGet);
    ASSERT_TRUE(turn_until_requests(1));

    for (size_t i = 0; i < clients.size(); ++i) {
      EXPECT_EQ(i == replaced, clients[i].ended()) << addresses[i];
    }
    front_.reset();
  }
}

}  // namespace
