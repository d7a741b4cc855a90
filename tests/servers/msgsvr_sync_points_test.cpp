// Processes that wait for each other at points of the message server.

#include <gmock/gmock.h>
#include <signal.h>

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
      expect_refusal(client, {.type = type, .body = std::string(size, 'p') + '\0', .sequence = 8});
    }
  }
  const std::string longest(255, 'p');
  release(longest);
  EXPECT_EQ(9u, client.ask(wait_at(longest, 9)).sequence);
}

TEST_F(MsgsvrSyncPoints, KeepOneReleaseHoweverOftenItsMakerPosts) {
  RawClient poster("poster");
  RawClient late("late");
  for (int i = 0; i < 2; ++i) poster.send({.type = ORP_MSG_SYNC_POST, .body = "boot"});
  EXPECT_THAT(poster.drain(), IsEmpty());

  EXPECT_EQ(6u, late.ask(wait_at("boot", 6)).sequence);
  late.send(wait_at("boot", 7));
  EXPECT_THAT(late.drain(), IsEmpty());
}

TEST_F(MsgsvrSyncPoints, AreLimitedForAProcessAndItsUser) {
  ASSERT_EQ(0, server_->stop(SIGTERM));
  start({"--user-points", "4"});  // of which a process may have one
  RawClient one("one");
  one.send(wait_at("boot", 4));
  for (const uint32_t type : {ORP_MSG_SYNC_WAIT, ORP_MSG_SYNC_POST}) {
    expect_refusal(one, {.type = type, .body = "other", .sequence = 5});
  }

  // A new release takes the place of the one whose maker went first, and of nobody who waits.
  for (const char *name : {"p1", "p2", "p3", "p4"}) release(name);
  RawClient late("late");
  EXPECT_EQ(6u, late.ask(wait_at("p2", 6)).sequence);
  late.send(wait_at("p1", 7));
  EXPECT_THAT(late.drain(), IsEmpty());
  release("boot");
  EXPECT_EQ(4u, one.read().sequence);
}

}  // namespace
