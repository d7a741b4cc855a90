#include <gmock/gmock.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdarg>
#include <ctime>
#include <fstream>
#include <thread>

#include "msgapi/log.h"
#include "os/clock.h"
#include "support/fake_log_server.h"
#include "support/fd_check.h"

namespace {

int g_clock_ahead_s;

}  // namespace

// Replaces the C library's. The log client reads clocks by it, and calls nothing else.
extern "C" long syscall(long number, ...) noexcept {
  EXPECT_EQ(SYS_clock_gettime, number);
  va_list arguments;
  va_start(arguments, number);
  timespec now;
  ::clock_gettime(va_arg(arguments, clockid_t), &now);
  *va_arg(arguments, msgapi::os::RawTime *) = {now.tv_sec + g_clock_ahead_s, now.tv_nsec};
  va_end(arguments);
  return 0;
}

namespace {

using test::FakeLogServer;
using test::message_bytes;
using testing::EndsWith;
using testing::HasSubstr;
using testing::MatchesRegex;

// The output of `call`.
template <typename Call>
std::string output_of(Call call) {
  testing::internal::CaptureStdout();
  call();
  return testing::internal::GetCapturedStdout();
}

TEST(LogLevel, NamesAndValues) {
  const std::pair<const char *, uint32_t> cases[] = {
      {"NONE", 0}, {"FATL", 1}, {"fatal", 1}, {"f", 1},      {"e", 2},  {"Err", 2},   {"warn", 4},
      {"INFO", 8}, {"", 0},     {"DEBUG", 0}, {"ERRORS", 0}, {"=x", 0}, {nullptr, 0},
  };
  for (const auto &[name, level] : cases) {
    EXPECT_EQ(level, MlogGetLogLevel(name)) << (name == nullptr ? "null" : name);
  }
  const char *const names[] = {"NONE", "FATL", "ERRO", "NONE", "WARN",
                               "NONE", "NONE", "NONE", "INFO", "NONE"};
  for (uint32_t level = 0; level < std::size(names); ++level) {
    EXPECT_STREQ(names[level], MlogGetLogLevelString(level));
  }
}

TEST(MlogPrint, SendsOneLineAndEchoesTheLevelsBelowError) {
  FakeLogServer server;
  const test::FdCheck fds;
  const std::tuple<uint32_t, const char *, const char *> cases[] = {
      {2, "link down", "[ERRO]:link down\n"},
      {8, "one\n", "[INFO]:one\n"},
      {8, "", "[INFO]:\n"},
      {1, "over", "[FATL]:over\n"},
      {0, "bare", "[NONE]:bare\n"}};
  for (const auto &[level, text, end] : cases) {
    testing::internal::CaptureStdout();
    MlogPrint("wan", level, "%s", text);
    const std::string output = testing::internal::GetCapturedStdout();

    const std::string line = server.line();
    EXPECT_THAT(line, MatchesRegex("\\[[0-9]{11}\\]\\[wan\\]\\[.*\\]:.*\n"));
    EXPECT_THAT(line, EndsWith(end));
    EXPECT_EQ("/var/mlog/wan", server.peer_path());
    if (level < 2) {
      EXPECT_THAT(output,
                  MatchesRegex("\\[MLOG\\]\\[INFO\\]\\[[0-9]+\\]: mlog message buffer: .*"));
      EXPECT_THAT(output, EndsWith(": " + line + "\n"));
    } else {
      EXPECT_EQ("", output);
    }
  }
}

TEST(MlogPrint, RefusesATextThatTheCuttingCallsShorten) {
  FakeLogServer server;
  const std::string longest(255, 'x');
  const std::string too_long(256, 'x');

  EXPECT_THAT(output_of([&] { MlogPrint("wan", 8, "%s", too_long.c_str()); }),
              MatchesRegex("file src/log/client.cpp, line [0-9]+: vsnprintf_s failed, err = -1\n"
                           ".*: get print log buffer for module wan failed\n"));
  EXPECT_EQ("", server.line());
  MlogPrint("wan", 8, "%s", longest.c_str());
  EXPECT_THAT(server.line(), EndsWith("]:" + longest + "\n"));
  mlog_print("wan", 8, "%s", too_long.c_str());
  EXPECT_THAT(server.line(), EndsWith("]:" + longest + "\n"));
  MlogPrintWithType(3, "wan", 8, "%s", too_long.c_str());
  EXPECT_THAT(server.line(), EndsWith("]:" + longest + "\n"));
  EXPECT_NE(0, ::access("/var/mlog/wan", F_OK));
}

TEST(MlogPrint, SaysWhatFailed) {
  EXPECT_THAT(output_of([] { MlogPrint("a/b", 8, "x"); }),
              HasSubstr(": open socket for module a/b failed\n"));
  EXPECT_THAT(output_of([] { MlogPrint("wan", 8, "nobody listens"); }),
              HasSubstr(": mlog send message failed\n"));
  EXPECT_THAT(output_of([] {
                mlog_print(nullptr, 8, "x");
                MlogPrintWithType(2, "wan", 8, nullptr);
              }),
              MatchesRegex("(\\[MLOG\\]\\[ERROR\\]\\[[0-9]+\\]: input parameter is invalid\n){2}"));
  EXPECT_THAT(output_of([] { mlog_print("wan", 8, "%ls", L"\xFFFF"); }),
              HasSubstr(": generate log buffer of module wan failed\n"))
      << "a character that the locale does not have";
  EXPECT_EQ("", output_of([] {
              MlogPrint(nullptr, 8, "x");
              MlogPrint("wan", 8, nullptr);
            }));
}

// The error output of `call`.
template <typename Call>
std::string errors_of(Call call) {
  testing::internal::CaptureStderr();
  output_of(call);
  return testing::internal::GetCapturedStderr();
}

TEST(MlogPrint, PrintsWhatTheServerDoesNotGetAndTheReasonOnceAMinute) {
  EXPECT_THAT(errors_of([] {
                MlogPrint("wan", 8, "one\n");
                mlog_print("wan", 2, "two\n[1][x][FATL]:\x1b[2J");
                MlogPrint("a/b", 8, "three");
                MlogPrint("wan", 8,
                          "\xc2\x9b \x9b \xff\x9b \xe0\xc2\x9b caf\xc3\xa9 \xe2\x82\x9b \xc2\xa0 "
                          "\xe0\xa4\x85 \xf0\x9f\x98\x80 \xc3");
              }),
              MatchesRegex("mlog: /var/mlog/mlogServer: No such file or directory; log lines are "
                           "printed here until the log server takes them\n"
                           "mlog: \\[[0-9]{11}\\]\\[wan\\]\\[INFO\\]:one\n"
                           "mlog: .*\\[ERRO\\]:two\\?\\[1\\]\\[x\\]\\[FATL\\]:\\?\\[2J\n"
                           "mlog: .*\\[a/b\\]\\[INFO\\]:three\n"
                           "mlog: .*\\[INFO\\]:\\?\\? \\? \xff\\? \xe0\\?\\? caf\xc3\xa9 "
                           "\xe2\x82\x9b \xc2\xa0 \xe0\xa4\x85 \xf0\x9f\x98\x80 \xc3\n"));
}

TEST(MlogPrint, TellsTheReasonAgainAfterAMinute) {
  const std::string line = "mlog: \\[[0-9]{11}\\]\\[wan\\]\\[INFO\\]:lost\n";
  const std::string reason = "mlog: /var/mlog/mlogServer: No such file or directory; [^\n]*\n";

  for (const auto &[ahead_s, told] : {std::pair{0, reason}, {30, ""}, {60, reason}}) {
    g_clock_ahead_s = ahead_s;
    EXPECT_THAT(errors_of([] { MlogPrint("wan", 8, "lost"); }), MatchesRegex(told + line));
  }
}

TEST(MlogPrint, PrintsTheBeginningOfATextThatIsTooLong) {
  FakeLogServer server;
  const std::string errors =
      errors_of([] { MlogPrint("wan", 8, "%s", std::string(300, 'x').c_str()); });

  EXPECT_THAT(errors, MatchesRegex("mlog: text of a log call: Message too long; .*\n"
                                   "mlog: .*\\[wan\\]\\[INFO\\]:x+\n"));
  EXPECT_EQ(255, std::count(errors.end() - 260, errors.end(), 'x'));
  EXPECT_EQ("", errors_of([] { MlogPrint("wan", 8, "taken"); }));
}

TEST(MlogPrint, LeavesTheServersOwnFilesAlone) {
  FakeLogServer server;
  const char *const names[] = {"mlogServer", "mlogServer.inbox", "mlogcfg", "mlogcfg.new"};
  for (const char *name : names) std::ofstream(std::string(MLOG_IPC_PATH) + name) << "kept";

  for (const char *name : names) {
    mlog_print(name, 8, "x");
    int32_t fd = -1;
    EXPECT_EQ(-2, MlogSocketOpen(name, &fd));
    EXPECT_EQ(-2, MlogSocketClose(-1, name));
    EXPECT_EQ(0, ::access((std::string(MLOG_IPC_PATH) + name).c_str(), F_OK)) << name;
  }
  mlog_print("mlogs", 8, "x");
  EXPECT_THAT(server.line(), EndsWith("[mlogs][INFO]:x\n"));
}

TEST(MlogPrint, ShowsAndKeepsTheCallersErrno) {
  FakeLogServer server;

  errno = ENOSPC;
  MlogPrint("wan", 8, "%m");

  EXPECT_EQ(ENOSPC, errno);
  EXPECT_THAT(server.line(), HasSubstr(std::strerror(ENOSPC)));
}

TEST(MlogPrintWithType, SendsTheTypes1And3Only) {
  FakeLogServer server;

  const std::string output = output_of([] {
    for (const uint32_t type : {0u, 1u, 2u, 3u, 4u}) MlogPrintWithType(type, "wan", 0, "%u", type);
  });

  EXPECT_THAT(server.line(), EndsWith(":1\n"));
  EXPECT_THAT(server.line(), EndsWith(":3\n"));
  EXPECT_EQ("", server.receive());
  EXPECT_EQ(4, std::count(output.begin(), output.end(), '\n')) << "two echoes";
}

std::string stat_message(uint32_t type, const std::string &module, const std::string &info) {
  std::string payload(516, '\0');
  payload.replace(0, module.size(), module).replace(256, info.size(), info);
  return message_bytes(type, 516, payload);
}

TEST(StatInfo, Failures) {
  const std::string too_long(256, 'x');
  char text[8] = "old";

  EXPECT_EQ(-1, MlogSetStatInfo("wan", nullptr));
  EXPECT_EQ(-1, MlogSetStatInfo("wan", too_long.c_str()));
  EXPECT_EQ(-1, MlogSetStatInfo(too_long.c_str(), "x"));
  EXPECT_THAT(output_of([] { EXPECT_EQ(-1, MlogSetStatInfo("wan", "nobody listens")); }),
              HasSubstr(": mlog send message error\n"));
  EXPECT_EQ(-1, MlogGetStatInfo("wan", nullptr, 8));
  EXPECT_EQ(-1, MlogGetStatInfo("wan", text, 0));
  EXPECT_STREQ("old", text);
  EXPECT_EQ(-1, MlogGetStatInfo(nullptr, text, 8));
  EXPECT_STREQ("", text);
  EXPECT_EQ(-1, MlogGetStatInfo(too_long.c_str(), text, 8));

  // A directory in the way of the client's socket.
  ::mkdir(("/var/mlog/STAT_" + std::to_string(::getpid())).c_str(), 0700);
  EXPECT_EQ(-2, MlogSetStatInfo("wan", "x"));
  EXPECT_EQ(-2, MlogGetStatInfo("wan", text, 8));
}

// Answers one request, which must be `request`, with `answer` while the test waits in a call.
std::thread answer_once(FakeLogServer *server, const std::string &request,
                        const std::string &answer) {
  return std::thread([=] {
    EXPECT_EQ(request, server->receive(true));
    server->reply(answer);
  });
}

TEST(GetStatInfo, CopiesTheAnswersText) {
  FakeLogServer server;
  struct {
    std::string answer;
    uint32_t size;
    int32_t result;
    std::string text;
  } const cases[] = {
      {stat_message(4, "wan", "rx=1"), 5, 0, "rx=1"},
      {stat_message(4, "wan", "rx=1"), 4, -1, ""},
      // No NUL in the field.
      {stat_message(4, "wan", std::string(256, 'x')), 257, 0, std::string(256, 'x')},
      {message_bytes(4, 0), 256, 0, ""},
      {message_bytes(4, 4), 256, -1, ""},  // disagrees with its size
      {"short", 256, -1, ""},
  };
  for (const auto &c : cases) {
    std::thread answering = answer_once(&server, stat_message(4, "wan", ""), c.answer);
    char text[300] = "old";

    EXPECT_EQ(c.result, MlogGetStatInfo("wan", text, c.size)) << c.answer;

    EXPECT_EQ(c.text, text);
    answering.join();
  }
}

TEST(FlushLog, WaitsForAHeadWithoutPayload) {
  FakeLogServer server;
  const std::string request = message_bytes(MLOG_TYPE_FLUSH, 0);

  std::thread answering = answer_once(&server, request, message_bytes(MLOG_TYPE_FLUSH, 0));
  EXPECT_EQ(0, MlogFlushLog());
  answering.join();
  EXPECT_EQ("/var/mlog/FLUSH_" + std::to_string(::getpid()), server.peer_path());

  answering = answer_once(&server, request, message_bytes(MLOG_TYPE_FLUSH, 4));
  EXPECT_THAT(output_of([] { EXPECT_EQ(-1, MlogFlushLog()); }),
              HasSubstr(": mlog send and receive message failed, ret: -2\n"));
  answering.join();
}

TEST(UseSharePartition, ReadsTheFirstShareLine) {
  EXPECT_EQ(0, MlogUseSharePartion());  // no file

  const std::pair<const char *, int32_t> cases[] = {
      {"[share] x=0\n", 0},        {"[SHARE]=2", 1},    {"a=1\n[Share] on = 1\n", 1},
      {"[SHARE]\n[SHARE]=1\n", 0}, {" [SHARE]=1\n", 0}, {"[SHARE]=-1\n", 1},
      {"[SHARE]=yes\n", 0},
  };
  ::mkdir(MLOG_IPC_PATH, 0770);
  for (const auto &[content, uses] : cases) {
    std::ofstream("/var/mlog/mlogcfg") << content;
    EXPECT_EQ(uses, MlogUseSharePartion()) << content;
  }
}

}  // namespace
