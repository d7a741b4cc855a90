// The message server as a process, with clients that write and read raw bytes.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "support/message_peer.h"
#include "support/process.h"

namespace {

using test::RawClient;
using RawFrame = test::Frame;

constexpr uint32_t kType = 0x1234;
constexpr uint32_t kWlanEvent = 0x2da67;
constexpr uint32_t kWanEvent = 0x2da65;

class Msgsvr : public testing::Test {
 protected:
  void start(const std::vector<std::string> &arguments = {}) {
    server_ = std::make_unique<test::Process>("msgsvr", arguments);
    ASSERT_TRUE(server_->wait_for("ready")) << server_->output();
    idle_descriptors_ = open_descriptors();
  }

  ptrdiff_t open_descriptors() const {
    const std::string path = "/proc/" + std::to_string(server_->pid()) + "/fd";
    return std::distance(std::filesystem::directory_iterator(path), {});
  }

  // Connections that have just been closed may still be there for a moment.
  void expect_no_descriptors_but_of(ptrdiff_t clients) const {
    for (int i = 0; i < 1000 && open_descriptors() != idle_descriptors_ + clients; ++i) settle();
    EXPECT_EQ(idle_descriptors_ + clients, open_descriptors());
  }

  // Waits until the server has dealt with everything that other clients did before.
  static void settle() {
    RawClient probe("settle");
    EXPECT_TRUE(probe.drain([](const RawFrame &) {}));
  }

  static uint32_t processes_named(RawClient *client, const std::string &name) {
    const auto answer = client->ask({.type = ORP_MSG_COUNT_PROCESSES, .body = name_field(name)});
    return answer ? answer->data : 9999;
  }

  static std::string name_field(std::string name) {
    name.resize(ORP_APP_NAME_SIZE);
    return name;
  }

  static void expect_undeliverable(RawClient *client, uint32_t type, uint32_t sequence) {
    const auto notice = client->receive();
    ASSERT_TRUE(notice);
    EXPECT_EQ(ORP_MSG_UNDELIVERABLE, notice->type);
    EXPECT_EQ(type, notice->data);
    EXPECT_EQ(sequence, notice->sequence);
  }

  static void expect_delivery(RawClient *from, RawClient *to) {
    static uint32_t sequence = 7000;
    ASSERT_TRUE(
        from->send({.type = kType, .to = to->name(), .body = "ok", .sequence = ++sequence}));
    const auto got = to->receive();
    ASSERT_TRUE(got);
    EXPECT_EQ(sequence, got->sequence);
    EXPECT_EQ("ok", got->body);
  }

