// What msgctl's commands show of a flight recorder's file.

#include <gmock/gmock.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "flight/reader.h"
#include "msgapi/messages.h"
#include "os/fd.h"
#include "tools/msgctl_support.h"
#include "tools/recorder_fixture.h"

namespace {

using test::kAsk;
using test::kPanel;
using test::kStation;
using test::kThird;
using test::lines_of;
using test::Output;
using test::run;
using test::shell;
using test::Words;
using testing::AllOf;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;
using Json = nlohmann::json;

// A type that is answered, by the catalogue.
constexpr uint32_t kAnswered = ORP_MSG_COUNT_PROCESSES;

using MsgctlFlight = test::RecorderFixture;

// The commands that show texts of applications.
const std::vector<Words> kShowing = {{"monitor", "--history-only", "--all"},
                                     {"monitor", "--history-only", "--all", "--json"},
                                     {"diagram"},
                                     {"diagram", "--mermaid"},
                                     {"diagram", "--svg"},
                                     {"postmortem"},
                                     {"postmortem", "--json"}};

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
      lines_of(run({"monitor", "--history-only", "--json", "answer", "and", "from=station"}).text);
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0]["type"], kAsk);
  EXPECT_EQ(lines[0]["body"]["degrees"], 21);
  EXPECT_GT(lines[0]["after_ns"], 0);

  EXPECT_EQ(lines_of(run({"monitor", "--history-only", "--json", "-n", "2"}).text).size(), 2u);
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

// Also when somebody cuts the file short meanwhile.
TEST_F(MsgctlFlight, AnotherFileIsReadToItsEnd) {
  exchange(1, "of the past");
  const std::string copy = "/var/run/copy";
  std::filesystem::copy_file(flight::kPath, copy);

  const Output monitor = run({"monitor", "-f", copy});
  EXPECT_EQ(monitor.status, 0);
  EXPECT_THAT(monitor.text, HasSubstr("of the past"));
  EXPECT_EQ(run({"capture", "--live", "-w", "/dev/null", "-f", copy}).status, 0);
  EXPECT_EQ(run({"waits", "--watch", "1", "-f", copy}).status, 2);
  flight::Reader reader = flight::Reader::load(copy);
  std::filesystem::resize_file(copy, 0);
  flight::Entry entry;
  while (reader.next(&entry) == flight::Reader::Next::kEntry) continue;
  EXPECT_EQ(reader.seen(), 9u);
  EXPECT_EQ(run({"monitor", "-f", copy}).status, 6);
}

TEST_F(MsgctlFlight, ACopyOfAFileThatIsBeingWrittenIsWhole) {
  std::atomic<bool> ends = false;
  std::thread writer([&] {
    for (uint32_t i = 0; !ends; ++i) message(kPanel, kStation, kAsk, i, std::string(i % 256, 'x'));
  });
  constexpr int kCopies = 300;
  uint64_t read = 0;
  // At least until the writer has had its turns.
  for (int i = 0; !HasFailure() && (i < kCopies || read <= 10u * kCopies); ++i) {
    flight::Reader reader = flight::Reader::load(flight::kPath);
    flight::Reader::Next next;
    do {
      flight::Entry entry;
      next = reader.next(&entry);
    } while (next == flight::Reader::Next::kEntry);
    EXPECT_EQ(next, flight::Reader::Next::kNothing);
    EXPECT_EQ(reader.missed(), 0u);
    read += reader.seen();
  }
  ends = true;
  writer.join();
}

