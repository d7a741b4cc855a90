// The message server's policy with clients of several users. The kernel says who they are.

#include <gmock/gmock.h>
#include <signal.h>
#include <sys/socket.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <numeric>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "msgapi/dynapp.h"
#include "msgapi/restful.h"
#include "servers/users.h"
#include "support/file.h"
#include "support/message_peer.h"
#include "support/network.h"

namespace {

using test::Frame;
using test::kType;
using test::padded;
using test::RawClient;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

constexpr const char *kFile = test::kPolicyFile;
using test::kGroup;
using test::kUser;
constexpr uint16_t kPort = 5050;

using Trust = test::Users;

TEST_F(Trust, WithoutAFileOnlyRootMayAskForWhatIsSensitive) {
  start();
  const auto nobody = user("nobody");
  const Frame kSensitive[] = {
      {.type = ORP_MSG_RESTORE_DEFAULTS, .body = std::string(8, '\0')},
      {.type = ORP_MSG_DELETE_APPDATA},
      {.type = ORP_MSG_EXPORT_USER},
      {.type = ORP_MSG_EXPORT_CFG_FILE, .body = "/tmp/export"},
      {.type = ORP_MSG_IMPORT_CFG_FILE, .body = "/tmp/export"},
      {.type = ORP_MSG_REBOOT},
      {.type = ORP_MSG_DYNAPP_STOP_ALL},
      {.type = ORP_LCTRL_MSG_SET_MAX_FAILED, .body = std::string(8, '\0')},
      {.type = ORP_LCTRL_MSG_CLEAR_FORBIDDEN, .body = std::string(4, '\0')},
  };
  for (const Frame &request : kSensitive) expect_refusal(*nobody, request);
  EXPECT_THAT(nobody->drain(), IsEmpty());

  // Everything else is as open as ever.
  EXPECT_EQ(ORP_MSG_SAVE_CFG_SYNC, nobody->ask({.type = ORP_MSG_SAVE_CFG_SYNC}).type);
  nobody->send({.type = ORP_MSG_SYNC_POST, .body = "boot"});
  EXPECT_TRUE(registers(stranger("wifi").get()));
  RawClient root("root");
  root.send({.type = ORP_MSG_REBOOT});
  EXPECT_THAT(root.drain(), IsEmpty());
  EXPECT_EQ(0u, root.ask({.type = ORP_MSG_DYNAPP_STOP_ALL}).data);

  EXPECT_THAT(log(), AllOf(HasSubstr("of user 1234 may not ask for reboot: the built-in rules"),
                           HasSubstr("root["), HasSubstr("asks for a reboot"),
                           HasSubstr("not permitted 9")));
}

TEST_F(Trust, NamesBelongToWhomTheRulesSay) {
  start_with(R"({"allow": "own", "names": ["wifi", "cms*"], "user": "root", "group": 4321},
                {"deny": "own", "names": ["wifi", "cms*"]})");

  const auto thief = stranger("wifi");
  EXPECT_FALSE(registers(thief.get()));
  EXPECT_FALSE(registers(thief.get())) << "nor the second time";
  EXPECT_FALSE(registers(stranger("cmsd").get()));
  EXPECT_TRUE(registers(stranger("other").get()));
  RawClient asker("asker");
  EXPECT_EQ(0u, asker.ask({.type = ORP_MSG_COUNT_PROCESSES, .body = padded("wifi")}).data)
      << "nobody waits for the name to become free";
  EXPECT_TRUE(registers(stranger("wifi", {kGroup}).get())) << "by a further group";
  const RawClient root("wifi");

  const std::string text = log();
  EXPECT_EQ(1u, count(text, "may not own \"wifi\": /var/policy.json:3")) << text;
  EXPECT_EQ(1u, count(text, "may not own \"cmsd\": /var/policy.json:3")) << text;
  EXPECT_THAT(text, HasSubstr("refused by the policy 3"));
}

TEST_F(Trust, MessagesGoWhereTheRulesLetThem) {
  start_with(R"({"deny": "send", "to": "wifi", "types": ["exit", "0x1234"], "user": 1234},
                {"deny": "receive", "from": "wifi", "types": "0x2000-0x20ff", "user": 1234},
                {"deny": "send", "to": "mic", "types": "event-wan", "user": 1234})");
  RawClient wifi("wifi");
  const auto web = user("web");
  wifi.send({.type = ORP_MSG_SUBSCRIBE, .data = ORP_MSG_ALL_EVENTS});
  wifi.drain();

  for (int i = 0; i < 3; ++i) {
    expect_refusal(*web, {.type = kType, .to = "wifi", .body = "no"});
  }
  expect_refusal(*web, {.type = kType, .to = "wifi", .body = std::string(100000, 'x')});
  expect_refusal(*web, {.type = ORP_MSG_EVENT_WAN, .body = "no"});
  web->send({.type = ORP_MSG_EVENT_LAN, .body = "yes"});
  EXPECT_EQ("yes", wifi.read().body);
  web->send({.type = kType + 1, .to = "wifi", .body = "yes"});
  EXPECT_EQ("yes", wifi.read().body);

  expect_refusal(wifi, {.type = 0x2010, .to = "web", .body = "no"});
  wifi.send({.type = 0x2110, .to = "web", .body = "yes"});
  EXPECT_EQ("yes", web->read().body);
  // A descriptor after a refused message is dropped.
  expect_refusal(*web, {.type = kType, .to = "wifi"});
  test::send_with_descriptors(web->fd(), std::string(2, '\0'));
  web->expect(notice(kType, "web"));
  EXPECT_TRUE(wifi.quiet());

  const std::string text = log();
  EXPECT_EQ(1u, count(text, "may not send 0x1234 to \"wifi\": /var/policy.json:2")) << text;
  EXPECT_EQ(1u, count(text, "may not receive 0x2010 from \"wifi\": /var/policy.json:3")) << text;
}

TEST_F(Trust, VerdictsFollowNames) {
  start_with(R"({"deny": "send", "to": "safe", "types": "0x1234"},
                {"deny": "receive", "from": "loud", "types": "0x1234"})");
  RawClient a("a");
  RawClient b("b");
  const auto call_b = [&](const std::string &name) {
    b = RawClient(name);
    a.send({.type = kType, .to = name});
    return a.drain().size();
  };
  EXPECT_EQ(0u, call_b("b"));
  EXPECT_EQ(1u, call_b("safe"));
  EXPECT_EQ(0u, call_b("b"));

  // The same connections under other names.
  b.drain();
  a.send({.type = kType, .to = "b"});
  EXPECT_EQ(kType, b.read().type);
  ASSERT_TRUE(a.send_bytes(Frame{.type = ORP_MSG_REGISTER, .sequence = 1}.bytes("loud")));
  EXPECT_EQ("loud", a.read().to);
  a.send_bytes(Frame{.type = kType, .to = "b"}.bytes("loud"));
  a.expect(notice(kType, "loud"));
  ASSERT_TRUE(b.send_bytes(Frame{.type = ORP_MSG_REGISTER, .sequence = 1}.bytes("safe")));
  EXPECT_EQ("safe", b.read().to);
  RawClient c("c");
  expect_refusal(c, {.type = kType, .to = "safe"});
}

TEST_F(Trust, NobodyForgesTheServersWords) {
  start();
  RawClient victim("victim");
  const auto forger = user("forger");
  for (const char *sender : {"mic", "", "forger"}) {
    forger->send_bytes(
        Frame{.type = ORP_MSG_UNDELIVERABLE, .to = "victim", .data = 7}.bytes(sender));
    forger->expect(notice(ORP_MSG_UNDELIVERABLE, "forger"));
  }
  for (const char *sender : {"mic", ""}) {
    forger->send_bytes(Frame{.type = ORP_MSG_EXIT, .to = "victim"}.bytes(sender));
    forger->expect(notice(ORP_MSG_EXIT, "forger"));
  }
  // Nor as an event to which it has subscribed its victim.
  forger->send(
      {.type = ORP_MSG_SUBSCRIBE, .body = padded("victim"), .data = ORP_MSG_UNDELIVERABLE});
  forger->drain();
  expect_refusal(*forger, {.type = ORP_MSG_UNDELIVERABLE, .to = "mic", .data = 7});
  EXPECT_TRUE(victim.quiet());
  // In its own name an application may ask another to end.
  forger->send({.type = ORP_MSG_EXIT, .to = "victim"});
  EXPECT_EQ("forger", victim.read().from);
  const std::string text = log();
  EXPECT_EQ(1u, count(text, "says what only the server does, which nobody may")) << text;
  EXPECT_THAT(text, HasSubstr("refused by the policy 6"));
}

TEST_F(Trust, ASubscriptionIsNoWayRoundTheRules) {
  start_with(R"({"deny": "send", "to": "wifi", "types": "0x1000-0x10ff", "user": 1234})");
  RawClient wifi("wifi");
  RawClient lamp("lamp");
  const auto nobody = user("nobody");
  for (const char *name : {"wifi", "lamp"}) {
    nobody->send({.type = ORP_MSG_SUBSCRIBE, .body = padded(name), .data = 0x1000});
  }
  nobody->drain();
  nobody->send({.type = 0x1000, .to = "mic"});
  EXPECT_EQ(0x1000u, lamp.read().type);
  EXPECT_TRUE(wifi.quiet());
}

TEST_F(Trust, WithoutAFileForeignSendersAreLoggedAndCounted) {
  start();
  RawClient victim("victim");
  const auto proxy = user("proxy");
  for (int i = 0; i < 3; ++i) {
    proxy->send_bytes(Frame{.type = kType, .to = "victim"}.bytes("lamp"));
    EXPECT_EQ("lamp", victim.read().from) << "as it was sent";
  }
  const std::string text = log();
  EXPECT_EQ(1u, count(text, "of user 1234 sends as \"lamp\"")) << text;
  EXPECT_THAT(text, HasSubstr("foreign senders 3"));
}

TEST_F(Trust, WithAFileMessagesBearTheirSendersName) {
  start_with(R"({"allow": "speak-for", "names": "lamp?", "user": 1234})");
  RawClient victim("victim");
  const auto proxy = user("proxy");
  const auto sender_of = [&](const std::string &name, size_t size = 3) {
    proxy->send_bytes(
        Frame{.type = kType, .to = "victim", .body = std::string(size, 'b')}.bytes(name));
    const Frame frame = victim.read();
    EXPECT_EQ(size, frame.body.size());
    return frame.from;
  };
  EXPECT_EQ("lamp1", sender_of("lamp1"));
  EXPECT_EQ("proxy", sender_of("wifi"));
  EXPECT_EQ("proxy", sender_of("mic"));
  EXPECT_EQ("proxy", sender_of(""));
  EXPECT_EQ("proxy", sender_of("wifi", 30000)) << "kept until it is whole";
  EXPECT_EQ("proxy", sender_of("wifi", 300000)) << "passed on as it arrives";
  EXPECT_EQ("lamp2", sender_of("lamp2", 300000));

  // A client without a name speaks for nobody, and certainly not for the server.
  const auto nameless = stranger("");
  for (const char *sender : {"", "mic", "wifi", "lamp1"}) {
    nameless->send_bytes(Frame{.type = kType, .to = "victim"}.bytes(sender));
  }
  EXPECT_EQ("lamp1", victim.read().from);
  EXPECT_EQ(3u, nameless->drain().size());
  EXPECT_TRUE(victim.quiet());
}

TEST_F(Trust, EventsReachOnlyWhoMayHaveThem) {
  start_with(R"({"deny": "subscribe", "types": "event-wan", "user": 1234},
                {"deny": "subscribe-others", "names": "wifi", "user": 1234},
                {"deny": "receive", "from": "loud", "user": 1234})");
  RawClient wifi("wifi");
  RawClient loud("loud");
  const auto web = user("web");
  expect_refusal(*web, {.type = ORP_MSG_SUBSCRIBE, .data = ORP_MSG_EVENT_WAN});
  expect_refusal(*web,
                 {.type = ORP_MSG_SUBSCRIBE, .body = padded("wifi"), .data = ORP_MSG_EVENT_LAN});
  wifi.send({.type = ORP_MSG_SUBSCRIBE, .body = padded("wifi"), .data = ORP_MSG_EVENT_USB});
  wifi.drain();
  expect_refusal(*web,
                 {.type = ORP_MSG_UNSUBSCRIBE, .body = padded("wifi"), .data = ORP_MSG_EVENT_USB});
  // "All events" are those that the client may have.
  web->send({.type = ORP_MSG_SUBSCRIBE, .data = ORP_MSG_ALL_EVENTS});
  web->send({.type = ORP_MSG_SUBSCRIBE, .body = padded("web"), .data = ORP_MSG_EVENT_DHCP});
  EXPECT_THAT(web->drain(), IsEmpty());

  for (int round = 0; round < 2; ++round) {
    wifi.send({.type = ORP_MSG_EVENT_WAN, .body = "no"});
    wifi.send({.type = ORP_MSG_EVENT_LAN, .body = "lan"});
    wifi.send({.type = ORP_MSG_EVENT_USB, .body = "usb"});
    loud.send({.type = ORP_MSG_EVENT_LAN, .body = "no"});
    EXPECT_EQ("usb", wifi.read().body) << "the subscription is still there";
    EXPECT_EQ("lan", web->read().body);
    EXPECT_EQ("usb", web->read().body);
    EXPECT_THAT(loud.drain(), IsEmpty()) << "publishers are not told";
    EXPECT_TRUE(web->quiet());
  }
  EXPECT_THAT(log(), HasSubstr("may not subscribe \"wifi\" to event-lan"));
}

TEST_F(Trust, ServicesAreForWhomTheRulesSay) {
  start_with(R"({"allow": "service", "services": ["reboot", "login-limits"], "user": 1234},
                {"deny": "service", "services": ["sync-points", "exit-others"], "user": 1234})");
  RawClient wifi("wifi");
  const auto web = user("web");
  web->send({.type = ORP_MSG_REBOOT});
  EXPECT_THAT(web->drain(), IsEmpty());
  expect_refusal(*web, {.type = ORP_MSG_DELETE_APPDATA});
  expect_refusal(*web, {.type = ORP_MSG_SYNC_POST, .body = "boot"});
  expect_refusal(*web, {.type = ORP_MSG_EXIT, .body = padded("wifi")});
  web->send({.type = ORP_MSG_EXIT, .body = padded("web")});
  EXPECT_EQ(ORP_MSG_EXIT, web->read().type) << "itself it may end";
  EXPECT_TRUE(wifi.quiet());
}

// The application asks with msgctl, as a user who may not stop others.
TEST_F(Trust, ADynamicApplicationMayStopItself) {
  const char *bin = ::getenv("MSGAPI_BIN");
  std::ofstream("/var/apps.json")
      << R"({"applications": [{"name": "dyn", "user": "nobody", "listen": "unix:/var/dyn.sock",)"
      << "\"executable\": \"" << (bin == nullptr ? "." : bin) << "/msgctl\","
      << R"("arguments": ["send", "server", "dynapp-update", "1", "dyn"]}]})";
  start({"--apps", "/var/apps.json"});
  const auto web = user("web");
  expect_refusal(*web,
                 {.type = ORP_MSG_DYNAPP_UPDATE, .body = padded("dyn"), .data = ORP_DYNAPP_OFF});
  web->send({.type = ORP_MSG_DYNAPP_UPDATE, .body = padded("dyn"), .data = ORP_DYNAPP_ON});
  EXPECT_THAT(web->drain(), IsEmpty());

  const std::string socket = "/var/dyn.sock";
  const RawClient trigger("trigger", RawClient::Register::kNo, socket);
  ASSERT_TRUE(server_->wait_for("dyn has ended"));
  EXPECT_FALSE(std::filesystem::exists(socket)) << "the server does not listen for it any more";
  EXPECT_EQ(1u, count(log(), "may not ask for application-stop"));
}

TEST_F(Trust, BoardsAreKnownByTheAddressWhereTheyComeIn) {
  start_with(R"({"deny": "own", "names": "wifi", "board": "127.0.0.1:5050"},
                {"deny": "send", "user": 0, "group": 0, "types": "0x1234"})",
             {"--tcp", "127.0.0.1:5050"});
  RawClient board("board", kPort);
  RawClient local("local");

