// The message server as a process, with hostile clients: it survives, what it keeps for them stays
// bounded, and the others are served.

#include <gmock/gmock.h>
#include <signal.h>
#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "msgapi/restful.h"
#include "servers/message_server.h"
#include "support/message_peer.h"

namespace {

using test::Frame;
using test::kReceiverField;
using test::kType;
using test::kUnservedType;
using test::padded;
using test::RawClient;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

class HostileClients : public test::MessageServer {
 protected:
  static void expect_service() {
    RawClient a("fine");
    expect_delivery(&a, &a);
  }

  static bool is_refusal(const Frame &frame, uint32_t type) {
    return frame.type == ORP_MSG_UNDELIVERABLE && frame.data == type;
  }

  // Sends all requests and returns how many of them were refused.
  static size_t refusals(RawClient *client, uint32_t type, const std::vector<Frame> &requests) {
    size_t refused = 0;
    for (size_t i = 0; i < requests.size(); ++i) {
      client->send(requests[i]);
      if (i % 100 != 99 && i + 1 != requests.size()) continue;
      for (const Frame &frame : client->drain()) refused += is_refusal(frame, type) ? 1 : 0;
    }
    return refused;
  }
};

// Clients that are their own receivers when they end.
class OwnReceivers : public HostileClients {
 protected:
  OwnReceivers() { start(); }
  ~OwnReceivers() override {
    expect_service();
    EXPECT_EQ(0, server_->stop(SIGTERM));
  }

  // The beginning of a long message that goes to "self".
  static void begin_long_message(RawClient *client) {
    const std::string frame =
        Frame{.type = kType, .to = "self", .body = std::string(1000000, 'h')}.bytes("self");
    client->send_bytes(std::string_view(frame).substr(0, 70040));
  }

  // Sends to "self" until the server takes nothing more for a moment.
  static void flood(RawClient *client) {
    const std::string frame =
        Frame{.type = kType, .to = "self", .body = std::string(30000, 'f')}.bytes("self");
    const timeval quick{0, 50000};
    ::setsockopt(client->fd(), SOL_SOCKET, SO_SNDTIMEO, &quick, sizeof quick);
    for (int i = 0; i < 60; ++i) {
      if (!client->send_bytes(frame)) break;
    }
  }
};

TEST_F(OwnReceivers, MayEndInTheMiddleOfALongMessage) {
  RawClient client("self");
  begin_long_message(&client);
  ::shutdown(client.fd(), SHUT_WR);
  client.closed();
}

TEST_F(OwnReceivers, MayEndWhileTheyHoldThemselves) {
  RawClient client("self");
  flood(&client);
  test::send_with_descriptors(client.fd(), "ab");
}

TEST_F(OwnReceivers, MayEndWhileSomebodyElseSendsThemALongMessage) {
  RawClient client("self");
  RawClient other("other");
  begin_long_message(&other);
  settle();
  flood(&client);
}

// A long message is not cut while its reader reads, even in small steps or with another sender.
class SlowReaders : public HostileClients {
 protected:
  SlowReaders() { start({"--queue", "262144", "--patience", "300"}); }
  ~SlowReaders() override { EXPECT_THAT(server_->output(), Not(HasSubstr("cut short"))); }

