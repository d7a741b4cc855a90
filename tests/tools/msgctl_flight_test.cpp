#include <gmock/gmock.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "flight/recorder.h"
#include "msgapi/messages.h"
#include "msgapi/msg.h"
#include "support/file.h"
#include "support/process.h"
#include "traffic/histogram.h"
#include "traffic/pcapng.h"

namespace {

using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;
using Json = nlohmann::json;

constexpr uint32_t kPanel = 1, kStation = 2, kThird = 3;
constexpr uint32_t kAsk = 0x1234;
// Answered, by the catalogue.
constexpr uint32_t kAnswered = ORP_MSG_COUNT_PROCESSES;

struct Output {
  int status;
  std::string text;

  std::vector<Json> lines() const {
    std::vector<Json> found;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) found.push_back(Json::parse(line));
    return found;
  }
};

Output run(const std::vector<std::string> &arguments) {
  test::Process process("msgctl", arguments);
  const int status = process.wait();
  return {status, process.output()};
}

// A command in a shell, in whose words the programs of the build are found.
Output shell(const std::string &command) {
  FILE *pipe = ::popen(command.c_str(), "r");
  std::string text;
  char buffer[4096];
  while (const size_t count = std::fread(buffer, 1, sizeof buffer, pipe))
    text.append(buffer, count);
  const int status = ::pclose(pipe);
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, text};
}

// A server's recorder at the place where msgctl looks for it.
class MsgctlFlight : public testing::Test {
 protected:
  void SetUp() override {
    connect(kPanel, "panel");
    connect(kStation, "station");
  }
  void TearDown() override {
    ::unlink(flight::kPath);
    ::unlink((std::string(flight::kPath) + ".1").c_str());
  }

  void connect(uint32_t id, const std::string &name) {
    flight::Record facts;
    facts.from = id;
    facts.a = 100 + id;
    recorder_.tick();
    recorder_.note(flight::Kind::kConnected, facts, "/usr/bin/program");
    recorder_.note(flight::Kind::kNamed, facts, name);
  }

  uint64_t message(uint32_t from, uint32_t to, uint32_t type, uint32_t sequence,
                   const std::string &body = "", uint32_t data = 0) {
    ORP_MSG_HEADER_ST header{};
    header.ulMsgType = type;
    header.ulSeqNum = sequence;
    header.ulMsgData = data;
    header.ulDataLen = static_cast<uint32_t>(body.size());
    std::strcpy(header.aucSendApp, from == kPanel ? "panel" : "station");
    std::strcpy(header.aucRecvApp, to == kPanel ? "panel" : "station");
    recorder_.tick();
    return recorder_.accepted(from, to, &header, static_cast<uint32_t>(body.size()), body);
  }

  void deliver(uint64_t number, uint32_t from, uint32_t to, uint32_t type, uint32_t sequence) {
    recorder_.tick();
    recorder_.delivered(number, from, to, type, sequence);
  }

  // A request from the panel that the station answers.
  void exchange(uint32_t sequence, const std::string &question = "", const std::string &answer = "",
                uint32_t data = 0) {
    const uint64_t request = message(kPanel, kStation, kAsk, sequence, question, 3);
    deliver(request, kPanel, kStation, kAsk, sequence);
    const uint64_t reply = message(kStation, kPanel, kAsk, sequence, answer, data);
    deliver(reply, kStation, kPanel, kAsk, sequence);
  }

  flight::Recorder recorder_{flight::kPath, flight::kLeastRing, 256};
};

TEST_F(MsgctlFlight, MonitorTellsWhatPassed) {
  exchange(7, "how warm?", "{\"degrees\": 21}", 1);
  const uint64_t refused = message(kPanel, kThird, kAsk, 8);
  recorder_.lost(flight::Loss::kNoSuchName, refused, kPanel, 0, kAsk, 8);

  const Output all = run({"monitor", "--history-only"});
  EXPECT_EQ(all.status, 0);
  EXPECT_THAT(all.text, ContainsRegex("panel -> station  0x1234 #7 = 3, 9 B  how warm"));
  EXPECT_THAT(all.text, ContainsRegex("station -> panel .* answer after [0-9]+ us .*degrees"));
  EXPECT_THAT(all.text, HasSubstr("lost (no such name)"));
  EXPECT_THAT(all.text, Not(HasSubstr("delivered")));

  const std::vector<Json> lines =
      run({"monitor", "--history-only", "--json", "answer", "and", "from=station"}).lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0]["type"], kAsk);
  EXPECT_EQ(lines[0]["body"]["degrees"], 21);
  EXPECT_GT(lines[0]["after_ns"], 0);

  EXPECT_EQ(run({"monitor", "--history-only", "--json", "-n", "2"}).lines().size(), 2u);
  EXPECT_THAT(run({"monitor", "--history-only", "kind=delivered"}).text, HasSubstr("delivered"));
}

