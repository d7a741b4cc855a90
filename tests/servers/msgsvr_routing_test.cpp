// Messages from client to client: where they go, in which byte order, and who is told of losses.

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "msgapi/restful.h"
#include "servers/message_server.h"
#include "support/message_peer.h"

namespace {

using test::Frame;
using test::kReceiverField;
using test::kType;
using test::kUnservedType;
using test::RawClient;

class MsgsvrRouting : public test::MessageServer {};

TEST_F(MsgsvrRouting, ForwardsByNameInOrderAlsoToTheSenderItself) {
  start();
  RawClient a("a");
  RawClient b("b");

  for (uint32_t i = 0; i < 2000; ++i) {
    RawClient &to = i % 3 == 0 ? a : b;
    // The transport's flags are kept, and a body that names a file is not looked into.
    const uint32_t flags = i % 2 == 0 ? 0 : ORP_MSG_TYPE_BODY_IN_FILE | ORP_MSG_TYPE_BOARD_MASK;
    const uint32_t type = kType | flags;
    a.send({.type = type, .to = to.name(), .body = std::string(i, 'x'), .data = i});
    const Frame got = to.read();
    ASSERT_EQ(type, got.type);
    ASSERT_EQ(i, got.data);
    ASSERT_EQ(i, got.body.size());
    ASSERT_EQ("a", got.from);
  }
}

TEST_F(MsgsvrRouting, TellsTheSenderWhatHasNoReceiver) {
  start();
  RawClient a("a");

  // The last two have a type that the server knows nothing about.
  for (const Frame &frame :
       {Frame{.type = ORP_MSG_TYPE_BOARD_MASK | kType, .to = "nobody", .sequence = 5},
        {.type = kType, .to = "nobody", .body = std::string(300000, 'x')},
        {.type = kUnservedType, .to = "mic", .sequence = 7},
        {.type = kUnservedType, .body = std::string(3 << 20, 'x')}}) {
    a.send(frame);
    expect_undeliverable(&a, frame.type & ORP_MSG_TYPE_MASK, frame.sequence);
  }
  expect_delivery(&a, &a);
}

TEST_F(MsgsvrRouting, ConvertsHeadersBetweenByteOrders) {
  start({"--swap-app", "b"});
  RawClient a("a");
  RawClient b("b");
  EXPECT_FALSE(a.swapped());
  ASSERT_TRUE(b.swapped());

  expect_delivery(&a, &b);
  expect_delivery(&b, &a);
  expect_delivery(&b, &b);
  // Several receivers of one message, a long one that is passed on as it arrives, and a notice.
  for (RawClient *client : {&a, &b}) subscribe(client);
  b.send({.type = ORP_MSG_EVENT_WLAN, .body = "event", .data = 3});
  for (RawClient *client : {&a, &b}) {
    const Frame got = client->read();
    EXPECT_EQ(ORP_MSG_EVENT_WLAN, got.type);
    EXPECT_EQ(3u, got.data);
  }
  a.send({.type = kType, .to = "b", .body = std::string(100000, 'l'), .data = 4});
  EXPECT_EQ(4u, b.read().data);
  b.send({.type = kType, .to = "nobody", .sequence = 9});
  expect_undeliverable(&b, kType, 9);
}

TEST_F(MsgsvrRouting, ConvertsTheHeadersOfEverybodyWhenTold) {
  start({"--swap"});
  RawClient everybody("x");
  ASSERT_TRUE(everybody.swapped());
  expect_delivery(&everybody, &everybody);
}

TEST_F(MsgsvrRouting, EndsOnlyTheClientOfAMalformedFrameAndSaysWhy) {
  start();
  RawClient a("a");
  RawClient b("b");
  const std::string good = Frame{.type = kType, .to = "b", .data = 1}.bytes("x");
  std::string unterminated = good;
  unterminated.replace(kReceiverField, ORP_APP_NAME_SIZE, ORP_APP_NAME_SIZE, 'n');
  std::string too_long = good;
  const uint32_t length = ORP_MSG_MAX_BODY + 1;
  std::memcpy(&too_long[offsetof(ORP_MSG_HEADER_ST, ulDataLen)], &length, sizeof length);

  for (const auto &[bad, why] : {std::pair(unterminated, "sent a header with an unterminated name"),
                                 std::pair(too_long, "announced a body of 134217729 bytes")}) {
    RawClient hostile("hostile");
    hostile.send_bytes(good + bad);
    EXPECT_EQ(1u, b.read().data) << "what it sent before still counts";
    EXPECT_TRUE(hostile.closed());
    EXPECT_TRUE(server_->wait_for("hostile[" + std::to_string(::getpid()) +
                                  "] is disconnected: it " + why));
  }
  for (const char byte : good) a.send_bytes({&byte, 1});
  EXPECT_EQ(1u, b.read().data) << "a frame may come byte by byte";
}

// A reader stops reading. Nobody else is delayed for long, and each message is either delivered or
// reported to its sender.
TEST_F(MsgsvrRouting, AccountsForEveryMessageToASlowReader) {
  start({"--queue", "262144"});
  RawClient a("a");
  RawClient slow("slow");
  RawClient c("c");
  constexpr uint32_t kCount = 20000;

  uint32_t told = 0;
  for (uint32_t i = 0; i < kCount; ++i) {
    a.send({.type = kType, .to = "slow", .body = std::string(i % 200, 's'), .sequence = i});
    while (const auto notice = a.receive(0)) {
      EXPECT_EQ(ORP_MSG_UNDELIVERABLE, notice->type);
      ++told;
    }
    if (i % 1000 == 0) expect_delivery(&c, &c);
  }
  // Notices about messages of the same read may come after the first answer.
  for (int i = 0; i < 2; ++i) told += static_cast<uint32_t>(a.drain().size());

  uint32_t received = 0;
  for (uint32_t last = 0; received + told < kCount; ++received) {
    const Frame got = slow.read();
    ASSERT_TRUE(received == 0 || got.sequence > last);
    ASSERT_EQ(got.sequence % 200, got.body.size());
    last = got.sequence;
  }
  EXPECT_FALSE(slow.receive(0));
  EXPECT_GT(told, 0u);
  EXPECT_GT(received, 1000u);
  EXPECT_TRUE(server_->wait_for("slow[" + std::to_string(::getpid()) + "] does not read"));
  EXPECT_TRUE(server_->wait_for(std::to_string(told) + " messages for it were lost"));
  expect_delivery(&a, &slow);
}

TEST_F(MsgsvrRouting, TellsSendersOfMessagesThatWaitedForADeadReader) {
  start({"--patience", "20"});
  RawClient a("a");
  RawClient reader("reader");
  constexpr uint32_t kCount = 3000;  // more than the socket takes, so that some wait in the server
  const Frame frame = {.type = kType, .to = "reader", .body = std::string(200, 'w')};
  reader.send({.type = ORP_MSG_RESTFUL_REGISTER, .body = test::padded("/reader", 8)});
  reader.drain();
  for (uint32_t i = 0; i < kCount; ++i) a.send(frame);
  // The server sends this one on to whoever serves the path.
  RawClient front("front");
  const ORP_MSG_RESTFUL_REQ_ST request{0, 0, "/reader", "info"};
  front.send({.type = ORP_MSG_RESTFUL_REQUEST, .body = bytes_of(request) + '\0', .sequence = 7});
  front.drain();
  settle();

  reader.read();
  reader.close();
  settle();

  const std::vector<Frame> told = a.drain();
  for (const Frame &notice : told) {
    ASSERT_EQ(ORP_MSG_UNDELIVERABLE, notice.type);
    ASSERT_EQ(kType, notice.data);
  }
  // The socket had taken the others while the process was there.
  EXPECT_GT(told.size(), 1000u);
  EXPECT_LT(told.size(), kCount);
  expect_undeliverable(&front, ORP_MSG_RESTFUL_REQUEST, 7);
}

}  // namespace