  std::unique_ptr<test::Process> server_;
  ptrdiff_t idle_descriptors_ = 0;
};

TEST_F(Msgsvr, ConfirmsTheNameAndSaysWhatItWants) {
  start({"--keepalive", "30"});
  RawClient client("web", RawClient::Register::kNo);

  const auto reply = client.enter();

  ASSERT_TRUE(reply);
  EXPECT_EQ(uint32_t{ORP_MSG_REGISTER}, reply->type);
  EXPECT_EQ(1u, reply->sequence);
  EXPECT_EQ("web", reply->to);
  EXPECT_EQ("", reply->from);
  EXPECT_EQ(0u, reply->data);
  const uint32_t words[] = {1, 30};
  ASSERT_EQ(sizeof words, reply->body.size());
  EXPECT_EQ(0, std::memcmp(words, reply->body.data(), sizeof words));

  RawClient impostor("mic", RawClient::Register::kNo);
  const auto refusal = impostor.enter();
  ASSERT_TRUE(refusal);
  EXPECT_EQ("", refusal->to);
}

TEST_F(Msgsvr, ForwardsByNameInOrderAlsoToTheSenderItself) {
  start();
  RawClient a("a");
  RawClient b("b");

  for (uint32_t i = 0; i < 2000; ++i) {
    a.send({.type = kType, .to = i % 3 == 0 ? "a" : "b", .body = std::string(i, 'x'), .data = i});
    const auto got = (i % 3 == 0 ? a : b).receive();
    ASSERT_TRUE(got);
    ASSERT_EQ(i, got->data);
    ASSERT_EQ(i, got->body.size());
    ASSERT_EQ("a", got->from);
  }
}

TEST_F(Msgsvr, KeepsTransportFlagsAndBodiesAsTheyAre) {
  start();
  RawClient a("a");
  RawClient b("b");
  const std::string path(260, '\0');

  a.send({.type = 0xf0001234u, .to = "b", .body = path});

  const auto got = b.receive();
  ASSERT_TRUE(got);
  EXPECT_EQ(0xf0001234u, got->type);
  EXPECT_EQ(path, got->body);
}

TEST_F(Msgsvr, TellsTheSenderWhatHasNoReceiver) {
  start();
  RawClient a("a");

  a.send({.type = 0xe0001234u, .to = "nobody", .sequence = 5});
  expect_undeliverable(&a, kType, 5);
  a.send({.type = kType, .to = "nobody", .body = std::string(300000, 'x'), .sequence = 6});
  expect_undeliverable(&a, kType, 6);
  // A type that the server knows nothing about.
  a.send({.type = 0x7777, .to = "mic", .sequence = 7});
  expect_undeliverable(&a, 0x7777, 7);
  a.send({.type = 0x7777, .body = std::string(3 << 20, 'x'), .sequence = 8});
  expect_undeliverable(&a, 0x7777, 8);
  expect_delivery(&a, &a);
}

TEST_F(Msgsvr, GivesTheOldestOfSeveralProcessesTheMessages) {
  start();
  RawClient a("a");
  RawClient oldest("twin");
  RawClient younger("twin");

  EXPECT_EQ(2u, processes_named(&a, "twin"));
  expect_delivery(&a, &oldest);
  oldest.close();
  EXPECT_TRUE(a.drain([](const RawFrame &) {}));
  expect_delivery(&a, &younger);
  EXPECT_EQ(1u, processes_named(&a, "twin"));
  younger.close();
  EXPECT_TRUE(a.drain([](const RawFrame &) {}));
  EXPECT_EQ(0u, processes_named(&a, "twin"));
}

TEST_F(Msgsvr, ConvertsHeadersBetweenByteOrders) {
  start({"--swap-app", "b"});
  RawClient a("a");
  RawClient b("b");
  RawClient c("c");
  EXPECT_FALSE(a.swapped());
  ASSERT_TRUE(b.swapped());

  expect_delivery(&a, &b);
  expect_delivery(&b, &a);
  expect_delivery(&b, &b);
  // Several receivers of one message, a long one that is passed on as it arrives, and a notice.
  for (RawClient *client : {&a, &b, &c}) {
    client->send({.type = ORP_MSG_SUBSCRIBE, .data = kWlanEvent});
    EXPECT_TRUE(client->drain([](const RawFrame &) {}));
  }
  b.send({.type = kWlanEvent, .body = "event", .data = 3});
  for (RawClient *client : {&a, &b, &c}) {
    const auto got = client->receive();
    ASSERT_TRUE(got);
    EXPECT_EQ(kWlanEvent, got->type);
    EXPECT_EQ(3u, got->data);
    EXPECT_EQ("event", got->body);
  }
  a.send({.type = kType, .to = "b", .body = std::string(100000, 'l'), .data = 4});
  const auto got = b.receive();
  ASSERT_TRUE(got);
  EXPECT_EQ(100000u, got->body.size());
  EXPECT_EQ(4u, got->data);
  b.send({.type = kType, .to = "nobody", .sequence = 9});
  expect_undeliverable(&b, kType, 9);
}

TEST_F(Msgsvr, RegistersEverybodyInTheOtherByteOrder) {
  start({"--swap"});
  RawClient a("a");
  RawClient b("b");

  ASSERT_TRUE(a.swapped());
  expect_delivery(&a, &b);
  EXPECT_EQ(1u, processes_named(&a, "b"));
}

TEST_F(Msgsvr, AsksAllProcessesOfANameToExit) {
  start();
  RawClient a("a");
  RawClient one("dhcps");
  RawClient two("dhcps");

  a.send({.type = ORP_MSG_EXIT, .body = name_field("dhcps")});

  for (RawClient *client : {&one, &two}) {
    const auto got = client->receive();
    ASSERT_TRUE(got);
    EXPECT_EQ(uint32_t{ORP_MSG_EXIT}, got->type);
    EXPECT_EQ("dhcps", got->to);
    // The acknowledgement is no request and brings no notice.
    client->send({.type = ORP_MSG_EXIT, .to = got->from});
    EXPECT_TRUE(client->drain([](const RawFrame &frame) { ADD_FAILURE() << frame.type; }));
  }
}

TEST_F(Msgsvr, LogsAClientThatMissesThreeKeepAlives) {
  start({"--keepalive", "1"});
  RawClient silent("silent");
  RawClient excused("excused");
  excused.send({.type = 0x709});

  ASSERT_TRUE(server_->wait_for("silent[" + std::to_string(::getpid()) +
                                "] has sent no keep-alive for 3 periods"));
  silent.send({.type = ORP_MSG_KEEP_ALIVE});
  EXPECT_TRUE(server_->wait_for("is alive again"));
  EXPECT_THAT(server_->output(), testing::Not(testing::HasSubstr("excused")));
}

TEST_F(Msgsvr, PassesEventsToWhoeverSubscribed) {
  start();
  RawClient publisher("pub");
  std::map<std::string, std::unique_ptr<RawClient>> clients;
  for (const char *name : {"itself", "byother", "all", "both", "none"}) {
    clients[name] = std::make_unique<RawClient>(name);
  }
  clients["itself"]->send({.type = ORP_MSG_SUBSCRIBE, .data = kWlanEvent});
  publisher.send({.type = ORP_MSG_SUBSCRIBE, .body = name_field("byother"), .data = kWlanEvent});
  clients["all"]->send({.type = ORP_MSG_SUBSCRIBE, .data = ORP_MSG_ALL_EVENTS});
  clients["both"]->send({.type = ORP_MSG_SUBSCRIBE, .data = ORP_MSG_ALL_EVENTS});
  clients["both"]->send({.type = ORP_MSG_SUBSCRIBE, .data = kWlanEvent});
  publisher.send({.type = ORP_MSG_SUBSCRIBE, .body = name_field("both"), .data = kWlanEvent});
  settle();

  const auto received = [&](const std::string &name) {
    std::vector<std::string> bodies;
    EXPECT_TRUE(clients[name]->drain([&](const RawFrame &frame) { bodies.push_back(frame.body); }));
    return bodies;
  };
  using testing::ElementsAre;
  using testing::IsEmpty;

  publisher.send({.type = kWlanEvent, .to = "mic", .body = "1"});
  publisher.send({.type = kWlanEvent, .body = "2"});
  publisher.send({.type = kWanEvent, .body = "3"});
  settle();
  EXPECT_THAT(received("itself"), ElementsAre("1", "2"));
  EXPECT_THAT(received("byother"), ElementsAre("1", "2"));
  EXPECT_THAT(received("all"), ElementsAre("1", "2", "3"));
  EXPECT_THAT(received("both"), ElementsAre("1", "2", "3"));
  EXPECT_THAT(received("none"), IsEmpty());

  clients["itself"]->send({.type = ORP_MSG_UNSUBSCRIBE, .data = kWlanEvent});
  publisher.send({.type = ORP_MSG_UNSUBSCRIBE, .body = name_field("byother"), .data = kWlanEvent});
  // A subscription by name outlives the process; one of a process does not.
  clients["both"] = nullptr;
  settle();
  clients["both"] = std::make_unique<RawClient>("both");
  publisher.send({.type = kWlanEvent, .body = "4"});
  publisher.send({.type = kWanEvent, .body = "5"});
  settle();
  EXPECT_THAT(received("itself"), IsEmpty());
  EXPECT_THAT(received("byother"), IsEmpty());
  EXPECT_THAT(received("all"), ElementsAre("4", "5"));
  EXPECT_THAT(received("both"), ElementsAre("4"));
  // An event that nobody wants is no failure.
  EXPECT_TRUE(publisher.drain([](const RawFrame &frame) { ADD_FAILURE() << frame.type; }));
}

TEST_F(Msgsvr, GivesEverySubscriberItsOwnFileOfALargeEvent) {
  start();
  RawClient publisher("pub");
  std::vector<std::unique_ptr<RawClient>> subscribers;
  for (int i = 0; i < 3; ++i) {
    subscribers.push_back(std::make_unique<RawClient>("s" + std::to_string(i)));
    subscribers.back()->send({.type = ORP_MSG_SUBSCRIBE, .data = kWlanEvent});
  }
  settle();
  const std::string original = std::string(ORP_MSG_HAND_OVER_PREFIX) + "77";
  std::ofstream(original) << std::string(5000, 'e');
  std::string path = original;
  path.resize(ORP_MSG_HAND_OVER_PATH_SIZE);

  publisher.send({.type = kWlanEvent | ORP_MSG_TYPE_BODY_IN_FILE, .to = "mic", .body = path});

  for (auto &subscriber : subscribers) {
    const auto got = subscriber->receive();
    ASSERT_TRUE(got);
    EXPECT_EQ(kWlanEvent | ORP_MSG_TYPE_BODY_IN_FILE, got->type);
    ASSERT_EQ(ORP_MSG_HAND_OVER_PATH_SIZE, got->body.size());
    EXPECT_NE(path, got->body);
    EXPECT_EQ(5000u, std::filesystem::file_size(got->body.c_str()));
    std::filesystem::remove(got->body.c_str());
  }
  EXPECT_TRUE(std::filesystem::is_empty("/var/run/msg"));

  // Anything but a hand-over file stays where it is and goes nowhere.
  std::ofstream("/var/run/msg/other") << "x";
  for (std::string bad : {"/var/run/msg/other", "/etc/passwd", "/var/run/msg/msg_file_../other"}) {
    bad.resize(ORP_MSG_HAND_OVER_PATH_SIZE);
    publisher.send({.type = kWlanEvent | ORP_MSG_TYPE_BODY_IN_FILE, .to = "mic", .body = bad});
  }
  settle();
  EXPECT_TRUE(subscribers[0]->drain([](const RawFrame &) { ADD_FAILURE(); }));
  EXPECT_TRUE(std::filesystem::exists("/var/run/msg/other"));
}

// Every prefix of a frame, then the end of the connection.
TEST_F(Msgsvr, SurvivesAClientThatDiesAtAnyByte) {
  start();
  RawClient a("a");
  RawClient b("b");
  const std::string frame = RawFrame{.type = kType, .to = "b", .body = "12345678"}.bytes("x");

  for (size_t cut = 0; cut < frame.size(); ++cut) {
    RawClient dying("dying", RawClient::Register::kNo);
    dying.send_bytes(frame.substr(0, cut));
  }
  settle();
  expect_delivery(&a, &b);
}

// Every byte of a frame turned to something else: the server either routes what it has become or
// ends this client, and serves the others.
TEST_F(Msgsvr, SurvivesAFrameThatIsDamagedAtAnyByte) {
  start();
  RawClient a("a");
  RawClient b("b");
  const std::string frame = RawFrame{.type = kType, .to = "b", .body = "12345678"}.bytes("x");

  for (size_t at = 0; at < frame.size(); ++at) {
    for (const char value : {'\0', '\1', '\x7f', '\x80', '\xff'}) {
      std::string damaged = frame;
      damaged[at] = value;
      RawClient hostile("hostile", RawClient::Register::kNo);
      hostile.send_bytes(damaged);
    }
  }
  settle();
  ASSERT_TRUE(b.drain([](const RawFrame &) {}));
  expect_delivery(&a, &b);
}

TEST_F(Msgsvr, AcceptsFramesThatArriveByteByByte) {
  start();
  RawClient a("a");
  RawClient b("b");

  for (const char byte : RawFrame{.type = kType, .to = "b", .body = "slow"}.bytes("a")) {
    a.send_bytes({&byte, 1});
  }

  const auto got = b.receive();
  ASSERT_TRUE(got);
  EXPECT_EQ("slow", got->body);
}

TEST_F(Msgsvr, EndsOnlyTheClientOfAMalformedFrameAndSaysWhy) {
  start();
  RawClient a("a");
  RawClient b("b");
  std::string unterminated = RawFrame{.type = kType, .to = "b"}.bytes("x");
  std::fill_n(unterminated.begin() + 20, 12, 'n');
  std::string too_long = RawFrame{.type = kType, .to = "b"}.bytes("x");
  const uint32_t length = ORP_MSG_MAX_BODY + 1;
  std::memcpy(&too_long[36], &length, sizeof length);

  RawClient one("one");
  // What it sent before still counts.
  one.send_bytes(RawFrame{.type = kType, .to = "b", .data = 1}.bytes("one") + unterminated);
  EXPECT_TRUE(one.closed());
  EXPECT_TRUE(server_->wait_for("one[" + std::to_string(::getpid()) +
                                "] is disconnected: it sent a header with an unterminated name"));
  RawClient two("two");
  two.send_bytes(too_long);
  EXPECT_TRUE(two.closed());
  EXPECT_TRUE(server_->wait_for("it announced a body of 134217729 bytes"));

  const auto got = b.receive();
  ASSERT_TRUE(got);
  EXPECT_EQ(1u, got->data);
  expect_delivery(&a, &b);
}

// The reader stops reading: nobody else is delayed for long, and each message is either delivered
// or reported to its sender.
TEST_F(Msgsvr, AccountsForEveryMessageToASlowReader) {
  start({"--queue", "262144", "--cut-through", "65536"});
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
  // Notices for what came in the same read as the first of these may follow its answer.
  for (int i = 0; i < 2; ++i) {
    ASSERT_TRUE(
        a.drain([&](const RawFrame &frame) { told += frame.type == ORP_MSG_UNDELIVERABLE; }));
  }

  uint32_t received = 0;
  uint32_t last = 0;
  while (const auto got = slow.receive(received + told < kCount ? 5000 : 0)) {
    ASSERT_TRUE(received == 0 || got->sequence > last);
    ASSERT_EQ(got->sequence % 200, got->body.size());
    last = got->sequence;
    ++received;
  }
  EXPECT_EQ(kCount, received + told);
  EXPECT_GT(told, 0u);
  EXPECT_GT(received, 1000u);
  EXPECT_TRUE(server_->wait_for("slow[" + std::to_string(::getpid()) + "] does not read"));
  EXPECT_TRUE(server_->wait_for(std::to_string(told) + " messages for it were lost"));
  expect_delivery(&a, &slow);
}

TEST_F(Msgsvr, LosesNothingBetweenAFastSenderAndAReaderThatKeepsReading) {
  start({"--queue", "131072"});
  RawClient a("a");
  RawClient b("b");
  constexpr uint32_t kCount = 50000;

  const pid_t sender = ::fork();
  if (sender == 0) {
    for (uint32_t i = 0; i < kCount; ++i) a.send({.type = kType, .to = "b", .sequence = i});
    ::_exit(0);
  }
  for (uint32_t i = 0; i < kCount; ++i) {
    const auto got = b.receive();
    ASSERT_TRUE(got);
    ASSERT_EQ(i, got->sequence);
  }
  EXPECT_TRUE(a.drain([](const RawFrame &) { ADD_FAILURE(); }));
}

TEST_F(Msgsvr, TellsSendersOfMessagesThatWaitedForADeadReader) {
  start({"--patience", "20"});
  RawClient a("a");
  RawClient reader("reader");
  uint32_t sent = 0;
  // More than the socket takes, so that some wait in the server.
  while (sent < 3000)
    a.send({.type = kType, .to = "reader", .body = std::string(200, 'w'), .sequence = sent++});
  settle();

  const auto first = reader.receive();
  ASSERT_TRUE(first);
  reader.close();

  uint32_t told = 0;
  ASSERT_TRUE(a.drain([&](const RawFrame &frame) {
    EXPECT_EQ(ORP_MSG_UNDELIVERABLE, frame.type);
    EXPECT_EQ(kType, frame.data);
    ++told;
  }));
  // The rest had been handed to the socket of a process that was there.
  EXPECT_GT(told, 1000u);
  EXPECT_LT(told, sent);
}

TEST_F(Msgsvr, DelaysNobodyForASubscriberThatDoesNotRead) {
  start({"--queue", "131072"});
  RawClient publisher("pub");
  RawClient stuck("stuck");
  RawClient well("well");
  for (RawClient *client : {&stuck, &well}) {
    client->send({.type = ORP_MSG_SUBSCRIBE, .data = kWlanEvent});
  }
  settle();
  constexpr uint32_t kCount = 5000;

  const pid_t child = ::fork();
  if (child == 0) {
    for (uint32_t i = 0; i < kCount; ++i) {
      publisher.send({.type = kWlanEvent, .body = std::string(300, 'e'), .sequence = i});
    }
    ::_exit(0);
  }
  for (uint32_t i = 0; i < kCount; ++i) {
    const auto got = well.receive();
    ASSERT_TRUE(got);
    ASSERT_EQ(i, got->sequence);
  }
  // Publishers are not bothered; the loss is counted.
  EXPECT_TRUE(publisher.drain([](const RawFrame &) { ADD_FAILURE(); }));
  uint32_t received = 0;
  EXPECT_TRUE(stuck.drain([&](const RawFrame &) { ++received; }));
  EXPECT_LT(received, kCount);
  EXPECT_TRUE(server_->wait_for(std::to_string(kCount - received) + " messages for it were lost"));
}

// Everybody is busy on this machine's few processors, so that the subscribers fall behind at times.
TEST_F(Msgsvr, LosesNoneOfManyEventsForTenSubscribersThatKeepReading) {
  start({"--patience", "2000"});
#ifdef __SANITIZE_ADDRESS__
  constexpr uint32_t kCount = 20000;
#else
  constexpr uint32_t kCount = 100000;
#endif
  std::vector<pid_t> subscribers;
  std::vector<std::unique_ptr<RawClient>> clients;
  for (int i = 0; i < 10; ++i) {
    clients.push_back(std::make_unique<RawClient>("s" + std::to_string(i)));
    clients.back()->send({.type = ORP_MSG_SUBSCRIBE, .data = kWlanEvent});
  }
  settle();
  for (auto &client : clients) {
    subscribers.push_back(::fork());
    if (subscribers.back() != 0) continue;
    for (uint32_t i = 0; i < kCount; ++i) {
      const auto got = client->receive(60000);
      if (!got || got->sequence != i || got->body.size() != 100) ::_exit(1);
    }
    ::_exit(0);
  }

  RawClient publisher("pub");
  std::string row;
  for (uint32_t i = 0; i < kCount; ++i) {
    row += RawFrame{.type = kWlanEvent, .body = std::string(100, 'e'), .sequence = i}.bytes("pub");
    if (row.size() < 20000 && i + 1 < kCount) continue;
    ASSERT_TRUE(publisher.send_bytes(row));
    row.clear();
  }
  for (const pid_t subscriber : subscribers) {
    int status = -1;
    EXPECT_EQ(subscriber, ::waitpid(subscriber, &status, 0));
    EXPECT_EQ(0, status);
  }
  EXPECT_THAT(server_->output(), testing::Not(testing::HasSubstr("lost")));
}

// Cut-through.

class CutThrough : public Msgsvr {
 protected:
  static constexpr size_t kBody = 1000000;