TEST_F(MsgctlFlight, MonitorGoesOnWithANewServer) {
  message(kPanel, kStation, kAsk, 1, "of the old one");
  test::Process monitor("msgctl", {"monitor"});
  EXPECT_TRUE(monitor.wait_for("of the old one"));
  recorder_ = flight::Recorder(flight::kPath, flight::kLeastRing, 256);
  EXPECT_TRUE(monitor.wait_for("the server was started anew"));
  connect(kPanel, "other");
  EXPECT_TRUE(monitor.wait_for("is now other"));
  EXPECT_EQ(monitor.stop(SIGTERM), 0);
}

TEST_F(MsgctlFlight, MonitorSaysWhatItMissed) {
  test::Process monitor("msgctl", {"monitor", "kind=named"});
  connect(kThird, "first");
  EXPECT_TRUE(monitor.wait_for("first"));
  ::kill(monitor.pid(), SIGSTOP);
  int status = 0;
  ::waitpid(monitor.pid(), &status, WUNTRACED);
  for (uint32_t i = 0; i < 5000; ++i) message(kPanel, kStation, kAsk, i);
  connect(kThird, "last");
  ::kill(monitor.pid(), SIGCONT);
  EXPECT_TRUE(monitor.wait_for("records were overwritten before they could be read"));
  EXPECT_TRUE(monitor.wait_for("last"));
  EXPECT_EQ(monitor.stop(SIGTERM), 8);
}

TEST_F(MsgctlFlight, MistakesHaveTheirStatus) {
  const Output wrong = run({"monitor", "--history-only", "from=a", "and"});
  EXPECT_EQ(wrong.status, 2);
  EXPECT_THAT(wrong.text, HasSubstr("column 11"));
  EXPECT_EQ(run({"monitor", "-f", "/nonexistent"}).status, 4);
  EXPECT_EQ(run({"latency", "-f", "/etc/passwd"}).status, 6);
  EXPECT_EQ(run({"capture"}).status, 2);
  EXPECT_EQ(run({"diagram", "--svg", "--mermaid"}).status, 2);
  ::unlink(flight::kPath);
  EXPECT_EQ(run({"waits"}).status, 3);
}

TEST_F(MsgctlFlight, NoByteFromOutsideCommandsTheTerminal) {
  connect(kThird, "e\x1b[31m\xc2\x9b");
  message(kThird, kStation, kAsk, 1, "text \x1b[2J\n<script>");
  const uint64_t lost = message(kThird, kStation, kAsk, 2);
  recorder_.lost(flight::Loss::kQueueFull, lost, kThird, kStation, kAsk, 2);
  flight::Record http;
  recorder_.note(flight::Kind::kHttpRequest, http, "/a\x1b]0;x\x07");

  for (const std::vector<std::string> &command :
       std::vector<std::vector<std::string>>{{"monitor", "--history-only", "--all"},
                                             {"monitor", "--history-only", "--all", "--json"},
                                             {"latency", "--by", "pair"},
                                             {"top", "--once"},
                                             {"top", "--once", "--json"},
                                             {"waits"},
                                             {"waits", "--json"},
                                             {"diagram"},
                                             {"diagram", "--mermaid"},
                                             {"diagram", "--svg"},
                                             {"postmortem"},
                                             {"postmortem", "--json"}}) {
    const Output output = run(command);
    EXPECT_EQ(output.status, 0) << command[0] << output.text;
    EXPECT_EQ(output.text.find_first_of("\x1b\x07\x7f"), std::string::npos) << output.text;
    if (command.back() != "--json") {
      EXPECT_EQ(output.text.find("\xc2\x9b"), std::string::npos) << command[0];
    }
    EXPECT_EQ(output.text.find("<script>"), command[0] == "diagram" && command.size() > 1
                                                ? std::string::npos
                                                : output.text.find("<script>"));
  }
}

