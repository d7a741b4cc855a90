// The message server as a process, with clients that write and read raw bytes.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "msgapi.h"
#include "support/message_peer.h"
#include "support/process.h"

namespace {

using test::Frame;
using test::padded;
using test::RawClient;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

constexpr uint32_t kType = 0x1234;

class Msgsvr : public testing::Test {
 protected:
  Msgsvr() = default;
  explicit Msgsvr(const std::vector<std::string> &arguments) { start(arguments); }

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

  // Waits until the server has dealt with everything that other clients did before, also with the
  // end of their connections: a client that has been served just now may overtake those.
  static void settle() { RawClient("settle").drain(); }

  static void subscribe(RawClient *client, uint32_t type = ORP_MSG_EVENT_WLAN) {
    client->send({.type = ORP_MSG_SUBSCRIBE, .data = type});
    client->drain();
  }

  static uint32_t processes_named(RawClient *client, const std::string &name) {
    return client->ask({.type = ORP_MSG_COUNT_PROCESSES, .body = padded(name)}).data;
  }

  template <typename Procedure>
  static pid_t in_child(Procedure procedure) {
    const pid_t child = ::fork();
    if (child == 0) ::_exit(procedure() ? 0 : 1);
    return child;
  }

  static void expect_success(pid_t child) {
    int status = -1;
    EXPECT_EQ(child, ::waitpid(child, &status, 0));
    EXPECT_EQ(0, status);
  }

  static void expect_undeliverable(RawClient *client, uint32_t type, uint32_t sequence) {
    const Frame notice = client->read();
    EXPECT_EQ(ORP_MSG_UNDELIVERABLE, notice.type);
    EXPECT_EQ(type, notice.data);
    EXPECT_EQ(sequence, notice.sequence);
  }

  static void expect_delivery(RawClient *from, RawClient *to) {
    static uint32_t sequence = 7000;
    ASSERT_TRUE(
        from->send({.type = kType, .to = to->name(), .body = "ok", .sequence = ++sequence}));
    const Frame got = to->read();
    EXPECT_EQ(sequence, got.sequence);
    EXPECT_EQ("ok", got.body);
  }

