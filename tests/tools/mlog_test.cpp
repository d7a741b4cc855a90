#include <gmock/gmock.h>
#include <sys/stat.h>

#include <fstream>
#include <string>

#include "ring_reader.h"
#include "tools/mlog_support.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;
using namespace test::mlog;

std::vector<std::string> messages(const mlog::Ring &ring) {
  std::vector<std::string> texts;
  for (const mlog::Entry &entry : ring.entries) texts.emplace_back(entry.message);
  return texts;
}

TEST(ReadRing, PutsBothTurnsInOrder) {
  const std::string newer = line(30, "c") + line(40, "d");
  const std::string older = line(10, "a") + line(20, "b");
  const int offset = 63 + static_cast<int>(newer.size());

  // The oldest line has lost its beginning, its whole text, or nothing.
  for (const std::string &remnant :
       {std::string("alf a line\n"), std::string("\n"), std::string()}) {
    const mlog::Ring ring = mlog::read_ring(header(1, offset) + newer + remnant + older);
    EXPECT_THAT(messages(ring), ElementsAre("a", "b", "c", "d"));
    EXPECT_TRUE(ring.problems.empty());
  }
}

TEST(ReadRing, SavesWhatItCan) {
  const std::string two = line(10, "a") + line(20, "b");
  struct {
    std::string bytes;
    std::string problem;
    std::vector<std::string> texts;
  } const cases[] = {
      {"", "the file is empty", {}},
      {header(0, 63) + two, "54 bytes behind the last header were saved", {"a", "b"}},
      {header(0, 200) + two, "the last 83 bytes are missing", {"a", "b"}},
      {header(0, 63 + 54 + 9) + line(10, "a") + std::string(9, '\0') + line(20, "b"),
       "9 bytes were never written",
       {"a", "b"}},
      {"[overturn=xxx" + header(0, 63).substr(13) + two, "the header is damaged", {"a", "b"}},
      {two, "the header is damaged", {"a", "b"}},
      {header(0, 63 + 56) + "text without a head\nand more\n" + line(1, "a"),
       "",
       {"text without a head\nand more", "a"}},
  };
  for (const auto &c : cases) {
    const mlog::Ring ring = mlog::read_ring(c.bytes);
    EXPECT_EQ(c.texts, messages(ring)) << c.bytes;
    ASSERT_EQ(c.problem.empty() ? 0u : 1u, ring.problems.size()) << c.bytes;
    if (!c.problem.empty()) {
      EXPECT_THAT(ring.problems[0], HasSubstr(c.problem));
    }
  }
}

TEST(MlogCat, Filters) {
  write_ring("wan", line(1, "bad", "ERRO") + line(2, "odd", "WARN") + line(3, "fine"));
  write_ring("other", line(4, "usb", "WARN", "usb") + line(5, "raid", "FATL", "raid"));

  EXPECT_EQ(line(4, "usb", "WARN", "usb") + line(5, "raid", "FATL", "raid") +
                line(1, "bad", "ERRO") + line(2, "odd", "WARN"),
            run({"cat", "--level", "warn"}).text);
  EXPECT_EQ("\x1b[31m" + line(1, "bad", "ERRO").substr(0, 28) + "\x1b[0m\n",
            run({"cat", "/var/mlogfile/wan.log", "--level", "ERRO", "--colour", "always"}).text);
}

TEST(MlogCat, TurnsUptimeIntoTimeForTheRunningBootOnly) {
  const int64_t now_ms = uptime_ms();
  write_ring("wan", line(now_ms + 99999999, "before a reboot") + line(now_ms, "now"));
  const time_t now = ::time(nullptr);
  char day[16];
  std::strftime(day, sizeof day, "%Y-%m-%dT%H:", ::gmtime(&now));

  EXPECT_THAT(run({"cat", "--time"}).text,
              MatchesRegex("\\[[0-9]{11}\\]\\[wan\\]\\[INFO\\]:before a reboot\n\\[" +
                           std::string(day) + ".*Z\\]\\[wan\\]\\[INFO\\]:now\n"));
}

