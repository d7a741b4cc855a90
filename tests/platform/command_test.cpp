#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <string>

#include "orputil.h"
#include "support/fd_check.h"
#include "support/file.h"

namespace {

using test::contents;

uint32_t run(const std::string &command) {
  return ORP_UTIL_ExecCmdNoHang(__func__, __LINE__, command.c_str());
}

bool exists(const char *path) {
  return ::access(path, F_OK) == 0;
}

void make_script(const char *path, const char *text) {
  std::ofstream(path) << text;
  ASSERT_EQ(0, ::chmod(path, 0755));
}

// Waits for what a command in the background writes.
bool appears(const char *path, const std::string &text) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (contents(path) != text) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    ::usleep(1000);
  }
  return true;
}

TEST(Command, WritesItsResultBeforeItReturns) {
  const test::FdCheck check;

  EXPECT_EQ(0u, run("echo one 'two  three' > /var/out"));
  EXPECT_EQ("one two  three\n", contents("/var/out"));
  EXPECT_EQ(0u, run("echo four >>/var/out"));
  EXPECT_EQ("one two  three\nfour\n", contents("/var/out"));
  EXPECT_EQ(0u, run("echo five>/var/out"));
  EXPECT_EQ("five\n", contents("/var/out"));
  EXPECT_EQ(0u, ORP_UTIL_VExecCmdNoHang("test", 1, "echo %s %d >%s", "six", 6, "/var/out"));
  EXPECT_EQ("six 6\n", contents("/var/out"));
}

TEST(Command, HasNoShell) {
  EXPECT_EQ(0u, run("echo $HOME * `id` ~ > /var/out"));
  EXPECT_EQ("$HOME * `id` ~\n", contents("/var/out"));

  ::unlink("/var/out");
  for (const char *command :
       {"echo a; touch /var/out", "echo a | tee /var/out", "echo a\ntouch /var/out",
        "(touch /var/out)", "true && touch /var/out", "touch /var/out < /dev/null",
        "echo a 2>/var/out", "echo a >&1 /var/out", "echo > /var/out a", "echo >", "echo 'a"}) {
    EXPECT_EQ(1u, run(command)) << command;
    EXPECT_FALSE(exists("/var/out")) << command;
  }
}

TEST(Command, IgnoresWhatACommentHides) {
  EXPECT_EQ(0u, run("true #brctl showmacs result: >/var/out"));
  EXPECT_FALSE(exists("/var/out"));
}

TEST(Command, CreatesResultFilesAfreshAndFollowsNoLink) {
  const test::FdCheck check;
  std::ofstream("/var/precious") << "kept";
  std::ofstream("/var/old") << "old";
  ASSERT_EQ(0, ::symlink("/var/precious", "/var/link"));
  ASSERT_EQ(0, ::link("/var/precious", "/var/hardlink"));
  ASSERT_EQ(0, ::mkfifo("/var/pipe", 0600));

  EXPECT_EQ(1u, run("echo x >> /var/link"));
  EXPECT_EQ(0u, run("echo x > /var/link"));
  EXPECT_EQ(0u, run("echo x > /var/hardlink"));
  EXPECT_EQ("x\n", contents("/var/link"));
  EXPECT_EQ("kept", contents("/var/precious"));
  for (const char *path : {"/var", "/var/pipe", "/var/absent/file", "''"}) {
    EXPECT_EQ(1u, run(std::string("echo x > ") + path)) << path;
    EXPECT_EQ(1u, run(std::string("echo x >> ") + path)) << path;
  }
  EXPECT_EQ(0u, run("echo x > /dev/null"));
  struct stat info;
  ASSERT_EQ(0, ::stat("/dev/null", &info));
  EXPECT_TRUE(S_ISCHR(info.st_mode));

  EXPECT_EQ(1u, run("/var/no-such-program > /var/old"));
  EXPECT_EQ("", contents("/var/old")) << "an old result would pass for the new one";
}

TEST(Command, FailsOnlyWhenItCannotBeStarted) {
  make_script("/var/empty", "");

  EXPECT_EQ(0u, run("false"));
  EXPECT_EQ(0u, run(" \t "));
  for (const char *command : {"no-such-program", "/var/absent", "/var", "/var/empty", "''"}) {
    EXPECT_EQ(1u, run(command)) << command;
    EXPECT_EQ(1u, run(std::string(command) + " &")) << command;
  }
  EXPECT_EQ(1u, ORP_UTIL_ExecCmdNoHang("test", 1, nullptr));
}

TEST(Command, RefusesAFormattedTextThatIsTooLong) {
  const std::string fits(1023 - std::string("true ").size(), 'x');

  EXPECT_EQ(0u, ORP_UTIL_VExecCmdNoHang("test", 1, "true %s", fits.c_str()));
  EXPECT_EQ(1u, ORP_UTIL_VExecCmdNoHang("test", 1, "true %sx", fits.c_str()));
}

TEST(Command, NeverRebootsThisHost) {
  make_script("/var/busybox", "#!/bin/sh\ntouch /var/rebooted\n");
  make_script("/var/reboot", "#!/bin/sh\ntouch /var/rebooted\n");
  ::setenv("PATH", "/var:/usr/bin:/bin", 1);
  testing::internal::CaptureStdout();

  EXPECT_EQ(0u, run("busybox reboot -f"));
  EXPECT_EQ(0u, run("/var/reboot &"));
  ::fflush(stdout);

  EXPECT_EQ(
      "orputil: not run on this host: busybox reboot -f\n"
      "orputil: not run on this host: /var/reboot &\n",
      testing::internal::GetCapturedStdout());
  EXPECT_FALSE(exists("/var/rebooted"));
  EXPECT_EQ(0u, run("busybox other"));
  EXPECT_TRUE(exists("/var/rebooted"));
}

