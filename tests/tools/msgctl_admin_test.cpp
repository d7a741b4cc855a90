// Commands on what the server says about itself, and on what is wrong with a machine.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "msgapi/messages.h"
#include "tools/msgctl_support.h"

namespace {

using nlohmann::json;
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
using testing::StartsWith;

// The server's admin interface, with answers that the test gives.
class Admin {
 public:
  explicit Admin(std::map<std::string, std::string> answers) : answers_(std::move(answers)) {
    const sockaddr_un address{AF_UNIX, "/var/run/msgsvr.admin"};
    EXPECT_EQ(0, ::bind(fd_, reinterpret_cast<const sockaddr *>(&address), sizeof address));
    EXPECT_EQ(0, ::listen(fd_, 100));
    thread_ = std::thread([this] { serve(); });
  }
  ~Admin() {
    ::shutdown(fd_, SHUT_RDWR);
    thread_.join();
    ::close(fd_);
  }
  const std::string &last_request() const { return request_; }

 private:
  void serve() {
    for (int peer; (peer = ::accept(fd_, nullptr, nullptr)) >= 0; ::close(peer)) {
      char head[4096] = "";
      EXPECT_LT(0, ::read(peer, head, sizeof head));
      request_ = std::string(head, std::strstr(head, " HTTP"));
      const auto answer = answers_.find(request_);
      const bool known = answer != answers_.end();
      const std::string body = known ? answer->second : R"({"error": "not here"})";
      const std::string text =
          std::string("HTTP/1.1 ") + (known ? "200 OK" : "404 Not Found") +
          "\r\nConnection: close\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" +
          body;
      ::send(peer, text.data(), text.size(), MSG_NOSIGNAL);
    }
  }

  std::map<std::string, std::string> answers_;
  std::string request_;
  int fd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  std::thread thread_;
};

// What the server says about a client.
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

// With a real server.
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
  EXPECT_EQ("DELETE /v1/clients/2", admin.last_request());
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

}  // namespace