// A server that has crashed may leave such a file, and this command is for crashes.
TEST_F(MsgctlFlight, PostmortemTellsWhatCameBeforeADamage) {
  exchange(1, "before");
  const uint64_t head = recorder_.count();
  EXPECT_GT(head, 0u);
  flight::FileHead file;
  std::fstream ring(flight::kPath, std::ios::in | std::ios::out | std::ios::binary);
  ring.read(reinterpret_cast<char *>(&file), sizeof file);
  const uint64_t end = file.head;
  exchange(2, "after");
  // Overwrites the size of the next record.
  const std::string zeros(8, '\0');
  ring.seekp(static_cast<std::streamoff>(flight::kRingOffset + end % file.ring_size));
  ring.write(zeros.data(), static_cast<std::streamsize>(zeros.size())).flush();

  const Output output = run({"postmortem"});
  EXPECT_THAT(output.text, AllOf(HasSubstr("the ring is damaged"), HasSubstr("before"),
                                 HasSubstr("panel"), Not(HasSubstr("after\""))));
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

  std::vector<Words> commands = kShowing;
  commands.insert(commands.end(), {{"latency", "--by", "pair"},
                                   {"top", "--once"},
                                   {"top", "--once", "--json"},
                                   {"waits"},
                                   {"waits", "--json"}});
  for (const Words &command : commands) {
    SCOPED_TRACE(testing::PrintToString(command));
    const Output output = run(command);
    EXPECT_EQ(output.status, 0) << output.text;
    EXPECT_EQ(output.text.find_first_of("\x1b\x07\x7f"), std::string::npos) << output.text;
    if (command.back() != "--json") {
      EXPECT_THAT(output.text, Not(HasSubstr("\xc2\x9b")));
    }
    if (command.back() == "--svg" || command.back() == "--mermaid") {
      EXPECT_THAT(output.text, Not(HasSubstr("<script>")));
    }
  }
}

// Wherever it is, in the output of all commands. Mask's cases have each kind of it.
TEST_F(MsgctlFlight, NobodyReadsPersonalDataUnlessItIsAskedFor) {
  const std::string values[] = {"AA:BB:CC:DD:EE:FF", "192.168.100.24",
                                "01234567-89ab-cdef-0123-456789abcdef", "hunter22secret",
                                "somebodys-net"};
  uint32_t sequence = 0;
  for (const std::string &body :
       {"peer " + values[0], "at " + values[1] + " is " + values[2],
        "{\"login\": {\"value\": \"" + values[3] + "\"}}", test::dm_body({{"SSID", values[4]}})}) {
    exchange(++sequence, body, body);
  }
  // A client's own texts may hold personal data.
  flight::Record facts;
  facts.from = kThird;
  recorder_.note(flight::Kind::kConnected, facts, values[1] + ":4711");
  recorder_.note(flight::Kind::kEnded, facts, "lost " + values[0]);
  recorder_.note(flight::Kind::kHttpRequest, facts, "/device/" + values[0]);

  std::vector<Words> commands = kShowing;
  commands.push_back({"capture", "-w", "-"});
  for (Words command : commands) {
    SCOPED_TRACE(testing::PrintToString(command));
    const Output masked = run(command);
    EXPECT_EQ(masked.status, 0);
    EXPECT_THAT(masked.text, AllOf(HasSubstr("panel"), HasSubstr("station")));
    command.emplace_back("--no-mask");
    const Output open = run(command);
    for (std::string value : values) {
      // As Mermaid writes it.
      if (command[1] == "--mermaid") value = std::regex_replace(value, std::regex(":"), "#58;");
      EXPECT_THAT(masked.text, Not(HasSubstr(value)));
      EXPECT_THAT(open.text, HasSubstr(value));
    }
  }
}

TEST_F(MsgctlFlight, EndsWhenNobodyReads) {
  for (uint32_t i = 0; i < 100; ++i) exchange(i);
  for (const char *command : {"monitor", "monitor --json", "capture --live -w -"}) {
    const Output output = shell(std::string("timeout 60 msgctl ") + command + " | head -c 1");
    EXPECT_EQ(output.text.size(), 1u) << command;
  }
  // Even if nothing more comes, it sees that its reader has gone.
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
  // The times by the records themselves.
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

  const std::vector<Json> rows = lines_of(run({"latency", "--json"}).text);
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

  const std::vector<Json> pairs = lines_of(run({"latency", "--by", "pair", "--json"}).text);
  ASSERT_EQ(pairs.size(), 2u);
  EXPECT_EQ(pairs[0]["pair"], "panel -> station");
  EXPECT_EQ(pairs[0]["total"]["count"], 10);
  EXPECT_EQ(pairs[1]["total"]["count"], 0);
  EXPECT_THAT(run({"latency"}).text, ContainsRegex("handler time of 10 messages"));
}

using MsgctlLive = test::Msgctl;