  // Patient enough for a busy machine; where senders stop, they stop for good.
  CutThrough() { start({"--stall", "2000"}); }

  std::string frame_ =
      RawFrame{.type = kType, .to = "b", .body = body(), .sequence = 11}.bytes("a");

  static std::string body() {
    std::string bytes(kBody, '\0');
    for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<char>(i % 251);
    return bytes;
  }
};

TEST_F(CutThrough, PassesALongFrameOnWhileItArrives) {
  RawClient a("a");
  RawClient b("b");
  RawClient c("c");

  a.send_bytes(std::string_view(frame_).substr(0, 30000));
  EXPECT_EQ(frame_.substr(0, 30000), b.receive_bytes(30000));
  // What others send meanwhile waits until the frame is whole.
  c.send({.type = kType, .to = "b", .body = "after"});
  settle();
  const pid_t child = ::fork();
  if (child == 0) {
    a.send_bytes(std::string_view(frame_).substr(30000));
    ::_exit(0);
  }
  EXPECT_TRUE(frame_.substr(30000) == b.receive_bytes(frame_.size() - 30000));
  const auto after = b.receive();
  ASSERT_TRUE(after);
  EXPECT_EQ("after", after->body);
  expect_delivery(&a, &b);
}

TEST_F(CutThrough, FillsTheFrameUpWhenItsSenderDies) {
  for (const size_t cut : {size_t{40}, size_t{41}, size_t{70000}, frame_.size() - 1}) {
    RawClient b("b");
    RawClient c("c");
    {
      RawClient a("a");
      const pid_t child = ::fork();
      if (child == 0) {
        a.send_bytes(std::string_view(frame_).substr(0, cut));
        ::_exit(0);
      }
      // The header is enough to open the frame.
      const auto header = b.receive_bytes(cut);
      ASSERT_TRUE(header == frame_.substr(0, cut)) << cut;
    }

    const std::string rest = b.receive_bytes(frame_.size() - cut);
    EXPECT_EQ(frame_.size() - cut, rest.size());
    EXPECT_EQ(std::string::npos, rest.find_first_not_of('\0'));
    expect_delivery(&c, &b);
    EXPECT_TRUE(server_->wait_for("is cut short"));
  }
}

TEST_F(CutThrough, FillsTheFrameUpWhenItsSenderStops) {
  RawClient a("a");
  RawClient b("b");
  RawClient c("c");
  a.send_bytes(std::string_view(frame_).substr(0, 90000));

  const auto got = b.receive();

  ASSERT_TRUE(got);
  EXPECT_EQ(kBody, got->body.size());
  EXPECT_EQ(frame_.substr(40, 89960), got->body.substr(0, 89960));
  EXPECT_EQ(std::string::npos, got->body.find_first_not_of('\0', 89960));
  expect_undeliverable(&a, kType, 11);
  expect_delivery(&c, &b);
  // The rest goes nowhere, and the sender is still served.
  a.send_bytes(std::string_view(frame_).substr(90000));
  EXPECT_TRUE(a.drain([](const RawFrame &) { ADD_FAILURE(); }));
  expect_delivery(&a, &b);
}

TEST_F(CutThrough, TellsTheSenderWhenTheReceiverDies) {
  RawClient a("a");
  {
    RawClient b("b");
    a.send_bytes(std::string_view(frame_).substr(0, 90000));
    EXPECT_EQ(1000u, b.receive_bytes(1000).size());
  }
  a.send_bytes(std::string_view(frame_).substr(90000));

  expect_undeliverable(&a, kType, 11);
  EXPECT_TRUE(a.drain([](const RawFrame &) { ADD_FAILURE(); }));
  RawClient next("b");
  expect_delivery(&a, &next);
}

TEST_F(CutThrough, TakesBackAFrameOfWhichNothingWasSeen) {
  RawClient a("a");
  RawClient b("b");
  RawClient c("c");
  // Fills b's socket, so that the frame waits behind.
  uint32_t filled = 0;
  for (; filled < 300; ++filled) c.send({.type = kType, .to = "b", .body = std::string(1000, 'f')});
  settle();
  {
    RawClient dying("a2");
    dying.send_bytes(std::string_view(frame_).substr(0, 50000));
    settle();
  }
  EXPECT_TRUE(server_->wait_for("the receiver has seen nothing of it"));

  for (uint32_t i = 0; i < filled; ++i) {
    const auto got = b.receive();
    ASSERT_TRUE(got);
    ASSERT_EQ(1000u, got->body.size());
  }
  expect_delivery(&c, &b);
}

TEST_F(CutThrough, GivesUpAFrameWhoseReaderDoesNotRead) {
  RawClient a("a");
  RawClient b("b");
  RawClient c("c");
  std::string long_frame =
      RawFrame{.type = kType, .to = "b", .body = std::string(8 << 20, 'l'), .sequence = 3}.bytes(
          "a");

  // The sender is not held up for ever, and nobody else notices.
  ASSERT_TRUE(a.send_bytes(long_frame));
  expect_delivery(&c, &c);
  expect_undeliverable(&a, kType, 3);

  const auto got = b.receive();
  ASSERT_TRUE(got);
  EXPECT_EQ(size_t{8 << 20}, got->body.size());
  const size_t end = got->body.find_first_not_of('l');
  ASSERT_NE(std::string::npos, end);
  EXPECT_EQ(std::string::npos, got->body.find_first_not_of('\0', end));
  expect_delivery(&a, &b);
}

// Descriptors.

class Descriptors : public Msgsvr {
 protected:
  Descriptors() { start(); }

