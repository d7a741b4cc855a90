#include <fcntl.h>
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "msgapi/messages.h"
#include "msgapi/restful.h"
#include "support/message_peer.h"
#include "support/process.h"

namespace {

using nlohmann::json;
using test::Frame;
using test::Process;
using test::RawClient;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;
using Words = std::vector<std::string>;

constexpr uint32_t kOwnType = 0x1234;

struct Output {
  int status;
  std::string text;
};

Output run(const Words &words) {
  Process process("msgctl", words);
  const int status = process.wait();
  return {status, process.output()};
}

std::string bin() {
  const char *directory = std::getenv("MSGAPI_BIN");
  return directory == nullptr ? "." : directory;
}

// A command line of a shell in which "msgctl" is ours; its standard output and its status.
Output shell(const std::string &command) {
  const std::string path = "/var/msgctl_shell.sh";
  std::ofstream(path) << "PATH=" << bin() << ":$PATH\n" << command << "\n";
  FILE *pipe = ::popen(("bash " + path).c_str(), "r");
  std::string text;
  char buffer[4096];
  while (const size_t got = std::fread(buffer, 1, sizeof buffer, pipe)) text.append(buffer, got);
  const int status = ::pclose(pipe);
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, text};
}

std::vector<json> lines_of(const std::string &text) {
  std::vector<json> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) lines.push_back(json::parse(line));
  return lines;
}

class Msgctl : public testing::Test {
 protected:
  void SetUp() override { start(); }

  void start(const Words &arguments = {}) {
    server_ = std::make_unique<Process>("msgsvr", arguments);
    ASSERT_TRUE(server_->wait_for("ready")) << server_->output();
  }

  std::unique_ptr<Process> server_;
};

// Answers what comes, in a thread, until it is destroyed.
class Application {
 public:
  using Answer = std::function<void(RawClient &, const Frame &)>;
  explicit Application(const std::string &name, Answer answer)
      : client_(name), thread_([this, answer = std::move(answer)] {
          while (!stop_) {
            if (const auto frame = client_.receive(20)) answer(client_, *frame);
          }
        }) {}
  ~Application() {
    stop_ = true;
    thread_.join();
  }

 private:
  RawClient client_;
  std::atomic<bool> stop_ = false;
  std::thread thread_;
};

void twice(RawClient &self, const Frame &request) {
  if (request.type == kOwnType) self.answer(request, 2 * request.data, request.body);
}

// The server's admin interface, with answers that the test gives.
class Admin {
 public:
  explicit Admin(std::map<std::string, std::string> answers)
      : answers_(std::move(answers)), fd_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, "/var/run/msgsvr.admin");
    ::unlink(address.sun_path);
    EXPECT_EQ(0, ::bind(fd_, reinterpret_cast<sockaddr *>(&address), sizeof address));
    EXPECT_EQ(0, ::listen(fd_, 100));
    thread_ = std::thread([this] { serve(); });
  }
  ~Admin() {
    ::shutdown(fd_, SHUT_RDWR);
    thread_.join();
    ::close(fd_);
    ::unlink("/var/run/msgsvr.admin");
  }
  const std::vector<std::string> &requests() const { return requests_; }

 private:
  void serve() {
    for (int peer; (peer = ::accept(fd_, nullptr, nullptr)) >= 0; ::close(peer)) {
      std::string request;
      char buffer[4096];
      while (request.find("\r\n\r\n") == std::string::npos) {
        const ssize_t got = ::read(peer, buffer, sizeof buffer);
        if (got <= 0) break;
        request.append(buffer, static_cast<size_t>(got));
      }
      const std::string line = request.substr(0, request.find(" HTTP"));
      requests_.push_back(line);
      const auto answer = answers_.find(line);
      std::string text =
          answer == answers_.end() ? "HTTP/1.1 404 Not Found\r\n" : "HTTP/1.1 200 OK\r\n";
      const std::string body =
          answer == answers_.end() ? R"({"error": "not here"})" : answer->second;
      text +=
          "Connection: close\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
      ::send(peer, text.data(), text.size(), MSG_NOSIGNAL);
    }
  }

  std::map<std::string, std::string> answers_;
  std::vector<std::string> requests_;
  int fd_;
  std::thread thread_;
};

