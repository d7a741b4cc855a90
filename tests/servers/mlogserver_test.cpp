#include <gmock/gmock.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <cstring>
#include <fstream>
#include <set>
#include <sstream>
#include <string>

#include "msgapi/log.h"
#include "support/process.h"

namespace {

using testing::EndsWith;
using testing::HasSubstr;

std::string content_of(const std::string &path) {
  std::ostringstream content;
  content << std::ifstream(path).rdbuf();
  return content.str();
}

class LogServer : public testing::Test {
 protected:
  LogServer() { EXPECT_TRUE(server_.wait_for("ready")); }

  test::Process server_{"mlogserver"};
};

TEST_F(LogServer, KeepsTheLinesOfEveryModuleInAFileOfItsOwn) {
  MlogPrint("wan", MLOG_LEVEL_INFO, "one");
  MlogPrint("lan", MLOG_LEVEL_INFO, "two");
  MlogPrint("wan", MLOG_LEVEL_INFO, "three");
  ASSERT_EQ(0, MlogFlushLog());

  EXPECT_THAT(content_of("/var/log/mlog/wan.log"),
              testing::ContainsRegex("\\]:one\n\\[.*\\]:three\n"));
  EXPECT_THAT(content_of("/var/log/mlog/lan.log"), EndsWith("[lan][INFO]:two\n"));
  struct stat status {};
  ASSERT_EQ(0, ::stat("/var/log/mlog/wan.log", &status));
  EXPECT_EQ(mode_t{S_IFREG | 0640}, status.st_mode);
}

TEST_F(LogServer, KeepsStatisticsOfEveryModule) {
  char info[256] = "";

  EXPECT_EQ(0, MlogGetStatInfo("wan", info, sizeof info));
  EXPECT_STREQ("", info);
  EXPECT_EQ(0, MlogSetStatInfo("wan", "rx=1"));
  EXPECT_EQ(0, MlogSetStatInfo("lan", std::string(255, 'x').c_str()));
  EXPECT_EQ(0, MlogSetStatInfo("wan", "rx=2"));
  EXPECT_EQ(0, MlogGetStatInfo("wan", info, sizeof info));
  EXPECT_STREQ("rx=2", info);
  EXPECT_EQ(0, MlogGetStatInfo("lan", info, sizeof info));
  EXPECT_EQ(std::string(255, 'x'), info);
}

TEST_F(LogServer, LosesNoLineOfABurstFromTenProcesses) {
  constexpr int kProcesses = 10;
  constexpr int kLines = 1000;
  for (int process = 0; process < kProcesses; ++process) {
    if (::fork() != 0) continue;
    const std::string module = "m" + std::to_string(process);
    for (int line = 0; line < kLines; ++line) MlogPrint(module.c_str(), 8, "line %d", line);
    ::_exit(0);
  }
  for (int process = 0; process < kProcesses; ++process) ::wait(nullptr);
  ASSERT_EQ(0, MlogFlushLog());

  for (int process = 0; process < kProcesses; ++process) {
    std::ifstream file("/var/log/mlog/m" + std::to_string(process) + ".log");
    std::string line;
    int count = 0;
    while (std::getline(file, line)) {
      if (line.ends_with("]:line " + std::to_string(count))) ++count;
    }
    EXPECT_EQ(kLines, count);
  }
}

TEST_F(LogServer, CountsWhatNoClientSendsAndGoesOn) {
  int32_t fd = -1;
  ASSERT_EQ(0, MlogSocketOpen("stranger", &fd));
  MlogMsg message{};
  for (const auto &[type, length] :
       {std::pair{0u, 0u}, {1u, 0u}, {2u, 511u}, {4u, 255u}, {9u, 9u}}) {
    message.type = type;
    message.length = length;
    std::memset(message.payload, 'x', length);
    EXPECT_EQ(0, MlogSendMsg(fd, &message, MLOG_SERVER_NAME));
  }
  message.type = MLOG_TYPE_SET_STAT;
  message.length = 516;
  std::memset(message.payload, 'x', 516);  // fields without an end
  EXPECT_EQ(0, MlogSendMsg(fd, &message, MLOG_SERVER_NAME));
  MlogSocketClose(fd, "stranger");

  EXPECT_EQ(0, MlogFlushLog());
  EXPECT_EQ(0, server_.stop(SIGTERM));
  EXPECT_THAT(server_.output(), HasSubstr(" malformed 6 "));
}

TEST_F(LogServer, KeepsLinesThatNameNoProperModule) {
  int32_t fd = -1;
  ASSERT_EQ(0, MlogSocketOpen("stranger", &fd));
  for (const char *text : {"[1][../../x][INFO]:a\n", "[1][.x][INFO]:b\n", "free text\n"}) {
    MlogMsg message{.type = MLOG_TYPE_LOG, .length = 0, .payload = {}};
    std::strcpy(message.payload, text);
    message.length = static_cast<uint32_t>(std::strlen(text)) + 1;
    EXPECT_EQ(0, MlogSendMsg(fd, &message, MLOG_SERVER_NAME));
  }
  MlogSocketClose(fd, "stranger");
  ASSERT_EQ(0, MlogFlushLog());

  EXPECT_THAT(content_of("/var/log/mlog/other.log"),
              EndsWith("[1][../../x][INFO]:a\n[1][.x][INFO]:b\nfree text\n"));
}

TEST_F(LogServer, StopsCleanlyAndGivesWayToNobodyWhileItRuns) {
  test::Process second("mlogserver");
  EXPECT_EQ(1, second.wait());
  EXPECT_THAT(second.output(), HasSubstr("already running"));

  MlogPrint("wan", MLOG_LEVEL_INFO, "last words");
  EXPECT_EQ(0, server_.stop(SIGTERM));
  EXPECT_NE(0, ::access("/var/mlog/mlogServer", F_OK));
  EXPECT_THAT(content_of("/var/log/mlog/wan.log"), EndsWith(":last words\n"));

  test::Process third("mlogserver");
  EXPECT_TRUE(third.wait_for("ready"));
}

}  // namespace
