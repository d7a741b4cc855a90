// What the message server says about itself on its admin socket, asked with curl.

#include <gmock/gmock.h>
#include <grp.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <regex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "flight/reader.h"
#include "msgapi.h"
#include "servers/services.h"
#include "support/file.h"
#include "support/message_peer.h"

namespace {

using nlohmann::json;
using test::kType;
using test::kUnservedType;
using test::RawClient;
using testing::ElementsAre;
using testing::HasSubstr;

constexpr const char *kSocket = "/var/run/msgsvr.admin";

// The samples of an OpenMetrics 1.0 text, by name and labels; none when something breaks a rule.
// Each family begins with TYPE and HELP, is in one piece and has its type's suffix. Names and
// labels are well-formed, no sample comes twice, and the text ends with "# EOF".
std::optional<std::map<std::string, double>> parse_open_metrics(const std::string &text) {
  static const std::regex kHead(R"(# TYPE ([a-z_:][a-z0-9_:]*) (counter|gauge)\n# HELP \1 .+\n)");
  static const std::regex kSample(
      R"(([a-z_:][a-z0-9_:]*)(\{([a-z_]+="([^"\\\n]|\\["\\n])*",?)*[^,\n]?\})? ([0-9.e+-]+)\n)");
  std::map<std::string, double> samples;
  std::set<std::string> families;
  std::smatch match;
  auto at = text.begin();
  const auto takes = [&](const std::regex &what) {
    if (!std::regex_search(at, text.end(), match, what, std::regex_constants::match_continuous))
      return false;
    at = match[0].second;
    return true;
  };
  while (takes(kHead)) {
    const std::string name = match[1].str() + (match[2] == "counter" ? "_total" : "");
    if (!families.insert(match[1]).second) return std::nullopt;
    while (takes(kSample)) {
      if (match[1] != name) return std::nullopt;
      if (!samples.emplace(name + match[2].str(), std::stod(match[5])).second) return std::nullopt;
    }
  }
  if (std::string(at, text.end()) != "# EOF\n") return std::nullopt;
  return samples;
}

class MsgsvrAdmin : public test::Services {
 protected:
  struct Answer {
    std::string body;
    std::string status;
    std::string type;
  };

  static Answer ask(const std::string &path, const std::string &options = "") {
    const std::string command = std::string("curl -sg --max-time 20 --unix-socket ") + kSocket +
                                " -o /var/answer -w '%{http_code} %{content_type}' " + options +
                                " 'http://localhost" + path + "' >/var/facts";
    std::filesystem::remove("/var/answer");
    [[maybe_unused]] const int result = std::system(command.c_str());
    const std::string facts = test::contents("/var/facts");
    return {test::contents("/var/answer"), facts.substr(0, 3),
            facts.size() > 4 ? facts.substr(4) : ""};
  }

  static json get(const std::string &path) {
    const Answer answer = ask(path);
    EXPECT_EQ("200", answer.status) << path;
    EXPECT_EQ("application/json", answer.type);
    const json parsed = json::parse(answer.body, nullptr, false);
    EXPECT_FALSE(parsed.is_discarded()) << answer.body;
    return parsed;
  }

