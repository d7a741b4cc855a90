// Captures, who reads them, and who takes them for the real thing.

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <optional>
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
using testing::ContainsRegex;
using testing::HasSubstr;

// A recorder where msgctl looks for it.
class MsgctlCapture : public test::RecorderFixture {
 protected:
  MsgctlCapture() : test::RecorderFixture(flight::kPath, 256) {}
};

TEST_F(MsgctlCapture, CapturesAreReadBackAndRotate) {
  for (uint32_t i = 0; i < 200; ++i) exchange(i, "question", "answer", i);
  const std::string path = "/var/run/capture.pcapng";
  const Output output = run({"capture", "-w", path, "--json", "--no-mask", "kind=accepted"});
  EXPECT_EQ(lines_of(output.text)[0]["packets"], 400);
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

TEST_F(MsgctlCapture, ADissectorShowsEveryFieldInTshark) {
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

TEST_F(MsgctlCapture, TheBusIsAnInterfaceOfWireshark) {
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
  test::Process mock("msgctl", {"mock", open, "--as", "station", "-n", "2", "--json"});
  ASSERT_EQ(run({"wait", "station"}).status, 0);
  const Output replay = run({"replay", open, "--to", "station", "--json"});
  EXPECT_EQ(replay.status, 0);
  EXPECT_THAT(replay.text, HasSubstr("\"sent\":2,\"answered_alike\":2,"));
  EXPECT_EQ(mock.wait(), 0);
  EXPECT_THAT(mock.output(), HasSubstr("\"from\":\"msgctl"));
}

}  // namespace
