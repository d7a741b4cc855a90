// The commands that write lines, and those that ask the server.

#include <gmock/gmock.h>
#include <signal.h>
#include <sys/stat.h>

#include <cstdio>
#include <sstream>

#include "msgapi/log.h"
#include "servers/log_server.h"
#include "support/terminal.h"
#include "tools/mlog_support.h"

namespace {

using test::LogServer;
using test::with_config;
using testing::AllOf;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::StartsWith;
using namespace test::mlog;

std::string texts(const std::string &module) {
  EXPECT_EQ(0, MlogFlushLog());
  return test::log_of(module);
}

TEST(MlogPrintCommand, WritesLinesOfScripts) {
  LogServer server;
  EXPECT_EQ(0, run({"print", "-m", "backup", "-p", "warn", "--", "disk", "is", "full"}).status);
  EXPECT_THAT(texts("backup"),
              MatchesRegex("\\[[0-9]{11}\\]\\[backup\\]\\[WARN\\]:disk is full\n"));
  // A long text becomes several lines, cut between characters.
  std::string text = "x";
  while (text.size() < 2000) text += "\xc3\xa9";
  EXPECT_EQ(0, run({"print", text}).status);
  const std::string kept = texts("shell");
  EXPECT_EQ(3, std::count(kept.begin(), kept.end(), '\n'));
  EXPECT_EQ(1000, std::count(kept.begin(), kept.end(), '\xa9'));
  EXPECT_EQ(std::string::npos, kept.find("\xc3\n"));

  EXPECT_EQ(2, run({"print", "-m", "../x", "text"}).status);
  EXPECT_EQ(2, run({"print", "-p", "LOUD", "text"}).status);
}

TEST(MlogRun, WritesTheOutputOfAProgramByLines) {
  LogServer server;
  const Output output = run(
      {"run", "-m", "job", "--", "/bin/sh", "-c", "echo one; echo two >&2; printf three; exit 5"});
  EXPECT_EQ(5, output.status) << output.text;
  const std::string log = texts("job");
  EXPECT_THAT(log, HasSubstr("[job][INFO]:one\n"));
  EXPECT_THAT(log, HasSubstr("[job][WARN]:two\n"));
  EXPECT_THAT(log, HasSubstr("[job][INFO]:three\n"));
  EXPECT_EQ("", output.text);

  EXPECT_EQ(128 + SIGTERM, run({"run", "--", "/bin/sh", "-c", "kill $$"}).status);
  EXPECT_EQ(127, run({"run", "--", "/no/such"}).status);
  EXPECT_THAT(texts("such"), HasSubstr("[WARN]:/no/such: No such file or directory\n"));
}

TEST(MlogAlone, PrintsWhatCannotBeSent) {
  const std::string head =
      "mlog: the log server does not take lines; is mlogserver running\\?\n"
      "mlog: \\[[0-9]{11}\\]";
  Output output = run({"print", "text"});
  EXPECT_EQ(3, output.status);
  EXPECT_THAT(output.text, MatchesRegex(head + "\\[shell\\]\\[INFO\\]:text\n"));

  output = run({"run", "-m", "job", "--", "/bin/sh", "-c", "echo one; exit 5"});
  EXPECT_EQ(5, output.status) << "the program's";
  EXPECT_THAT(output.text, MatchesRegex(head + "\\[job\\]\\[INFO\\]:one\n"));
  EXPECT_EQ(0, run({"run", "--", "/bin/echo", "one"}).status);
}

TEST(MlogLevel, ChangesWhatIsKeptAtRunTime) {
  LogServer server(with_config("level = WARN\n"));
  EXPECT_EQ("WARN\n", run({"level", "wan"}).text);
  MlogPrint("wan", MLOG_LEVEL_INFO, "dropped");
  EXPECT_EQ(0, run({"level", "wan", "info"}).status);
  MlogPrint("wan", MLOG_LEVEL_INFO, "kept");
  EXPECT_THAT(texts("wan"), MatchesRegex(".*:kept\n"));
  EXPECT_EQ("INFO\n", run({"level", "wan"}).text);
  EXPECT_EQ(0, run({"level", "wan", "configured"}).status);
  EXPECT_EQ("WARN\n", run({"level", "wan"}).text);
  EXPECT_EQ(2, run({"level", "wan", "loud"}).status);
  EXPECT_EQ(2, run({"level", "mlogServer", "INFO"}).status);

  // Others than the server's user and root may only look.
  ::chmod("/var/mlog", 0777);
  ::chmod("/var/mlog/mlogServer", 0666);
  const pid_t child = ::fork();
  if (child == 0) {
    const bool left = ::setuid(65534) == 0;
    const int32_t told = MlogSetStatInfo("mlogServer.level/wan", "FATL");
    ::_exit(left && told == 0 ? 0 : 1);
  }
  int status = 0;
  ::waitpid(child, &status, 0);
  EXPECT_EQ(0, status);
  EXPECT_EQ("WARN\n", run({"level", "wan"}).text);
}

TEST(MlogModules, ListsThemWithTheirCounts) {
  LogServer server(with_config("level = WARN\nmax_modules = 2\n"));
  for (const char *module : {"wan", "lan", "usb"}) {
    MlogPrint(module, MLOG_LEVEL_WARN, "kept");
    MlogPrint(module, MLOG_LEVEL_INFO, "dropped");
  }
  EXPECT_EQ(
      "{\"module\":\"lan\",\"level\":\"WARN\",\"kept\":1,\"below_level\":1,\"dropped\":0,\"lost\":"
      "0}\n"
      "{\"module\":\"other\",\"level\":\"WARN\",\"kept\":1,\"below_level\":1,\"dropped\":0,"
      "\"lost\":0}\n"
      "{\"module\":\"wan\",\"level\":\"WARN\",\"kept\":1,\"below_level\":1,\"dropped\":0,\"lost\":"
      "0}\n",
      run({"modules", "--json"}).text);
  EXPECT_THAT(run({"modules"}).text, StartsWith("MODULE "));
  EXPECT_EQ(0, server.stop(SIGTERM));
  EXPECT_EQ(3, run({"modules"}).status);
}

// Anybody may log in any name, set any statistics, and send somebody a file.
TEST(MlogForeignTexts, CommandNoTerminalAndAddNoMembers) {
  LogServer server;
  MlogPrint(R"(x","lost":0,"z":")", MLOG_LEVEL_INFO, "text");
  EXPECT_EQ(R"({"module":"x\",\"lost\":0,\"z\":\"","level":"INFO","kept":1,"below_level":0,)"
            R"("dropped":0,"lost":0})"
            "\n",
            run({"modules", "--json"}).text);

