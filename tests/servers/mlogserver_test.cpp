#include <gmock/gmock.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "msgapi/log.h"
#include "os/fd.h"
#include "servers/log_server.h"
#include "support/file.h"
#include "support/process.h"

namespace {

using test::log_of;
using test::LogServer;
using test::Sender;
using test::SmallDisk;
using test::with_config;
using testing::ContainsRegex;
using testing::EndsWith;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::StartsWith;

void expect_refusal(const std::vector<std::string> &arguments, const std::string &complaint) {
  test::Process server("mlogserver", arguments);
  EXPECT_EQ(1, server.wait());
  EXPECT_THAT(server.output(), HasSubstr(complaint));
}

TEST(LogServer, KeepsTheLinesOfEveryModuleMaskedInARingOfItsOwn) {
  LogServer server;
  MlogPrint("wan", MLOG_LEVEL_INFO, "one");
  MlogPrint("lan", MLOG_LEVEL_INFO,
            "host 192.168.1.10 at 00:11:22:33:44:55, 2001:db8::1, 4857544312AB34CD");
  MlogPrint("wan", MLOG_LEVEL_INFO, "three");
  Sender sender;
  const std::string improper[] = {"[1][../../x][INFO]:a\n",
                                  "[1][.x][INFO]:b\n",
                                  "[1][][INFO]:c\n",
                                  "[1][a b][INFO]:d\n",
                                  "[1][caf\xe9][INFO]:e\n",
                                  "[1][mlogcfg.new][INFO]:f\n",
                                  "[1][" + std::string(98, 'n') + "][INFO]:g\n",
                                  "[1][wan][INFO] no colon\n",
                                  "[1][wan]no level\n",
                                  "[1][no end\n",
                                  "free text\n"};
  std::string others;
  for (const std::string &line : improper) {
    sender.send(MLOG_TYPE_LOG, line);
    others += line;
  }
  ASSERT_EQ(0, MlogFlushLog());

  EXPECT_THAT(test::contents("/var/mlogfile/wan.log"),
              MatchesRegex("\\[overturn=000\\]\\[offset=[0-9]+\\]\\[uploadoffset="
                           "000.0000001023\\]\n.*\\]:one\n\\[.*\\]:three\n"));
  EXPECT_THAT(log_of("lan"), EndsWith("[lan][INFO]:host 192.***.*.10 at 00:**:**:33:**:55, "
                                      "***********, 4*5*5*4*1*A*3*C*\n"));
  EXPECT_EQ(others, log_of("other"));
  struct stat status {};
  ASSERT_EQ(0, ::stat("/var/mlogfile/wan.log", &status));
  EXPECT_EQ(mode_t{S_IFREG | 0640}, status.st_mode);
}

TEST(LogServer, LetsNoTextForgeALineOrDriveATerminal) {
  LogServer server;
  Sender sender;
  const std::pair<std::string, std::string> cases[] = {
      {"x\n[00000000001][lan][FATL]:forged\n\n", "x\n\t[00000000001][lan][FATL]:forged"},
      {"a\tb\r\x1b[2J\x7f", "a\tb??[2J?"},
      {"\xc2\x9b and \x9b, \xe0\x80\x9b, \xc2", "? and ?, \xe0??, \xc2"},
      {"\xc2\xa0\xc3\x9b\xe2\x82\x9b\xf0\x9f\x98\x80 caf\xe9",
       "\xc2\xa0\xc3\x9b\xe2\x82\x9b\xf0\x9f\x98\x80 caf\xe9"},
      {std::string(1000, '\n') + "y",
       [] {
         std::string lines;
         for (int i = 0; i < 1000; ++i) lines += "\n\t";
         return lines + "y";
       }()},
  };
  std::string expected;
  for (const auto &[text, kept] : cases) {
    sender.send(MLOG_TYPE_LOG, "[1][wan][INFO]:" + text);
    expected += "[1][wan][INFO]:" + kept + "\n";
  }
  // Neither does a name.
  sender.send(MLOG_TYPE_LOG, "[1][mlogServer.inbox][INFO]:a\n");
  sender.send(MLOG_TYPE_LOG, "[1][a\n[1][lan][INFO]:b][INFO]:c\n");
  ASSERT_EQ(0, MlogFlushLog());

  EXPECT_EQ(expected, log_of("wan"));
  EXPECT_EQ("[1][mlogServer.inbox][INFO]:a\n[1][a\n\t[1][lan][INFO]:b][INFO]:c\n", log_of("other"));
  EXPECT_EQ("", log_of("lan"));
}

TEST(LogServer, WritesDownWhoHasSentALineWhereTold) {
  LogServer server(with_config("sender_pids = 1\n"));
  Sender sender;
  sender.send(MLOG_TYPE_LOG, "[1][wan][INFO]:[77]: text");
  for (const char *forged :
       {"[1][wan][INFO][77]:text", "[1][lan]\n[1][wan][INFO][77]:text", "[77]"}) {
    sender.send(MLOG_TYPE_LOG, forged);
  }
  sender.send(MLOG_TYPE_LOG, "[1][wan][INFO]:" + std::string(1000, '\n') + "y");
  ASSERT_EQ(0, MlogFlushLog());

  const std::string pid = std::to_string(::getpid());
  EXPECT_THAT(log_of("wan"), StartsWith("[1][wan][INFO][" + pid + "]:[77]: text\n[1][wan][INFO][" +
                                        pid + "]:\n\t"));
  EXPECT_EQ("from " + pid + ": [1][wan][INFO][77]:text\nfrom " + pid +
                ": [1][lan]\n\t[1][wan][INFO][77]:text\nfrom " + pid + ": [77]\n",
            log_of("other"));
}

TEST(LogServer, SharesItsDirectoryWhateverTheUmask) {
  ::rmdir("/var/mlog");
  ::umask(077);
  LogServer server;

  struct stat status {};
  ASSERT_EQ(0, ::stat("/var/mlog", &status));
  EXPECT_EQ(mode_t{S_IFDIR | 0770}, status.st_mode);
}

TEST(LogServer, KeepsStatisticsOfEveryModule) {
  LogServer server;
  const std::string longest(255, 'x');
  EXPECT_EQ(0, MlogSetStatInfo("wan", "rx=1"));
  EXPECT_EQ(0, MlogSetStatInfo("lan", longest.c_str()));
  EXPECT_EQ(0, MlogSetStatInfo("wan", "rx=2"));

  for (const auto &[module, expected] :
       {std::pair{"wan", std::string("rx=2")}, {"lan", longest}, {"usb", ""}}) {
    char info[256] = "old";
    EXPECT_EQ(0, MlogGetStatInfo(module, info, sizeof info));
    EXPECT_EQ(expected, info);
  }
}

TEST(LogServer, BoundsTheNumberOfStatistics) {
  LogServer server;
  for (int i = 0; i < 260; ++i)
    EXPECT_EQ(0, MlogSetStatInfo(("m" + std::to_string(i)).c_str(), "1"));
  EXPECT_EQ(0, MlogSetStatInfo("m0", "2"));

  char info[256];
  EXPECT_EQ(0, MlogGetStatInfo("m0", info, sizeof info));
  EXPECT_STREQ("2", info) << "known ones are still kept up to date";
  EXPECT_EQ(0, MlogGetStatInfo("m259", info, sizeof info));
  EXPECT_STREQ("", info);
  EXPECT_EQ(0, server.stop(SIGTERM));
  EXPECT_THAT(server.output(), HasSubstr(" refused 4 "));
}

TEST(LogServer, SetsLevelsUntilTheyAreTakenBack) {
  LogServer server;
  const auto set = [](const std::string &name, const char *text) {
    EXPECT_EQ(0, MlogSetStatInfo(("mlogServer." + name).c_str(), text));
  };
  const auto answer = [](const std::string &name) {
    char info[256] = "";
    EXPECT_EQ(0, MlogGetStatInfo(("mlogServer." + name).c_str(), info, sizeof info));
    return std::string(info);
  };

  EXPECT_EQ("INFO", answer("level/wan"));
  for (const char *level : {"WARN", "ERRO"}) set("level/wan", level);
  EXPECT_EQ("ERRO", answer("level/wan"));
  for (int i = 0; i < 2; ++i) set("level/wan", "CONFIGURED");
  EXPECT_EQ("INFO", answer("level/wan"));

  set("level/wan", "LOUD");
  set("level/../x", "WARN");
  set("colour/wan", "WARN");
  EXPECT_EQ("", answer("colour/wan"));
  EXPECT_EQ("", answer("module/99"));
  EXPECT_EQ("", answer("state"));
  for (int i = 0; i < 257; ++i) set("level/m" + std::to_string(i), "WARN");
  EXPECT_EQ("WARN", answer("level/m255"));
  EXPECT_EQ("INFO", answer("level/m256"));
  EXPECT_EQ(0, server.stop(SIGTERM));
  EXPECT_THAT(server.output(), ContainsRegex(" malformed 3 unanswered 0 refused 1 "));
}

TEST(LogServer, CountsWhatNoClientSendsAndGoesOn) {
  LogServer server;
  Sender sender;
  for (const auto &[type, length] :
       {std::pair{0u, 0u}, {1u, 0u}, {2u, 511u}, {2u, 516u}, {4u, 255u}, {4u, 256u}, {9u, 9u}}) {
    sender.send(type, std::string(length, 'x'));  // fields without an end
  }
  sender.send(MLOG_TYPE_SET_STAT, "x" + std::string(255, '\0') + std::string(260, 'x'));
  // A client without an address, which cannot be answered.
  const msgapi::os::UniqueFd nameless(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  const sockaddr_un address{AF_UNIX, MLOG_IPC_PATH MLOG_SERVER_NAME};
  ASSERT_EQ(
      0, ::connect(nameless.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address));
  MlogMsg head{.type = MLOG_TYPE_FLUSH, .length = 0, .payload = {}};
  EXPECT_EQ(3, ::send(nameless.get(), &head, 3, 0));
  EXPECT_EQ(MLOG_HEAD_SIZE, ::send(nameless.get(), &head, MLOG_HEAD_SIZE, 0));
  head.length = 1;
  EXPECT_EQ(MLOG_HEAD_SIZE, ::send(nameless.get(), &head, MLOG_HEAD_SIZE, 0));
  const std::string too_long(2 * sizeof head, '\1');
  EXPECT_LT(0, ::send(nameless.get(), too_long.data(), too_long.size(), 0));

  EXPECT_EQ(0, MlogFlushLog());
  EXPECT_EQ(0, server.stop(SIGTERM));
  EXPECT_THAT(server.output(), HasSubstr(" requests 2 malformed 11 unanswered 1 "));
}

TEST(LogServer, StopsCleanlyAndGivesWayToNobodyWhileItRuns) {
  LogServer server;
  expect_refusal({}, "already running");

  MlogPrint("wan", MLOG_LEVEL_INFO, "last words");
  EXPECT_EQ(0, server.stop(SIGTERM));
  EXPECT_NE(0, ::access("/var/mlog/mlogServer", F_OK));
  EXPECT_THAT(log_of("wan"), EndsWith(":last words\n"));

  {
    LogServer third;
    std::filesystem::remove("/var/mlog/mlogServer");
    std::ofstream("/var/mlog/mlogServer") << "somebody else's";
    EXPECT_EQ(0, third.stop(SIGTERM));
    EXPECT_EQ("somebody else's", test::contents("/var/mlog/mlogServer"));
  }
  LogServer fourth;
}

TEST(LogServer, SaysWhyItCannotStart) {
  const std::string place = "/var/mlog/mlogServer";
  std::filesystem::create_directory(place);
  expect_refusal({}, place + ": Address already in use");
  std::filesystem::remove_all("/var/mlog");
  std::ofstream("/var/mlog") << "a file";
  expect_refusal({}, place + ": Not a directory");
  ASSERT_EQ(0, ::mount("none", "/var", "tmpfs", MS_RDONLY, nullptr));
  expect_refusal({}, "/var/mlog/: Read-only file system");
}

TEST(LogServerConfig, DecidesWhatIsKeptWhere) {
  // Files in turn 999, the highest: the next line of the first one begins another turn.
  std::filesystem::create_directory("/var/a");
  std::ofstream("/var/a/lan.log")
      << "[overturn=999][offset=0000004096][uploadoffset=999^0000001023]\n";
  std::ofstream("/var/a/wan.log")
      << "[overturn=999][offset=0000000067][uploadoffset=999^0000001023]\nold\n";
  LogServer server(
      with_config("# comment\n"
                  "directory = /var/a\n"
                  "level = WARN\n"
                  "modules = wan lan\n"
                  "[lan]\n"
                  "level = ERRO\n"
                  "max_size = 4096\n"));

  for (const char *module : {"wan", "lan", "usb"}) {
    for (const uint32_t level : {0u, 2u, 4u, 8u}) MlogPrint(module, level, "level %u", level);
  }
  ASSERT_EQ(0, MlogFlushLog());

  EXPECT_THAT(test::contents("/var/a/wan.log"),
              MatchesRegex("\\[overturn=999\\].*\nold\n.*:level 0\n.*:level 2\n.*:level 4\n"));
  EXPECT_THAT(log_of("lan", "/var/a"), MatchesRegex(".*:level 0\n.*:level 2\n"));
  EXPECT_THAT(log_of("other", "/var/a"), MatchesRegex(".*\\[usb\\].*0\n.*2\n.*level 4\n"));

  for (int line = 0; line < 100; ++line) MlogPrint("lan", 2, "%080d", line);
  ASSERT_EQ(0, MlogFlushLog());
  EXPECT_EQ(std::filesystem::file_size("/var/a/lan.log") / 100, 40u);
  EXPECT_THAT(test::contents("/var/a/lan.log"), HasSubstr("[overturn=003]"));
}

TEST(LogServerConfig, IsReadAnewOnRequest) {
  LogServer server(with_config("directory = /var/a\nshare_directory = /mnt/b\n"));
  MlogPrint("wan", 8, "first");

  // The share partition comes into use.
  std::ofstream("/var/mlog/mlogcfg") << "[SHARE]=1\n";
  ::kill(server.pid(), SIGHUP);
  ASSERT_TRUE(server.wait_for("files are in /mnt/b"));
  MlogPrint("wan", 8, "second");

  // A mistake changes nothing.
  with_config("directory = /var/c\nlevel = LOUD\n");
  ::kill(server.pid(), SIGHUP);
  ASSERT_TRUE(server.wait_for("level = LOUD: not one of FATL, ERRO, WARN, INFO; going on"));
  MlogPrint("wan", 8, "third");
  ASSERT_EQ(0, MlogFlushLog());

  EXPECT_THAT(log_of("wan", "/var/a"), MatchesRegex(".*:first\n"));
  EXPECT_THAT(log_of("wan", "/mnt/b"), MatchesRegex(".*:second\n.*:third\n"));
}

TEST(LogServerConfig, ANewOneForgetsNothingThatIsStillToBeTold) {
  SmallDisk disk;
  LogServer server(with_config("directory = /mnt/disk\n"));
  disk.fill();
  MlogPrint("wan", 8, "lost");
  ASSERT_TRUE(server.wait_for("lines are lost"));

  ::kill(server.pid(), SIGHUP);
  ASSERT_TRUE(server.wait_for("configuration read"));
  EXPECT_EQ(-1, MlogFlushLog()) << "a line was lost before the signal";

  disk.make_room();
  MlogPrint("wan", 8, "after");
  EXPECT_EQ(0, MlogFlushLog());
  EXPECT_THAT(log_of("wan", "/mnt/disk"),
              MatchesRegex(".*mlogserver: 1 lines before this one are lost\n.*:after\n"));

  // Modules that have no file any more are told of in the one that has their lines now.
  disk.fill();
  for (const char *module : {"lan", "tv", "usb"}) MlogPrint(module, 8, "lost");
  ASSERT_TRUE(server.wait_for("lines are lost"));
  with_config("directory = /mnt/disk\nmodules = usb\n");
  ::kill(server.pid(), SIGHUP);
  ASSERT_TRUE(server.wait_for("configuration read"));
  disk.make_room();
  for (const char *module : {"wan", "usb"}) MlogPrint(module, 8, "after");
  EXPECT_EQ(-1, MlogFlushLog());
  EXPECT_THAT(log_of("other", "/mnt/disk"),
              MatchesRegex(".*mlogserver: 2 lines before this one are lost\n.*:after\n"));
  EXPECT_THAT(log_of("usb", "/mnt/disk"),
              MatchesRegex(".*mlogserver: 1 lines before this one are lost\n.*:after\n"));
}

TEST(LogServerConfig, LinesThatAreDroppedCostNoMemoryForTheirNames) {
  LogServer server(with_config("level = WARN\n"));
  MlogPrint("wan", MLOG_LEVEL_WARN, "has a file");
  Sender sender;
  for (int i = 0; i < 1000; ++i) {
    sender.send(MLOG_TYPE_LOG, "[1][m" + std::to_string(i) + "][INFO]:x\n");
  }
  MlogPrint("wan", MLOG_LEVEL_INFO, "dropped");

  EXPECT_EQ(0, server.stop(SIGTERM));
  EXPECT_THAT(server.output(), HasSubstr("module other: kept 0 below level 1000 dropped 0 lost 0"));
  EXPECT_THAT(server.output(), HasSubstr("module wan: kept 1 below level 1 dropped 0 lost 0"));
  EXPECT_THAT(server.output(), testing::Not(HasSubstr("module m")));
}

TEST(LogServerConfig, MistakesAreNamed) {
  const std::pair<const char *, const char *> cases[] = {
      {"size = 1\n", "unknown key size"},
      {"max_size = 100\n", "max_size = 100: not a number from 4096 to 2097152"},
      {"directory = logs\n", "directory = logs: not an absolute path"},
      {"level =\n", "level needs one value"},
      {"level = INFO WARN\n", "level needs one value"},
      {"max_size = 4096k\n", "max_size = 4096k: not a number"},
      {"max_size = 2097153\n", "max_size = 2097153: not a number"},
      {"rate_limit = 99999999999\n", "rate_limit = 99999999999: not a number"},
      {"[a/b]\nlevel = INFO\n", "a/b: not a module's name"},
      {"modules = a ../b\n", "../b: not a module's name"},
      {"[wan]\nmodules = a\n", "unknown key modules in [wan]"},
  };
  for (const auto &[text, complaint] : cases) expect_refusal(with_config(text), complaint);
  expect_refusal({"--config", "/no/file"}, "/no/file: No such file or directory");
}

TEST(LogServerConfig, IsTheUsualFileWhereNoneIsNamed) {
  ASSERT_EQ(0, ::mount("none", "/etc", "tmpfs", 0, nullptr));
  std::ofstream("/etc/mlogserver.conf") << "directory = /var/usual\n";
  LogServer server;
  EXPECT_THAT(server.output(), HasSubstr("files are in /var/usual"));

  std::filesystem::remove("/etc/mlogserver.conf");
  ::kill(server.pid(), SIGHUP);
  EXPECT_TRUE(server.wait_for("configuration read, files are in /var/mlogfile"));
}

TEST(LogServerConfig, LimitsTheNumberOfFiles) {
  LogServer server(with_config("max_modules = 3\n"));

  for (const char *module : {"a", "b", "c", "d", "e", "a"}) MlogPrint(module, 8, "line");
  ASSERT_EQ(0, MlogFlushLog());

  EXPECT_THAT(log_of("a"), MatchesRegex("(.*:line\n){2}"));
  EXPECT_THAT(log_of("other"), MatchesRegex(".*\\[d\\].*\n.*\\[e\\].*\n"));
}

}  // namespace
