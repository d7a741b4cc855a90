// Requests and their answers, and the other things that an application does.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "msgapi/messages.h"
#include "msgapi/restful.h"
#include "tools/msgctl_support.h"

namespace {

using nlohmann::json;
using test::Application;
using test::Frame;
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
using testing::StartsWith;

void twice(RawClient &self, const Frame &request) {
  if (request.type == kOwnType) self.answer(request, 2 * request.data, request.body);
}

TEST_F(Msgctl, CallPrintsTheAnswer) {
  const Application echo("echo", twice);

  EXPECT_EQ("42\n", run({"call", "echo", "0x1234", "21"}).text);
  EXPECT_EQ("2 hello there\n", run({"call", "echo", "0x1234", "1", "hello there"}).text);
  EXPECT_EQ("0 hex 0aff\n", run({"call", "echo", "0x1234", "0", "hex:0aff"}).text);
  EXPECT_EQ("0 a=1 b=two\n", run({"call", "echo", "0x1234", "--dm", "a=1", "--dm", "b=two"}).text);
  EXPECT_EQ(std::string("x\0", 2), run({"call", "echo", "0x1234", "0", "x", "--raw"}).text);

  const json answer =
      json::parse(run({"call", "echo", "0x1234", "4", "json:{\"a\":[1]}", "--json"}).text);
  EXPECT_EQ("echo", answer["from"]);
  EXPECT_EQ(8, answer["data"]);
  EXPECT_EQ(json({{"a", {1}}}), answer["body"]);
  EXPECT_GT(answer["took_ms"], 0.0);

  // Bodies of any length come back, long ones in hand-over files.
  Process served("msgctl", {"serve", "0x1234", "--as", "served", "--echo", "--quiet"});
  ASSERT_EQ(0, run({"wait", "served"}).status);
  const std::string large(300000, 'x');
  std::ofstream("/var/large") << large;
  EXPECT_TRUE(large == run({"call", "served", "0x1234", "0", "@/var/large", "--raw"}).text);
  EXPECT_EQ("0 from stdin\n", shell("printf 'from stdin' | msgctl call echo 0x1234 0 -").text);

  // The server, by the names of its types.
  EXPECT_EQ("1\n", run({"call", "server", "count-processes", "0", "echo"}).text);
}

TEST_F(Msgctl, SaysByItsStatusWhatWentWrong) {
  const Application silent("silent", [](RawClient &, const Frame &) {});
  struct {
    Words words;
    int status;
    const char *complaint;
  } const cases[] = {
      {{"call", "nobody", "0x1234"}, 4, "no application is registered as 'nobody'"},
      {{"send", "nobody", "0x1234"}, 4, "no application is registered as 'nobody'"},
      {{"call", "server", "0x1234"}, 4, "has no use for"},
      {{"call", "silent", "no-such-type"}, 4, "'no-such-type' is no message type"},
      {{"call", "silent", "0x1234", "--timeout", "1000"}, 5, "did not answer"},
      {{"call", "silent", "0x1234", "0", "hex:0g"}, 6, "hexadecimal"},
      {{"call", "silent", "0x1234", "0", "json:{"}, 6, "no JSON"},
      {{"call", "silent", "0x1234", "0", "@/no/file"},
       6,
       "/no/file cannot be opened: No such file"},
      {{"call", "server", "count-processes", "0", "twelve-chars"}, 6, "11 characters"},
      {{"call", "silent", "0x1234", "x"}, 2, "'x' is no data word"},
      {{"call", "silent", "0x1234", "0", "body", "--dm", "a=b"}, 2, "not both"},
      {{"call", "a-name-too-long", "0x1234"}, 2, "1 to 11 characters"},
      {{"call", "silent", "0x1234", "--as", "a-name-too-long"}, 2, "1 to 11 characters"},
      {{"call", "silent", "0x1234", "--as", "silent"}, 2, "another client has the name"},
      {{"call", "silent", "0x1234", "--as", "mic"}, 7, "does not register 'mic'"},
      {{"call", "server", "check-cfg-file", "0", "/tmp/none"}, 1, "answered"},
      {{"get", "/no/such/path"}, 4, "no application serves /no/such/path"},
      {{"get", "path"}, 2, "begins with /"},
      {{"wait", "nobody", "--timeout", "1000"}, 5, "'nobody' is not there"},
      {{"wait", "--gone", "silent", "--timeout", "1000"}, 5, "is still there"},
      {{"wait", "--event", "wan", "--timeout", "1000"}, 5, "no event 'wan' came"},
      {{"wait", "--event", "nonsense"}, 4, "'nonsense' is no event"},
      {{"wait"}, 2, "wait for one thing"},
      {{"exit", "nobody"}, 4, "'nobody'"},
      {{"sync", "wait", "never", "--timeout", "1000"}, 5, "nobody released"},
      {{"sync", "post", std::string(256, 'x')}, 2, "255 characters"},
      {{"ping", "silent"}, 2, "--type"},
      {{"ping", "silent", "--type", "0x1234", "--timeout", "1000"}, 5, "did not answer"},
      {{"publish", "wan"}, 2, "say what happened"},
      {{"publish", "wan", "LinkUp"}, 2, "needs an item"},
      {{"publish", "wan", "LinkUp", "--payload", "[1]"}, 6, "no JSON object"},
      {{"listen", "wan", "-n", "1", "--for", "1"}, 5, "0 of 1 events"},
      {{"serve", "0x1234"}, 2, "say what to answer"},
      {{"notify", "nonsense"}, 2, "is not 'modules'"},
      {{"notify", "request", "nonsense", "1"}, 4, "no module"},
      {{"notify", "request", "8", "1"}, 3, "start notifyserver"},
      {{"list"}, 3, "cannot be asked about itself"},
      {{"status", "0x10004xx"}, 2, "no status"},
      {{"nonsense"}, 2, "subcommand"},
  };
  ::unlink("/var/run/msgsvr.admin");
  for (const auto &c : cases) {
    const Output output = run(c.words);
    EXPECT_EQ(c.status, output.status) << c.words[0] << ": " << output.text;
    EXPECT_THAT(output.text, HasSubstr(c.complaint));
    Words words = c.words;
    words.push_back("--json");
    const json error = json::parse(run(words).text, nullptr, false);
    if (c.words.front() != "call" || c.status != 1) {
      EXPECT_EQ(c.status, error.is_object() ? error["status"] : json()) << c.words[0];
    }
  }
}

TEST(MsgctlAlone, SaysThatThereIsNoServer) {
  for (const Words &words : std::vector<Words>{{"call", "x", "1"},
                                               {"listen"},
                                               {"wait", "--gone", "x"},
                                               {"wait", "x", "--timeout", "100"},
                                               {"ping"},
                                               {"list"},
                                               {"get", "/a/b"},
                                               {"stats"}}) {
    const Output output = run(words);
    EXPECT_EQ(3, output.status) << words[0];
    EXPECT_THAT(output.text, HasSubstr("msgsvr")) << words[0];
    EXPECT_EQ(1, std::count(output.text.begin(), output.text.end(), '\n')) << output.text;
  }
}

TEST(MsgctlAlone, DoesNotWaitLongerThanAskedForAServerThatHangs) {
  test::FakeServer server([](test::MessagePeer &peer) { EXPECT_TRUE(peer.closed()); });
  const Output output = run({"count", "x", "--timeout", "200", "--json"});
  EXPECT_EQ(5, output.status);
  EXPECT_EQ(5, json::parse(output.text)["status"]);
}

TEST_F(Msgctl, EndsWhenTheServerIsKilled) {
  Process listen("msgctl", {"listen", "--as", "ears"});
  ASSERT_EQ(0, run({"wait", "ears"}).status);
  const Application silent("silent", [](RawClient &, const Frame &) {});
  Process call("msgctl", {"call", "silent", "0x1234", "--as", "caller"});
  ASSERT_EQ(0, run({"wait", "caller"}).status);

  server_->stop(SIGKILL);

  for (Process *process : {&listen, &call}) {
    EXPECT_EQ(3, process->wait());
    EXPECT_THAT(process->output(), HasSubstr("the message server ended the connection"));
  }
  EXPECT_EQ(3, run({"count", "x"}).status);  // the socket is still there
}

TEST_F(Msgctl, SendReachesItsReceiver) {
  RawClient receiver("receiver");

  EXPECT_EQ("", run({"send", "receiver", "0x1234", "7", "text"}).text);
  receiver.expect(
      {.type = kOwnType, .to = "receiver", .body = std::string("text\0", 5), .data = 7});
  EXPECT_EQ(5,
            json::parse(run({"send", "receiver", "0x1234", "7", "text", "--json"}).text)["length"]);
  EXPECT_THAT(run({"send", "receiver", "0x1234", "--as", "someone"}),
              testing::Field(&Output::status, 0));
  receiver.read();
  EXPECT_EQ("someone", receiver.read().from);
}

TEST_F(Msgctl, ServeAnswersAsAnApplication) {
  Process fixed("msgctl", {"serve", "0x1234", "--as", "fixed", "--answer", "7", "--body", "yes"});
  Process program("msgctl", {"serve", "0x1234", "--as", "program", "--exec", "bash", "--", "-c",
                             "echo \"$MSG_FROM $MSG_TYPE $MSG_DATA $MSG_LENGTH $(cat)\"; exit 3"});
  Process slow("msgctl", {"serve", "0x1234", "--as", "slow", "--exec", "sleep", "--timeout", "100",
                          "--", "60"});
  for (const char *name : {"fixed", "program", "slow"}) ASSERT_EQ(0, run({"wait", name}).status);

  EXPECT_EQ("7 yes\n", run({"call", "fixed", "0x1234"}).text);
  // No body is ever given to a shell.
  EXPECT_THAT(run({"call", "program", "0x1234", "5", "$(touch /var/owned)", "--as", "me"}).text,
              StartsWith("3 me 0x1234 5 20 $(touch /var/owned)"));
  EXPECT_NE(0, ::access("/var/owned", F_OK));
  EXPECT_EQ(5, run({"call", "slow", "0x1234", "--timeout", "1000"}).status);
  EXPECT_TRUE(slow.wait_for("sleep was ended"));

  // It reports a request of another type, and obeys a request to exit.
  run({"send", "fixed", "0x777"});
  EXPECT_TRUE(fixed.wait_for("which is not served"));
  EXPECT_EQ(0, run({"exit", "fixed"}).status);
  EXPECT_EQ(0, fixed.wait());
}

TEST_F(Msgctl, ServeEchoesAndPingMeasures) {
  Process echo("msgctl", {"serve", "0x1234", "--as", "echo", "--echo", "--quiet"});
  ASSERT_EQ(0, run({"wait", "echo"}).status);

  for (const Words &words :
       {Words{"ping", "-n", "50", "--json"},
        Words{"ping", "echo", "--type", "0x1234", "-n", "50", "--size", "3000", "--json"}}) {
    const Output output = run(words);
    ASSERT_EQ(0, output.status) << output.text;
    const json said = json::parse(output.text);
    EXPECT_EQ(50, said["round_trips"]);
    EXPECT_LE(said["min_ns"], said["median_ns"]);
    EXPECT_LE(said["median_ns"], said["p99_ns"]);
    EXPECT_LE(said["p99_ns"], said["max_ns"]);
    EXPECT_GT(said["per_second"], 0);
  }
  EXPECT_THAT(run({"ping", "-n", "5"}).text, StartsWith("5 round trips: min "));

  ::kill(echo.pid(), SIGSTOP);
  EXPECT_EQ(5, run({"ping", "echo", "--type", "0x1234", "--timeout", "100"}).status);
}

TEST_F(Msgctl, RestfulRequestsReachTheirHandler) {
  RawClient web("web");
  std::thread handler([&] {
    web.send({.type = ORP_MSG_RESTFUL_REGISTER, .body = std::string("/dev\0", 5)});
    for (int i = 0; i < 3; ++i) {
      const Frame request = web.read();
      ORP_MSG_RESTFUL_REQ_ST head;
      std::memcpy(&head, request.body.data(), sizeof head);
      const std::string text = request.body.substr(sizeof head);
      web.answer(request, 0,
                 R"({"method":)" + std::to_string(head.ulCode) + R"(,"handler":")" +
                     head.aucHandler + R"(","text":")" + text.c_str() + "\"}\n\x1b[2J");
    }
  });
  while (run({"get", "/dev/info?a=1", "--timeout", "2000"}).status == 4) {
  }
  EXPECT_EQ("{\"method\":2,\"handler\":\"name\",\"text\":\"new\"}\n\\x1b[2J\n",
            run({"put", "/dev/name", "new"}).text);
  const json said = json::parse(run({"delete", "/dev/name", "--json"}).text);
  EXPECT_EQ("web", said["from"]);
  handler.join();
}

