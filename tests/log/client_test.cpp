#include <gmock/gmock.h>
#include <sys/stat.h>

#include <chrono>
#include <fstream>
#include <thread>

#include "log/fake_server.h"
#include "msgapi/log.h"
#include "support/fd_check.h"

namespace {

using test::FakeServer;
using test::message_bytes;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

bool exists(const std::string &path) {
  return ::access(path.c_str(), F_OK) == 0;
}

TEST(LogLevel, NamesAndValues) {
  struct {
    const char *name;
    uint32_t level;
  } const cases[] = {
      {"NONE", 0}, {"FATL", 1}, {"FATAL", 1}, {"fatal", 1}, {"f", 1},      {"e", 2},  {"Err", 2},
      {"warn", 4}, {"INFO", 8}, {"", 0},      {"DEBUG", 0}, {"ERRORS", 0}, {"=x", 0}, {nullptr, 0},
  };
  for (const auto &c : cases) {
    EXPECT_EQ(c.level, MlogGetLogLevel(c.name)) << (c.name == nullptr ? "null" : c.name);
  }

  EXPECT_STREQ("FATL", MlogGetLogLevelString(1));
  EXPECT_STREQ("ERRO", MlogGetLogLevelString(2));
  EXPECT_STREQ("WARN", MlogGetLogLevelString(4));
  EXPECT_STREQ("INFO", MlogGetLogLevelString(8));
  for (const uint32_t level : {0u, 3u, 9u, 0xFFFFFFFFu}) {
    EXPECT_STREQ("NONE", MlogGetLogLevelString(level));
  }
}

TEST(MlogPrint, SendsOneLineFromTheModulesSocketAndRemovesIt) {
  FakeServer server;
  const test::FdCheck fds;
  CaptureStdout();

  MlogPrint("wan", MLOG_LEVEL_ERROR, "link %s", "down");

  EXPECT_THAT(server.line(), MatchesRegex("\\[[0-9]{11}\\]\\[wan\\]\\[ERRO\\]:link down\n"));
  EXPECT_EQ("/var/mlog/wan", server.peer_path());
  EXPECT_FALSE(exists("/var/mlog/wan"));
  EXPECT_EQ("", GetCapturedStdout());
}

TEST(MlogPrint, AddsALineFeedOnlyWhereThereIsNone) {
  FakeServer server;

  MlogPrint("wan", 8, "one\n");
  EXPECT_THAT(server.line(), testing::EndsWith("]:one\n"));
  MlogPrint("wan", 8, "%s", "");
  EXPECT_THAT(server.line(), testing::EndsWith("[INFO]:\n"));
}

TEST(MlogPrint, EchoesTheLevelsBelowError) {
  FakeServer server;
  CaptureStdout();

  MlogPrint("wan", MLOG_LEVEL_FATAL, "over");

  EXPECT_THAT(GetCapturedStdout(),
              MatchesRegex("\\[MLOG\\]\\[INFO\\]\\[[0-9]+\\]: mlog message buffer: "
                           "\\[[0-9]{11}\\]\\[wan\\]\\[FATL\\]:over\n\n"));
}

TEST(MlogPrint, RefusesATextThatTheCuttingCallsShorten) {
  FakeServer server;
  const std::string longest(255, 'x');
  const std::string too_long(256, 'x');
  CaptureStdout();

  MlogPrint("wan", 8, "%s", too_long.c_str());
  EXPECT_EQ("", server.line());
  EXPECT_THAT(GetCapturedStdout(), HasSubstr(": get print log buffer for module wan failed\n"));

  MlogPrint("wan", 8, "%s", longest.c_str());
  EXPECT_THAT(server.line(), testing::EndsWith("]:" + longest + "\n"));
  mlog_print("wan", 8, "%s", too_long.c_str());
  EXPECT_THAT(server.line(), testing::EndsWith("]:" + longest + "\n"));
  MlogPrintWithType(3, "wan", 8, "%s", too_long.c_str());
  EXPECT_THAT(server.line(), testing::EndsWith("]:" + longest + "\n"));
  EXPECT_FALSE(exists("/var/mlog/wan"));
}

TEST(MlogPrint, SaysWhatFailed) {
  CaptureStdout();
  MlogPrint("a/b", 8, "x");
  EXPECT_THAT(GetCapturedStdout(), HasSubstr(": open socket for module a/b failed\n"));

  CaptureStdout();
  MlogPrint("wan", 8, "nobody listens");
  EXPECT_THAT(GetCapturedStdout(), HasSubstr(": mlog send message failed\n"));

  CaptureStdout();
  mlog_print(nullptr, 8, "x");
  MlogPrintWithType(1, "wan", 8, nullptr);
  EXPECT_THAT(GetCapturedStdout(), MatchesRegex("(\\[MLOG\\]\\[ERROR\\]\\[[0-9]+\\]: "
                                                "input parameter is invalid\n){2}"));

  CaptureStdout();
  MlogPrint(nullptr, 8, "x");
  MlogPrint("wan", 8, nullptr);
  EXPECT_EQ("", GetCapturedStdout());
}

TEST(MlogPrint, ShowsAndKeepsTheCallersErrno) {
  FakeServer server;

  errno = ENOSPC;
  MlogPrint("wan", 8, "%m");

  EXPECT_EQ(ENOSPC, errno);
  EXPECT_THAT(server.line(), HasSubstr(std::strerror(ENOSPC)));
}

TEST(MlogPrintWithType, SendsTheTypes1And3Only) {
  FakeServer server;
  CaptureStdout();

  for (const uint32_t type : {0u, 1u, 2u, 3u, 4u}) {
    MlogPrintWithType(type, "wan", 0, "type %u", type);
  }

  EXPECT_THAT(server.line(), HasSubstr("[NONE]:type 1\n"));
  EXPECT_THAT(server.line(), HasSubstr("[NONE]:type 3\n"));
  EXPECT_EQ("", server.receive());
  EXPECT_THAT(GetCapturedStdout(), testing::Not(HasSubstr("type 2")));
}

TEST(SetStatInfo, SendsBothFieldsWithTheLengthOfTheWholeRecord) {
  FakeServer server;

  EXPECT_EQ(0, MlogSetStatInfo("wan", "rx=1"));

  const std::string datagram = server.receive();
  ASSERT_EQ(MLOG_HEAD_SIZE + 516, datagram.size());
  EXPECT_EQ(message_bytes(MLOG_TYPE_SET_STAT, 516), datagram.substr(0, 8));
  EXPECT_STREQ("wan", datagram.data() + 8);
  EXPECT_STREQ("rx=1", datagram.data() + 8 + 256);
  EXPECT_EQ("/var/mlog/STAT_" + std::to_string(::getpid()), server.peer_path());
}

TEST(SetStatInfo, Failures) {
  const std::string too_long(256, 'x');

  EXPECT_EQ(-1, MlogSetStatInfo(nullptr, "x"));
  EXPECT_EQ(-1, MlogSetStatInfo("wan", nullptr));
  EXPECT_EQ(-1, MlogSetStatInfo("wan", too_long.c_str()));
  EXPECT_EQ(-1, MlogSetStatInfo(too_long.c_str(), "x"));
  CaptureStdout();
  EXPECT_EQ(-1, MlogSetStatInfo("wan", "nobody listens"));
  EXPECT_THAT(GetCapturedStdout(), HasSubstr(": mlog send message error\n"));

  // A directory in the way of the client's socket.
  ::mkdir(("/var/mlog/STAT_" + std::to_string(::getpid())).c_str(), 0700);
  EXPECT_EQ(-2, MlogSetStatInfo("wan", "x"));
}

// Answers one request with `answer` while the test waits in a call.
std::thread answer_once(FakeServer *server, const std::string &answer) {
  return std::thread([=] {
    server->receive(true);
    server->reply(answer);
  });
}

std::string stat_answer(const std::string &info) {
  std::string payload(516, '\0');
  payload.replace(256, info.size(), info);
  return message_bytes(MLOG_TYPE_GET_STAT, 516, payload);
}

TEST(GetStatInfo, CopiesTheAnswersText) {
  FakeServer server;
  struct {
    std::string answer;
    uint32_t size;
    int32_t result;
    std::string text;
  } const cases[] = {
      {stat_answer("rx=1"), 256, 0, "rx=1"},
      {stat_answer("rx=1"), 5, 0, "rx=1"},
      {stat_answer("rx=1"), 4, -1, ""},
      {stat_answer(std::string(256, 'x')), 257, 0, std::string(256, 'x')},  // no NUL in the field
      {message_bytes(4, 0), 256, 0, ""},
      {message_bytes(4, 4), 256, -1, ""},  // disagrees with its size
      {"short", 256, -1, ""},
  };
  for (const auto &c : cases) {
    std::thread answering = answer_once(&server, c.answer);
    char text[300] = "old";

    EXPECT_EQ(c.result, MlogGetStatInfo("wan", text, c.size)) << c.answer;

    EXPECT_EQ(c.text, text);
    answering.join();
  }
}

TEST(GetStatInfo, RefusesBadArguments) {
  char text[8] = "old";

  EXPECT_EQ(-1, MlogGetStatInfo("wan", nullptr, 8));
  EXPECT_EQ(-1, MlogGetStatInfo("wan", text, 0));
  EXPECT_STREQ("old", text);
  EXPECT_EQ(-1, MlogGetStatInfo(nullptr, text, 8));
  EXPECT_STREQ("", text);
  EXPECT_EQ(-1, MlogGetStatInfo(std::string(256, 'x').c_str(), text, 8));
}

TEST(FlushLog, WaitsForAHeadWithoutPayload) {
  FakeServer server;

  std::thread answering = answer_once(&server, message_bytes(MLOG_TYPE_FLUSH, 0));
  EXPECT_EQ(0, MlogFlushLog());
  answering.join();
  EXPECT_EQ("/var/mlog/FLUSH_" + std::to_string(::getpid()), server.peer_path());

  CaptureStdout();
  answering = answer_once(&server, message_bytes(MLOG_TYPE_FLUSH, 4));
  EXPECT_EQ(-1, MlogFlushLog());
  answering.join();
  EXPECT_THAT(GetCapturedStdout(), HasSubstr(": mlog send and receive message failed, ret: -2\n"));
}

TEST(FlushLog, TakesTwoSecondsWhenTheSendMustWaitAndNobodyAnswers) {
  FakeServer server;
  const msgapi::os::UniqueFd other = test::bind_in_ipc_path("other");
  test::fill_queue(other.get());
  std::thread reader([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(1000));
    while (!server.receive().empty()) {
    }
  });

  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(-1, MlogFlushLog());
  const auto took = std::chrono::steady_clock::now() - start;
  reader.join();

  EXPECT_GE(took, std::chrono::milliseconds(1950));
  EXPECT_LT(took, std::chrono::milliseconds(2500));
}

TEST(UseSharePartition, ReadsTheFirstShareLine) {
  EXPECT_EQ(0, MlogUseSharePartion());  // no file

  struct {
    const char *content;
    int32_t uses;
  } const cases[] = {
      {"[share] x=0\n", 0},         {"[SHARE]=2", 1},
      {"a=1\n[Share] on = 1\n", 1}, {"[SHARE]\n[SHARE]=1\n", 0},
      {" [SHARE]=1\n", 0},          {"[SHARE]=-1\n", 1},
      {"[SHARE]=yes\n", 0},         {"", 0},
  };
  ::mkdir(MLOG_IPC_PATH, 0770);
  for (const auto &c : cases) {
    std::ofstream("/var/mlog/mlogcfg") << c.content;
    EXPECT_EQ(c.uses, MlogUseSharePartion()) << c.content;
  }
}

}  // namespace