  std::unique_ptr<test::Process> server_;
  ptrdiff_t idle_descriptors_ = 0;
};

TEST_F(Msgsvr, ConfirmsTheNameAndSaysWhatItWants) {
  start({"--keepalive", "30"});

  const auto reply = RawClient("web", RawClient::Register::kNo).enter();
  ASSERT_TRUE(reply);
  const uint32_t words[] = {1, 30};
  const Frame expected = {.type = ORP_MSG_REGISTER,
                          .to = "web",
                          .body = {reinterpret_cast<const char *>(words), sizeof words},
                          .sequence = 1};
  EXPECT_EQ(expected, *reply);

  const auto refusal = RawClient("mic", RawClient::Register::kNo).enter();
  ASSERT_TRUE(refusal);
  EXPECT_EQ("", refusal->to);
}

TEST_F(Msgsvr, ForwardsByNameInOrderAlsoToTheSenderItself) {
  start();
  RawClient a("a");
  RawClient b("b");

  for (uint32_t i = 0; i < 2000; ++i) {
    RawClient &to = i % 3 == 0 ? a : b;
    // The transport's flags are kept, and a body that names a file is not looked into.
    const uint32_t type = i % 2 == 0 ? kType : 0xf0000000 | kType;
    a.send({.type = type, .to = to.name(), .body = std::string(i, 'x'), .data = i});
    const Frame got = to.read();
    ASSERT_EQ(type, got.type);
    ASSERT_EQ(i, got.data);
    ASSERT_EQ(i, got.body.size());
    ASSERT_EQ("a", got.from);
  }
}

TEST_F(Msgsvr, TellsTheSenderWhatHasNoReceiver) {
  start();
  RawClient a("a");

  // The last two have a type that the server knows nothing about.
  for (const Frame &frame : {Frame{.type = 0xe0001234u, .to = "nobody", .sequence = 5},
                             {.type = kType, .to = "nobody", .body = std::string(300000, 'x')},
                             {.type = 0x7777, .to = "mic", .sequence = 7},
                             {.type = 0x7777, .body = std::string(3 << 20, 'x')}}) {
    a.send(frame);
    expect_undeliverable(&a, frame.type & ORP_MSG_TYPE_MASK, frame.sequence);
  }
  expect_delivery(&a, &a);
}

TEST_F(Msgsvr, GivesTheOldestOfSeveralProcessesTheMessages) {
  start();
  RawClient a("a");
  RawClient oldest("twin");
  RawClient younger("twin");

  uint32_t count = 2;
  for (RawClient *twin : {&oldest, &younger}) {
    EXPECT_EQ(count--, processes_named(&a, "twin"));
    expect_delivery(&a, twin);
    twin->close();
    settle();
  }
  EXPECT_EQ(0u, processes_named(&a, "twin"));
}

TEST_F(Msgsvr, ConvertsHeadersBetweenByteOrders) {
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

  server_->stop(SIGTERM);
  start({"--swap"});
  RawClient everybody("x");
  ASSERT_TRUE(everybody.swapped());
  expect_delivery(&everybody, &everybody);
}

TEST_F(Msgsvr, AsksAllProcessesOfANameToExit) {
  start();
  RawClient a("a");
  RawClient one("dhcps");
  RawClient two("dhcps");

  a.send({.type = ORP_MSG_EXIT, .body = padded("dhcps")});

  for (RawClient *client : {&one, &two}) {
    const Frame got = client->read();
    EXPECT_EQ(uint32_t{ORP_MSG_EXIT}, got.type);
    EXPECT_EQ("dhcps", got.to);
    // The acknowledgement is no request and brings no notice.
    client->send({.type = ORP_MSG_EXIT, .to = got.from});
    EXPECT_THAT(client->drain(), IsEmpty());
  }
}

TEST_F(Msgsvr, LogsAClientThatMissesThreeKeepAlives) {
  start({"--keepalive", "1"});
  RawClient silent("silent");
  RawClient excused("excused");
  excused.send({.type = ORP_MSG_STOP_WATCHDOG});

  ASSERT_TRUE(server_->wait_for("silent[" + std::to_string(::getpid()) +
                                "] has sent no keep-alive for 3 periods"));
  silent.send({.type = ORP_MSG_KEEP_ALIVE});
  EXPECT_TRUE(server_->wait_for("is alive again"));
  EXPECT_THAT(server_->output(), Not(HasSubstr("excused")));
}

TEST_F(Msgsvr, PassesEventsToWhoeverSubscribed) {
  start();
  RawClient publisher("pub");
  std::map<std::string, RawClient> clients;
  for (const char *name : {"itself", "byother", "all", "both", "none"}) clients.emplace(name, name);
  subscribe(&clients.at("itself"));
  subscribe(&clients.at("all"), ORP_MSG_ALL_EVENTS);
  subscribe(&clients.at("both"), ORP_MSG_ALL_EVENTS);
  subscribe(&clients.at("both"));
  for (const char *name : {"byother", "both"}) {
    publisher.send({.type = ORP_MSG_SUBSCRIBE, .body = padded(name), .data = ORP_MSG_EVENT_WLAN});
  }
  const auto received = [&](const char *name) {
    publisher.drain();
    std::string bodies;
    for (const Frame &frame : clients.at(name).drain()) bodies += frame.body;
    return bodies;
  };

  publisher.send({.type = ORP_MSG_EVENT_WLAN, .to = "mic", .body = "1"});
  publisher.send({.type = ORP_MSG_EVENT_WLAN, .body = "2"});
  publisher.send({.type = ORP_MSG_EVENT_WAN, .body = "3"});
  EXPECT_EQ("12", received("itself"));
  EXPECT_EQ("12", received("byother"));
  EXPECT_EQ("123", received("all"));
  EXPECT_EQ("123", received("both"));
  EXPECT_EQ("", received("none"));

  clients.at("itself").send({.type = ORP_MSG_UNSUBSCRIBE, .data = ORP_MSG_EVENT_WLAN});
  publisher.send(
      {.type = ORP_MSG_UNSUBSCRIBE, .body = padded("byother"), .data = ORP_MSG_EVENT_WLAN});
  // A subscription by name outlives the process; one of a process does not.
  clients.erase("both");
  settle();
  clients.emplace("both", "both");
  clients.at("itself").drain();
  publisher.send({.type = ORP_MSG_EVENT_WLAN, .body = "4"});
  publisher.send({.type = ORP_MSG_EVENT_WAN, .body = "5"});
  // An event that nobody wants is no failure.
  EXPECT_THAT(publisher.drain(), IsEmpty());
  EXPECT_EQ("", received("itself"));
  EXPECT_EQ("", received("byother"));
  EXPECT_EQ("45", received("all"));
  EXPECT_EQ("4", received("both"));
}

TEST_F(Msgsvr, GivesEverySubscriberItsOwnFileOfALargeEvent) {
  start();
  RawClient publisher("pub");
  RawClient one("one");
  RawClient two("two");
  for (RawClient *client : {&one, &two}) subscribe(client);
  const auto publish = [&](std::string path) {
    path.resize(ORP_MSG_HAND_OVER_PATH_SIZE);
    publisher.send(
        {.type = ORP_MSG_EVENT_WLAN | ORP_MSG_TYPE_BODY_IN_FILE, .to = "mic", .body = path});
  };
  const std::string original = std::string(ORP_MSG_HAND_OVER_PREFIX) + "77";
  std::ofstream(original) << std::string(5000, 'e');

  publish(original);

  for (RawClient *client : {&one, &two}) {
    const Frame got = client->read();
    EXPECT_EQ(ORP_MSG_EVENT_WLAN | ORP_MSG_TYPE_BODY_IN_FILE, got.type);
    ASSERT_EQ(ORP_MSG_HAND_OVER_PATH_SIZE, got.body.size());
    EXPECT_STRNE(original.c_str(), got.body.c_str());
    EXPECT_EQ(5000u, std::filesystem::file_size(got.body.c_str()));
    std::filesystem::remove(got.body.c_str());
  }
  EXPECT_TRUE(std::filesystem::is_empty("/var/run/msg"));

  // Anything but a hand-over file stays where it is and goes nowhere.
  std::ofstream("/var/run/msg/other") << "x";
  for (const char *bad : {"/var/run/msg/other", "/etc/passwd", "/var/run/msg/msg_file_../other"}) {
    publish(bad);
  }
  publisher.drain();
  EXPECT_THAT(one.drain(), IsEmpty());
  EXPECT_TRUE(std::filesystem::exists("/var/run/msg/other"));
}

TEST_F(Msgsvr, SurvivesEveryCutAndDamagedFrame) {
  start();
  RawClient a("a");
  RawClient b("b");
  const std::string frame = Frame{.type = kType, .to = "b", .body = "12345678"}.bytes("x");
  for (size_t at = 0; at < frame.size(); ++at) {
    RawClient("dying", RawClient::Register::kNo).send_bytes(frame.substr(0, at));
    for (const char value : {'\0', '\1', '\x7f', '\x80', '\xff'}) {
      std::string damaged = frame;
      damaged[at] = value;
      RawClient("hostile", RawClient::Register::kNo).send_bytes(damaged);
    }
  }
  settle();
  b.drain();
  for (const char byte : frame) a.send_bytes({&byte, 1});
  EXPECT_EQ("12345678", b.read().body);
}

TEST_F(Msgsvr, EndsOnlyTheClientOfAMalformedFrameAndSaysWhy) {
  start();
  RawClient a("a");
  RawClient b("b");
  const std::string good = Frame{.type = kType, .to = "b", .data = 1}.bytes("x");
  std::string unterminated = good;
  unterminated.replace(20, 12, 12, 'n');
  std::string too_long = good;
  const uint32_t length = ORP_MSG_MAX_BODY + 1;
  std::memcpy(&too_long[36], &length, sizeof length);

  for (const auto &[bad, why] : {std::pair(unterminated, "sent a header with an unterminated name"),
                                 std::pair(too_long, "announced a body of 134217729 bytes")}) {
    RawClient hostile("hostile");
    hostile.send_bytes(good + bad);
    EXPECT_EQ(1u, b.read().data) << "what it sent before still counts";
    EXPECT_TRUE(hostile.closed());
    EXPECT_TRUE(server_->wait_for("hostile[" + std::to_string(::getpid()) +
                                  "] is disconnected: it " + why));
  }
  expect_delivery(&a, &b);
}

// The reader stops reading: nobody else is delayed for long, and each message is either delivered
// or reported to its sender.
TEST_F(Msgsvr, AccountsForEveryMessageToASlowReader) {
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
  // Notices for what came in the same read as the first of these may follow its answer.
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

TEST_F(Msgsvr, TellsSendersOfMessagesThatWaitedForADeadReader) {
  start({"--patience", "20"});
  RawClient a("a");
  RawClient reader("reader");
  constexpr uint32_t kCount = 3000;  // more than the socket takes, so that some wait in the server
  const Frame frame = {.type = kType, .to = "reader", .body = std::string(200, 'w')};
  for (uint32_t i = 0; i < kCount; ++i) a.send(frame);
  settle();

  reader.read();
  reader.close();
  settle();

  const std::vector<Frame> told = a.drain();
  for (const Frame &notice : told) {
    ASSERT_EQ(ORP_MSG_UNDELIVERABLE, notice.type);
    ASSERT_EQ(kType, notice.data);
  }
  // The rest had been handed to the socket of a process that was there.
  EXPECT_GT(told.size(), 1000u);
  EXPECT_LT(told.size(), kCount);
}

TEST_F(Msgsvr, DelaysNobodyForASubscriberThatDoesNotRead) {
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
  // Publishers are not bothered; the loss is counted.
  EXPECT_THAT(publisher.drain(), IsEmpty());
  const size_t received = stuck.drain().size();
  EXPECT_LT(received, kCount);
  EXPECT_TRUE(server_->wait_for(std::to_string(kCount - received) + " messages for it were lost"));
}

// Everybody is busy on this machine's few processors, so that the subscribers fall behind at times.
TEST_F(Msgsvr, LosesNoneOfManyEventsForTenSubscribersThatKeepReading) {
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

// Cut-through.

class CutThrough : public Msgsvr {
 protected:
  static constexpr size_t kBody = 1000000;

  // Patient enough for a busy machine; where senders stop, they stop for good.
  CutThrough() : Msgsvr({"--stall", "2000"}) {
    std::string body(kBody, '\0');
    for (size_t i = 0; i < body.size(); ++i) body[i] = static_cast<char>(i % 251);
    frame_ = Frame{.type = kType, .to = "b", .body = body, .sequence = 11}.bytes("a");
  }

  RawClient a_{"a"};
  RawClient b_{"b"};
  RawClient c_{"c"};
  std::string frame_;
};

TEST_F(CutThrough, PassesALongFrameOnWhileItArrives) {
  a_.send_bytes(std::string_view(frame_).substr(0, 30000));
  EXPECT_EQ(frame_.substr(0, 30000), b_.receive_bytes(30000));
  // What others send meanwhile waits until the frame is whole.
  c_.send({.type = kType, .to = "b", .body = "after"});
  settle();
  in_child([&] { return a_.send_bytes(std::string_view(frame_).substr(30000)); });
  EXPECT_TRUE(frame_.substr(30000) == b_.receive_bytes(frame_.size() - 30000));
  EXPECT_EQ("after", b_.read().body);
  expect_delivery(&a_, &b_);
}

TEST_F(CutThrough, FillsTheFrameUpWhenItsSenderDies) {
  // The header is enough to open the frame.
  for (const size_t cut : {size_t{40}, size_t{41}, size_t{70000}, frame_.size() - 1}) {
    {
      RawClient dying("dying");
      in_child([&] { return dying.send_bytes(std::string_view(frame_).substr(0, cut)); });
      ASSERT_TRUE(b_.receive_bytes(cut) == frame_.substr(0, cut)) << cut;
    }
    EXPECT_TRUE(b_.receive_bytes(frame_.size() - cut) == std::string(frame_.size() - cut, '\0'));
    expect_delivery(&c_, &b_);
    EXPECT_TRUE(server_->wait_for("is cut short"));
  }
}

TEST_F(CutThrough, FillsTheFrameUpWhenItsSenderStops) {
  a_.send_bytes(std::string_view(frame_).substr(0, 90000));

  const Frame got = b_.read();

  EXPECT_EQ(kBody, got.body.size());
  EXPECT_EQ(frame_.substr(40, 89960), got.body.substr(0, 89960));
  EXPECT_EQ(std::string::npos, got.body.find_first_not_of('\0', 89960));
  expect_undeliverable(&a_, kType, 11);
  expect_delivery(&c_, &b_);
  // The rest goes nowhere, and the sender is still served.
  a_.send_bytes(std::string_view(frame_).substr(90000));
  EXPECT_THAT(a_.drain(), IsEmpty());
  expect_delivery(&a_, &b_);
}

TEST_F(CutThrough, TellsTheSenderWhenTheReceiverDies) {
  a_.send_bytes(std::string_view(frame_).substr(0, 90000));
  EXPECT_EQ(1000u, b_.receive_bytes(1000).size());
  b_.close();
  a_.send_bytes(std::string_view(frame_).substr(90000));

  expect_undeliverable(&a_, kType, 11);
  EXPECT_THAT(a_.drain(), IsEmpty());
  RawClient next("b");
  expect_delivery(&a_, &next);
}

TEST_F(CutThrough, TakesBackAFrameOfWhichNothingWasSeen) {
  // Fills b's socket, so that the frame waits behind.
  constexpr int kFilling = 300;
  const Frame filling = {.type = kType, .to = "b", .body = std::string(1000, 'f')};
  for (int i = 0; i < kFilling; ++i) c_.send(filling);
  settle();
  RawClient("dying").send_bytes(std::string_view(frame_).substr(0, 50000));
  EXPECT_TRUE(server_->wait_for("the receiver has seen nothing of it"));

  for (int i = 0; i < kFilling; ++i) ASSERT_EQ(1000u, b_.read().body.size());
  expect_delivery(&c_, &b_);
}

TEST_F(CutThrough, GivesUpAFrameWhoseReaderDoesNotRead) {
  // The sender is not held up for ever, and nobody else notices.
  a_.send({.type = kType, .to = "b", .body = std::string(8 << 20, 'l'), .sequence = 3});
  expect_delivery(&c_, &c_);
  expect_undeliverable(&a_, kType, 3);

  const Frame got = b_.read();
  EXPECT_EQ(size_t{8 << 20}, got.body.size());
  const size_t end = got.body.find_first_not_of('l');
  ASSERT_NE(std::string::npos, end);
  EXPECT_EQ(std::string::npos, got.body.find_first_not_of('\0', end));
  expect_delivery(&a_, &b_);
}

// Descriptors.

class Descriptors : public Msgsvr {
 protected:
  Descriptors() : Msgsvr({"--queue", "196608"}) {}  // of which one read takes a third

  static void send_with_descriptors(const RawClient &client, const std::string &bytes,
                                    size_t count = 1) {
    EXPECT_TRUE(test::send_with_descriptors(client.fd(), bytes, count));
  }

  // One read as ORP_MSG_RecvFd does it; whether it brought a descriptor and its two bytes alone.
  static bool receives_a_descriptor(const RawClient &client) {
    char bytes[4096];
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))];
    iovec piece{bytes, sizeof bytes};
    msghdr message{};
    message.msg_iov = &piece;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    const bool came = ::recvmsg(client.fd(), &message, MSG_CMSG_CLOEXEC) == 2;
    return came && CMSG_FIRSTHDR(&message) != nullptr;
  }