TEST_F(MsgctlFlight, NobodyReadsPersonalDataUnlessItIsAskedFor) {
  const std::string personal = "AA:BB:CC:DD:EE:FF";
  exchange(1, "peer " + personal, "{\"ssid\": \"home-net\", \"at\": \"192.168.100.24\"}");
  flight::Record http;
  recorder_.note(flight::Kind::kHttpRequest, http, "/devices/" + personal);

  for (const std::vector<std::string> &command :
       std::vector<std::vector<std::string>>{{"monitor", "--history-only"},
                                             {"monitor", "--history-only", "--json"},
                                             {"capture", "-w", "-"},
                                             {"diagram"},
                                             {"diagram", "--svg"},
                                             {"postmortem"},
                                             {"postmortem", "--json"}}) {
    std::vector<std::string> open = command;
    open.emplace_back("--no-mask");
    EXPECT_THAT(run(open).text, HasSubstr(personal)) << command[0];
    const std::string masked = run(command).text;
    for (const char *value : {personal.c_str(), "home-net", "192.168.100.24"}) {
      EXPECT_THAT(masked, Not(HasSubstr(value))) << command[0];
    }
  }
}

TEST_F(MsgctlFlight, EndsWhenNobodyReads) {
  for (uint32_t i = 0; i < 100; ++i) exchange(i);
  for (const char *command : {"monitor", "monitor --json", "capture --live -w -"}) {
    const Output output = shell(std::string("timeout 60 msgctl ") + command + " | head -c 1");
    EXPECT_EQ(output.text.size(), 1u) << command;
  }
  // Nothing more comes, and still it sees that the reader has gone.
  EXPECT_EQ(shell("bash -c 'timeout 60 msgctl monitor -n 0 | true; exit ${PIPESTATUS[0]}'").status,
            0);
}

TEST_F(MsgctlFlight, LatenciesAreThoseThatWereRecorded) {
  using std::chrono::milliseconds;
  for (uint32_t i = 0; i < 10; ++i) {
    const uint64_t request = message(kPanel, kStation, kAsk, i);
    std::this_thread::sleep_for(milliseconds(2));
    deliver(request, kPanel, kStation, kAsk, i);
    std::this_thread::sleep_for(milliseconds(i == 9 ? 60 : 5));
    const uint64_t answer = message(kStation, kPanel, kAsk, i);
    deliver(answer, kStation, kPanel, kAsk, i);
  }
  // What the records say themselves.
  std::vector<uint64_t> handler, total;
  flight::Reader reader = flight::Reader::follow(flight::kPath);
  flight::Entry entry;
  std::vector<uint64_t> times;
  while (reader.next(&entry) == flight::Reader::Next::kEntry) {
    if (entry.kind() == flight::Kind::kAccepted || entry.kind() == flight::Kind::kDelivered) {
      times.push_back(entry.record.time_ns);
    }
  }
  for (size_t i = 0; i + 3 < times.size(); i += 4) {
    handler.push_back(times[i + 2] - times[i + 1]);
    total.push_back(times[i + 3] - times[i]);
  }
  std::sort(handler.begin(), handler.end());
  std::sort(total.begin(), total.end());

  const std::vector<Json> rows = run({"latency", "--json"}).lines();
  ASSERT_EQ(rows.size(), 1u);
  const auto near = [](const Json &number, uint64_t value) {
    const double ratio = number.get<double>() / static_cast<double>(value);
    return ratio >= 1.0 && ratio < 1.04;
  };
  EXPECT_EQ(rows[0]["queue"]["count"], 20);
  EXPECT_EQ(rows[0]["handler"]["count"], 10);
  EXPECT_TRUE(near(rows[0]["handler"]["p50_ns"], handler[4])) << rows[0];
  EXPECT_TRUE(near(rows[0]["handler"]["p90_ns"], handler[8])) << rows[0];
  EXPECT_EQ(rows[0]["handler"]["max_ns"], handler[9]);
  EXPECT_TRUE(near(rows[0]["total"]["p50_ns"], total[4])) << rows[0];
  EXPECT_EQ(rows[0]["total"]["max_ns"], total[9]);

  const std::vector<Json> pairs = run({"latency", "--by", "pair", "--json"}).lines();
  ASSERT_EQ(pairs.size(), 2u);
  EXPECT_EQ(pairs[0]["pair"], "panel -> station");
  EXPECT_EQ(pairs[0]["total"]["count"], 10);
  EXPECT_EQ(pairs[1]["total"]["count"], 0);
  EXPECT_THAT(run({"latency"}).text, ContainsRegex("handler time of 10 messages"));
}