json client(int id, const std::string &name, int queued = 0) {
  return {{"id", id},
          {"name", name},
          {"pid", 100 + id},
          {"program", "/usr/sbin/" + name},
          {"uid", 0},
          {"user", "root"},
          {"gid", 0},
          {"address", nullptr},
          {"connected_at", 1767225600.25},
          {"connected_s", 12.5},
          {"swapped", false},
          {"in", {{"messages", id}, {"bytes", 40}}},
          {"out", {{"messages", 1}, {"bytes", 48}}},
          {"queued_bytes", queued},
          {"queue_limit", 1048576},
          {"lost", 0},
          {"slow", false},
          {"held", false}};
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

  // Bodies of any length come back, through files where they are long.
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
      {{"call", "silent", "0x1234", "--timeout", "50"}, 5, "did not answer"},
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
      {{"wait", "nobody", "--timeout", "100"}, 5, "'nobody' is not there"},
      {{"wait", "--gone", "silent", "--timeout", "100"}, 5, "is still there"},
      {{"wait", "--event", "wan", "--timeout", "100"}, 5, "no event 'wan' came"},
      {{"wait", "--event", "nonsense"}, 4, "'nonsense' is no event"},
      {{"wait"}, 2, "wait for one thing"},
      {{"exit", "nobody"}, 4, "'nobody'"},
      {{"sync", "wait", "never", "--timeout", "100"}, 5, "nobody released"},
      {{"sync", "post", std::string(256, 'x')}, 2, "255 characters"},
      {{"ping", "silent"}, 2, "--type"},
      {{"ping", "silent", "--type", "0x1234", "--timeout", "50"}, 5, "did not answer"},
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

// Publishes until somebody has seen it: who is registered need not have subscribed yet.
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

TEST_F(Msgctl, ServeAnswersAsAnApplication) {
  Process fixed("msgctl", {"serve", "0x1234", "--as", "fixed", "--answer", "7", "--body", "yes"});
  Process program("msgctl", {"serve", "0x1234", "--as", "program", "--exec", "bash", "--", "-c",
                             "echo \"$MSG_FROM $MSG_TYPE $MSG_DATA $MSG_LENGTH $(cat)\"; exit 3"});
  Process slow("msgctl", {"serve", "0x1234", "--as", "slow", "--exec", "sleep", "--timeout", "100",
                          "--", "60"});
  for (const char *name : {"fixed", "program", "slow"}) ASSERT_EQ(0, run({"wait", name}).status);

  EXPECT_EQ("7 yes\n", run({"call", "fixed", "0x1234"}).text);
  // What a body says is never given to a shell.
  EXPECT_THAT(run({"call", "program", "0x1234", "5", "$(touch /var/owned)", "--as", "me"}).text,
              StartsWith("3 me 0x1234 5 20 $(touch /var/owned)"));
  EXPECT_NE(0, ::access("/var/owned", F_OK));
  EXPECT_EQ(5, run({"call", "slow", "0x1234", "--timeout", "1000"}).status);
  EXPECT_TRUE(slow.wait_for("sleep was ended"));

  // A request of another type is named; one to exit is followed.
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

// Against the server itself, where it has the interface.
TEST_F(Msgctl, ShowsWhatTheServerKnows) {
  RawClient wifi("wifi");
  wifi.send({.type = ORP_MSG_SUBSCRIBE, .data = ORP_MSG_EVENT_WAN});
  wifi.send({.type = ORP_MSG_RESTFUL_REGISTER, .body = std::string("/dev\0", 5)});
  wifi.ask({.type = ORP_MSG_FACTORY_MODE});

  EXPECT_EQ("wifi\n", run({"list", "--names"}).text);
  const json info = json::parse(run({"info", "wifi", "--json"}).text);
  EXPECT_EQ(::getpid(), info["pid"]);
  EXPECT_EQ(json({ORP_MSG_EVENT_WAN}), info["subscriptions"]);
  EXPECT_EQ(json({"/dev"}), info["paths"]);
  EXPECT_EQ("/dev\n", run({"complete", "paths"}).text);

  EXPECT_EQ(4, run({"send", "nobody", "0x1234", "--as", "lost"}).status);
  const json stats = json::parse(run({"stats", "--json"}).text);
  EXPECT_EQ(1, stats["lost"]["no_such_name"]);
  EXPECT_EQ("lost", stats["culprits"][0]["from"]);

  EXPECT_EQ(0, run({"disconnect", "wifi"}).status);
  EXPECT_TRUE(wifi.closed());
}

TEST(MsgctlAdmin, ListsClients) {
  const json detailed = [] {
    json all = client(2, "lan", 900000);
    all.update({{"subscriptions", {ORP_MSG_EVENT_WAN}},
                {"named_subscriptions", json::array()},
                {"paths", {"/dev"}},
                {"sync_points", {"boot"}},
                {"in_message", false},
                {"keep_alive", {{"watched", true}, {"missing", false}, {"last_s", 3.2}}}});
    return all;
  }();
  Admin admin(
      {{"GET /v1/clients", json{{"clients", {client(1, "wifi"), client(2, "lan", 900000)}}}.dump()},
       {"GET /v1/clients/2", detailed.dump()},
       {"DELETE /v1/clients/2", ""}});

  const Output table = run({"list", "--sort", "queued"});
  EXPECT_EQ(0, table.status);
  EXPECT_THAT(table.text,
              AllOf(StartsWith("ID  NAME"), HasSubstr("900.0 kB"), HasSubstr("/usr/sbin/lan")));
  EXPECT_LT(table.text.find("lan"), table.text.find("wifi"));
  EXPECT_EQ("lan\nwifi\n", run({"list", "--names", "--sort", "name"}).text);
  const std::vector<json> clients = lines_of(run({"list", "--json"}).text);
  ASSERT_EQ(2u, clients.size());
  EXPECT_EQ("wifi", clients[0]["name"]);

  EXPECT_THAT(run({"info", "lan"}).text,
              AllOf(HasSubstr("900.0 kB of 1.0 MB"), HasSubstr("event-wan (0x2da65)"),
                    HasSubstr("/dev"), HasSubstr("boot"), HasSubstr("3.20 s ago")));
  EXPECT_EQ(detailed, json::parse(run({"info", "#2", "--json"}).text));
  EXPECT_EQ(4, run({"info", "nobody"}).status);
  EXPECT_EQ(4, run({"info", "wifi"}).status);  // gone in between
  EXPECT_EQ(0, run({"disconnect", "lan"}).status);
  EXPECT_EQ("DELETE /v1/clients/2", admin.requests().back());
}

TEST(MsgctlAdmin, ShowsLossesWithTheirCulprits) {
  const json stats = {{"version", "9.9"},
                      {"pid", 1},
                      {"uptime_s", 100.0},
                      {"clients", 5},
                      {"connections", 9},
                      {"in", {{"messages", 10}, {"bytes", 20}}},
                      {"out", {{"messages", 1}, {"bytes", 2}}},
                      {"lost", {{"no_such_name", 0}, {"queue_full", 12}}},
                      {"senders_told", 3},
                      {"culprits",
                       {{{"loss", "queue_full"},
                         {"from", "pub\x1b[2J"},
                         {"to", "slow"},
                         {"count", 12},
                         {"last_at", 1767225601.0}}}},
                      {"flight", nullptr}};
  Admin admin({{"GET /v1/stats", stats.dump()}});

  EXPECT_THAT(run({"stats"}).text, AllOf(HasSubstr("lost, queue full    12"),
                                         HasSubstr("pub\\x1b[2J"), Not(HasSubstr("\x1b[2J"))));
  EXPECT_EQ(stats, json::parse(run({"stats", "--json"}).text));
  EXPECT_EQ("3\n", shell("msgctl stats --watch --interval 10 --json | head -3 | wc -l").text);
}

TEST(MsgctlAdmin, NeverPrintsHostileNamesRaw) {
  const std::string name =
      "\x1b]0;x\x07\xc2\x9b"
      "2J\x7f";
  Admin admin({{"GET /v1/clients", json{{"clients", {client(1, name)}}}.dump()},
               {"GET /v1/clients/1", client(1, name).dump()},
               {"GET /v1/paths",
                json{{"paths", {{{"path", "/$(reboot)"}, {"id", 1}}, {{"path", "/ok"}}}}}.dump()}});
  for (const Words &words : std::vector<Words>{{"list"},
                                               {"list", "--names"},
                                               {"list", "--json"},
                                               {"info", "#1"},
                                               {"info", "#1", "--json"},
                                               {"info", name + "x"},
                                               {"info", name + "x", "--json"},
                                               {"count", name + "xxxxxxx"},
                                               {"complete", "names"}}) {
    const std::string text = run(words).text;
    EXPECT_FALSE(text.empty());
    for (const char *raw : {"\x1b", "\x07", "\xc2\x9b", "\x7f"}) {
      EXPECT_THAT(text, Not(HasSubstr(raw))) << words[0];
    }
  }
  EXPECT_EQ(name, json::parse(run({"list", "--json"}).text)["name"]);
  // What a shell would be offered.
  EXPECT_EQ("server\n", run({"complete", "names"}).text);
  EXPECT_EQ("/ok\n", run({"complete", "paths"}).text);
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

TEST(MsgctlAdmin, RefusesWhatIsNoAnswer) {
  Admin admin({{"GET /v1/clients", "[1, 2"}, {"GET /v1/stats", "{}"}});
  EXPECT_EQ(6, run({"list"}).status);
  EXPECT_EQ(0, run({"stats"}).status);
}

TEST(MsgctlAdmin, ListsManyClientsToWhoeverReads) {
  json clients = json::array();
  for (int i = 0; i < 1000; ++i) clients.push_back(client(i + 1, "app" + std::to_string(i)));
  Admin admin({{"GET /v1/clients", json{{"clients", clients}}.dump()}});

  EXPECT_EQ("1001\n", shell("msgctl list | wc -l").text);
  EXPECT_EQ("1\n", shell("msgctl list --json 2>&1 | head -1 | wc -l").text);
  EXPECT_EQ("0\n", shell("msgctl list --json | head -1 >/dev/null; echo ${PIPESTATUS[0]}").text);
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

TEST_F(Msgctl, DoctorNamesWhatIsWrongAndWhatToDo) {
  const auto finding = [](const std::string &subject) {
    for (const json &line : lines_of(run({"doctor", "--json"}).text)) {
      if (line["subject"] == subject) return line;
    }
    return json();
  };
  EXPECT_EQ("ok", finding("message server")["verdict"]);
  EXPECT_EQ("ok", finding("/var/run")["verdict"]);
  EXPECT_EQ("problem", finding("log server")["verdict"]);
  EXPECT_EQ("start mlogserver", finding("log server")["advice"]);
  EXPECT_EQ(1, run({"doctor"}).status);

  {
    Process log("mlogserver");
    ASSERT_TRUE(log.wait_for("ready"));
    Process notify("notifyserver");
    ASSERT_TRUE(notify.wait_for("ready"));
    const Output output = run({"doctor"});
    EXPECT_EQ(0, output.status) << output.text;
  }

  std::ofstream("/var/run/msg/msg_file_1") << "x";
  timespec old[2] = {{1, 0}, {1, 0}};
  ::utimensat(AT_FDCWD, "/var/run/msg/msg_file_1", old, 0);
  EXPECT_EQ("hint", finding("large bodies")["verdict"]);
  ::chmod("/var/run/msg", 0777);
  EXPECT_EQ("problem", finding("large bodies")["verdict"]);
  std::ofstream("/var/run/notify/client99999") << "";

  server_->stop(SIGKILL);
  EXPECT_EQ("problem", finding("message server")["verdict"]);
}

TEST_F(Msgctl, CompletesInBash) {
  Admin admin({{"GET /v1/clients", json{{"clients", {client(1, "wifi"), client(2, "wan")}}}.dump()},
               {"GET /v1/paths", json{{"paths", {{{"path", "/dev"}}}}}.dump()}});
  const auto complete = [](const std::string &line) {
    return shell("source " MSGAPI_SOURCE
                 "/tools/msgctl/completion/msgctl.bash\n"
                 "COMP_WORDS=(" +
                 line +
                 ")\nCOMP_CWORD=$((${#COMP_WORDS[@]} - 1))\n_msgctl\n"
                 "printf '%s ' \"${COMPREPLY[@]}\"")
        .text;
  };
  EXPECT_EQ("wan wifi ", complete("msgctl info w"));
  EXPECT_EQ("wan wifi ", complete("msgctl call --timeout 100 w"));
  EXPECT_EQ("wan web webconsole wlan ", complete("msgctl publish w"));
  EXPECT_EQ("save-cfg save-cfg-sync save-cfg-to-app save-cfg-to-app-sync ",
            complete("msgctl call wifi save-cfg"));
  EXPECT_EQ("/dev ", complete("msgctl get /"));
  EXPECT_EQ("list listen ", complete("msgctl lis"));
  EXPECT_THAT(complete("msgctl wait --"), AllOf(HasSubstr("--gone"), HasSubstr("--timeout")));
  EXPECT_EQ("wifi ", complete("msgctl wait --gone wif"));
}

TEST_F(Msgctl, EveryCommandExplainsItself) {
  for (const char *command :
       {"call",   "send",  "get",    "post",   "put",   "patch", "delete",     "publish",
        "listen", "serve", "wait",   "ping",   "count", "exit",  "sync",       "notify",
        "stats",  "types", "status", "doctor", "list",  "info",  "disconnect", "complete"}) {
    const Output output = run({command, "--help"});
    EXPECT_EQ(0, output.status) << command;
    EXPECT_THAT(output.text, AllOf(HasSubstr("--json"), HasSubstr("--timeout"), HasSubstr("--as")));
  }
}

}  // namespace
