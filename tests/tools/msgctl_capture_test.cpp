// Captures, their readers, and the commands that send them again.

#include <gmock/gmock.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "flight/record.h"
#include "support/file.h"
#include "tools/msgctl_support.h"
#include "tools/recorder_fixture.h"
#include "traffic/pcapng.h"

namespace {

using test::kAsk;
using test::kPanel;
using test::kStation;
using test::lines_of;
using test::Output;
using test::run;
using test::shell;
using test::Words;
using testing::ContainsRegex;
using testing::HasSubstr;

using MsgctlCapture = test::RecorderFixture;

// The packets as far as the file goes: it may still be being written.
std::vector<traffic::Packet> packets_of(const std::string &path) {
  const std::string capture = test::contents(path);
  std::vector<traffic::Packet> packets;
  traffic::PcapngReader reader(capture);
  try {
    while (auto packet = reader.next()) packets.push_back(std::move(*packet));
  } catch (const std::runtime_error &) {
  }
  return packets;
}

TEST_F(MsgctlCapture, CapturesAreReadBackAndRotate) {
  for (uint32_t i = 0; i < 200; ++i) exchange(i, "question", "answer", i);
  const std::string path = "/var/run/capture.pcapng";
  const Output output = run({"capture", "-w", path, "--json", "--no-mask", "kind=accepted"});
  EXPECT_EQ(lines_of(output.text)[0]["packets"], 400);
  const std::vector<traffic::Packet> packets = packets_of(path);
  ASSERT_EQ(packets.size(), 400u);
  for (uint32_t i = 0; i < packets.size(); ++i) {
    ASSERT_TRUE(packets[i].header);
    EXPECT_EQ(packets[i].header->ulSeqNum, i / 2);
    EXPECT_EQ(packets[i].kept, i % 2 == 0 ? "question" : "answer");
    EXPECT_EQ(packets[i].answers != 0, i % 2 != 0);
  }

  ASSERT_EQ(run({"capture", "-w", path, "--rotate", "16384", "--keep", "2"}).status, 0);
  for (const char *age : {"", ".1", ".2"}) {
    const std::string part = test::contents(path + age);
    EXPECT_GT(part.size(), 100u) << age;
    EXPECT_LT(part.size(), 18000u) << age;
    EXPECT_TRUE(traffic::PcapngReader(part).next());
  }
  EXPECT_EQ(test::contents(path + ".3"), "");
  // The records that name the clients are not among these packets.
  EXPECT_THAT(test::contents(path), HasSubstr("Clients: 1 panel, 2 station"));
}

TEST_F(MsgctlCapture, OnlyItsOwnerMayReadACapture) {
  exchange(1, "secret");
  const std::string path = "/var/run/c.pcapng", link = "/var/run/link";
  std::ofstream(path) << "was there before, and all could read it";
  std::filesystem::permissions(path, std::filesystem::perms{0644});
  ASSERT_EQ(run({"capture", "-w", path}).status, 0);
  EXPECT_EQ(std::filesystem::status(path).permissions(), std::filesystem::perms{0600});
  std::ofstream("/var/run/other") << "of somebody else";
  std::filesystem::create_symlink("/var/run/other", link);
  const Output refused = run({"capture", "-w", link});
  EXPECT_EQ(refused.status, 1);
  EXPECT_THAT(refused.text, HasSubstr("symbolic link"));
  EXPECT_EQ(test::contents("/var/run/other"), "of somebody else");
}

// Calls `change` for each packet of the capture with its number and its block.
void change_packets(const std::string &path, const std::function<void(size_t, char *)> &change) {
  constexpr uint32_t kEnhancedPacket = 6;
  std::string capture = test::contents(path);
  size_t packet = 0;
  uint32_t words[2];  // the block's type and size
  for (size_t at = 0; at < capture.size(); at += words[1]) {
    std::memcpy(words, capture.data() + at, sizeof words);
    if (words[0] == kEnhancedPacket) change(packet++, capture.data() + at);
  }
  std::ofstream(path, std::ios::binary) << capture;
}

TEST_F(MsgctlCapture, AReplayKeepsTheTimesOfItsCaptureAndTheFilter) {
  using std::chrono::steady_clock;
  const std::string path = "/var/run/c.pcapng";
  for (uint32_t i = 1; i <= 3; ++i) message(kPanel, kStation, kAsk, i, "", i);
  message(kPanel, kStation, kAsk + 1, 4, "of another type");
  ASSERT_EQ(run({"capture", "-w", path, "--no-mask", "kind=accepted"}).status, 0);
  // Half a minute after the first, and an hour.
  const uint64_t kTimes_s[] = {1000, 1030, 4600, 4600};
  change_packets(path, [&](size_t packet, char *block) {
    const uint64_t ns = kTimes_s[packet] * 1'000'000'000;
    const uint32_t time[2] = {static_cast<uint32_t>(ns >> 32), static_cast<uint32_t>(ns)};
    std::memcpy(block + 12, time, sizeof time);
  });

  test::Process server("msgsvr");
  ASSERT_TRUE(server.wait_for("ready"));
  std::mutex mutex;
  std::vector<std::pair<uint32_t, steady_clock::time_point>> arrived;  // data and time
  const test::Application station("station", [&](test::RawClient &self, const test::Frame &frame) {
    const std::lock_guard lock(mutex);
    if (frame.type == kAsk) arrived.emplace_back(frame.data, steady_clock::now());
    self.answer(frame);
  });
  const auto replay = [&](Words words, size_t expected) {
    const auto count = [&] {
      const std::lock_guard lock(mutex);
      return arrived.size();
    };
    {
      const std::lock_guard lock(mutex);
      arrived.clear();
    }
    words.insert(words.begin(), {"replay", path, "--to", "station", "--speed"});
    EXPECT_EQ(run(words).status, 0);
    EXPECT_TRUE(test::eventually([&] { return count() >= expected; }));
    EXPECT_EQ(count(), expected);
  };
  // 30 s at this speed are half a second.
  replay({"60", "data=1-2", "type=0x1234"}, 2);
  ASSERT_EQ(arrived.size(), 2u);
  const std::chrono::duration<double> between = arrived[1].second - arrived[0].second;
  EXPECT_GE(between.count(), 0.4);
  EXPECT_LT(between.count(), 29);

  replay({"0"}, 3);  // without the hour in between
  EXPECT_EQ(run({"replay", path, "--to", "station", "data=9"}).status, 4);
  EXPECT_EQ(run({"replay", path, "--to", "station", "data"}).status, 2);
  // One second before the capture's last packet.
  replay({"0", "since=-1s"}, 1);
}

// Clients and records of two servers have the same numbers.
TEST_F(MsgctlCapture, ACaptureKeepsServersApart) {
  const std::string path = "/var/run/c.pcapng";
  test::Process capture("msgctl", {"capture", "--live", "-w", path, "--no-mask"});
  const auto wait_for_packets = [&path](size_t count) {
    EXPECT_TRUE(test::eventually([&] { return packets_of(path).size() >= count; }));
  };
  exchange(1, "question", "answer", 5);
  wait_for_packets(9);
  recorder_ = flight::Recorder(flight::kPath, flight::kLeastRing, 256);
  connect(kPanel, "panel");
  connect(kStation, "station");
  exchange(2, "a later question", "another", 6);
  wait_for_packets(18);
  EXPECT_EQ(capture.stop(SIGTERM), 0);

  const std::vector<traffic::Packet> packets = packets_of(path);
  ASSERT_EQ(packets.size(), 18u);
  for (size_t i = 0; i < packets.size(); ++i) {
    EXPECT_EQ(packets[i].section, i < 9 ? 1u : 2u) << i;
    EXPECT_EQ(packets[i].record.number, packets[i % 9].record.number);
  }
  test::Process server("msgsvr");
  ASSERT_TRUE(server.wait_for("ready"));
  const test::Application station("station", [](test::RawClient &self, const test::Frame &request) {
    if (request.type != kAsk) return;
    const bool first = request.body == "question";
    self.answer(request, first ? 5 : 6, first ? "answer" : "another");
  });
  EXPECT_THAT(run({"replay", path, "--to", "station", "--speed", "0", "--json"}).text,
              HasSubstr("\"sent\":2,\"answered_alike\":2,"));
}

// Shows kPath in tshark.
class MsgctlDissector : public MsgctlCapture {
 protected:
  static constexpr const char *kPath = "/var/run/c.pcapng";