TEST(Histogram, KnowsQuantilesToThreePercent) {
  traffic::Histogram histogram;
  EXPECT_EQ(histogram.quantile(0.5), 0u);
  for (uint64_t i = 1; i <= 100'000; ++i) histogram.add(i * 1000);
  for (const double fraction : {0.01, 0.5, 0.9, 0.99}) {
    const double exact = fraction * 1e8;
    EXPECT_NEAR(static_cast<double>(histogram.quantile(fraction)), exact, exact * 0.032);
  }
  EXPECT_EQ(histogram.quantile(1), 100'000'000u);
  EXPECT_EQ(histogram.between(0, ~uint64_t{0}), 100'000u);
  histogram.add(~uint64_t{0});
  histogram.add(0);
  EXPECT_EQ(histogram.max(), ~uint64_t{0});
}

TEST_F(MsgctlFlight, WaitsNamesADeadlock) {
  message(kPanel, kStation, kAnswered, 1);
  const Output tree = run({"waits"});
  EXPECT_THAT(tree.text, ContainsRegex("panel waits for station: count-processes"));
  EXPECT_THAT(tree.text, Not(HasSubstr("deadlock")));

  test::Process watch("msgctl", {"waits", "--watch", "1"});
  message(kStation, kPanel, kAnswered, 2);
  EXPECT_EQ(watch.wait(), 1);
  EXPECT_THAT(watch.output(), HasSubstr("panel -> station -> panel: a probable deadlock"));

  const std::vector<Json> lines = run({"waits", "--json"}).lines();
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[2]["deadlock"], Json({"panel", "station"}));
  EXPECT_EQ(lines[2]["certain"], true);
}

TEST_F(MsgctlFlight, WaitsOfAnUnknownTypeAreNamedWithAReservation) {
  message(kPanel, kStation, kAsk, 1);
  message(kStation, kPanel, kAsk + 1, 1);
  EXPECT_THAT(run({"waits"}).text,
              ContainsRegex("a probable deadlock for .* \\(if such messages are answered"));
}

TEST_F(MsgctlFlight, TopCountsAndEndsWithItsReader) {
  exchange(1, std::string(100, 'x'));
  exchange(2);
  const uint64_t waiting = message(kPanel, kStation, kAsk, 3);
  EXPECT_NE(waiting, 0u);
  const std::vector<Json> lines = run({"top", "--once", "--json"}).lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0]["messages"], 5);
  EXPECT_EQ(lines[0]["types"][0]["messages"], 5);
  EXPECT_EQ(lines[0]["pairs"][0]["from"], "panel");
  EXPECT_EQ(lines[0]["answers"][0]["answers"], 2);
  EXPECT_EQ(lines[0]["queues"][0]["to"], "station");
  EXPECT_EQ(lines[0]["queues"][0]["waiting"], 1);
  EXPECT_THAT(run({"top", "--once"}).text, HasSubstr("DEEPEST QUEUES"));
}

TEST_F(MsgctlFlight, DiagramsDrawArrows) {
  exchange(7, "how warm?", "21");
  EXPECT_THAT(run({"diagram"}).text, ContainsRegex("\\|-+>\\| +0x1234 = 3  how warm"));
  const std::string mermaid = run({"diagram", "--mermaid"}).text;
  EXPECT_THAT(mermaid, HasSubstr("sequenceDiagram\n  participant p0 as panel"));
  EXPECT_THAT(mermaid, HasSubstr("p1-->>p0: "));
  EXPECT_THAT(mermaid, HasSubstr("how warm#63;"));
  const std::string svg = run({"diagram", "--svg"}).text;
  EXPECT_THAT(svg, HasSubstr("how warm?"));
  EXPECT_THAT(svg, testing::EndsWith("</svg>\n"));
}