TEST_F(Msgctl, WaitsAndSynchronises) {
  Process there("msgctl", {"wait", "later", "--timeout", "10000"});
  Process point("msgctl", {"sync", "wait", "boot", "--as", "point"});
  ASSERT_EQ(0, run({"wait", "point"}).status);
  auto later = std::make_unique<RawClient>("later");
  EXPECT_EQ(0, there.wait());
  EXPECT_EQ("1\n", run({"count", "later"}).text);
  EXPECT_EQ(1, json::parse(run({"count", "later", "--json"}).text)["clients"]);

  Process gone("msgctl", {"wait", "--gone", "later", "--timeout", "10000"});
  later.reset();
  EXPECT_EQ(0, gone.wait());

  EXPECT_EQ(0, run({"sync", "post", "boot"}).status);
  EXPECT_EQ(0, point.wait());
}

TEST(MsgctlAlone, WaitsForTheServerToo) {
  Process there("msgctl", {"wait", "first", "--timeout", "10000"});
  ::usleep(200000);
  Process server("msgsvr");
  ASSERT_TRUE(server.wait_for("ready"));
  RawClient first("first");
  EXPECT_EQ(0, there.wait()) << there.output();
}

TEST(MsgctlNotify, AsksAndNotifiesModules) {
  Process server("notifyserver");
  ASSERT_TRUE(server.wait_for("ready"));

  EXPECT_THAT(run({"notify", "modules"}).text, AllOf(HasSubstr("cms"), HasSubstr("web")));
  for (const json &module : lines_of(run({"notify", "modules", "--json"}).text)) {
    EXPECT_TRUE(module["id"].is_number());
  }
  // The server itself answers, without data.
  EXPECT_EQ(0, json::parse(run({"notify", "request", "30", "5", "--json"}).text)["length"]);
  EXPECT_EQ(0, run({"notify", "send", "cms", "5", "first", "second"}).status);
  EXPECT_EQ(5, run({"notify", "request", "cms", "5", "--timeout", "200"}).status);
}

}  // namespace