TEST(MlogCat, PrintsJson) {
  write_ring("wan", "free \xff text\n" + line(9999999999, "a \"b\"\nc", "WARN") +
                        "[09999999999][wan][INFO][4711]:sent\n");
  EXPECT_EQ(
      "{\"text\":\"free \xef\xbf\xbd text\"}\n"
      "{\"uptime_ms\":9999999999,\"module\":\"wan\",\"level\":\"WARN\",\"text\":\"a "
      "\\\"b\\\"\\nc\"}\n"
      "{\"uptime_ms\":9999999999,\"module\":\"wan\",\"level\":\"INFO\",\"pid\":4711,\"text\":"
      "\"sent\"}\n",
      run({"cat", "--json"}).text);
}

TEST(MlogCat, TakesNoBracketsThatTheServerDoesNotWriteForAHead) {
  const std::string text = "[1][wan][INFO][4294967296]:x\n[1][wan][INFO][1]x\n[1][wan][INFO][]:x\n";
  write_ring("wan", text);
  EXPECT_EQ(text, run({"cat"}).text);
  EXPECT_THAT(run({"cat", "--json"}).text, Not(HasSubstr("pid")));
}

TEST(MlogCat, GivesALineTheSameTimeEveryTime) {
  write_ring("wan", line(1234, "x"));
  const std::string first = run({"cat", "--json"}).text;
  EXPECT_THAT(first, HasSubstr("\"time\":"));
  for (int i = 0; i < 50; ++i) EXPECT_EQ(first, run({"cat", "--json"}).text);
}

TEST(MlogCat, NamesWhatIsWrong) {
  ::mkdir("/var/mlogfile", 0700);
  std::ofstream("/var/mlogfile/wan.log") << std::string(63, 'x') << "\n" << line(1, "saved");

  Output output = run({"cat", "wan"});
  EXPECT_EQ(1, output.status);
  EXPECT_THAT(output.text, HasSubstr("mlog: /var/mlogfile/wan.log: the header is damaged"));
  EXPECT_THAT(output.text, HasSubstr(line(1, "saved")));

  for (const auto &[file, complaint] : {std::pair{"lan", "lan: No such file or directory"},
                                        {"/dev/null", "/dev/null: not a regular file"}}) {
    output = run({"cat", file});
    EXPECT_EQ(1, output.status);
    EXPECT_EQ("mlog: " + std::string(complaint) + "\n", output.text);
  }
}

TEST(MlogTail, PrintsTheLastLinesOfEachFileAndFollowsThem) {
  for (const char *module : {"wan", "lan"}) {
    write_ring(module, line(1, "first", "INFO", module) + line(2, "second", "INFO", module) +
                           line(3, "third", "INFO", module));
  }
  test::Process tail("mlog", {"tail", "-f", "-n", "2", "wan", "lan", "usb"});
  ASSERT_TRUE(tail.wait_for("[wan][INFO]:third\n"));
  write_ring("usb", line(1, "of a module that was not there", "INFO", "usb"));
  ASSERT_TRUE(tail.wait_for("not there\n"));

  EXPECT_EQ(line(2, "second", "INFO", "lan") + line(3, "third", "INFO", "lan") + line(2, "second") +
                line(3, "third") + line(1, "of a module that was not there", "INFO", "usb"),
            tail.output());
  EXPECT_EQ(1, run({"tail", "usb2"}).status);
}

TEST(MlogStat, CountsLinesAndTurns) {
  write_ring("wan", line(1, "a", "WARN") + line(2, "b") + line(7, "c"));
  EXPECT_EQ(
      "{\"file\":\"/var/mlogfile/wan.log\",\"bytes\":144,\"overturns\":0,\"offset\":144,"
      "\"entries\":3,\"levels\":{\"INFO\":2,\"WARN\":1},\"oldest_uptime_ms\":1,"
      "\"newest_uptime_ms\":7,\"problems\":[]}\n",
      run({"stat", "--json"}).text);
  EXPECT_THAT(run({"stat"}).text, HasSubstr("wan.log: bytes 144 overturns 0 offset 144 entries 3"));
}

}  // namespace