  // Sends `bytes` with descriptors of /dev/zero.
  static void send_with_descriptors(const RawClient &client, std::string bytes, size_t count = 1) {
    std::vector<int> fds(count);
    for (int &fd : fds) fd = ::open("/dev/zero", O_RDONLY | O_CLOEXEC);
    std::vector<char> control(CMSG_SPACE(sizeof(int) * count));
    iovec piece{bytes.data(), bytes.size()};
    msghdr message{};
    message.msg_iov = &piece;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    cmsghdr *header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(sizeof(int) * count);
    std::memcpy(CMSG_DATA(header), fds.data(), sizeof(int) * count);
    EXPECT_EQ(static_cast<ssize_t>(bytes.size()), ::sendmsg(client.fd(), &message, MSG_NOSIGNAL));
    for (const int fd : fds) ::close(fd);
  }

  // One read as ORP_MSG_RecvFd does it; the descriptor, or -1.
  static int receive_descriptor(const RawClient &client) {
    pollfd entry{.fd = client.fd(), .events = POLLIN, .revents = 0};
    if (::poll(&entry, 1, 5000) != 1) return -1;
    char bytes[4096];
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))];
    iovec piece{bytes, sizeof bytes};
    msghdr message{};
    message.msg_iov = &piece;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    EXPECT_EQ(2, ::recvmsg(client.fd(), &message, MSG_CMSG_CLOEXEC));
    const cmsghdr *header = CMSG_FIRSTHDR(&message);
    if (header == nullptr) return -1;
    int fd;
    std::memcpy(&fd, CMSG_DATA(header), sizeof fd);
    return fd;
  }

  const std::string zeros_ = std::string(2, '\0');
};

