// Processes that wait for each other at points of the message server.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "servers/services.h"
#include "support/message_peer.h"

namespace {

using test::Frame;
using test::RawClient;
using testing::IsEmpty;

class MsgsvrSyncPoints : public test::Services {
 protected:
  MsgsvrSyncPoints() { start(); }

  static Frame wait_at(const std::string &name, uint32_t sequence) {
    return {.type = ORP_MSG_SYNC_WAIT, .body = name + '\0', .sequence = sequence};
  }

  static void release(const std::string &name) {
    RawClient poster("poster");
    poster.send({.type = ORP_MSG_SYNC_POST, .body = name + '\0'});
    poster.drain();
  }
};

TEST_F(MsgsvrSyncPoints, LetEverybodyGoWhoWaitsThere) {
  RawClient one("one");
  RawClient two("two");
  one.send(wait_at("boot", 4));
  two.send(wait_at("boot", 5));
  EXPECT_THAT(two.drain(), IsEmpty());

  release("other");
  EXPECT_THAT(one.drain(), IsEmpty());
  release("boot");

  EXPECT_EQ(4u, one.read().sequence);
  EXPECT_EQ(5u, two.read().sequence);
}

TEST_F(MsgsvrSyncPoints, KeepAReleaseForTheNextThatComesOnce) {
  RawClient late("late");

  release("boot");

  EXPECT_EQ(6u, late.ask(wait_at("boot", 6)).sequence);
  late.send(wait_at("boot", 7));
  EXPECT_THAT(late.drain(), IsEmpty());
}

TEST_F(MsgsvrSyncPoints, AnswerTheLastRequestOfAProcessThatAsksAgain) {
  RawClient one("one");
  for (const uint32_t sequence : {4u, 5u}) one.send(wait_at("boot", sequence));
  EXPECT_THAT(one.drain(), IsEmpty());

  release("boot");

  EXPECT_EQ(5u, one.read().sequence);
  EXPECT_THAT(one.drain(), IsEmpty());
}

TEST_F(MsgsvrSyncPoints, HaveNames) {
  RawClient client("client");
  for (const uint32_t type : {ORP_MSG_SYNC_WAIT, ORP_MSG_SYNC_POST}) {
    for (const size_t size : {0, 256}) {
      client.send({.type = type, .body = std::string(size, 'p') + '\0', .sequence = 8});
      const Frame notice = client.read();
      EXPECT_EQ(ORP_MSG_UNDELIVERABLE, notice.type) << size;
      EXPECT_EQ(type, notice.data) << size;
    }
  }
  const std::string longest(255, 'p');
  release(longest);
  EXPECT_EQ(9u, client.ask(wait_at(longest, 9)).sequence);
}

}  // namespace
