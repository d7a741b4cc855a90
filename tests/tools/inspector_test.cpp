#include <curl/curl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

#include "inspector/answers.h"
#include "inspector/bus.h"
#include "inspector/recording.h"
#include "inspector/sampler.h"
#include "inspector/token.h"
#include "msgapi/msg.h"
#include "support/file.h"
#include "support/largest_file.h"
#include "support/process.h"
#include "support/soak.h"
#include "tools/mlog_support.h"
#include "tools/recorder_fixture.h"

namespace {

using inspector::Recording;
using inspector::Sampler;
using test::kAsk;
using test::kPanel;
using test::kStation;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;
using Json = nlohmann::json;

constexpr const char *kScript = "<script>alert(1)</script>";

// --- A recorder in place of a server's ----------------------------------------------------------

class Server : public test::RecordedBus {
 public:
  explicit Server(uint64_t ring_size = flight::kLeastRing * 16)
      : RecordedBus(flight::kPath, ring_size, 256) {}

  // A message from the panel to a name that nobody has.
  void lose(uint32_t sequence, const char *receiver) {
    ORP_MSG_HEADER_ST header{};
    header.ulMsgType = kAsk;
    header.ulSeqNum = sequence;
    std::strncpy(header.aucRecvApp, receiver, ORP_APP_NAME_SIZE - 1);
    recorder_.tick();
    const uint64_t number = recorder_.accepted(kPanel, 0, &header, 0, {});
    recorder_.lost(flight::Loss::kNoSuchName, number, kPanel, 0, kAsk, sequence);
  }
};

// --- A browser, as far as a command has one -----------------------------------------------------

struct Reply {
  long status = 0;
  std::string headers;
  std::string body;

  Json json() const { return Json::parse(body); }
};

struct Ask {
  std::vector<std::string> headers = {};
  const char *method = "GET";
  const char *upload = nullptr;
};

size_t append(char *bytes, size_t size, size_t count, void *text) {
  static_cast<std::string *>(text)->append(bytes, size * count);
  return size * count;
}

Reply fetch(const std::string &address, const Ask &ask = {}) {
  const std::unique_ptr<CURL, void (*)(CURL *)> curl(curl_easy_init(), curl_easy_cleanup);
  Reply reply;
  curl_slist *headers = nullptr;
  for (const std::string &header : ask.headers)
    headers = curl_slist_append(headers, header.c_str());
  curl_easy_setopt(curl.get(), CURLOPT_URL, address.c_str());
  curl_easy_setopt(curl.get(), CURLOPT_PATH_AS_IS, 1L);
  curl_easy_setopt(curl.get(), CURLOPT_HTTPHEADER, headers);
  curl_easy_setopt(curl.get(), CURLOPT_TIMEOUT_MS, long{test::kPatience_ms});
  curl_easy_setopt(curl.get(), CURLOPT_HEADERFUNCTION, append);
  curl_easy_setopt(curl.get(), CURLOPT_HEADERDATA, &reply.headers);
  curl_easy_setopt(curl.get(), CURLOPT_WRITEFUNCTION, append);
  curl_easy_setopt(curl.get(), CURLOPT_WRITEDATA, &reply.body);
  curl_easy_setopt(curl.get(), CURLOPT_CUSTOMREQUEST, ask.method);
  if (ask.method == std::string("HEAD")) curl_easy_setopt(curl.get(), CURLOPT_NOBODY, 1L);
  if (ask.upload != nullptr) curl_easy_setopt(curl.get(), CURLOPT_POSTFIELDS, ask.upload);
  curl_easy_perform(curl.get());
  curl_easy_getinfo(curl.get(), CURLINFO_RESPONSE_CODE, &reply.status);
  curl_slist_free_all(headers);
  return reply;
}

class Inspector {
 public:
  explicit Inspector(const std::vector<std::string> &arguments = {})
      : process_("msginspect", arguments) {
    EXPECT_TRUE(process_.wait_for("/\n")) << process_.output();
    const size_t begin = process_.output().find("http://");
    base_ = process_.output().substr(begin, process_.output().find('\n', begin) - begin);
  }