TEST_F(Descriptors, GoWhereTheSendersLastMessageWent) {
  RawClient a("a");
  RawClient b("b");

  a.send({.type = kType, .to = "b", .body = "take this"});
  send_with_descriptors(a, zeros_);
  a.send({.type = kType, .to = "b", .body = "done"});

  const auto announced = b.receive();
  ASSERT_TRUE(announced);
  const int fd = receive_descriptor(b);
  char byte = 'x';
  EXPECT_EQ(1, ::read(fd, &byte, 1));
  EXPECT_EQ('\0', byte);
  ::close(fd);
  const auto done = b.receive();
  ASSERT_TRUE(done);
  EXPECT_EQ("done", done->body);
  expect_no_descriptors_but_of(2);
}

TEST_F(Descriptors, AreClosedWhenNobodyCanTakeThem) {
  RawClient a("a");

  send_with_descriptors(a, zeros_);  // no message went before
  expect_undeliverable(&a, 0x701, 1);
  a.send({.type = kType, .to = "nobody", .sequence = 2});
  expect_undeliverable(&a, kType, 2);
  send_with_descriptors(a, zeros_);
  expect_undeliverable(&a, kType, 2);
  a.send({.type = kType, .to = "a", .sequence = 3});
  send_with_descriptors(a, zeros_, 2);  // one at a time
  EXPECT_EQ(3u, a.receive()->sequence);
  expect_undeliverable(&a, kType, 3);

  expect_delivery(&a, &a);
  expect_no_descriptors_but_of(1);
}