TEST_F(MsgctlLive, LatenciesAreThoseThatAClientMeasures) {
  using std::chrono::duration, std::chrono::nanoseconds, std::chrono::steady_clock;
  constexpr std::chrono::milliseconds kWork(100);
  constexpr uint32_t kExchanges = 9;
  const test::Application worker("worker", [&](test::RawClient &self, const test::Frame &request) {
    if (request.type != kAsk) return;
    std::this_thread::sleep_for(kWork);
    self.answer(request);
  });
  test::RawClient client("client");
  std::vector<double> measured;
  for (uint32_t i = 1; i <= kExchanges; ++i) {
    const auto start = steady_clock::now();
    client.ask({.type = kAsk, .to = "worker", .sequence = i});
    measured.push_back(duration<double, std::nano>(steady_clock::now() - start).count());
  }
  std::ranges::sort(measured);
  const double median = measured[measured.size() / 2];

  const Json row = Json::parse(run({"latency", "--json", "type=0x1234"}).text);
  const auto ns = [&row](const char *time, const char *what) {
    return row[time][what].get<double>();
  };
  EXPECT_EQ(row["total"]["count"], kExchanges);
  EXPECT_NEAR(ns("total", "p50_ns"), median, 0.1 * median);
  EXPECT_GE(ns("handler", "p50_ns"), static_cast<double>(nanoseconds(kWork).count()));
  // The server records a delivery after it has happened, and other processes may run in between.
  EXPECT_LE(ns("total", "max_ns"), 2 * measured.back());
}

TEST_F(MsgctlFlight, WaitsNamesADeadlock) {
  message(kPanel, kStation, kAnswered, 1);
  message(kThird, kPanel, kAnswered, 3);
  const Output tree = run({"waits"});
  EXPECT_THAT(tree.text, ContainsRegex("#3 waits for panel: count-processes.*\n"
                                       "  panel waits for station: count-processes"));
  EXPECT_THAT(tree.text, Not(HasSubstr("deadlock")));

  test::Process watch("msgctl", {"waits", "--watch", "1"});
  message(kStation, kPanel, kAnswered, 2);
  EXPECT_EQ(watch.wait(), 1);
  EXPECT_THAT(watch.output(), HasSubstr("panel -> station -> panel: a probable deadlock"));

  const std::vector<Json> lines = lines_of(run({"waits", "--json"}).text);
  ASSERT_EQ(lines.size(), 4u);
  EXPECT_EQ(lines[3]["deadlock"], Json({"panel", "station"}));
  EXPECT_EQ(lines[3]["certain"], true);
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
  const std::vector<Json> lines = lines_of(run({"top", "--once", "--json"}).text);
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0]["messages"], 5);
  EXPECT_EQ(lines[0]["types"][0]["messages"], 5);
  EXPECT_EQ(lines[0]["pairs"][0]["from"], "panel");
  EXPECT_EQ(lines[0]["answers"][0]["answers"], 2);
  EXPECT_EQ(lines[0]["queues"][0]["to"], "station");
  EXPECT_EQ(lines[0]["queues"][0]["waiting"], 1);
  EXPECT_THAT(run({"top", "--once"}).text, HasSubstr("DEEPEST QUEUES"));
}

// All commands have the same filter language. Replay and mock are tested with captures.
TEST_F(MsgctlFlight, EveryCommandTakesAFilter) {
  connect(kThird, "third");
  exchange(1);
  message(kThird, kStation, kAnswered, 2);
  message(kPanel, kStation, kAnswered, 3, "queued");
  message(kStation, kPanel, kAnswered, 4);

  const std::vector<Json> top = lines_of(run({"top", "--once", "--json", "from=third"}).text);
  EXPECT_EQ(top.at(0)["messages"], 1);
  EXPECT_EQ(top.at(0)["pairs"].size(), 1u);
  EXPECT_EQ(top.at(0)["seconds"], lines_of(run({"top", "--once", "--json"}).text).at(0)["seconds"])
      << "the rates of what is wanted are of the whole stretch";
  EXPECT_EQ(lines_of(run({"waits", "--json"}).text).size(), 4u);
  const std::vector<Json> waits = lines_of(run({"waits", "--json", "from=third"}).text);
  ASSERT_EQ(waits.size(), 1u);
  EXPECT_EQ(waits[0]["sequence"], 2);
  EXPECT_THAT(run({"waits", "from=panel"}).text, HasSubstr("panel -> station -> panel"));
  const std::string dead = run({"postmortem", "from=panel", "and", "type=count-processes"}).text;
  EXPECT_THAT(dead, AllOf(ContainsRegex("Queued[^:]*: accepted, not delivered\n[^\n]* #3, 6 B\n\n"),
                          HasSubstr("panel waits for station"), Not(HasSubstr("third waits")),
                          ContainsRegex("The last 1 s\n[^\n]* #3 [^\n]*\n$")));
  for (const char *command :
       {"top", "waits", "postmortem", "monitor", "capture", "latency", "diagram"}) {
    EXPECT_EQ(run({command, "from"}).status, 2) << command;
  }
}

