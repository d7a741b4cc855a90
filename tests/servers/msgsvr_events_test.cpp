// Events at the message server: who gets them, and who pays for slow subscribers.

#include <gmock/gmock.h>

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "servers/message_server.h"
#include "support/message_peer.h"

namespace {

using test::Frame;
using test::padded;
using test::RawClient;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

class MsgsvrEvents : public test::MessageServer {
 protected:
  // All bodies that `client` has got, one after the other.
  static std::string received(RawClient *client) {
    settle();
    std::string bodies;
    for (const Frame &frame : client->drain()) bodies += frame.body;
    return bodies;
  }

  static void subscribe_by_name(RawClient *by, const std::string &name) {
    by->send({.type = ORP_MSG_SUBSCRIBE, .body = padded(name), .data = ORP_MSG_EVENT_WLAN});
    by->drain();
  }

  static void publish(RawClient *from, const std::string &body,
                      uint32_t type = ORP_MSG_EVENT_WLAN) {
    from->send({.type = type, .body = body});
    // An event without subscribers is no failure.
    EXPECT_THAT(from->drain(), IsEmpty());
  }
};

TEST_F(MsgsvrEvents, GoToWhoeverSubscribedAndToNobodyTwice) {
  start();
  RawClient publisher("pub");
  std::map<std::string, RawClient> clients;
  for (const char *name : {"itself", "byother", "all", "both", "none"}) clients.emplace(name, name);
  subscribe(&clients.at("itself"));
  subscribe(&clients.at("all"), ORP_MSG_ALL_EVENTS);
  subscribe(&clients.at("both"), ORP_MSG_ALL_EVENTS);
  subscribe(&clients.at("both"));
  for (const char *name : {"byother", "both"}) subscribe_by_name(&publisher, name);

  publisher.send({.type = ORP_MSG_EVENT_WLAN, .to = "mic", .body = "1"});
  publish(&publisher, "2");
  publish(&publisher, "3", ORP_MSG_EVENT_WAN);

  const std::pair<const char *, const char *> kExpected[] = {
      {"itself", "12"}, {"byother", "12"}, {"all", "123"}, {"both", "123"}, {"none", ""}};
  for (const auto &[name, bodies] : kExpected) {
    EXPECT_EQ(bodies, received(&clients.at(name))) << name;
  }
}

TEST_F(MsgsvrEvents, StopWithTheSubscription) {
  start();
  RawClient publisher("pub");
  RawClient itself("itself");
  RawClient by_other("byother");
  RawClient stays("stays");
  for (RawClient *client : {&itself, &stays}) subscribe(client);
  subscribe_by_name(&publisher, "byother");

  itself.send({.type = ORP_MSG_UNSUBSCRIBE, .data = ORP_MSG_EVENT_WLAN});
  itself.drain();
  publisher.send(
      {.type = ORP_MSG_UNSUBSCRIBE, .body = padded("byother"), .data = ORP_MSG_EVENT_WLAN});
  publish(&publisher, "1");

  EXPECT_EQ("", received(&itself));
  EXPECT_EQ("", received(&by_other));
  EXPECT_EQ("1", received(&stays));
}

TEST_F(MsgsvrEvents, ReachTheNextProcessOfANameButNotOfAConnection) {
  start();
  RawClient publisher("pub");
  {
    RawClient first("app");
    subscribe(&first, ORP_MSG_ALL_EVENTS);
  }
  subscribe_by_name(&publisher, "app");
  settle();
  RawClient next("app");

  publish(&publisher, "1");
  publish(&publisher, "2", ORP_MSG_EVENT_WAN);

  EXPECT_EQ("1", received(&next));
}

TEST_F(MsgsvrEvents, DelaysNobodyForASubscriberThatDoesNotRead) {
  start({"--queue", "131072", "--patience", "1000"});
  RawClient publisher("pub");
  RawClient stuck("stuck");
  RawClient well("well");
  for (RawClient *client : {&stuck, &well}) subscribe(client);
  constexpr uint32_t kCount = 5000;

  in_child([&] {
    for (uint32_t i = 0; i < kCount; ++i) {
      publisher.send({.type = ORP_MSG_EVENT_WLAN, .body = std::string(300, 'e'), .sequence = i});
    }
    return true;
  });
  for (uint32_t i = 0; i < kCount; ++i) ASSERT_EQ(i, well.read().sequence);
  // The publisher gets no notice; the loss is counted.
  EXPECT_THAT(publisher.drain(), IsEmpty());
  const size_t received = stuck.drain().size();
  EXPECT_LT(received, kCount);
  EXPECT_TRUE(server_->wait_for(std::to_string(kCount - received) + " messages for it were lost"));
}

// The machine's few processors are busy, so the subscribers fall behind at times.
TEST_F(MsgsvrEvents, LosesNoneOfManyEventsForTenSubscribersThatKeepReading) {
  start({"--queue", "131072", "--patience", "30000"});
  constexpr uint32_t kCount = 100000;
  constexpr uint32_t kRow = 200;
  const auto row_from = [](uint32_t first) {
    std::string row;
    for (uint32_t i = first; i < first + kRow; ++i) {
      row += Frame{.type = ORP_MSG_EVENT_WLAN, .body = "0123456789", .sequence = i}.bytes("pub");
    }
    return row;
  };
  std::vector<pid_t> subscribers;
  for (int s = 0; s < 10; ++s) {
    RawClient client("s" + std::to_string(s));
    subscribe(&client);
    subscribers.push_back(in_child([&] {
      for (uint32_t i = 0; i < kCount; i += kRow) {
        const std::string row = row_from(i);
        if (client.receive_bytes(row.size(), 60000) != row) return false;
      }
      return true;
    }));
  }

  RawClient publisher("pub");
  for (uint32_t i = 0; i < kCount; i += kRow) ASSERT_TRUE(publisher.send_bytes(row_from(i)));
  for (const pid_t subscriber : subscribers) expect_success(subscriber);
  EXPECT_THAT(server_->output(), Not(HasSubstr("lost")));
}

}  // namespace