  const std::string zeros_ = std::string(2, '\0');
};

// The library at both ends.
TEST_F(Descriptors, GoWhereTheSendersLastMessageWent) {
  const pid_t receiver = in_child([] {
    ORP_MSG_HEADER_ST *announced = nullptr;
    ORP_MSG_HEADER_ST *done = nullptr;
    int fd = -1;
    char byte = 'x';
    return ORP_MSG_InitWithoutHandle("b") == ORP_OK &&
           ORP_MSG_ReceiveManual(&announced, 5000) == ORP_OK && announced->ulMsgData == 1 &&
           ORP_MSG_RecvFd(&fd, 5000) == ORP_OK && ::read(fd, &byte, 1) == 1 && byte == '\0' &&
           ORP_MSG_ReceiveManual(&done, 5000) == ORP_OK && done->ulMsgData == 2;
  });
  ASSERT_EQ(ORP_OK, ORP_MSG_InitWithoutHandle("a"));
  while (ORP_MSG_GetNumOfProcesses("b") == 0) continue;
  const int zero = ::open("/dev/zero", O_RDONLY | O_CLOEXEC);

  EXPECT_EQ(ORP_OK, ORP_MSG_SendSimpleMsg("b", kType, 1));
  EXPECT_EQ(ORP_OK, ORP_MSG_SendFd(zero));
  EXPECT_EQ(ORP_OK, ORP_MSG_SendSimpleMsg("b", kType, 2));

  expect_success(receiver);
  expect_no_descriptors_but_of(1);
  ::close(zero);
}

