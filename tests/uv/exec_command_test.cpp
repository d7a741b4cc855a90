// Commands that run as the system user of their name, and the wait for a child by its number.

#include <dlfcn.h>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>

#include <csignal>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <utility>
#include <vector>

#include "support/allocation.h"
#include "support/file.h"
#include "uv/process_fixture.h"

namespace {

// The error of the next look-ups of a user by name; 0: they really look.
int g_look_up_error;

// Is told of each sleep, in milliseconds.
std::function<void(int64_t ms)> g_on_sleep;

}  // namespace

// Replaces the C library's function, and calls it.
extern "C" int getpwnam_r(const char *name, passwd *record, char *buffer, size_t size,
                          passwd **result) {
  if (g_look_up_error != 0) {
    *result = nullptr;
    return g_look_up_error;
  }
  using Function = int (*)(const char *, passwd *, char *, size_t, passwd **);
  static const auto original = reinterpret_cast<Function>(::dlsym(RTLD_NEXT, "getpwnam_r"));
  return original(name, record, buffer, size, result);
}

extern "C" int nanosleep(const timespec *time, timespec *left) {
  if (g_on_sleep) g_on_sleep(int64_t{time->tv_sec} * 1000 + time->tv_nsec / 1000000);
  return ::clock_nanosleep(CLOCK_MONOTONIC, 0, time, left) == 0 ? 0 : -1;
}