TEST_F(MsgctlFlight, PostmortemShowsWhatADeadServerLeft) {
  exchange(1);
  message(kPanel, kStation, kAnswered, 2, "queued", 5);
  // Its successor runs.
  recorder_ = flight::Recorder(flight::kPath, flight::kLeastRing, 0);

  const Output output = run({"postmortem"});
  EXPECT_EQ(output.status, 0);
  EXPECT_THAT(output.text, HasSubstr("/var/run/msgsvr.flight.1"));
  EXPECT_THAT(output.text, ContainsRegex("station +102 +0 +/usr/bin/program"));
  EXPECT_THAT(output.text, ContainsRegex("panel -> station  count-processes .* #2, 6 B"));
  EXPECT_THAT(output.text, ContainsRegex("panel waits for station"));
  EXPECT_THAT(output.text, ContainsRegex("The last 1 s\n(.|\n)*answer after"));
}

TEST_F(MsgctlFlight, CapturesAreReadBackAndRotate) {
  for (uint32_t i = 0; i < 200; ++i) exchange(i, "question", "answer", i);
  const std::string path = "/var/run/capture.pcapng";
  const Output output = run({"capture", "-w", path, "--json", "--no-mask", "kind=accepted"});
  EXPECT_EQ(output.lines()[0]["packets"], 400);
  struct stat status {};
  ASSERT_EQ(::stat(path.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0600u);
  const std::string capture = test::contents(path);
  traffic::PcapngReader reader(capture);
  uint32_t packets = 0;
  while (const std::optional<traffic::Packet> packet = reader.next()) {
    ASSERT_TRUE(packet->header);
    EXPECT_EQ(packet->header->ulSeqNum, packets / 2);
    EXPECT_EQ(packet->kept, packets % 2 == 0 ? "question" : "answer");
    EXPECT_EQ(packet->answers != 0, packets % 2 != 0);
    ++packets;
  }
  EXPECT_EQ(packets, 400u);

  ASSERT_EQ(run({"capture", "-w", path, "--rotate", "16384", "--keep", "2"}).status, 0);
  for (const char *age : {"", ".1", ".2"}) {
    const std::string part = test::contents(path + age);
    EXPECT_GT(part.size(), 100u) << age;
    EXPECT_LT(part.size(), 18000u) << age;
    EXPECT_TRUE(traffic::PcapngReader(part).next());
  }
  EXPECT_EQ(test::contents(path + ".3"), "");
}

TEST_F(MsgctlFlight, ADissectorShowsEveryFieldInTshark) {
  if (shell("command -v tshark").status != 0) GTEST_SKIP() << "tshark is not installed";
  std::string items(24, '\0');
  items.replace(0, 2, "\xbf\xfe");
  items.append("\0\0\0\0\3\0\0\0\5\0\0\0if\0eth0\0", 20);
  exchange(7, items, "{\"degrees\": 21}", 9);
  std::string bad = items;
  bad[28] = '\x7f';  // a name of 127 bytes
  message(kPanel, kStation, kAsk, 8, bad);
  const uint64_t lost = message(kPanel, kStation, kAsk, 9);
  recorder_.lost(flight::Loss::kQueueFull, lost, kPanel, kStation, kAsk, 9);

  ASSERT_EQ(shell("cd /var/run && msgctl dissector > msgapi.lua && msgctl capture -w c.pcapng "
                  "--no-mask app=panel and kind=accepted,delivered,lost")
                .status,
            0);
  const auto fields = [](const std::string &filter, const std::string &names) {
    return shell(
               "cd /var/run && HOME=/var/run tshark -2 -r c.pcapng -X lua_script:msgapi.lua -Y '" +
               filter + "' -T fields -E separator='|' " + names + " 2>/dev/null")
        .text;
  };
  EXPECT_THAT(
      fields("msgapi.response_in",
             "-e frame.number -e msgapi.from -e msgapi.to -e msgapi.type -e "
             "msgapi.sequence -e msgapi.data -e msgapi.item.name -e "
             "msgapi.item.value -e msgapi.response_in -e frame.comment"),
      ContainsRegex("1\\|panel\\|station\\|0x0*1234\\|7\\|3\\|if\\|eth0\\|3\\|panel -> station  "
                    "0x1234 #7"));
  EXPECT_THAT(fields("msgapi.response_time",
                     "-e msgapi.response_to -e msgapi.response_time -e "
                     "json.key -e msgapi.data -e msgapi.kind"),
              ContainsRegex("1\\|0\\.[0-9]+\\|degrees\\|9\\|5\n"));
  EXPECT_THAT(fields("msgapi.malformed", "-e msgapi.sequence"), testing::StrEq("8\n"));
  EXPECT_THAT(fields("msgapi.message_lost", "-e msgapi.loss -e msgapi.sequence"),
              testing::StrEq("2|9\n"));
  EXPECT_THAT(fields("_ws.lua.error", "-e frame.number"), testing::StrEq(""));
  EXPECT_THAT(shell("cd /var/run && capinfos -T -m -c c.pcapng 2>&1").text, HasSubstr(",7\n"));
}

TEST_F(MsgctlFlight, TheBusIsAnInterfaceOfWireshark) {
  EXPECT_THAT(shell("msgapi-extcap --extcap-interfaces --extcap-version=4.0").text,
              HasSubstr("interface {value=msgapi}"));
  EXPECT_THAT(shell("msgapi-extcap --extcap-interface msgapi --extcap-dlts").text,
              HasSubstr("number=147"));
  EXPECT_THAT(shell("msgapi-extcap --extcap-interface msgapi --extcap-config").text,
              HasSubstr("call=--filter"));
  for (const char *host : {"-oProxyCommand=x", "a;b", "a b"}) {
    EXPECT_EQ(
        shell(std::string("msgapi-extcap --capture --extcap-interface msgapi --fifo /dev/null "
                          "--host '") +
              host + "' 2>/dev/null")
            .status,
        2);
  }
  exchange(1);
  const Output head = shell(
      "msgapi-extcap --capture --extcap-interface msgapi --fifo /dev/stdout --filter "
      "'type=0x1234 and not lost' | head -c 12");
  EXPECT_EQ(head.text.substr(0, 4), "\x0a\x0d\x0d\x0a");
}

TEST_F(MsgctlFlight, ACaptureStandsInForAnApplication) {
  exchange(1, "question", "answer", 5);
  exchange(2, "another", "reply", 6);
  const std::string open = "/var/run/open.pcapng", masked = "/var/run/masked.pcapng";
  ASSERT_EQ(run({"capture", "-w", open, "--no-mask"}).status, 0);
  ASSERT_EQ(run({"capture", "-w", masked}).status, 0);
  EXPECT_THAT(run({"replay", masked, "--to", "station"}).text, HasSubstr("--no-mask"));
  EXPECT_EQ(run({"replay", masked, "--to", "station"}).status, 6);
  EXPECT_EQ(run({"replay", open, "--to", "station", "--speed", "-1"}).status, 2);
  EXPECT_EQ(run({"replay", open, "--to", "nobody"}).status, 4);
  EXPECT_EQ(run({"mock", open}).status, 2);
  EXPECT_EQ(run({"replay", open, "--to", "station"}).status, 3);

  test::Process server("msgsvr");
  ASSERT_TRUE(server.wait_for("ready"));
  EXPECT_EQ(run({"replay", open, "--to", "station", "--speed", "0"}).status, 4);
  test::Process mock("msgctl", {"mock", open, "--as", "station", "-n", "2", "--json"});
  ASSERT_EQ(run({"wait", "station"}).status, 0);
  const Output replay = run({"replay", open, "--to", "station", "--json"});
  EXPECT_EQ(replay.status, 0);
  EXPECT_THAT(replay.text, HasSubstr("\"sent\":2,\"answered_alike\":2,"));
  EXPECT_EQ(mock.wait(), 0);
  EXPECT_THAT(mock.output(), HasSubstr("\"from\":\"msgctl"));
}

}  // namespace