TEST_F(Descriptors, InsideAMessageEndTheClient) {
  RawClient b("b");
  const std::string frame = RawFrame{.type = kType, .to = "b", .body = "12345678"}.bytes("a");

  for (const std::string &bytes : {frame, zeros_ + frame, std::string(1, '\0'),
                                   frame.substr(0, 10) + zeros_, std::string("ab")}) {
    RawClient a("a");
    send_with_descriptors(a, bytes);
    EXPECT_TRUE(a.closed());
  }

  expect_no_descriptors_but_of(1);
  EXPECT_TRUE(b.drain([&](const RawFrame &got) { EXPECT_EQ("12345678", got.body); }));
}

// A full read buffer may end between the transfer's two bytes.
TEST_F(Descriptors, ArriveAtAnyPlaceInALongRow) {
  RawClient a("a");
  RawClient b("b");
  const std::string frame =
      RawFrame{.type = kType, .to = "b", .body = std::string(960, 'r')}.bytes("a");

  for (size_t extra = 0; extra < 8; ++extra) {
    // 65536 bytes, give or take a few, are there before the server reads.
    ::kill(server_->pid(), SIGSTOP);
    const size_t whole = 65;
    std::string row;
    for (size_t i = 0; i < whole; ++i) row += frame;
    row += RawFrame{.type = kType, .to = "b", .body = std::string(490 + extra, 'p')}.bytes("a");
    a.send_bytes(row);
    send_with_descriptors(a, zeros_);
    a.send({.type = kType, .to = "b", .body = "end"});
    ::kill(server_->pid(), SIGCONT);

    for (size_t i = 0; i <= whole; ++i) ASSERT_TRUE(b.receive());
    const int fd = receive_descriptor(b);
    EXPECT_GE(fd, 0) << extra;
    ::close(fd);
    const auto end = b.receive();
    ASSERT_TRUE(end);
    EXPECT_EQ("end", end->body);
  }
}