namespace msgapi {
namespace {

using testing::ElementsAre;

using ExecCommandTest = ProcessTest;

TEST_F(ExecCommandTest, CommandsRunAsTheUserOfTheirName) {
  if (::setgroups(0, nullptr) != 0) GTEST_SKIP() << "not allowed to change groups here";
  std::filesystem::create_directory("/var/t");
  ::chmod("/var/t", 0777);
  std::filesystem::copy_file("/bin/sh", "/var/t/games");  // the user with id 5
  ::setenv("PATH", "/var/t:/usr/bin:/bin", 1);
  std::ofstream("/var/t/games.v2.sh") << "id -u > /var/t/id\n";
  const auto user = [](int32_t exit_code, int32_t expected) {
    EXPECT_EQ(expected, exit_code);
    return test::contents("/var/t/id");
  };
  const auto start = [](const char *command) {
    return ORP_UTIL_WaitForPidEx(ORP_UTIL_ExecCmdWithPermissions(command), 0, 0, 0);
  };
  const auto run = [](const char *command) {
    return ORP_UTIL_ExecCmdWithPermissionsFullEx(command, 0, 0, 0);
  };

  EXPECT_EQ("5\n", user(start("games -c 'id -u > /var/t/id; exit 7'&"), 7));
  EXPECT_EQ("0\n", user(run("/bin/sh -c 'id -u > /var/t/id; exit 7'&"), 7));
  EXPECT_EQ("5\n", user(start("/bin/sh /var/t/games.v2.sh"), 0));
  EXPECT_EQ("0\n", user(run("/bin/sh /var/t/games.v2.sh"), 0)) << "here the script is no user";
  EXPECT_EQ("5\n", user(run("games -c \"id -u > /var/t/id\""), 0));
  for (const char *bad : {"", "&", "'unfinished", "no-such-program", "/bin/sh .no-name"}) {
    EXPECT_EQ(-1, ORP_UTIL_ExecCmdWithPermissions(bad)) << bad;
  }
  EXPECT_EQ(-1, run("no-such-program"));
  run_default_once();
}

TEST_F(ExecCommandTest, WaitForPidFindsTheStatusWhoeverCollectedIt) {
  const auto child_that = [](const std::function<void()> &act) {
    const pid_t child = ::fork();
    if (child == 0) act();
    return child;
  };

  // Without a handler.
  pid_t child = child_that([] { ::_exit(5); });
  EXPECT_EQ(5, ORP_UTIL_WaitForPidEx(child, 0, 1, 0));
  EXPECT_EQ(-1, ORP_UTIL_WaitForPidEx(child, 0, 1, 0)) << "collected once";
  ORP_UV_WAIT_ST record = {child_that([] { ::_exit(9); }), -1};
  while (OrpUvProcessWaitpid(&record) == 0) continue;
  EXPECT_EQ(9, WEXITSTATUS(record.status));
  EXPECT_EQ(9, ORP_UTIL_WaitForPidEx(record.pid, 0, 0, 0)) << "remembered";

  // With the handler, which reaps everything.
  Command command = Command::shell("exit 6");
  EXPECT_EQ(6, ORP_UTIL_WaitForPidEx(spawn(command)->pid, 0, 0, 0));
  child = child_that([] { ::raise(SIGTERM); });
  EXPECT_EQ(128 + SIGTERM, ORP_UTIL_WaitForPidEx(child, 0, 0, 0));
  run_to_end();
  EXPECT_THAT(calls, ElementsAre("0: exit 6 signal 0")) << "the watcher learns of it, too";

  child = child_that([] {
    for (;;) ::pause();
  });
  EXPECT_EQ(0x10005, ORP_UTIL_WaitForPidEx(child, 5, 1, 0));
  EXPECT_EQ(0, ::kill(child, 0));
  EXPECT_EQ(0x10005, ORP_UTIL_WaitForPidEx(child, 5, 1, 1));
  EXPECT_EQ(-1, ::kill(child, 0)) << "killed and reaped";
  for (const int32_t bad : {0, -1, 1}) EXPECT_EQ(-1, ORP_UTIL_WaitForPidEx(bad, 0, 0, 0));
}

TEST_F(ExecCommandTest, LooksForTheChildAsOftenAsItIsAskedTo) {
  for (const auto &[poll_ms, nap_ms] : {std::pair{0u, 10}, std::pair{30u, 30}}) {
    const pid_t child = ::fork();
    while (child == 0) ::pause();
    std::vector<int64_t> naps;
    g_on_sleep = [&](int64_t ms) {
      naps.push_back(ms);
      ::kill(child, SIGKILL);
    };
    EXPECT_EQ(128 + SIGKILL, ORP_UTIL_WaitForPidEx(child, 60000, poll_ms, 0));
    EXPECT_THAT(naps, testing::Each(nap_ms));
    EXPECT_FALSE(naps.empty());
  }
  g_on_sleep = nullptr;
}

TEST_F(ExecCommandTest, WithoutAnAnswerAboutTheUserTheCommandDoesNotRun) {
  const auto start = [] {
    const int32_t pid = ORP_UTIL_ExecCmdWithPermissions("touch /var/ran");
    return pid > 0 ? ORP_UTIL_WaitForPidEx(pid, 0, 0, 0) : pid;
  };
  const auto run = [] { return ORP_UTIL_ExecCmdWithPermissionsFullEx("touch /var/ran", 0, 0, 0); };

  for (const int error : {ENOMEM, EIO, EMFILE, ERANGE, ENOENT}) {
    g_look_up_error = error;
    EXPECT_EQ(-1, start()) << error;
    EXPECT_EQ(-1, run()) << error;
  }
  g_look_up_error = 0;
  const auto ran_after = [](int32_t result) {
    EXPECT_EQ(result == 0, std::filesystem::remove("/var/ran"));
    return result == 0;
  };
  test::fail_every_allocation([&] { return ran_after(start()); });
  test::fail_every_allocation([&] { return ran_after(run()); });
  run_default_once();
}

TEST_F(ExecCommandTest, CommandThatIsTooLongDoesNotRunCut) {
  const auto touch = [](size_t size) {
    std::string command = "touch /var/ran";
    return command + std::string(size - command.size(), ' ');
  };

  EXPECT_EQ(-1, ORP_UTIL_ExecCmdWithPermissions(touch(512).c_str()));
  EXPECT_EQ(-1, ORP_UTIL_ExecCmdWithPermissionsFullEx(touch(512).c_str(), 0, 0, 0));
  EXPECT_FALSE(std::filesystem::exists("/var/ran"));
  EXPECT_EQ(0, ORP_UTIL_ExecCmdWithPermissionsFullEx(touch(511).c_str(), 0, 0, 0));
  EXPECT_TRUE(std::filesystem::exists("/var/ran"));
}

}  // namespace
}  // namespace msgapi