  EXPECT_THAT(server_->output(), Not(HasSubstr("may not")));
  board.send({.type = kType, .to = "local"});
  EXPECT_EQ("board", local.read().from) << "no user, whatever its process is";
  expect_refusal(local, {.type = kType, .to = "board"});
  expect_refusal(board, {.type = ORP_MSG_REBOOT});
  board.send_bytes(Frame{.type = ORP_MSG_REGISTER, .sequence = 1}.bytes("wifi"));
  EXPECT_EQ("", board.read().to);
  EXPECT_TRUE(registers(stranger("wifi").get()));
}

TEST_F(Trust, HttpRequestsAreJudgedByMethodAndPath) {
  start_with(R"({"allow": "http", "methods": "GET", "paths": "/dev/*"},
                {"deny": "http", "paths": "/dev/*"})",
             {"--http", "8080"});
  RawClient app("app");
  app.send({.type = ORP_MSG_RESTFUL_REGISTER, .body = std::string("/dev/info\0", 10)});
  app.drain();
  for (int i = 0; i < 2; ++i) EXPECT_EQ("403", status_of("-X POST -d x", "/dev/info"));
  EXPECT_THAT(test::contents("/var/body"), HasSubstr("not permitted"));
  EXPECT_TRUE(app.quiet());
  std::thread answers([&] {
    const Frame request = app.read();
    app.answer(request, 0, std::string("fine\0", 5));
  });
  EXPECT_EQ("200", status_of("", "/dev/info"));
  answers.join();
  EXPECT_EQ(1u, count(log(), "may not request POST /dev/info")) << "once for each rule";
}

TEST_F(Trust, RequestsOfApplicationsAreJudgedAsMessages) {
  start_with(R"({"deny": "send", "to": "app", "types": "restful-request", "user": 1234})");
  RawClient app("app");
  app.send({.type = ORP_MSG_RESTFUL_REGISTER, .body = std::string("/dev/info|/dev/set\0", 19)});
  app.drain();
  RawClient root("root");
  const auto web = user("web");
  const ORP_MSG_RESTFUL_REQ_ST head{0, 0, "/dev", "info"};
  const Frame request = {.type = ORP_MSG_RESTFUL_REQUEST, .body = bytes_of(head) + '\0'};

  expect_refusal(*web, request);
  EXPECT_TRUE(app.quiet());
  root.send(request);
  EXPECT_EQ("root", app.read().from);
}

// A rule about messages to the server says nothing about what another action is for.
TEST_F(Trust, RegistrationsAndSubscriptionsAreNoMessagesToTheServer) {
  start_with(R"({"deny": "send", "to": "mic", "user": 1234},
                {"deny": "send", "to": "wifi", "types": ["subscribe", "reboot"]})");
  RawClient wifi("wifi");
  const auto web = user("web");
  web->send({.type = ORP_MSG_SUBSCRIBE, .data = ORP_MSG_EVENT_LAN});
  expect_refusal(*web, {.type = ORP_MSG_REBOOT});
  expect_refusal(*web, {.type = ORP_MSG_COUNT_PROCESSES, .body = padded("web")});
  wifi.send({.type = ORP_MSG_EVENT_LAN, .body = "lan"});
  EXPECT_EQ("lan", web->read().body);
  // Between applications these types are messages like any other.
  for (const uint32_t type : {ORP_MSG_SUBSCRIBE, ORP_MSG_REBOOT}) {
    expect_refusal(*web, {.type = type, .to = "wifi"});
  }
  EXPECT_TRUE(wifi.quiet());
  const std::string text = log();
  EXPECT_THAT(text, AllOf(HasSubstr("may not ask for reboot: "),
                          HasSubstr("to \"mic\": /var/policy.json:2")));
}

// The kernel tells all of them, in as many bytes as they take.
TEST_F(Trust, GroupsCountHoweverManyThereAre) {
  start_with(
      R"({"allow": "own", "names": "wifi", "group": 4321}, {"deny": "own", "names": "wifi"})");
  std::vector<gid_t> groups(100);
  std::iota(groups.begin(), groups.end(), 5000);
  groups.push_back(kGroup);
  EXPECT_TRUE(registers(stranger("wifi", groups).get()));
}

// What is kept about a client is bounded: its answers are found anew, and the log stops.
TEST_F(Trust, AClientThatAsksForEverythingIsJudgedAllTheSame) {
  start_with(R"({"deny": "send", "to": "wifi", "types": "0x1000-0x1fff"},
                {"deny": "own", "names": "no*"})");
  RawClient wifi("wifi");
  const auto web = user("web");
  for (uint32_t round = 0; round < 2; ++round) {
    for (uint32_t type = 0x2000 - 300; type < 0x2000 + 300; ++type) {
      web->send({.type = type, .to = "wifi"});
      if (type < 0x2000) {
        web->expect(notice(type, "web"));
      } else {
        EXPECT_EQ(type, wifi.read().type);
      }
    }
  }
  EXPECT_TRUE(wifi.quiet());
  EXPECT_TRUE(registers(stranger("").get())) << "no name is nobody's";
  const std::string text = log();
  EXPECT_EQ(1u, count(text, "may not send")) << text;
  EXPECT_THAT(text, HasSubstr("refused by the policy 600"));
}

TEST_F(Trust, TheLogNamesNotEveryRuleThatRefusesAClient) {
  std::string rules;
  for (int i = 0; i < 100; ++i) {
    rules += "{\"deny\": \"send\", \"to\": \"n" + std::to_string(i) + "\"},\n";
  }
  start_with(rules + R"({"allow": "send"})");
  RawClient client("client");
  std::vector<std::unique_ptr<RawClient>> receivers;
  for (int i = 0; i < 100; ++i) {
    receivers.push_back(std::make_unique<RawClient>("n" + std::to_string(i)));
    expect_refusal(client, {.type = kType, .to = receivers.back()->name()});
  }
  const std::string text = log();
  EXPECT_EQ(64u, count(text, " may not send ")) << text;
  EXPECT_THAT(text, HasSubstr("refused by the policy 100"));
}

TEST_F(Trust, BoardsComeFromListedNetworks) {
  test::run("ip address add 10.9.8.7/24 dev lo");
  test::run("ip address add 10.9.9.7/24 dev lo");
  start({"--tcp", "0.0.0.0:5050", "--tcp-from", "10.9.8.0/24", "--tcp-from", "fd00::/8"});
  const auto from = [](const char *address) {
    return test::MessagePeer(test::connect_to(kPort, address), false, "board");
  };
  test::MessagePeer listed = from("10.9.8.7");
  listed.send({.type = ORP_MSG_REGISTER, .sequence = 1});
  EXPECT_EQ("board", listed.read().to);
  EXPECT_TRUE(from("10.9.9.7").closed());
  EXPECT_TRUE(from("127.0.0.1").closed());
  EXPECT_THAT(log(), AllOf(HasSubstr("10.9.9.7:"), HasSubstr("of no network that is served")));

  // A client that has gone when the server looks: its address is not known any more.
  start({"--tcp", "0.0.0.0:5050", "--tcp-from", "10.9.8.0/24"});
  RawClient victim("victim");
  ::kill(server_->pid(), SIGSTOP);
  {
    test::MessagePeer gone = from("10.9.9.7");
    gone.send({.type = kType, .to = "victim"});
    const linger reset{1, 0};
    ::setsockopt(gone.fd(), SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
  }
  ::kill(server_->pid(), SIGCONT);
  EXPECT_TRUE(victim.quiet());
  EXPECT_EQ(0, server_->stop(SIGTERM));
}

TEST_F(Trust, ReloadsWholeOrNotAtAll) {
  start_with(R"({"deny": "own", "names": "wifi", "user": 1234})");
  const auto old = user("old");
  EXPECT_FALSE(registers(stranger("wifi").get()));

  std::ofstream(kFile) << "{\"default\": \"allow\",\n\"rules\": [\n{\"deny\": \"owe\"}]}";
  ::kill(server_->pid(), SIGHUP);
  ASSERT_TRUE(server_->wait_for("the policy stays as it was: /var/policy.json:3: 'owe' is not"));
  EXPECT_FALSE(registers(stranger("wifi").get()));

  write(R"({"deny": "send", "to": "old"})");
  ::kill(server_->pid(), SIGHUP);
  ASSERT_TRUE(server_->wait_for("/var/policy.json: 1 rules"));
  const auto wifi = user("wifi");
  expect_refusal(*wifi, {.type = kType, .to = "old"});

  write("");
  ::kill(server_->pid(), SIGHUP);
  ASSERT_TRUE(server_->wait_for("/var/policy.json: 0 rules"));
  wifi->send({.type = kType, .to = "old"});
  EXPECT_EQ("wifi", old->read().from);
}

// Each message is judged by the old rules or by the new ones, and none is lost otherwise.
TEST_F(Trust, ReloadsUnderLoad) {
  start_with("");
  RawClient reader("reader");
  const auto writer = user("writer");
  size_t sent = 0;
  size_t refused = 0;
  size_t got = 0;
  const auto exchange = [&] {
    for (int i = 0; i < 10; ++i) {
      writer->send({.type = kType, .to = "reader", .sequence = static_cast<uint32_t>(++sent)});
    }
    refused += writer->drain().size();
    got += reader.drain().size();
  };
  exchange();
  EXPECT_EQ(10u, got);

  std::atomic<bool> done = false;
  std::thread reloads([&] {
    // The last one refuses.
    for (int i = 0; i <= 20; ++i) {
      std::string rules;
      for (int n = 0; n < i * 50; ++n) {
        rules += "{\"deny\": \"send\", \"to\": \"n" + std::to_string(n) + "\"},\n";
      }
      write(rules + (i % 2 == 0 ? R"({"deny": "send", "to": "reader", "types": "0x1234"})"
                                : R"({"allow": "send"})"));
      ::kill(server_->pid(), SIGHUP);
      EXPECT_TRUE(server_->wait_for(" " + std::to_string(i * 50 + 1) + " rules")) << i;
    }
    done = true;
  });
  // The last rules take effect soon after their log line.
  for (int after = 0; !done || ((sent < 1000 || refused == 0) && after < 1000);) {
    exchange();
    if (done) ++after;
  }
  reloads.join();
  EXPECT_EQ(sent, refused + got);
  EXPECT_GT(refused, 0u);
}

TEST_F(Trust, AServerWithABadPolicyDoesNotStart) {
  std::ofstream(kFile) << "{";
  for (const auto &[path, complaint] :
       {std::pair(kFile, ":1: "), std::pair("/var/none.json", ": No such file")}) {
    test::Process server("msgsvr", {"--policy", path});
    EXPECT_EQ(1, server.wait());
    EXPECT_THAT(server.output(), HasSubstr(std::string(path) + complaint));
  }
}

}  // namespace