// The process.

TEST_F(Msgsvr, ServesOtherBoardsOverTcp) {
  start({"--tcp", "127.0.0.1:7070"});
  RawClient a("a");
  RawClient board("board", uint16_t{7070});

  expect_delivery(&a, &board);
  expect_delivery(&board, &a);
  board.close();
  settle();
  a.send({.type = kType, .to = "board", .sequence = 2});
  expect_undeliverable(&a, kType, 2);
}

TEST_F(Msgsvr, PrintsStatisticsAndLeavesNoSocketBehind) {
  start();
  RawClient a("web");
  a.send({.type = kType, .to = "nobody"});
  ASSERT_TRUE(a.receive());

  ::kill(server_->pid(), SIGUSR1);
  EXPECT_TRUE(server_->wait_for("1 clients of 1 connections"));
  EXPECT_TRUE(server_->wait_for("no such name 1"));
  EXPECT_TRUE(server_->wait_for("client web[" + std::to_string(::getpid()) + "]: in 2 messages"));

  EXPECT_EQ(0, server_->stop(SIGTERM));
  EXPECT_TRUE(a.closed());
  EXPECT_FALSE(std::filesystem::exists(ORP_MSG_SERVER_PATH));
}

TEST_F(Msgsvr, ReplacesADeadServersSocketButNotALivingOnes) {
  start();
  struct stat status {};
  ASSERT_EQ(0, ::stat(ORP_MSG_SERVER_PATH, &status));
  EXPECT_EQ(0666u, status.st_mode & 0777);

  test::Process second("msgsvr");
  EXPECT_EQ(1, second.wait());
  EXPECT_THAT(second.output(), testing::HasSubstr("a server is running there"));
  RawClient a("a");
  expect_delivery(&a, &a);

  server_->stop(SIGKILL);
  start();
  RawClient b("b");
  expect_delivery(&b, &b);
}

TEST_F(Msgsvr, RefusesConnectionsItHasNoDescriptorsForAndGoesOn) {
#ifdef __SANITIZE_ADDRESS__
  GTEST_SKIP() << "the sanitizer's own checks need descriptors in the server";
#endif
  start();
  // The server's limit is its hard limit, which is taken down from outside.
  const rlimit few{32, 32};
  ASSERT_EQ(0, ::prlimit(server_->pid(), RLIMIT_NOFILE, &few, nullptr));
  RawClient a("a");

  std::vector<std::unique_ptr<RawClient>> many;
  for (int i = 0; i < 40; ++i) {
    many.push_back(std::make_unique<RawClient>("many", RawClient::Register::kNo));
  }
  EXPECT_TRUE(server_->wait_for("a connection is refused"));
  expect_delivery(&a, &a);
  many.clear();
  for (int i = 0; i < 2; ++i) ASSERT_TRUE(a.drain([](const RawFrame &) {}));
  RawClient late("late");
  expect_delivery(&a, &late);
}

}  // namespace