  const std::string &base() const { return base_; }
  const std::string &output() const { return process_.output(); }
  Reply get(const std::string &place, const Ask &ask = {}) const {
    return fetch(base_ + place, ask);
  }
  Json json(const std::string &place) const {
    const Reply reply = get(place);
    EXPECT_EQ(reply.status, 200) << place << ": " << reply.body;
    return reply.json();
  }
  // Asks again and again until `true_of` holds for the answer, and returns it.
  Json wait_for(const std::string &place, const std::function<bool(const Json &)> &true_of) const {
    Json answer;
    EXPECT_TRUE(test::eventually([&] { return true_of(answer = json(place)); }))
        << place << " never told what was awaited: " << answer;
    return answer;
  }
  // How many records these arguments select.
  size_t count(const std::string &arguments) const {
    return json("v1/records?" + arguments)["records"].size();
  }
  // Keeps what the inspector exports.
  void save(const std::string &path, const std::string &arguments = "") const {
    std::ofstream(path, std::ios::binary) << get("v1/export?format=pcapng" + arguments).body;
  }
  Json wait_for_records(size_t count) const {
    return wait_for("v1/records",
                    [count](const Json &answer) { return answer["records"].size() >= count; });
  }
  int stop() { return process_.stop(SIGTERM); }

 private:
  test::Process process_;
  std::string base_;
};

TEST(InspectorTest, SaysNothingWithoutTheTokenOrToAnotherHost) {
  Server server;
  Inspector inspector;
  const std::string root = "http://127.0.0.1:8970/";
  ASSERT_THAT(inspector.base(), StartsWith(root));
  std::string wrong = inspector.base();
  wrong[root.size()] = wrong[root.size()] == '0' ? '1' : '0';

  for (const std::string &place :
       {root, root + "v1/status", root + "inspector.js", wrong, wrong + "v1/records",
        inspector.base().substr(0, inspector.base().size() - 1),
        root + "x/../" + inspector.base().substr(root.size())}) {
    EXPECT_EQ(fetch(place).status, 403) << place;
  }
  for (const char *host : {"Host: evil.example", "Host: evil.example:8970", "Host: 127.0.0.1",
                           "Host: 127.0.0.1:8971", "Host:"}) {
    const Reply reply = inspector.get("v1/status", {.headers = {host}});
    EXPECT_TRUE(reply.status == 421 || reply.status == 400) << host << ": " << reply.status;
    EXPECT_THAT(reply.body, Not(HasSubstr("session")));
  }
  EXPECT_EQ(inspector.get("v1/status", {.headers = {"Host: localhost:8970"}}).status, 200);

  const Reply page = inspector.get("");
  EXPECT_EQ(page.status, 200);
  EXPECT_THAT(page.headers, AllOf(HasSubstr("Content-Security-Policy: default-src 'none'"),
                                  HasSubstr("Referrer-Policy: no-referrer"),
                                  HasSubstr("X-Content-Type-Options: nosniff")));
  EXPECT_THAT(page.body, AllOf(HasSubstr("<!doctype html>"), Not(HasSubstr("http://")),
                               Not(HasSubstr("https://"))));
  EXPECT_EQ(inspector.get("inspector.css").status, 200);
  EXPECT_EQ(inspector.get("inspector.js").status, 200);
}

TEST(InspectorTest, OnlyReads) {
  Server server;
  Inspector inspector;

  EXPECT_EQ(inspector.get("v1/status", {.method = "HEAD"}).status, 200);
  EXPECT_EQ(inspector.get("v1/events", {.method = "HEAD"}).status, 200);
  EXPECT_EQ(inspector.get("v1/status", {.method = "DELETE"}).status, 405);
  EXPECT_EQ(inspector.get("v1/clients/1", {.method = "DELETE"}).status, 405);
  EXPECT_EQ(inspector.get("v1/send", {.method = "POST", .upload = "{}"}).status, 403);
  const std::string much(100'000, 'x');
  EXPECT_EQ(inspector.get("v1/send", {.method = "POST", .upload = much.c_str()}).status, 413);
  for (const char *place :
       {"v1/nothing", "v1/clients/1/x", "v1/clients/../stats", "../etc/passwd"}) {
    EXPECT_THAT(inspector.get(place).status, testing::AnyOf(403, 404)) << place;
  }
  EXPECT_EQ(inspector.get("v1/records?from=x").status, 400);
  EXPECT_EQ(inspector.get("v1/export?format=xml").status, 400);
  const Reply mistake = inspector.get("v1/records?filter=typ%3D3");
  EXPECT_EQ(mistake.status, 400);
  EXPECT_THAT(mistake.json()["error"], HasSubstr("column 1"));
  EXPECT_EQ(inspector.stop(), 0);
}

TEST(InspectorTest, DecodesMasksAndFiltersWhatPassed) {
  Server server;
  server.connect(kPanel, kScript);
  server.connect(kStation, "station");
  server.exchange(7, R"({"password": "hunter2", "channel": 6})", "\x1b[31mred");
  server.lose(8, "printer");
  Inspector inspector;

  const Json answer = inspector.wait_for_records(8);
  const Json &records = answer["records"];
  EXPECT_EQ(answer["last"], 10) << "deliveries are kept, and not shown unless asked for";
  const Json &request = records[4];
  EXPECT_EQ(request["from"], kScript);
  EXPECT_EQ(request["to"], "station");
  EXPECT_EQ(request["body"]["channel"], 6);
  EXPECT_EQ(records[5]["answers"], request["number"]);
  EXPECT_EQ(records[5]["line"], "hex 1b5b33316d726564");
  EXPECT_EQ(records[7]["loss"], "no such name");
  EXPECT_EQ(records[7]["to"], "printer");
  EXPECT_THAT(inspector.get("v1/records").body, Not(HasSubstr("hunter2")));

  EXPECT_EQ(inspector.count("all=1"), 10u);
  EXPECT_EQ(inspector.count("filter=kind%3Ddelivered"), 2u);
  EXPECT_EQ(inspector.count("filter=answer"), 1u);
  EXPECT_EQ(inspector.count("filter=request"), 1u) << "what became of it later counts as well";
  EXPECT_EQ(inspector.count("filter=from%3Dstation"), 3u) << "with its coming and its name";
  EXPECT_EQ(inspector.count("filter=body%3Dhunter2"), 0u)
      << "what is masked cannot be searched for";
  EXPECT_EQ(inspector.count("limit=3"), 3u);
  // Several records may have the same microsecond.
  const Json middle = records[5]["at_us"];
  const auto until_middle = std::count_if(
      records.begin(), records.end(), [&](const Json &each) { return each["at_us"] <= middle; });
  EXPECT_EQ(inspector.count("to=" + middle.dump()), static_cast<size_t>(until_middle));
  EXPECT_EQ(inspector.count("from=18446744073709551615"), 0u);

  const Json summary = inspector.json("v1/summary");
  ASSERT_EQ(summary["edges"].size(), 4u) << summary["edges"];
  const auto lost = std::find_if(summary["edges"].begin(), summary["edges"].end(),
                                 [](const Json &edge) { return edge["to"] == "printer"; });
  ASSERT_NE(lost, summary["edges"].end());
  EXPECT_EQ((*lost)["lost"], 1);
  EXPECT_EQ(summary["types"][0]["total"]["count"], 1);
  EXPECT_EQ(summary["timeline"].back()[2], 1);
  // Without a server the answer has what the recording says about the clients, and why.
  const Json clients = inspector.json("v1/clients");
  EXPECT_EQ(clients["clients"].size(), 2u);
  EXPECT_THAT(clients["error"], HasSubstr("msgsvr.admin"));
}

TEST(InspectorTest, TellsBrowsersWhatComes) {
  Server server;
  server.connect(kPanel, "panel");
  Inspector inspector({"--no-mask"});
  inspector.wait_for_records(2);

  test::Process browser("/usr/bin/env",
                        {"curl", "-siN", inspector.base() + "v1/events?filter=data%3D42"});
  inspector.wait_for("v1/status", [](const Json &status) { return status["browsers"] == 1; });
  server.message(kPanel, kStation, kAsk, 1, "not this");
  server.message(kPanel, kStation, kAsk, 2, R"({"password": "hunter2"})", 42);

  EXPECT_TRUE(browser.wait_for("hunter2"));
  EXPECT_THAT(browser.output(),
              AllOf(HasSubstr("Content-Type: text/event-stream"),
                    HasSubstr("\r\n\r\nevent: status\ndata: {"),
                    HasSubstr("\nid: 4\nevent: records\ndata: {\"records\":[{\"seq\":4,"),
                    Not(HasSubstr("not this"))));
  // An open browser does not keep the inspector from ending.
  EXPECT_EQ(inspector.stop(), 0);
}

TEST(InspectorTest, GoesOnWithTheNextServer) {
  Inspector inspector;
  const Json waiting =
      inspector.wait_for("v1/status", [](const Json &status) { return status["reason"] != ""; });
  EXPECT_EQ(waiting["state"], "waiting");
  EXPECT_THAT(waiting["reason"], HasSubstr("is msgsvr running"));

  auto server = std::make_unique<Server>();
  server->connect(kPanel, "panel");
  server->exchange(1);
  inspector.wait_for_records(4);
  EXPECT_EQ(inspector.json("v1/status")["state"], "live");
  server.reset();
  server = std::make_unique<Server>();
  // The same numbers mean other clients now.
  server->connect(kPanel, "other");
  server->exchange(1);
  inspector.wait_for("v1/status", [](const Json &status) { return status["servers"] == 2; });
  inspector.wait_for_records(8);

  EXPECT_EQ(inspector.count("filter=from%3Dpanel"), 3u);
  EXPECT_EQ(inspector.count("filter=from%3Dother"), 3u);
  EXPECT_THAT(inspector.get("v1/export?format=json&filter=lost").body, testing::StrEq("[\n\n]\n"));

  // Exports keep them apart, too.
  constexpr const char *kCapture = "/var/both.pcapng";
  inspector.save(kCapture);
  EXPECT_THAT(test::contents(kCapture),
              AllOf(HasSubstr("Clients: 1 panel"), HasSubstr("panel -> #2  0x1234 #1 = 3")));
  inspector.save("/var/none.pcapng", "&filter=lost");
  inspector.stop();
  {
    const Inspector none({"--file", "/var/none.pcapng", "--token-file", ""});
    EXPECT_EQ(none.json("v1/status")["state"], "past");
  }
  const Inspector past({"--file", kCapture, "--token-file", ""});
  EXPECT_EQ(past.json("v1/status")["servers"], 2);
  EXPECT_EQ(past.count("filter=from%3Dpanel"), 3u);
  EXPECT_EQ(past.count("filter=from%3Dother"), 3u);
  EXPECT_EQ(past.count("filter=answer"), 2u);
}

TEST(InspectorTest, IsServedByTheNamesOfItsAddress) {
  {
    const Inspector usual({"--listen", ":80", "--token-file", ""});
    EXPECT_THAT(usual.base(), StartsWith("http://127.0.0.1:80/"));
    for (const char *host : {"Host: 127.0.0.1", "Host: localhost", "Host: 127.0.0.1:80"}) {
      EXPECT_EQ(usual.get("v1/status", {.headers = {host}}).status, 200) << host;
    }
    for (const char *host : {"Host: 127.0.0.1:8970", "Host: evil.example", "Host: 127.0.0.2"}) {
      EXPECT_EQ(usual.get("v1/status", {.headers = {host}}).status, 421) << host;
    }
  }
  for (const char *any : {"0.0.0.0:8970", "[::]:8970"}) {
    const Inspector all({"--listen", any, "--token-file", "", "--allow-send"});
    const std::string place = all.base().substr(all.base().find(":8970"));
    for (const char *address : {"http://127.0.0.1", "http://127.0.0.2"}) {
      EXPECT_EQ(fetch(address + place + "v1/status").status, 200) << any;
      EXPECT_EQ(
          fetch(address + place + "v1/status", {.headers = {"Host: evil.example:8970"}}).status,
          421);
      // A page by that address is the inspector's own.
      const Ask ours{.headers = {std::string("Origin: ") + address + ":8970"},
                     .method = "POST",
                     .upload = "{}"};
      EXPECT_EQ(fetch(address + place + "v1/send", ours).status, 400);
    }
  }
}

TEST(InspectorTest, ShowsThePast) {
  constexpr const char *kCapture = "/var/capture.pcapng", *kDead = "/var/dead.flight";
  {
    Server server;
    server.connect(kPanel, "panel");
    server.connect(kStation, "station");
    for (uint32_t i = 0; i < 20; ++i) server.exchange(i, "question", "answer");
    ::rename(flight::kPath, kDead);
  }
  size_t records = 0;
  {
    Inspector inspector({"--file", kDead, "--token-file", ""});
    const Json status = inspector.json("v1/status");
    EXPECT_EQ(status["state"], "past");
    EXPECT_EQ(status["past"], true);
    records = inspector.json("v1/records")["records"].size();
    EXPECT_EQ(records, 44u);
    EXPECT_EQ(inspector.get("v1/stats").status, 404);
    EXPECT_EQ(inspector.json("v1/clients")["clients"].size(), 2u);
    EXPECT_EQ(inspector.json("v1/export?format=json&filter=answer").size(), 40u)
        << "deliveries of answers, too";
    inspector.save(kCapture);
    inspector.save("/var/part.pcapng", "&filter=from%3Dpanel");
  }
  {
    Inspector inspector({"--file", kCapture, "--token-file", ""});
    EXPECT_EQ(inspector.json("v1/records")["records"].size(), records);
    EXPECT_EQ(inspector.count("filter=answer%20and%20to%3Dpanel"), 20u);
    EXPECT_EQ(inspector.json("v1/summary")["types"][0]["total"]["count"], 20);
  }
  {
    // Without the records of the names.
    Inspector inspector({"--file", "/var/part.pcapng", "--token-file", ""});
    EXPECT_EQ(inspector.count("filter=to%3Dstation"), 20u);
  }
  std::string cut = test::contents(kCapture);
  cut.resize(cut.size() - 5);
  std::ofstream(kCapture, std::ios::binary) << cut;
  {
    Inspector inspector({"--file", kCapture, "--token-file", ""});
    EXPECT_EQ(inspector.json("v1/status")["state"], "damaged");
    EXPECT_EQ(inspector.count("all=1"), 83u);
  }
}

TEST(InspectorTest, RefusesWhatItCannotShow) {
  std::ofstream("/var/text") << "this is no capture";
  const auto status = [](const std::vector<std::string> &arguments) {
    return test::Process("msginspect", arguments).wait();
  };
  EXPECT_EQ(status({"--file", "/var/nothing"}), 4);
  EXPECT_EQ(status({"--file", "/var/text"}), 6);
  EXPECT_EQ(status({"--file", "/dev/null"}), 6);
  EXPECT_EQ(status({"--listen", "nowhere"}), 1);
  EXPECT_EQ(status({"--listen", "fd:0"}), 2);
  EXPECT_EQ(status({"--bogus"}), 2);
  Inspector inspector;
  EXPECT_EQ(status({}), 1) << "the port is taken";
}

TEST(InspectorTest, ShowsLogLinesOfTheRange) {
  const int64_t now_ms = test::mlog::uptime_ms();
  test::mlog::write_ring("wan", test::mlog::line(now_ms - 60'000, "a minute ago") +
                                    test::mlog::line(now_ms, "now\x1b[31m <b>", "WARN"));
  Inspector inspector;

  const Json all = inspector.json("v1/logs");
  ASSERT_EQ(all["lines"].size(), 2u) << all;
  EXPECT_EQ(all["lines"][1]["text"], "now\\x1b[31m <b>");
  EXPECT_EQ(all["lines"][1]["level"], "WARN");
  EXPECT_EQ(all["lines"][1]["module"], "wan");
  const uint64_t later = all["lines"][0]["at_us"].get<uint64_t>() + 1000;
  EXPECT_EQ(inspector.json("v1/logs?from=" + std::to_string(later))["lines"].size(), 1u);
  const Json one = inspector.json("v1/logs?limit=1");
  EXPECT_EQ(one["lines"].size(), 1u);
  EXPECT_EQ(one["more"], true);
}

TEST(InspectorTest, SendsForItsOwnPageWhereThatIsAllowed) {
  test::Process server("msgsvr");
  ASSERT_TRUE(server.wait_for("ready"));
  Inspector inspector({"--allow-send"});
  const auto send = [&inspector](const char *body, const char *origin) {
    return inspector.get("v1/send", {.headers = {origin}, .method = "POST", .upload = body});
  };
  constexpr const char *kOurs = "Origin: http://127.0.0.1:8970";
  const char *question = R"({"to": "server", "type": "factory-mode", "answered": true})";

  EXPECT_EQ(send(question, "Origin: http://evil.example").status, 403);
  EXPECT_EQ(send(question, "X-Nothing: 1").status, 403);
  const Reply reply = send(question, kOurs);
  ASSERT_EQ(reply.status, 200) << reply.body;
  EXPECT_EQ(reply.json()["status"], 0) << reply.body;
  EXPECT_EQ(reply.json()["answer"]["name"], "factory-mode");
  EXPECT_EQ(send(R"({"to": "nobody", "type": "0x1234"})", kOurs).json()["status"], 4);
  EXPECT_EQ(send(R"({"to": "--help", "type": "0x1234"})", kOurs).status, 400);
  EXPECT_EQ(send("[", kOurs).status, 400);
  for (const char *data : {"4294967296", "-1", "1.5", "\"1\""}) {
    const std::string body =
        R"({"to": "server", "type": "factory-mode", "data": )" + std::string(data) + "}";
    EXPECT_EQ(send(body.c_str(), kOurs).status, 400) << data;
  }
  EXPECT_FALSE(inspector.json("v1/clients")["clients"].is_null());
  EXPECT_EQ(inspector.json("v1/stats")["pid"], server.pid());
}

TEST(InspectorToken, IsKeptWhereNobodyElseReadsIt) {
  constexpr const char *kPath = "/var/token";
  std::string warning;
  const std::string first = inspector::token_of(kPath, &warning);
  EXPECT_EQ(first.size(), 32u);
  EXPECT_EQ(inspector::token_of(kPath, &warning), first);
  EXPECT_EQ(warning, "");
  EXPECT_NE(inspector::token_of("", &warning), inspector::token_of("", &warning));

  ::chmod(kPath, 0644);
  EXPECT_NE(inspector::token_of(kPath, &warning), first);
  EXPECT_THAT(warning, HasSubstr(kPath));
  ::chmod(kPath, 0600);
  warning.clear();
  ASSERT_EQ(::symlink(kPath, "/var/link"), 0);
  EXPECT_NE(inspector::token_of("/var/link", &warning), first);
  EXPECT_NE(warning, "");
  warning.clear();
  EXPECT_EQ(inspector::token_of("/nowhere/token", &warning).size(), 32u);
  EXPECT_NE(warning, "");

  // On a full disk: a part of a token must not stay, because every later start would refuse it.
  warning.clear();
  {
    const test::LargestFile few(10);
    EXPECT_EQ(inspector::token_of("/var/other", &warning).size(), 32u);
  }
  EXPECT_NE(warning, "");
  warning.clear();
  const std::string kept = inspector::token_of("/var/other", &warning);
  EXPECT_EQ(inspector::token_of("/var/other", &warning), kept);
  EXPECT_EQ(warning, "");
}

// How often somebody else gets the bus while `search` goes through it.
int others_during(inspector::Bus *bus, const std::function<void()> &search) {
  std::atomic<bool> begun = false, done = false;
  std::thread searcher([&] {
    begun = true;
    search();
    done = true;
  });
  while (!begun) std::this_thread::yield();
  int times = 0;
  while (!done) {
    {
      const std::lock_guard lock(bus->mutex);
      ++times;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  searcher.join();
  return times;
}

TEST(InspectorBus, IsOthersInBetweenToo) {
  constexpr uint64_t kRecords = 20'000;
  const msgctl::Context context{};
  inspector::Bus bus(context.catalogue, false);
  bus.recording.begin_past(kRecords, 0);
  bus.recording.begin_server(0);
  test::MadeUpMessage message;
  for (uint64_t i = 1; i <= kRecords; ++i) bus.recording.take(message.numbered(i), 0);
  ASSERT_EQ(bus.recording.end_sequence() - bus.recording.first_sequence(), kRecords);

  inspector::Settings settings;
  settings.past = true;
  const inspector::Answers answers(&bus, &context, settings);
  const auto look_for_nothing = [&answers](const char *path) {
    inspector::Request request;
    request.method = "GET";
    request.path = path;
    request.arguments = {{"filter", "data=1"}, {"format", "json"}};
    return answers(request);
  };
  const auto list = [&] {
    EXPECT_THAT(look_for_nothing("v1/records").body, HasSubstr("\"records\":[]"));
  };
  const auto exported = [&] {
    EXPECT_EQ(look_for_nothing("v1/export").stream->next(), "[\n\n]\n");
  };
  const std::function<void()> searches[] = {list, exported};
  for (const auto &search : searches) {
    // Without a rest after each of the pieces some searches would let hardly anybody in. This
    // machine may do something else meanwhile, so there is another try.
    constexpr int kSearches = 10, kRests = 9;
    EXPECT_TRUE(test::eventually([&] {
      int good = 0;
      while (good < kSearches && others_during(&bus, search) >= kRests) ++good;
      return good == kSearches;
    }));
  }
}

TEST(InspectorSampler, KeepsBurstsAndThinsFloodsByExchange) {
  Sampler burst(1000);
  for (uint64_t i = 0; i < 4000; ++i) EXPECT_TRUE(burst.wants(i, 1)) << i;
  EXPECT_FALSE(burst.wants(4000, 1));

  Sampler flood(1000);
  constexpr uint64_t kSeconds = 20, kRate = 100'000;
  uint64_t kept = 0, torn = 0;
  for (uint64_t i = 0; i < kSeconds * kRate; ++i) {
    const uint64_t time_ns = i * (1'000'000'000 / kRate);
    const bool first = flood.wants(i, time_ns), second = flood.wants(i, time_ns);
    kept += first + second;
    if (time_ns > 5'000'000'000 && first != second) ++torn;
  }
  EXPECT_GT(kept, kSeconds * 400);
  EXPECT_LT(kept, kSeconds * 1000 + 4000);
  EXPECT_LT(torn, 5u);
  EXPECT_GT(flood.one_in(), 100u);
}

// --- The recording ------------------------------------------------------------------------------

class InspectorRecording : public testing::Test {
 protected:
  void read(Recording *recording) {
    if (!reader_) reader_ = std::make_unique<flight::Reader>(flight::Reader::follow(flight::kPath));
    flight::Entry entry;
    while (reader_->next(&entry) == flight::Reader::Next::kEntry) {
      recording->take(entry, reader_->wall_ns(entry.record.time_ns));
    }
  }

  Server server_;
  catalogue::Catalogue catalogue_;
  std::unique_ptr<flight::Reader> reader_;
};

TEST_F(InspectorRecording, ForgetsTheOldestAtItsLimits) {
  Recording few(catalogue_, true, {.records = 10});
  Recording small(catalogue_, true, {.bytes = 10'000});
  for (uint32_t i = 0; i < 100; ++i) server_.exchange(i, "question", "answer");
  read(&few);
  reader_.reset();
  read(&small);

  EXPECT_EQ(few.end_sequence() - few.first_sequence(), 10u);
  EXPECT_EQ(few.forgotten(), 390u);
  EXPECT_EQ(few.at(few.first_sequence()).sequence, few.first_sequence());
  EXPECT_LE(small.bytes(), 10'000u);
  EXPECT_GT(small.end_sequence() - small.first_sequence(), 2u);
}

// A message's body stays as long as a record refers to the message.
TEST_F(InspectorRecording, CountsEveryBodyThatItHolds) {
  constexpr size_t kBody = 250;
  Recording recording(catalogue_, true, {.records = 8});
  recording.begin_server(256);
  const std::string body(kBody, 'x');
  // All requests come first and all answers much later: the answers keep the requests.
  for (uint32_t i = 0; i < 40; ++i) server_.message(kPanel, kStation, kAsk, i, body);
  for (uint32_t i = 0; i < 40; ++i) server_.message(kStation, kPanel, kAsk, i, body);
  read(&recording);

  size_t least = 0;
  for (uint64_t at = recording.first_sequence(); at < recording.end_sequence(); ++at) {
    const inspector::Kept &kept = recording.at(at);
    ASSERT_TRUE(kept.message && kept.request);
    least += kept.message->body.size() + kept.request->body.size() + kept.json.size();
  }
  EXPECT_GE(least, 8 * 2 * kBody);
  EXPECT_GT(recording.bytes(), least);
  EXPECT_LT(recording.bytes(), 3 * least);
}

// A capture may have only some records; that does not mean that others were missed.
TEST_F(InspectorRecording, MissesNothingInAFile) {
  Recording recording(catalogue_, true);
  recording.begin_past(2, 0);
  flight::Entry entry;
  entry.record.kind = static_cast<uint8_t>(flight::Kind::kNamed);
  for (const uint64_t number : {3, 90}) {
    entry.record.number = number;
    recording.take(entry, 0);
  }
  EXPECT_EQ(recording.missed(), 0u);
}

// The times are those of the records, so the speed of the machine does not matter.
TEST_F(InspectorRecording, KeepsLittleOfAFloodAndCountsAll) {
  constexpr uint32_t kExchanges = 1500;
  Recording recording(catalogue_, true, {.per_second = 20});
  for (uint32_t i = 0; i < kExchanges; ++i) server_.exchange(i);
  server_.lose(kExchanges, "printer");
  read(&recording);

  EXPECT_EQ(recording.missed(), 0u);
  EXPECT_GT(recording.left_out(), kExchanges);
  EXPECT_LT(recording.end_sequence(), kExchanges);
  inspector::Selection lost;
  lost.filter = traffic::Filter("lost", catalogue_, 0);
  EXPECT_TRUE(recording.matches(recording.at(recording.end_sequence() - 1), lost))
      << "what is rare is kept beside a flood";
  const auto summary = recording.summary().json({}, {}, catalogue_);
  uint64_t messages = 0;
  for (const auto &edge : summary["edges"]) messages += edge["messages"].get<uint64_t>();
  EXPECT_EQ(messages, 2 * kExchanges + 1) << "what is left out is counted";
}

TEST_F(InspectorRecording, CountsWhatItCouldNotRead) {
  Recording recording(catalogue_, true);
  server_.exchange(1);
  read(&recording);
  for (uint32_t i = 0; i < 15'000; ++i) server_.exchange(i);
  read(&recording);

  EXPECT_GT(recording.missed(), 1000u);
  EXPECT_EQ(recording.missed() + recording.records(), server_.recorder_.count());
}

TEST_F(InspectorRecording, ARepeatedNumberMeansTheLaterMessage) {
  Recording recording(catalogue_, true, {.records = 4});
  test::MadeUpMessage message;
  for (const uint64_t number : {1, 2, 1, 1, 3, 2, 4, 5, 6, 7, 1, 8}) {
    recording.take(message.numbered(number), 0);
    const inspector::Kept &kept = recording.at(recording.end_sequence() - 1);
    ASSERT_NE(kept.message, nullptr) << number;
    EXPECT_EQ(kept.message->header.ulSeqNum, message.sequence());
  }
  EXPECT_EQ(recording.missed(), 0u);
}

TEST(InspectorSummary, KnowsTimesToAnEighth) {
  inspector::Spread spread;
  for (uint64_t us = 1; us <= 1000; ++us) spread.add(us * 1000);
  EXPECT_EQ(spread.count(), 1000u);
  EXPECT_NEAR(static_cast<double>(spread.quantile(0.5)), 500e3, 500e3 / 8);
  EXPECT_NEAR(static_cast<double>(spread.quantile(0.99)), 990e3, 990e3 / 8);
  EXPECT_EQ(spread.quantile(1), 1'000'000u);
  inspector::Spread sum;
  sum.add(spread);
  sum.add(~uint64_t{0});
  sum.add(0);
  EXPECT_EQ(sum.count(), 1002u);
  EXPECT_EQ(sum.max(), ~uint64_t{0});
  uint64_t counted = 0;
  for (const auto &[power, count] : sum.octaves()) counted += count;
  EXPECT_EQ(counted, 1002u);
}

}  // namespace