  static json client(const std::string &name) {
    const json all = get("/v1/clients");
    for (const json &each : all["clients"]) {
      if (each["name"] == name) return each;
    }
    ADD_FAILURE() << "no client " << name;
    return {};
  }
  static std::string path_of(const std::string &name) {
    return "/v1/clients/" + client(name)["id"].dump();
  }
};

TEST_F(MsgsvrAdmin, ListsClientsAndWhatTheServerKeepsForThem) {
  start({"--keepalive", "60", "--tcp", "127.0.0.1:9000"});
  RawClient wifi("wifi");
  RawClient web("web");
  RawClient board("board", 9000);
  RawClient odd("\x1b[31m\xff");
  wifi.send({.type = kType, .to = "web", .body = "hello"});
  web.read();
  wifi.send({.type = ORP_MSG_SUBSCRIBE, .data = ORP_MSG_EVENT_WLAN});
  wifi.send({.type = ORP_MSG_SUBSCRIBE, .body = test::padded("web"), .data = ORP_MSG_EVENT_LAN});
  wifi.send({.type = ORP_MSG_RESTFUL_REGISTER, .body = "/dev/wlan|/dev/radio"});
  wifi.send({.type = ORP_MSG_SYNC_WAIT, .body = "boot"});
  wifi.drain();
  // The beginning of a message.
  web.send_bytes(std::string(10, 'x'));

  json facts = client("wifi");
  const std::string user = facts["user"];
  EXPECT_EQ(::getpid(), facts["pid"]);
  EXPECT_EQ(std::filesystem::read_symlink("/proc/self/exe").string(), facts["program"]);
  EXPECT_EQ(::getuid(), facts["uid"]);
  EXPECT_EQ(::getgid(), facts["gid"]);
  EXPECT_TRUE(facts["address"].is_null());
  EXPECT_NEAR(static_cast<double>(::time(nullptr)), facts["connected_at"], 30);
  EXPECT_LT(facts["connected_s"], 30);
  EXPECT_EQ(1048576, facts["queue_limit"]);
  EXPECT_FALSE(facts["slow"]);
  EXPECT_FALSE(facts["held"]);
  EXPECT_FALSE(facts["swapped"]);
  EXPECT_EQ(1 + 1 + 4 + 1, facts["in"]["messages"]);
  EXPECT_EQ(2, client("web")["out"]["messages"]);
  EXPECT_EQ(40 + 10, client("web")["in"]["bytes"]);
  EXPECT_EQ(40 + 8 + 45, client("web")["out"]["bytes"]);
  facts = client("board");
  EXPECT_THAT(facts["address"].get<std::string>(), HasSubstr("127.0.0.1:"));
  for (const char *key : {"pid", "uid", "gid", "user", "program"}) {
    EXPECT_TRUE(facts[key].is_null()) << key;
  }
  client("\\x1b[31m\\xff");

  const json wifi_in_full = get(path_of("wifi"));
  EXPECT_EQ(json({ORP_MSG_EVENT_WLAN}), wifi_in_full["subscriptions"]);
  EXPECT_EQ(json::array({"/dev/wlan", "/dev/radio"}), wifi_in_full["paths"]);
  EXPECT_EQ(json::array({"boot"}), wifi_in_full["sync_points"]);
  EXPECT_TRUE(wifi_in_full["keep_alive"]["watched"]);
  EXPECT_FALSE(wifi_in_full["keep_alive"]["missing"]);
  EXPECT_LT(wifi_in_full["keep_alive"]["last_s"], 30);
  EXPECT_FALSE(wifi_in_full["in_message"]);
  EXPECT_EQ(2, wifi_in_full["limits"]["subscriptions"]["own"]);
  EXPECT_EQ(4096, wifi_in_full["limits"]["subscriptions"]["limit"]);
  const json web_in_full = get(path_of("web"));
  EXPECT_EQ(json({ORP_MSG_EVENT_LAN}), web_in_full["named_subscriptions"]);
  EXPECT_TRUE(web_in_full["in_message"]);

  const json wifi_id = client("wifi")["id"];
  EXPECT_EQ(json::array({{{"path", "/dev/wlan"}, {"id", wifi_id}, {"name", "wifi"}},
                         {{"path", "/dev/radio"}, {"id", wifi_id}, {"name", "wifi"}}}),
            get("/v1/paths")["paths"]);
  json subscriptions = get("/v1/subscriptions")["subscriptions"];
  std::sort(subscriptions.begin(), subscriptions.end());
  json expected = {{{"event", ORP_MSG_EVENT_WLAN}, {"id", wifi_id}, {"name", "wifi"}},
                   {{"event", ORP_MSG_EVENT_LAN}, {"id", nullptr}, {"name", "web"}}};
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(expected, subscriptions);
}

TEST_F(MsgsvrAdmin, CountsWhatTheServerHasDone) {
  start();
  RawClient pub("pub");
  for (int i = 0; i < 12; ++i) {
    pub.send({.type = kType, .to = "nobody"});
    pub.read();
  }
  pub.send({.type = kUnservedType, .to = "mic"});
  pub.drain();

  const json stats = get("/v1/stats");
  EXPECT_EQ(MSGAPI_VERSION, stats["version"]);
  EXPECT_EQ(server_->pid(), stats["pid"]);
  EXPECT_NEAR(static_cast<double>(::time(nullptr)), stats["started_at"], 30);
  EXPECT_EQ(1, stats["clients"]);
  EXPECT_EQ(1, stats["connections"]);
  EXPECT_EQ(15, stats["in"]["messages"]);
  EXPECT_EQ(15, stats["out"]["messages"]);
  EXPECT_EQ(12, stats["lost"]["no_such_name"]);
  EXPECT_EQ(1, stats["lost"]["not_served"]);
  EXPECT_EQ(8u, stats["lost"].size());
  EXPECT_EQ(13, stats["senders_told"]);
  EXPECT_EQ(0, stats["failed_callbacks"]);
  ASSERT_EQ(2u, stats["culprits"].size());
  const json &worst = stats["culprits"][0];
  EXPECT_EQ("no_such_name", worst["loss"]);
  EXPECT_EQ("pub", worst["from"]);
  EXPECT_EQ("nobody", worst["to"]);
  EXPECT_EQ(12, worst["count"]);
  EXPECT_NEAR(static_cast<double>(::time(nullptr)), worst["last_at"], 30);
  EXPECT_EQ(flight::kPath, stats["flight"]["path"]);
  EXPECT_EQ(1048576, stats["flight"]["size"]);
  EXPECT_GT(stats["flight"]["records"], 30);

  // However many names nobody has, and whichever come late, the worst stay in the list.
  for (int i = 0; i < 500; ++i) {
    pub.send({.type = kType, .to = "no" + std::to_string(i)});
    if (i > 400) pub.send({.type = kType, .to = "late"});
    while (!pub.quiet()) pub.read();
  }
  pub.drain();
  const json later = get("/v1/stats")["culprits"];
  EXPECT_EQ(64u, later.size());
  EXPECT_EQ("late", later[0]["to"]);
  EXPECT_EQ(99, later[0]["count"]);
  EXPECT_EQ("nobody", later[1]["to"]);
}

TEST_F(MsgsvrAdmin, CountsWhoseNoticeIsLostAsToldToNobody) {
  start();
  constexpr int kSent = 8000;  // more notices than its socket holds
  RawClient pub("pub");
  for (int i = 0; i < kSent; ++i) pub.send({.type = kType, .to = "nobody"});
  pub.close();

  json stats;
  for (int i = 0; i < 100; ++i) {
    RawClient("settle").drain();
    stats = get("/v1/stats");
    if (stats["lost"]["receiver_gone"] != 0) break;
  }
  uint64_t lost = 0;
  for (const json &count : stats["lost"]) lost += count.get<uint64_t>();
  EXPECT_EQ(kSent, stats["lost"]["no_such_name"]);
  EXPECT_NE(0, stats["lost"]["receiver_gone"]);
  EXPECT_EQ(lost, stats["senders_told"].get<uint64_t>() + stats["nobody_told"].get<uint64_t>());
}

TEST_F(MsgsvrAdmin, SpeaksOpenMetrics) {
  start({"--flight", "0"});
  RawClient a("a\"b\\c");
  a.send({.type = kType, .to = "nobody"});
  a.read();
  EXPECT_TRUE(get("/v1/stats")["flight"].is_null());

  const Answer answer = ask("/metrics");
  EXPECT_EQ("application/openmetrics-text; version=1.0.0; charset=utf-8", answer.type);
  const auto samples = parse_open_metrics(answer.body);
  ASSERT_TRUE(samples) << answer.body;
  EXPECT_EQ(1, samples->at("msgsvr_clients"));
  EXPECT_EQ(2, samples->at("msgsvr_received_messages_total"));
  EXPECT_EQ(1, samples->at("msgsvr_lost_messages_total{reason=\"no_such_name\"}"));
  EXPECT_EQ(2, samples->at("msgsvr_client_received_messages_total{id=\"1\",name=\"a\\\"b\\\\c\"}"));
}

TEST_F(MsgsvrAdmin, EndsAConnection) {
  start();
  RawClient a("a");
  RawClient b("b");
  const Answer answer = ask(path_of("a"), "-X DELETE");
  EXPECT_EQ("204", answer.status);
  EXPECT_TRUE(a.closed());
  EXPECT_TRUE(server_->wait_for("is disconnected: by the admin interface"));
  b.drain();
  EXPECT_EQ(1u, get("/v1/clients")["clients"].size());

  flight::Reader reader = flight::Reader::load(flight::kPath);
  std::vector<std::string> reasons;
  flight::Entry entry;
  while (reader.next(&entry) == flight::Reader::Next::kEntry) {
    if (entry.kind() == flight::Kind::kEnded) reasons.emplace_back(entry.text());
  }
  EXPECT_THAT(reasons, ElementsAre("by the admin interface"));
}

TEST_F(MsgsvrAdmin, SaysWhatIsWrongAsJson) {
  start();
  const struct {
    const char *path, *options, *status;
  } kCases[] = {{"/v1/clients/9", "", "404"},
                {"/v1/clients/9", "-X DELETE", "404"},
                {"/v1/clients/x", "", "400"},
                {"/v1/clients/4294967296", "", "400"},
                {"/v1/clients/1x", "", "400"},
                {"/v1/clients/1x", "-X DELETE", "400"},
                {"/v1/clients", "-X DELETE", "405"},
                {"/v1/clients/", "", "400"},
                {"/v2", "", "404"},
                {"/", "", "404"},
                {"/v1/stats", "-X POST", "405"},
                {"/v1/clients/1", "-X PUT", "405"},
                {"/v1/stats", "-d body", "413"}};
  for (const auto &each : kCases) {
    const Answer answer = ask(each.path, each.options);
    EXPECT_EQ(each.status, answer.status) << each.path << ' ' << each.options;
    EXPECT_EQ("application/json", answer.type) << each.path;
    const json parsed = json::parse(answer.body, nullptr, false);
    EXPECT_TRUE(parsed.is_object() && parsed["error"].is_string()) << answer.body;
  }
  EXPECT_THAT(ask("/v1/stats", "-X POST -i").body, HasSubstr("Allow: GET, HEAD\r\n"));
  RawClient client("a");
  EXPECT_THAT(ask(path_of("a"), "-X PUT -i").body, HasSubstr("Allow: GET, HEAD, DELETE\r\n"));
  for (const std::string &path : {std::string("/v1/stats"), path_of("a")}) {
    const Answer head = ask(path, "-I");
    EXPECT_EQ("200", head.status);
    EXPECT_THAT(head.body, HasSubstr("Content-Type: application/json\r\n"));
  }
}

TEST_F(MsgsvrAdmin, IsForThoseWhoMay) {
  const std::string group = ::getgrgid(::getgid())->gr_name;
  const struct {
    std::vector<std::string> options;
    mode_t mode;  // 0: there is none, and clients are served without it
    const char *complaint;
  } kCases[] = {
      {{}, 0600, ""},
      {{"--admin-group", group}, 0660, ""},
      {{"--admin-group", "no such group"}, 0600, "there is no group no such group: "},
      {{"--admin", "/var/none/admin"}, 0, "there is no admin socket: "},
      {{"--admin", "none"}, 0, ""},
  };
  for (const auto &[options, mode, complaint] : kCases) {
    SCOPED_TRACE(testing::PrintToString(options));
    start(options);
    struct stat status {};
    EXPECT_EQ(mode == 0 ? -1 : 0, ::stat(kSocket, &status));
    EXPECT_EQ(mode, status.st_mode & 07777);
    EXPECT_THAT(server_->output(),
                testing::AllOf(HasSubstr(complaint), testing::Not(HasSubstr("cannot be given"))));
    server_->stop(SIGTERM);
    EXPECT_FALSE(std::filesystem::exists(kSocket));
  }
}

TEST_F(MsgsvrAdmin, ListsAThousandClientsAtOnceForMany) {
  start();
  std::vector<std::unique_ptr<RawClient>> clients;
  for (int i = 0; i < 1000; ++i) {
    clients.push_back(std::make_unique<RawClient>("app" + std::to_string(i)));
  }
  EXPECT_EQ(1000u, get("/v1/clients")["clients"].size());
  // Ten ask at once, and messages pass meanwhile.
  const std::string command =
      "for i in $(seq 10); do curl -s --max-time 60 --retry 20 --retry-all-errors --unix-socket " +
      std::string(kSocket) + " -o /var/list.$i http://localhost/v1/clients & done; wait";
  std::thread asking([&command] { [[maybe_unused]] const int r = std::system(command.c_str()); });
  for (int i = 0; i < 1000; ++i) {
    clients[0]->send({.type = kType, .to = "app1"});
    clients[1]->read();
  }
  asking.join();
  for (int i = 1; i <= 10; ++i) {
    const json got = json::parse(test::contents("/var/list." + std::to_string(i)), nullptr, false);
    EXPECT_FALSE(got.is_discarded()) << i;
  }
}

}  // namespace