  // Reads one message of `size` bytes in small steps while somebody else sends `others` short ones.
  static void expect_whole(size_t size, size_t others) {
    RawClient reader("reader");
    RawClient a("a");
    RawClient b("b");
    const std::string frame =
        Frame{.type = kType, .to = "reader", .body = std::string(size, 'l')}.bytes("a");
    const Frame other = {.type = kType + 1, .to = "reader", .body = std::string(1000, 'o')};

    std::thread sender([&] { a.send_bytes(frame); });
    std::thread other_sender([&] {
      for (size_t i = 0; i < others; ++i) b.send(other);
    });
    std::string got;
    const size_t all = frame.size() + others * other.bytes().size();
    while (got.size() < all) {
      const std::string piece = reader.receive_bytes(std::min<size_t>(65536, all - got.size()));
      if (piece.empty()) break;
      got += piece;
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    sender.join();
    other_sender.join();

    EXPECT_EQ(all, got.size());
    EXPECT_EQ(size, static_cast<size_t>(std::ranges::count(got, 'l')));
    EXPECT_THAT(a.drain(), IsEmpty());
  }
};

TEST_F(SlowReaders, GetALongMessageWholeAlsoBesideAnotherSender) {
  for (int round = 0; round < 3; ++round) {
    expect_whole(size_t{8} << 20, 0);
    expect_whole(size_t{1} << 20, 300);
  }
}

TEST_F(HostileClients, OccupyLittleWithMessagesThatNeverEnd) {
  start();
  settle();
  const size_t before = memory();
  const std::string half =
      Frame{.type = ORP_MSG_RESTFUL_REGISTER, .body = std::string(2000000, 'h')}.bytes("x");
  std::vector<RawClient> many;
  for (int i = 0; i < 120; ++i) {
    // Some clients have a name of their own, some have none.
    const auto how = i % 2 == 0 ? RawClient::Register::kYes : RawClient::Register::kNo;
    many.emplace_back("x" + std::to_string(i), how);
    many.back().send_bytes(std::string_view(half).substr(0, half.size() - 1));
  }
  settle();
  [[maybe_unused]] const size_t grown = memory() - before;
#ifndef __SANITIZE_ADDRESS__
  EXPECT_LT(grown, size_t{48} << 20);
#endif
  // There is still room for a message in two pieces, and its share becomes free again.
  RawClient fine("fine");
  const std::string frame = Frame{.type = kType, .to = "fine", .body = "two"}.bytes("fine");
  fine.send_bytes(std::string_view(frame).substr(0, 41));
  settle();
  fine.send_bytes(std::string_view(frame).substr(41));
  EXPECT_EQ("two", fine.read().body);
  EXPECT_TRUE(is_refusal(many[1].read(), ORP_MSG_RESTFUL_REGISTER));
  many.clear();
  settle();
  RawClient late("late");
  const std::string wait =
      Frame{.type = ORP_MSG_SYNC_WAIT, .body = std::string(2000000, 'w')}.bytes("late");
  late.send_bytes(std::string_view(wait).substr(0, 1500000));
  settle();
  EXPECT_TRUE(late.quiet());
}

TEST_F(HostileClients, FillOnlyTheirOwnPartOfWhatIsKeptForEverybody) {
  start({"--user-subscriptions", "400", "--user-points", "400", "--user-paths", "400"});
  std::vector<Frame> subscriptions;
  std::vector<Frame> points;
  std::vector<Frame> paths;
  for (int i = 0; i < 1000; ++i) {
    const std::string number = std::to_string(i);
    subscriptions.push_back(
        {.type = ORP_MSG_SUBSCRIBE, .body = padded("n" + number), .data = ORP_MSG_EVENT_WLAN});
    points.push_back({.type = ORP_MSG_SYNC_POST, .body = "p" + number + '\0'});
    paths.push_back({.type = ORP_MSG_RESTFUL_REGISTER, .body = "/path/" + number + '\0'});
  }
  {
    RawClient hostile("hostile");
    EXPECT_EQ(900u, refusals(&hostile, ORP_MSG_SUBSCRIBE, subscriptions));
    EXPECT_EQ(900u, refusals(&hostile, ORP_MSG_SYNC_POST, points));
    EXPECT_EQ(900u, refusals(&hostile, ORP_MSG_RESTFUL_REGISTER, paths));
    EXPECT_TRUE(server_->wait_for("has as many event subscriptions"));
    EXPECT_TRUE(server_->wait_for("has as many synchronisation points"));
    EXPECT_TRUE(server_->wait_for("has as many restful paths"));

    // Other clients of the same user still get theirs.
    RawClient fine("fine");
    fine.send({.type = ORP_MSG_SUBSCRIBE, .data = ORP_MSG_EVENT_WLAN});
    fine.send({.type = ORP_MSG_RESTFUL_REGISTER, .body = padded("/mine", 6)});
    fine.send({.type = ORP_MSG_SYNC_POST, .body = padded("mine", 5)});
    EXPECT_THAT(fine.drain(), IsEmpty());
    fine.send({.type = ORP_MSG_EVENT_WLAN, .body = "event"});
    EXPECT_EQ("event", fine.read().body);
    EXPECT_EQ(0u, fine.ask({.type = ORP_MSG_SYNC_WAIT, .body = padded("mine", 5), .data = 9}).data);
  }

  // Things that clients left behind are removed to make room, the oldest first.
  for (int round = 0; round < 12; ++round) {
    RawClient next("next");
    for (Frame &frame : points) frame.body = "r" + std::to_string(round) + frame.body;
    EXPECT_EQ(900u, refusals(&next, ORP_MSG_SYNC_POST, points));
    for (Frame &frame : subscriptions) frame.data += 0x10000;
    EXPECT_EQ(900u, refusals(&next, ORP_MSG_SUBSCRIBE, subscriptions));
  }
  RawClient late("late");
  EXPECT_EQ(0u, late.ask({.type = ORP_MSG_SYNC_WAIT, .body = points[50].body}).data)
      << "kept for those who come";
  expect_service();
}

TEST_F(HostileClients, CannotUseUpTheDescriptors) {
  start();
  std::vector<RawClient> readers;
  for (int i = 0; i < 6; ++i) readers.emplace_back("r" + std::to_string(i));
  // The readers' sockets are full, so that everything after it waits in the server.
  for (const RawClient &reader : readers) {
    RawClient filler("filler");
    for (int i = 0; i < 300; ++i) {
      filler.send({.type = kType, .to = reader.name(), .body = std::string(1000, 'f')});
    }
    filler.drain();
  }
  RawClient hostile("hostile");
  size_t refused = 0;
  for (const RawClient &reader : readers) {
    for (int i = 0; i < 200; ++i) {
      hostile.send({.type = kType, .to = reader.name()});
      test::send_with_descriptors(hostile.fd(), std::string(2, '\0'));
    }
    for (const Frame &frame : hostile.drain()) refused += is_refusal(frame, kType) ? 1 : 0;
  }
  EXPECT_GE(refused, 6u * 200 - 64);
  EXPECT_LT(open_descriptors(), 130);
  readers.clear();
  settle();
  hostile.drain();  // what its readers had not read
  hostile.send({.type = kType, .to = "hostile"});
  test::send_with_descriptors(hostile.fd(), std::string(2, '\0'));
  EXPECT_EQ(kType, hostile.read().type);
  EXPECT_EQ(std::string(2, '\0'), hostile.receive_bytes(2));
}

TEST_F(HostileClients, HaveNoMoreConnectionsThanTheirUserMay) {
  start({"--user-connections", "20"});
  std::vector<RawClient> many;
  for (int i = 0; i < 20; ++i) many.emplace_back("many");
  RawClient refused("late", RawClient::Register::kNo);
  EXPECT_TRUE(refused.closed());
  EXPECT_TRUE(server_->wait_for("has as many connections as it may"));
  many.pop_back();
  many.front().drain();
  expect_service();
}

// Hand-over files of messages that nobody gets are removed, if they belong to the sender.
TEST_F(HostileClients, LeaveNoFilesOfMessagesThatAreLost) {
  start({"--queue", "131072", "--patience", "20"});
  int made = 0;
  const auto in_file = [&](const std::string &to, uint32_t type = kType) {
    const std::string path = ORP_MSG_HAND_OVER_PREFIX + std::to_string(++made);
    std::ofstream(path) << "body";
    return Frame{.type = type | ORP_MSG_TYPE_BODY_IN_FILE,
                 .to = to,
                 .body = padded(path, ORP_MSG_HAND_OVER_PATH_SIZE)};
  };
  const auto files = [] {
    return std::distance(std::filesystem::directory_iterator("/var/run/msg"), {});
  };
  RawClient a("a");
  a.send(in_file("nobody"));
  a.send(in_file("mic", kUnservedType));
  a.drain();
  EXPECT_EQ(0, files());

  // More than the queue takes, then the death of the reader.
  RawClient reader("reader");
  size_t lost = 0;
  for (int i = 0; i < 4000; ++i) {
    a.send(in_file("reader"));
    while (a.receive(0)) ++lost;
  }
  // Notices may come after the answer to a later request.
  for (int i = 0; i < 2; ++i) lost += a.drain().size();
  EXPECT_GT(lost, 0u);
  EXPECT_EQ(4000, files() + static_cast<ptrdiff_t>(lost));
  reader.close();
  settle();
  for (int i = 0; i < 2; ++i) lost += a.drain().size();
  EXPECT_EQ(4000, files() + static_cast<ptrdiff_t>(lost));
}

TEST_F(HostileClients, CannotColourTheLog) {
  start();
  RawClient client("x\x1b[2J\xc2\x9b", RawClient::Register::kYes);
  std::string bad = Frame{.type = kType}.bytes("x");
  bad.replace(kReceiverField, ORP_APP_NAME_SIZE, ORP_APP_NAME_SIZE, 'n');
  client.send_bytes(bad);
  EXPECT_TRUE(server_->wait_for("x?[2J??[" + std::to_string(::getpid()) + "] is disconnected"));
}

}  // namespace
