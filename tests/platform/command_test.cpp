#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "orputil.h"
#include "support/fd_check.h"
#include "support/file.h"

namespace {

using std::filesystem::exists;
using test::contents;

uint32_t run(const std::string &command) {
  return ORP_UTIL_ExecCmdNoHang(__func__, __LINE__, command.c_str());
}

// What the command writes to /var/out.
std::string result_of(const std::string &command) {
  EXPECT_EQ(0u, run(command));
  return contents("/var/out");
}

void make_script(const char *path, const char *text) {
  std::ofstream(path) << text;
  ASSERT_EQ(0, ::chmod(path, 0755));
}

// Waits until a command in the background has written `text`.
bool appears(const char *path, const std::string &text) {
  for (int i = 0; i < 20000 && contents(path) != text; ++i) ::usleep(1000);
  return contents(path) == text;
}

TEST(Command, WritesItsResultBeforeItReturns) {
  const test::FdCheck check;

  EXPECT_EQ("one two  three\n", result_of("echo one 'two  three' > /var/out"));
  EXPECT_EQ("one two  three\nfour\n", result_of("echo four >>/var/out"));
  EXPECT_EQ(0u, ORP_UTIL_VExecCmdNoHang("test", 1, "echo %d %s>%s", 6, "six", "/var/out"));
  EXPECT_EQ("6 six\n", contents("/var/out"));

  const std::string fits(1023 - std::string("true ").size(), 'x');
  EXPECT_EQ(0u, ORP_UTIL_VExecCmdNoHang("test", 1, "true %s", fits.c_str()));
  EXPECT_EQ(1u, ORP_UTIL_VExecCmdNoHang("test", 1, "true %sx", fits.c_str()));
}

TEST(Command, HasNoShell) {
  EXPECT_EQ("$HOME * `id` ~\n", result_of("echo $HOME * `id` ~ > /var/out"));
  ::unlink("/var/out");
  EXPECT_EQ(0u, run("true #brctl showmacs result: >/var/out"));
  EXPECT_FALSE(exists("/var/out")) << "a comment hides it";
  for (const char *command :
       {"echo a; touch /var/out", "echo a | tee /var/out", "echo a\ntouch /var/out",
        "(touch /var/out)", "true && touch /var/out", "touch /var/out < /dev/null",
        "echo a 2>/var/out", "echo a >&1 /var/out", "echo > /var/out a", "echo >", "echo 'a"}) {
    EXPECT_EQ(1u, run(command)) << command;
    EXPECT_FALSE(exists("/var/out")) << command;
  }
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
  EXPECT_TRUE(std::filesystem::is_character_file("/dev/null"));

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
}

TEST(Command, NeverRebootsThisHost) {
  for (const char *path : {"/var/busybox", "/var/reboot"}) {
    make_script(path, "#!/bin/sh\ntouch /var/rebooted\n");
  }
  ::setenv("PATH", "/var:/usr/bin:/bin", 1);
  testing::internal::CaptureStdout();

  EXPECT_EQ(0u, run("busybox reboot -f"));
  EXPECT_EQ(0u, run("/var/reboot &"));
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
  EXPECT_EQ(-1, ::waitpid(-1, nullptr, WNOHANG)) << "no child is left";
  std::ofstream("/var/go") << "went\n";
  EXPECT_TRUE(appears("/var/done", "went\n"));
}

void reap_all(int) {
  const int saved_errno = errno;
  while (::waitpid(-1, nullptr, WNOHANG) > 0) continue;
  errno = saved_errno;
}

TEST(Command, SharesTheProcessWithAHandlerThatReapsEverything) {
  for (const auto handler : {reap_all, SIG_IGN}) {
    ::signal(SIGCHLD, handler);
    for (int i = 0; i < 20; ++i) EXPECT_EQ("x\n", result_of("echo x > /var/out"));
    EXPECT_EQ(0u, run("echo x > /var/background &"));
    EXPECT_TRUE(appears("/var/background", "x\n"));
    ::unlink("/var/background");
  }
}

TEST(Command, LeavesTheCallersOtherChildrenAlone) {
  const pid_t other = ::fork();
  if (other == 0) ::_exit(0);
  siginfo_t ended;
  ASSERT_EQ(0, ::waitid(P_PID, static_cast<id_t>(other), &ended, WEXITED | WNOWAIT));

  EXPECT_EQ(0u, run("true"));

  EXPECT_EQ(other, ::waitpid(other, nullptr, 0));
}

TEST(Command, StartsWithDefaultSignalsAndNoForeignDescriptor) {
  ::signal(SIGPIPE, SIG_IGN);
  sigset_t blocked;
  ::sigemptyset(&blocked);
  ::sigaddset(&blocked, SIGTERM);
  ::sigprocmask(SIG_BLOCK, &blocked, nullptr);
  const int inherited = ::open("/dev/null", O_RDONLY);

  // 3 is the directory that ls itself reads.
  EXPECT_EQ("0\n1\n2\n3\n", result_of("ls /proc/self/fd > /var/out"));
  ::close(inherited);

  std::istringstream signals(result_of("grep -E 'SigBlk|SigIgn' /proc/self/status > /var/out"));
  std::string name;
  uint64_t blocked_mask = ~0ull, ignored_mask = ~0ull;
  signals >> name >> std::hex >> blocked_mask >> name >> ignored_mask;
  EXPECT_EQ(0u, blocked_mask);
  // The C library keeps the first two real-time signals to itself.
  EXPECT_EQ(0u, ignored_mask & ~uint64_t{0x180000000});
}

TEST(CommandArgument, IsSafeOnlyWithoutShellSyntax) {
  EXPECT_EQ(1u, ORP_VALID_CmdArgs("/var/eth0.1_b-c@d:1,2+3%="));
  for (const char *text : {"", "-rf", "a b", "a;b", "$a", "a'b", "a\nb", "*", "a\xc3\xa4"}) {
    EXPECT_EQ(0u, ORP_VALID_CmdArgs(text)) << text;
  }
}

TEST(ProgramPath, IsTheFirstExecutableInAnAbsoluteDirectory) {
  ASSERT_EQ(0, ::chdir("/app"));
  for (const char *path : {"/app/relative", "/var/first/tool", "/var/second"}) {
    std::filesystem::create_directories(path);
  }
  for (const char *path : {"/app/tool", "/app/relative/tool", "/var/second/tool"}) {
    make_script(path, "#!/bin/sh\n");
  }
  std::ofstream("/var/second/data") << "not executable";
  ::setenv("PATH", ":.:relative:/var/first:/var/second:", 1);
  char path[256];

  EXPECT_EQ(0u, ORP_UTIL_GetExeFullPath("tool", path, sizeof "/var/second/tool"));
  EXPECT_STREQ("/var/second/tool", path);
  EXPECT_EQ(1u, ORP_UTIL_GetExeFullPath("tool", path, sizeof "/var/second/tool" - 1));
  EXPECT_EQ(0u, ORP_UTIL_GetExeFullPath("./absent", path, sizeof path));
  EXPECT_STREQ("./absent", path);
  for (const char *program : {"data", "absent", ""}) {
    EXPECT_EQ(1u, ORP_UTIL_GetExeFullPath(program, path, sizeof path)) << program;
    EXPECT_STREQ("", path);
  }
}

}  // namespace