  void SetUp() override {
    if (shell("command -v tshark").status != 0) GTEST_SKIP() << "tshark is not installed";
    ASSERT_EQ(shell("msgctl dissector >/var/run/msgapi.lua").status, 0);
  }

  // These fields, separated by spaces, of the packets that the filter lets through: a line each.
  static std::string fields(const std::string &filter, const std::string &names) {
    return shell("HOME=/var/run tshark -2 -r " + std::string(kPath) +
                 " -X lua_script:/var/run/msgapi.lua -T fields -E separator='|' -Y '" + filter +
                 "' $(printf -- '-e %s ' " + names + ") 2>/dev/null")
        .text;
  }
};

TEST_F(MsgctlDissector, ShowsEveryFieldOfAMessage) {
  const std::string items = test::dm_body({{"if", "eth0"}});
  exchange(7, items, "{\"degrees\": 21}", 9);
  std::string bad = items;
  bad[28] = '\x7f';  // a name of 127 bytes
  message(kPanel, kStation, kAsk, 8, bad);
  const uint64_t lost = message(kPanel, kStation, kAsk, 9);
  recorder_.lost(flight::Loss::kQueueFull, lost, kPanel, kStation, kAsk, 9);

  ASSERT_EQ(
      run({"capture", "-w", kPath, "--no-mask", "app=panel", "and", "kind=accepted,delivered,lost"})
          .status,
      0);
  EXPECT_THAT(fields("msgapi.response_in",
                     "frame.number msgapi.from msgapi.to msgapi.type msgapi.sequence msgapi.data "
                     "msgapi.item.name msgapi.item.value msgapi.response_in frame.comment"),
              ContainsRegex("1\\|panel\\|station\\|0x0*1234\\|7\\|3\\|if\\|eth0\\|3\\|panel -> "
                            "station  0x1234 #7"));
  EXPECT_THAT(fields("msgapi.response_time",
                     "msgapi.response_to msgapi.response_time json.key msgapi.data msgapi.kind"),
              ContainsRegex("1\\|0\\.[0-9]+\\|degrees\\|9\\|5\n"));
  EXPECT_EQ(fields("msgapi.malformed", "msgapi.sequence"), "8\n");
  EXPECT_EQ(fields("msgapi.message_lost", "msgapi.loss msgapi.sequence"), "2|9\n");
  EXPECT_EQ(fields("frame.number == 1",
                   "msgapi.version msgapi.masked msgapi.kept msgapi.sender msgapi.receiver "
                   "msgapi.board msgapi.body_in_file msgapi.data_length msgapi.length "
                   "msgapi.dm.error msgapi.dm.sub_type"),
            "1|0|44|panel|station|0|0|44|44|0|0\n");
  std::string numbers;
  for (const traffic::Packet &packet : packets_of(kPath)) {
    const flight::Record &record = packet.record;
    std::string time = std::to_string(packet.wall_ns);
    numbers += time.insert(time.size() - 9, ".");
    for (const uint64_t number :
         {record.number, record.time_ns, uint64_t{record.from}, uint64_t{record.to}, record.about,
          uint64_t{record.a}, uint64_t{record.b}}) {
      numbers += "|" + std::to_string(number);
    }
    numbers += "\n";
  }
  EXPECT_EQ(fields("frame",
                   "frame.time_epoch msgapi.number msgapi.time_ns msgapi.from_id msgapi.to_id "
                   "msgapi.about msgapi.a msgapi.b"),
            numbers);
  EXPECT_EQ(fields("_ws.lua.error", "frame.number"), "");
  EXPECT_THAT(shell("cd /var/run && capinfos -T -m -c c.pcapng 2>&1").text, HasSubstr(",7\n"));
}

// The other kinds of records, and those of another server.
TEST_F(MsgctlDissector, ShowsWhatIsNoMessage) {
  flight::Record facts;
  facts.a = 1;
  facts.b = 4;
  const uint64_t http = recorder_.note(flight::Kind::kHttpRequest, facts, "/dev/info");
  facts = {};
  facts.about = http;
  facts.a = 404;
  recorder_.note(flight::Kind::kHttpAnswer, facts);
  facts = {};
  facts.to = kStation;
  facts.a = 700;
  facts.b = 1000;
  recorder_.note(flight::Kind::kBacklog, facts);
  facts.a = 3;
  recorder_.note(flight::Kind::kRelieved, facts);
  facts = {};
  facts.from = kPanel;
  facts.a = 2;
  recorder_.note(flight::Kind::kEnded, facts, "it was told to");

  ASSERT_EQ(run({"capture", "-w", kPath}).status, 0);
  EXPECT_EQ(
      fields("!msgapi.malformed && msgapi.kind != 1",
             "msgapi.kind msgapi.from msgapi.to msgapi.process msgapi.user msgapi.queue.bytes "
             "msgapi.queue.limit msgapi.lost msgapi.http.method msgapi.length "
             "msgapi.http.status msgapi.about msgapi.text"),
      "2|#1|server|101|0|||||||0|/usr/bin/program\n"
      "3|panel|server|||||||||0|panel\n"
      "2|#2|server|102|0|||||||0|/usr/bin/program\n"
      "3|station|server|||||||||0|station\n"
      "11|server|server||||||1|4||0|/dev/info\n"
      "12|server|server|||||||0|404|" +
          std::to_string(http) +
          "|\n"
          "8|server|station|||700|1000|||||0|\n"
          "9|server|station|||||3||||0|\n"
          "4|panel|server|||||2||||0|it was told to\n");
}

TEST_F(MsgctlDissector, FlagsPacketsThatAreMalformed) {
  struct Damage {
    const char *what;
    size_t offset;  // in the packet
    std::string bytes;
  };
  const Damage kDamages[] = {{"version", 0, std::string("\2\0", 2)},
                             {"kind", 52, "\x63"},
                             {"loss", 53, "\x63"},
                             {"kept more than is there", 54, "\xff\xff"},
                             {"a sender without its NUL", 104, "twelve bytes"},
                             {"a receiver without its NUL", 116, "twelve bytes"},
                             {"no header", 2, std::string("\0\0", 2)}};
  for (uint32_t i = 0; i <= std::size(kDamages); ++i) message(kPanel, kStation, kAsk, i, "body");
  ASSERT_EQ(run({"capture", "-w", kPath, "--no-mask", "kind=accepted"}).status, 0);
  constexpr size_t kPacketInBlock = 28;
  change_packets(kPath, [&](size_t packet, char *block) {
    if (packet == std::size(kDamages)) return;
    const Damage &damage = kDamages[packet];
    damage.bytes.copy(block + kPacketInBlock + damage.offset, damage.bytes.size());
  });

  EXPECT_EQ(fields("msgapi.malformed", "frame.number"), "1\n2\n3\n4\n5\n6\n7\n");
  EXPECT_EQ(fields("!msgapi.malformed", "frame.number"), "8\n");
  EXPECT_EQ(fields("_ws.lua.error", "frame.number"), "");
}

TEST_F(MsgctlCapture, TheBusIsAnInterfaceOfWireshark) {
  EXPECT_THAT(shell("msgapi-extcap --extcap-interfaces --extcap-version=4.0").text,
              HasSubstr("interface {value=msgapi}"));
  EXPECT_THAT(shell("msgapi-extcap --extcap-interface msgapi --extcap-dlts").text,
              HasSubstr("number=147"));
  EXPECT_THAT(shell("msgapi-extcap --extcap-interface msgapi --extcap-config").text,
              HasSubstr("call=--filter"));
  for (const char *host : {"-oProxyCommand=x", "a;b", "a b"}) {
    EXPECT_EQ(shell(std::string("msgapi-extcap --capture --extcap-interface msgapi --fifo "
                                "/dev/null --host '") +
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

TEST_F(MsgctlCapture, ACaptureStandsInForAnApplication) {
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
  EXPECT_EQ(run({"mock", open, "--as", "station", "data=99"}).status, 4);
  test::Process mock("msgctl", {"mock", open, "--as", "station", "-n", "2", "--json"});
  ASSERT_EQ(run({"wait", "station"}).status, 0);
  const Output replay = run({"replay", open, "--to", "station", "--json"});
  EXPECT_EQ(replay.status, 0);
  EXPECT_THAT(replay.text, HasSubstr("\"sent\":2,\"answered_alike\":2,"));
  EXPECT_EQ(mock.wait(), 0);
  EXPECT_THAT(mock.output(), HasSubstr("\"from\":\"msgctl"));
}

}  // namespace