  EXPECT_EQ(0, run({"set", "wan", "rx=1\n\x1b]0;title\a"}).status);
  EXPECT_EQ("rx=1\n\x1b]0;title\a\n", run({"get", "wan"}).text) << "a script gets it as it is";
  if (test::has_terminals()) {
    EXPECT_EQ("rx=1\n\\x1b]0;title\\x07\n", test::on_terminal("mlog get wan"));
  }

  const std::string file = "/var/a\x1b[31m.log";
  const std::string text = line(1, "a \xc2\x9b", "INFO", "m\x1b[31m");
  std::ofstream(file) << header(0, 63 + static_cast<int>(text.size())) << text;
  EXPECT_THAT(run({"--stats", file}).text, HasSubstr("m\\x1b[31m "));
  EXPECT_THAT(run({"stat", file}).text, StartsWith("/var/a\\x1b[31m.log: "));
  EXPECT_THAT(run({"--json", file}).text, HasSubstr("a \\u009b\""));
  std::ofstream("/var/\xff\x7f.log") << header(0, 63);
  EXPECT_THAT(run({"stat", "--json", "/var/\xff\x7f.log"}).text,
              StartsWith("{\"file\":\"/var/\xef\xbf\xbd\\u007f.log\","));
}

TEST(MlogRateLimit, DropsAndTells) {
  LogServer server(with_config("rate_limit = 10\nrate_interval = 2\n[lan]\nrate_limit = 0\n"));
  for (int i = 0; i < 25; ++i) {
    MlogPrint("wan", MLOG_LEVEL_INFO, "line %d", i);
    MlogPrint("lan", MLOG_LEVEL_INFO, "line %d", i);
  }
  // The interval ends even if nothing more comes. On a slow machine there are two intervals.
  int kept = 0, dropped = 0;
  std::string log;
  test::eventually([&] {
    log = texts("wan");
    kept = dropped = 0;
    std::istringstream lines(log);
    for (std::string line; std::getline(lines, line);) {
      int count = 1;
      const bool tells =
          std::sscanf(line.c_str(), "%*[^]]][wan][WARN]:mlogserver: %d", &count) == 1;
      (tells ? dropped : kept) += count;
    }
    return kept + dropped == 25;
  });
  EXPECT_EQ(25, kept + dropped) << log;
  EXPECT_LE(10, kept);
  EXPECT_LT(0, dropped);
  EXPECT_THAT(log, AllOf(HasSubstr(":line 9\n"), HasSubstr(" lines dropped from wan\n")));
  EXPECT_THAT(texts("lan"), HasSubstr(":line 24\n"));
  EXPECT_THAT(run({"modules", "--json"}).text, HasSubstr("\"dropped\":" + std::to_string(dropped)));
}

TEST(ServersLog, GoesToTheLogServerOnceThatIsUp) {
  for (const char *name : {"msgsvr", "notifyserver"}) {
    test::Process without(name, {"--log-server"});
    EXPECT_TRUE(without.wait_for("ready"));
    EXPECT_EQ(0, without.stop(SIGTERM));

    LogServer log_server;
    test::Process with(name, {"--log-server"});
    const std::string ready = std::string("[") + name + "][INFO]:ready";
    EXPECT_TRUE(test::eventually([&] { return texts(name).find(ready) != std::string::npos; }));
    ASSERT_EQ(0, log_server.stop(SIGTERM));
    ::kill(with.pid(), SIGHUP);
    EXPECT_TRUE(with.wait_for("SIGHUP: "));
    EXPECT_THAT(with.output(), testing::Not(HasSubstr("ready")));
  }
}

TEST(MlogStatistics, AreKeptByTheServer) {
  LogServer server;
  EXPECT_EQ(0, run({"set", "wan", "rx=1 tx=2"}).status);
  EXPECT_EQ("rx=1 tx=2\n", run({"get", "wan"}).text);
  const Output output = run({"get", "nosuch"});
  EXPECT_EQ(4, output.status);
  EXPECT_EQ("mlog: nosuch: the log server has no statistics of this module\n", output.text);
}

TEST(MlogFlushCommand, SaysWhatIsTheMatter) {
  Output output = run({"flush"});
  EXPECT_EQ(3, output.status);
  EXPECT_EQ("mlog: the log server does not answer; is mlogserver running?\n", output.text);

  test::SmallDisk disk;
  LogServer server(with_config("directory = /mnt/disk\n"));
  MlogPrint("wan", 8, "before");
  EXPECT_EQ(0, run({"flush"}).status);
  disk.fill();
  for (int i = 0; i < 50; ++i) MlogPrint("wan", 8, "%0200d", i);
  output = run({"flush"});
  EXPECT_EQ(8, output.status);
  EXPECT_EQ("mlog: /mnt/disk: No space left on device: lines are lost until there is room again\n",
            output.text);
}

}  // namespace
