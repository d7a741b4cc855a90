// All logs as one: "mlog" without a command.

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "support/terminal.h"
#include "tools/mlog_support.h"

namespace {

using testing::AllOf;
using testing::ContainsRegex;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;
using namespace test::mlog;

std::string text_of(const std::vector<std::string> &arguments) {
  const Output output = run(arguments);
  EXPECT_EQ(0, output.status) << output.text;
  return output.text;
}

// Writes three modules with lines of the same times.
void write_three() {
  write_ring("wan", line(10, "w1") + line(30, "w2", "WARN"));
  write_ring("lan", line(10, "l1", "INFO", "lan") + line(20, "l2", "ERRO", "lan"));
  write_ring("other", line(20, "u1", "INFO", "usb") + line(40, "Up 100%", "FATL", "usb"));
}

TEST(MlogShow, IsOneLogInTheOrderOfTime) {
  write_three();
  const std::string merged = line(10, "l1", "INFO", "lan") + line(10, "w1") +
                             line(20, "l2", "ERRO", "lan") + line(20, "u1", "INFO", "usb") +
                             line(30, "w2", "WARN") + line(40, "Up 100%", "FATL", "usb");
  EXPECT_EQ(merged, text_of({"-o", "raw"}));
  EXPECT_EQ(merged, text_of({"show", "-o", "raw"}));
  EXPECT_EQ(merged, text_of({"--directory", "/var/mlogfile", "-o", "raw"}));
  EXPECT_EQ(merged, text_of({"/var/mlogfile", "-o", "raw"})) << "a folder";
  EXPECT_EQ(line(10, "l1", "INFO", "lan") + line(10, "w1") + line(20, "l2", "ERRO", "lan") +
                line(30, "w2", "WARN"),
            text_of({"/var/mlogfile/wan.log", "lan", "-o", "raw"}));

  EXPECT_EQ(line(30, "w2", "WARN") + line(40, "Up 100%", "FATL", "usb"),
            text_of({"-n", "2", "-o", "raw"}));
  EXPECT_EQ("", text_of({"-n", "0", "-o", "raw"}));
  EXPECT_EQ(merged, text_of({"-n", "100", "-o", "raw"}));
  EXPECT_EQ(
      line(40, "Up 100%", "FATL", "usb") + line(30, "w2", "WARN") + line(20, "u1", "INFO", "usb"),
      text_of({"-r", "-n", "3", "-o", "raw"}));
}

TEST(MlogShow, ShowsWhatIsWanted) {
  write_three();
  const auto raw = [](std::vector<std::string> arguments) {
    arguments.insert(arguments.end(), {"-o", "raw"});
    return text_of(arguments);
  };
  const std::string l2 = line(20, "l2", "ERRO", "lan");
  const std::string up = line(40, "Up 100%", "FATL", "usb");
  EXPECT_EQ(l2 + up, raw({"-p", "err"}));
  EXPECT_EQ(l2 + line(30, "w2", "WARN"), raw({"-p", "ERRO..WARN"}));
  EXPECT_EQ(line(10, "l1", "INFO", "lan") + l2, raw({"-m", "l*"}));
  EXPECT_EQ(l2 + line(20, "u1", "INFO", "usb") + up, raw({"-m", "[u]*", "-m", "lan", "-n", "3"}));
  EXPECT_EQ(up, raw({"-g", "^up +[0-9]+%$"}));
  EXPECT_EQ("", raw({"-g", "^up", "--case"}));
  EXPECT_EQ(up, raw({"-g", "^U"}));
  EXPECT_EQ("", raw({"--until", "2001-01-01"}));
  EXPECT_EQ("", raw({"--since", "now"}));
  EXPECT_EQ(line(10, "l1", "INFO", "lan") + line(10, "w1") + l2 + line(20, "u1", "INFO", "usb") +
                line(30, "w2", "WARN") + up,
            raw({"--since", "boot", "--until", "now"}));

  for (const std::vector<std::string> &bad : {std::vector<std::string>{"-p", "LOUD"},
                                              {"-g", "("},
                                              {"--since", "soon"},
                                              {"-n", "-1"},
                                              {"-o", "yaml"},
                                              {"-f", "-r"},
                                              {"--no-such"}}) {
    const Output output = run(bad);
    EXPECT_EQ(2, output.status) << bad.front();
    EXPECT_THAT(output.text, HasSubstr("mlog: ")) << bad.front();
  }
}

// The uptime would fit the running boot, but it is another machine's.
TEST(MlogShow, FilesFromElsewhereHaveNoTimesOfDay) {
  write_ring("wan", line(uptime_ms(), "of another machine"));
  std::filesystem::create_directory("/var/uploaded");
  std::filesystem::rename("/var/mlogfile/wan.log", "/var/uploaded/wan.log");
  write_ring("wan", line(uptime_ms(), "of this one"));

  const std::string up = "up [0-9]+\\.[0-9]{3} s wan INFO: of another machine\n";
  for (const std::vector<std::string> &words : std::vector<std::vector<std::string>>{
           {"/var/uploaded"}, {"--directory", "/var/uploaded"}, {"/var/uploaded/wan.log"}}) {
    EXPECT_THAT(text_of(words), MatchesRegex(up));
  }
  EXPECT_THAT(text_of({"/var/uploaded", "--json"}), Not(HasSubstr("\"time\"")));
  EXPECT_EQ(text_of({"/var/uploaded", "--since", "boot"}), "");
  EXPECT_THAT(
      text_of({"/var/uploaded", "/var/../var/mlogfile"}),
      AllOf(ContainsRegex("(^|\n)" + up), ContainsRegex("-[0-9]+ [0-9:.]+ wan INFO: of this")));
  std::filesystem::create_symlink("/var/mlogfile", "/var/link");
  EXPECT_THAT(text_of({"/var/link"}), MatchesRegex("[0-9-]+ [0-9:.]+ wan INFO: of this one\n"));
}

TEST(MlogShow, PrintsTimesAndTextsForPeople) {
  const int64_t now_ms = uptime_ms();
  write_ring("wan", line(now_ms + 99999999, "of another boot") +
                        line(now_ms, "two\n\tlines \x1b[2J", "WARN"));
  const std::string day = "[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3}";
  EXPECT_THAT(text_of({}), MatchesRegex("up [0-9]+\\.[0-9]{3} s wan INFO: of another boot\n"
                                        "-- another boot of the device: .*\n" +
                                        day + " wan WARN: two\n\tlines \\?\\[2J\n"));
  EXPECT_THAT(text_of({"-n", "1", "-o", "full", "--utc"}),
              MatchesRegex(day + "Z \\[[0-9]{11}\\] wan WARN: two\n\tlines \\?\\[2J "
                                 "\\(/var/mlogfile/wan.log\\)\n"));
  EXPECT_THAT(text_of({"--json"}),
              MatchesRegex("\\{\"uptime_ms\":[0-9]+,\"module\":\"wan\",\"level\":\"INFO\",\"text\":"
                           "\"of another boot\"\\}\n\\{\"marker\":\".*\"\\}\n"
                           "\\{\"uptime_ms\":[0-9]+,\"time\":\".*Z\",\"module\":\"wan\",\"level\":"
                           "\"WARN\",\"text\":\"two\\\\nlines \\\\u001b\\[2J\"\\}\n"));
  EXPECT_THAT(text_of({"-r", "--colour", "always"}),
              MatchesRegex("\x1b\\[33m" + day + " wan WARN: two\n.*\x1b\\[0m\n-- .*\nup.*\n"));
}

TEST(MlogShow, KeepsTheOrderOfArrivalWhereAClockGoesBack) {
  write_ring("wan", line(500000, "w1") + line(600000, "w2") + line(1000, "w3") + line(5000, "w4"));
  write_ring("lan", line(700000, "l1", "INFO", "lan") + line(2000, "l2", "INFO", "lan"));
  write_ring("usb", line(3000, "u1", "INFO", "usb") + line(2990, "u2", "INFO", "usb") +
                        line(3001, "u3", "INFO", "usb"));
  const std::string lines[] = {
      line(500000, "w1"),
      line(600000, "w2"),
      line(700000, "l1", "INFO", "lan"),
      line(1000, "w3"),
      line(2000, "l2", "INFO", "lan"),
      line(3000, "u1", "INFO", "usb"),
      line(2990, "u2", "INFO", "usb"),
      line(3001, "u3", "INFO", "usb"),
      line(5000, "w4"),
  };
  std::string all;
  for (const std::string &text : lines) all += text;
  EXPECT_EQ(all, text_of({"-o", "raw"}));
  EXPECT_THAT(text_of({}),
              HasSubstr("l1\n-- another boot of the device: uptime goes from 700.000 s "
                        "to 1.000 s --\n"));
  std::string last;
  for (size_t count = 1; count <= std::size(lines); ++count) {
    last = lines[std::size(lines) - count] + last;
    EXPECT_EQ(last, text_of({"-o", "raw", "-n", std::to_string(count)}));
  }
}

TEST(MlogShow, CountsLinesAndWhatIsNotThere) {
  write_ring("wan", line(1, "a") + line(2, "b") +
                        line(3, "mlogserver: 7 lines before this one are lost", "WARN") +
                        line(4, "mlogserver: 12 lines dropped from wan", "WARN"));
  write_ring("lan", line(1, "c", "ERRO", "lan"));
  EXPECT_EQ(
      "{\"module\":\"lan\",\"levels\":{\"ERRO\":{\"lines\":1,\"bytes\":27}},\"lost\":0,\"dropped\":"
      "0}\n"
      "{\"module\":\"wan\",\"levels\":{\"WARN\":{\"lines\":2,\"bytes\":133},\"INFO\":{\"lines\":2,"
      "\"bytes\":54}},"
      "\"lost\":7,\"dropped\":12}\n",
      text_of({"--stats", "--json"}));
  EXPECT_THAT(text_of({"--stats"}), HasSubstr("wan                  lost           7\n"));
}

TEST(MlogShow, GivesItsPagerWhatATerminalWouldShow) {
  write_ring("wan", line(1, "a") + line(2, "b"));
  const auto on_terminal = [](const std::string &pager, const std::string &options) {
    return test::on_terminal("PAGER='" + pager + "' mlog -o raw " + options);
  };
  if (!test::has_terminals()) GTEST_SKIP() << "no terminals here: /dev/ptmx";
  const std::string plain = line(1, "a") + line(2, "b");
  EXPECT_EQ("seen:" + line(1, "a") + "seen:" + line(2, "b"), on_terminal("sed s/^/seen:/", ""));
  EXPECT_EQ(plain, on_terminal("sed s/^/seen:/", "--no-pager"));
  EXPECT_EQ(plain, on_terminal("cat", ""));
  EXPECT_EQ(plain, on_terminal("no-such-pager", "")) << "falls back to the terminal itself";
  EXPECT_EQ(line(1, "a"), on_terminal("head -n 1", "")) << "a pager that is left early";
}

TEST(MlogShow, EndsWithItsReader) {
  std::string lines;
  for (int i = 0; i < 100; ++i) lines += line(i, std::string(200, 'x'));
  for (int i = 0; i < 50; ++i) write_ring("m" + std::to_string(i), lines);
  for (const char *options : {"", "-f -n 5000"}) {
    const Output output = test::shell(std::string("mlog -o raw ") + options +
                                      " 2>/var/errors | head -1; cat /var/errors");
    EXPECT_EQ(line(0, std::string(200, 'x')), output.text);
  }
}

}  // namespace