TEST_F(Descriptors, AreClosedWhenNobodyCanTakeThem) {
  RawClient a("a");

  send_with_descriptors(a, zeros_);  // no message went before
  expect_undeliverable(&a, ORP_MSG_REGISTER, 1);
  a.send({.type = kType, .to = "nobody", .sequence = 2});
  expect_undeliverable(&a, kType, 2);
  send_with_descriptors(a, zeros_);
  expect_undeliverable(&a, kType, 2);
  a.send({.type = kType, .to = "a", .sequence = 3});
  send_with_descriptors(a, zeros_, 2);  // one at a time
  EXPECT_EQ(3u, a.read().sequence);
  expect_undeliverable(&a, kType, 3);

  expect_delivery(&a, &a);
  expect_no_descriptors_but_of(1);
}

TEST_F(Descriptors, InsideAMessageEndTheClient) {
  RawClient b("b");
  const std::string frame = Frame{.type = kType, .to = "b", .body = "12345678"}.bytes("a");

  for (const std::string &bytes : {frame, zeros_ + frame, std::string(1, '\0'),
                                   frame.substr(0, 10) + zeros_, std::string("ab")}) {
    RawClient a("a");
    send_with_descriptors(a, bytes);
    EXPECT_TRUE(a.closed());
  }

  expect_no_descriptors_but_of(1);
  for (const Frame &got : b.drain()) EXPECT_EQ("12345678", got.body);
}