TEST(Command, InTheBackgroundIsNotWaitedForAndLeavesNoZombie) {
  ASSERT_EQ(0, ::mkfifo("/var/go", 0600));
  make_script("/var/waiter", "#!/bin/sh\nread line < /var/go\necho $line > /var/done\n");

  EXPECT_EQ(0u, run("/var/waiter &"));

  EXPECT_FALSE(exists("/var/done"));
  EXPECT_EQ(-1, ::waitpid(-1, nullptr, WNOHANG));
  EXPECT_EQ(ECHILD, errno);
  std::ofstream("/var/go") << "went\n";
  EXPECT_TRUE(appears("/var/done", "went\n"));
}

volatile sig_atomic_t g_reaped;

void reap_all(int) {
  while (::waitpid(-1, nullptr, WNOHANG) > 0) g_reaped = g_reaped + 1;
}

TEST(Command, SharesTheProcessWithAHandlerThatReapsEverything) {
  for (const auto handler : {reap_all, SIG_IGN}) {
    struct sigaction action {};
    action.sa_handler = handler;
    ASSERT_EQ(0, ::sigaction(SIGCHLD, &action, nullptr));

    for (int i = 0; i < 20; ++i) EXPECT_EQ(0u, run("echo x > /var/out"));
    EXPECT_EQ(0u, run("echo x > /var/background &"));

    EXPECT_EQ("x\n", contents("/var/out"));
    EXPECT_TRUE(appears("/var/background", "x\n"));
    ::unlink("/var/background");
  }
}

TEST(Command, LeavesTheCallersOtherChildrenAlone) {
  const pid_t other = ::fork();
  if (other == 0) ::_exit(3);
  siginfo_t ended;
  ASSERT_EQ(0, ::waitid(P_PID, static_cast<id_t>(other), &ended, WEXITED | WNOWAIT));

  EXPECT_EQ(0u, run("true"));

  int status = 0;
  EXPECT_EQ(other, ::waitpid(other, &status, 0));
  EXPECT_EQ(3, WEXITSTATUS(status));
}

TEST(Command, StartsWithDefaultSignalsAndNoForeignDescriptor) {
  ::signal(SIGPIPE, SIG_IGN);
  sigset_t blocked;
  ::sigemptyset(&blocked);
  ::sigaddset(&blocked, SIGTERM);
  ::sigprocmask(SIG_BLOCK, &blocked, nullptr);
  const int inherited = ::open("/dev/null", O_RDONLY);
  ASSERT_LE(3, inherited);

  EXPECT_EQ(0u, run("grep -E 'SigBlk|SigIgn' /proc/self/status > /var/signals"));
  EXPECT_EQ(0u, run("ls /proc/self/fd > /var/fds"));

  std::ifstream signals("/var/signals");
  std::string name;
  uint64_t blocked_mask = ~0ull, ignored_mask = ~0ull;
  signals >> name >> std::hex >> blocked_mask >> name >> ignored_mask;
  EXPECT_EQ(0u, blocked_mask);
  // The C library keeps the first two real-time signals to itself.
  EXPECT_EQ(0u, ignored_mask & ~uint64_t{0x180000000});
  // 3 is the directory that ls itself reads.
  EXPECT_EQ("0\n1\n2\n3\n", contents("/var/fds"));
  ::close(inherited);
}

TEST(CommandArgument, IsSafeOnlyWithoutShellSyntax) {
  for (const char *text : {"eth0", "/var/a_b-c.d", "a@b:1,2+3%=", "0"}) {
    EXPECT_EQ(1u, ORP_VALID_CmdArgs(text)) << text;
  }
  for (const char *text : {"", "-rf", "a b", "a;b", "$a", "a'b", "a\nb", "*", "a\xc3\xa4"}) {
    EXPECT_EQ(0u, ORP_VALID_CmdArgs(text)) << text;
  }
  EXPECT_EQ(0u, ORP_VALID_CmdArgs(nullptr));
}

TEST(ProgramPath, IsTheFirstExecutableInAnAbsoluteDirectory) {
  ASSERT_EQ(0, ::chdir("/app"));
  ASSERT_EQ(0, ::mkdir("/app/relative", 0755));
  ASSERT_EQ(0, ::mkdir("/var/first", 0755));
  ASSERT_EQ(0, ::mkdir("/var/first/tool", 0755));
  ASSERT_EQ(0, ::mkdir("/var/second", 0755));
  for (const char *path : {"/app/tool", "/app/relative/tool", "/var/second/tool"}) {
    make_script(path, "#!/bin/sh\n");
  }
  std::ofstream("/var/second/data") << "not executable";
  ::setenv("PATH", ":.:relative:/var/first:/var/second:", 1);
  char path[256];

  EXPECT_EQ(0u, ORP_UTIL_GetExeFullPath("tool", path, sizeof path));
  EXPECT_STREQ("/var/second/tool", path);
  EXPECT_EQ(0u, ORP_UTIL_GetExeFullPath("tool", path, sizeof "/var/second/tool"));
  EXPECT_EQ(1u, ORP_UTIL_GetExeFullPath("tool", path, sizeof "/var/second/tool" - 1));
  EXPECT_EQ(0u, ORP_UTIL_GetExeFullPath("./absent", path, sizeof path));
  EXPECT_STREQ("./absent", path);
  for (const char *program : {"data", "absent", ""}) {
    EXPECT_EQ(1u, ORP_UTIL_GetExeFullPath(program, path, sizeof path)) << program;
    EXPECT_STREQ("", path);
  }
}

}  // namespace