TEST_F(MsgctlFlight, TopEndsOnAKeyAndLeavesTheTerminalAsItWas) {
  exchange(1);
  int terminal = -1;
  const pid_t top = ::forkpty(&terminal, nullptr, nullptr, nullptr);
  if (top < 0) GTEST_SKIP() << "no pseudo-terminal: " << std::strerror(errno);
  if (top == 0) {
    ::execl(test::path_of("msgctl").c_str(), "msgctl", "top", nullptr);
    ::_exit(127);
  }
  const msgapi::os::UniqueFd owner(terminal);
  const auto reads_until = [terminal](const std::string &text) {
    std::string shown;
    char buffer[4096];
    pollfd entry{.fd = terminal, .events = POLLIN, .revents = 0};
    while (shown.find(text) == std::string::npos) {
      if (::poll(&entry, 1, test::kPatience_ms) != 1) return false;
      const ssize_t got = ::read(terminal, buffer, sizeof buffer);
      if (got <= 0) return false;
      shown.append(buffer, static_cast<size_t>(got));
    }
    return true;
  };
  const auto echoes = [terminal] {
    termios how{};
    EXPECT_EQ(::tcgetattr(terminal, &how), 0);
    return (how.c_lflag & ECHO) != 0;
  };

  EXPECT_TRUE(reads_until("DEEPEST QUEUES"));
  EXPECT_FALSE(echoes());
  // Another key does nothing: the next picture comes.
  EXPECT_EQ(::write(terminal, "x", 1), 1);
  EXPECT_TRUE(reads_until("DEEPEST QUEUES"));
  EXPECT_EQ(::write(terminal, "q", 1), 1);
  int status = -1;
  EXPECT_EQ(::waitpid(top, &status, 0), top);
  EXPECT_EQ(status, 0);
  EXPECT_TRUE(echoes());
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
  const pid_t server = ::fork();
  if (server == 0) {
    recorder_ = flight::Recorder(flight::kPath, flight::kLeastRing, 256);
    connect(kPanel, "panel");
    connect(kStation, "station");
    exchange(1);
    message(kPanel, kStation, kAnswered, 2, "queued", 5);
    ::_exit(0);
  }
  ::waitpid(server, nullptr, 0);

  for (const std::string file : {"/var/run/msgsvr.flight", "/var/run/msgsvr.flight.1"}) {
    SCOPED_TRACE(file);
    const Output output = run({"postmortem"});
    EXPECT_EQ(output.status, 0);
    EXPECT_THAT(output.text,
                AllOf(HasSubstr(file + ": "), ContainsRegex("station +102 +0 +/usr/bin/program"),
                      ContainsRegex("panel -> station  count-processes .* #2, 6 B"),
                      HasSubstr("panel waits for station"),
                      ContainsRegex("The last 1 s\n(.|\n)*answer after")));

    const std::vector<Json> lines = lines_of(run({"postmortem", "--json"}).text);
    EXPECT_EQ(lines.at(0)["process"], server);
    EXPECT_EQ(lines[0]["running"], false);
    for (const auto &[member, expected] :
         {std::pair("connected", 2), {"queued", 1}, {"certain", 1}}) {
      EXPECT_EQ(expected, std::ranges::count_if(
                              lines, [&](const Json &each) { return each.contains(member); }))
          << member;
    }
    EXPECT_EQ(lines.back()["sequence"], 2) << "the last thing that was sent";
    // The next server puts its own file in that place.
    recorder_ = flight::Recorder(flight::kPath, flight::kLeastRing, 0);
  }
}

}  // namespace