// A full read buffer may end between the transfer's two bytes.
TEST_F(Descriptors, ArriveAtAnyPlaceInALongRow) {
  RawClient a("a");
  RawClient b("b");
  const std::string frame =
      Frame{.type = kType, .to = "b", .body = std::string(960, 'r')}.bytes("a");

  for (size_t extra = 0; extra < 8; ++extra) {
    // 65536 bytes, give or take a few, are there before the server reads.
    ::kill(server_->pid(), SIGSTOP);
    const size_t whole = 65;
    std::string row;
    for (size_t i = 0; i < whole; ++i) row += frame;
    row += Frame{.type = kType, .to = "b", .body = std::string(490 + extra, 'p')}.bytes("a");
    a.send_bytes(row);
    send_with_descriptors(a, zeros_);
    a.send({.type = kType, .to = "b", .body = "end"});
    ::kill(server_->pid(), SIGCONT);

    for (size_t i = 0; i <= whole; ++i) b.read();
    EXPECT_TRUE(receives_a_descriptor(b)) << extra;
    EXPECT_EQ("end", b.read().body);
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
  a.read();

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
  EXPECT_EQ(std::filesystem::perms{0666},
            std::filesystem::status(ORP_MSG_SERVER_PATH).permissions());

  test::Process second("msgsvr");
  EXPECT_EQ(1, second.wait());
  EXPECT_THAT(second.output(), HasSubstr("a server is running there"));
  settle();

  server_->stop(SIGKILL);
  start();
  settle();
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

  std::vector<RawClient> many;
  for (int i = 0; i < 40; ++i) many.emplace_back("many", RawClient::Register::kNo);
  EXPECT_TRUE(server_->wait_for("a connection is refused"));
  expect_delivery(&a, &a);
  many.clear();
  while (open_descriptors() > idle_descriptors_ + 1) a.drain();
  RawClient late("late");
  expect_delivery(&a, &late);
}

}  // namespace
