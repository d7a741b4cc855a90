// How events and messages of others are shown.

#include <gmock/gmock.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "msgapi/messages.h"
#include "tools/msgctl_support.h"

namespace {

using nlohmann::json;
using test::kOwnType;
using test::lines_of;
using test::Msgctl;
using test::Output;
using test::Process;
using test::RawClient;
using test::run;
using test::shell;
using test::Words;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

// Publishes until somebody has seen it: a client that is registered may not have subscribed yet.
class Publisher {
 public:
  explicit Publisher(Words words)
      : thread_([this, words = std::move(words)] {
          while (!seen_) EXPECT_EQ(0, run(words).status);
        }) {}
  ~Publisher() { stop(); }
  void stop() {
    seen_ = true;
    if (thread_.joinable()) thread_.join();
  }

 private:
  std::atomic<bool> seen_ = false;
  std::thread thread_;
};

TEST_F(Msgctl, EventsGoFromPublishToListen) {
  Process listen("msgctl", {"listen", "wan", "lan", "--json"});
  Publisher publisher({"publish", "wan", "LinkUp", "if=eth0"});
  ASSERT_TRUE(listen.wait_for("\n"));
  publisher.stop();
  EXPECT_EQ(0, run({"publish", "usb", "Plugged", "port=1"}).status);  // not listened to
  EXPECT_EQ(0, run({"publish", "lan", "Change", "--payload", "{\"ports\": [1, 2]}"}).status);
  EXPECT_EQ(0, run({"publish", "event-lan", "--raw", "hex:00ff"}).status);
  ASSERT_TRUE(listen.wait_for("00ff"));
  ASSERT_TRUE(listen.wait_for("\n"));

  const std::vector<json> events = lines_of(listen.output());
  ASSERT_LE(3u, events.size());
  EXPECT_EQ("wan", events.front()["module"]);
  EXPECT_EQ("LinkUp", events.front()["body"]["items"][0]["value"]);
  EXPECT_EQ("eth0", events.front()["body"]["items"][1]["value"]);
  const json &change = events[events.size() - 2]["body"];
  EXPECT_EQ("lan", change["Module"]);
  EXPECT_EQ(json({1, 2}), change["Payload"]["ports"]);
  EXPECT_EQ(ORP_MSG_EVENT_LAN, events.back()["type"]);
}

TEST_F(Msgctl, CountsEventsAndWaitsForOne) {
  Process waiting("msgctl", {"wait", "--event", "lan", "--timeout", "20000"});
  Process listen("msgctl", {"listen", "-n", "2", "--for", "20"});
  Publisher publisher({"publish", "lan", "Change", "port=1"});
  EXPECT_EQ(0, waiting.wait()) << waiting.output();
  EXPECT_EQ(0, listen.wait()) << listen.output();
  publisher.stop();
  EXPECT_THAT(waiting.output(), HasSubstr("EventType=Change port=1\n"));
  EXPECT_EQ(2, std::count(listen.output().begin(), listen.output().end(), '\n'));
}

TEST_F(Msgctl, ListenEndsWithItsReader) {
  const Output output = shell(
      "msgctl listen --as ears | head -1 &\n"
      "msgctl wait ears || exit\n"
      "for i in {1..100}; do\n"
      "  msgctl publish wan LinkUp if=eth0\n"
      "  msgctl wait --gone ears --timeout 100 2>/dev/null && exit\n"
      "done\nexit 9");
  EXPECT_EQ(0, output.status);
  EXPECT_THAT(output.text, HasSubstr("EventType=LinkUp if=eth0\n"));
}

TEST_F(Msgctl, SaysThatSomethingWasLostMeanwhile) {
  server_->stop(SIGTERM);
  start({"--queue", "140000"});
  RawClient deaf("deaf"), sender("sender");
  Process listen("msgctl", {"listen", "wan", "--as", "ears", "-n", "100"});
  {
    Publisher publisher({"publish", "wan", "LinkUp", "if=eth0"});
    ASSERT_TRUE(listen.wait_for("LinkUp"));
  }
  // Neither of them reads.
  ::kill(listen.pid(), SIGSTOP);
  for (int i = 0; i < 2000; ++i) {
    sender.send({.type = ORP_MSG_EVENT_WAN, .body = std::string(1000, 'x')});
    sender.send({.type = kOwnType, .to = "deaf", .body = std::string(1000, 'x')});
    while (!sender.quiet()) sender.read();
  }
  sender.drain();

  const Output output = run({"send", "deaf", "0x1234", "0", std::string(2000, 'x')});
  EXPECT_EQ(8, output.status);
  EXPECT_THAT(output.text, HasSubstr("its queue is full"));
  ::kill(listen.pid(), SIGCONT);
  EXPECT_EQ(8, listen.wait());
  EXPECT_THAT(listen.output(), HasSubstr("messages were lost"));
}

TEST_F(Msgctl, NeverPrintsHostileMessagesRaw) {
  Process serve("msgctl", {"serve", "0x1234", "--as", "mock", "--answer", "0", "-n", "1"});
  Process listen("msgctl", {"listen", "wan", "--as", "ears", "-n", "1"});
  ASSERT_EQ(0, run({"wait", "mock"}).status);
  ASSERT_EQ(0, run({"wait", "ears"}).status);
  RawClient evil("\x1b[2J\xc2\x9bx");

  evil.ask({.type = kOwnType, .to = "mock", .body = "\x1b]0;owned\x07"});
  EXPECT_EQ(0, serve.wait());
  for (int i = 0; i < 100 && ::kill(listen.pid(), 0) == 0; ++i) {
    evil.send({.type = ORP_MSG_EVENT_WAN, .body = "\x1b[31m\x7f"});
    if (evil.ask({.type = ORP_MSG_COUNT_PROCESSES, .body = test::padded("ears")}).data == 0) break;
    ::usleep(20000);
  }
  EXPECT_EQ(0, listen.wait());
  for (const std::string &text : {serve.output(), listen.output()}) {
    EXPECT_THAT(text, AllOf(HasSubstr("\\x1b[2J"), Not(HasSubstr("\x1b")), Not(HasSubstr("\x07")),
                            Not(HasSubstr("\xc2\x9b")), Not(HasSubstr("\x7f"))));
  }
}

}  // namespace
