#include "msgapi/process.h"

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <future>
#include <random>
#include <sstream>
#include <thread>

#include "base/memory.h"
#include "support/fd_check.h"
#include "support/soak.h"
#include "uv/process_fixture.h"

namespace msgapi {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::UnorderedElementsAre;

std::string content(const char *path) {
  std::stringstream text;
  text << std::ifstream(path).rdbuf();
  return text.str();
}

TEST_F(ProcessTest, ReportsExitCodesAndSignals) {
  static std::atomic<uint32_t> reaped[3];  // written by the signal handler
  Command exits({"", "-c", "exit 3", "x"}), killed = Command::shell("kill -9 $$");
  exits.options.file = "/bin/sh";
  exits.options.data = 1;
  killed.options.data = 2;
  exits.options.reapProc = killed.options.reapProc = [](OrpUvProcess *process, int32_t pid,
                                                        uint32_t signal, uint32_t code) {
    reaped[process->head.data] = pid == process->pid ? 100 * signal + code : 0;
  };

  EXPECT_STREQ(" -c exit 3 x", spawn(exits)->name);
  spawn(killed);
  run_to_end();

  EXPECT_THAT(calls, UnorderedElementsAre("1: exit 3 signal 0", "2: exit 0 signal 9"));
  EXPECT_EQ(3u, reaped[1]);
  EXPECT_EQ(900u, reaped[2]);
}

TEST_F(ProcessTest, ProgramThatCannotRunExitsWith127) {
  Command missing({"/no/such/program"}), nowhere = Command::shell("exit 0");
  nowhere.options.cwd = "/no/such/directory";

  EXPECT_EQ("[ msglo]| DEBUG||2588|Execve process [/no/such/program] failed with 2\r\n",
            printed(missing));
  EXPECT_EQ("", printed(nowhere));

  EXPECT_THAT(calls, ElementsAre("0: exit 127 signal 0", "0: exit 127 signal 0"));
}

TEST_F(ProcessTest, ReportsMissingArgumentsAndFailures) {
  const test::FdCheck check;
  const Command command = Command::shell("exit 0");
  OrpUvSpawnOptions options = command.options;
  char *no_args[] = {nullptr};
  OrpUvProcess *process = reinterpret_cast<OrpUvProcess *>(1);

  options.args = no_args;
  EXPECT_EQ(ORP_ERR_ARGUMENT, OrpUvProcessSpawn(nullptr, &process, &options));
  EXPECT_EQ(nullptr, process);
  EXPECT_EQ(ORP_ERR_ARGUMENT, OrpUvProcessSpawn(nullptr, nullptr, nullptr));
  options = command.options;
  options.outputProc = record_output;
  options.flags = ORP_UV_SPAWN_STDOUT | ORP_UV_SPAWN_STDERR;
  for (const uint32_t nth : {1u, 2u, 2u, 3u}) {  // the watcher, the reaper (once) and the two pipes
    fail_allocation(nth);
    EXPECT_EQ(nth == 1 ? ORP_ERR_MEMORY : ORP_ERR_SYSTEM,
              OrpUvProcessSpawn(nullptr, &process, &options));
    EXPECT_EQ(nullptr, process);
  }
  fail_allocation(0);
}

TEST_F(ProcessTest, ServesAllThreePipesAndDrainsBeforeTheReport) {
  const test::FdCheck check;
  Command command = Command::shell("cat; echo error >&2; exec 1>&- 2>&-; exit 1");
  command.options.data = 5;
  static size_t written;
  written = 0;
  command.options.stdinProc = [](OrpUvProcess *process, OrpUvIo *io) {
    if (written == 300000) return OrpUvProcessDeleteRedirectIo(process, io);
    const std::string part(1000, 'x');
    written += static_cast<size_t>(::write(io->fd, part.data(), part.size()));
  };
  on_exit = [](OrpUvProcess *) { recorded(std::to_string(output[5].size())); };

  spawn(command, ORP_UV_SPAWN_STDIN | ORP_UV_SPAWN_STDOUT | ORP_UV_SPAWN_STDERR);
  run_to_end();

  EXPECT_THAT(calls, ElementsAre("5: exit 1 signal 0", "300006"));
  run_default_once();
}

TEST_F(ProcessTest, PipesMayTakeTheNumbersOfStandardDescriptors) {
  Command command = Command::shell("echo out; echo error >&2");
  const int saved[] = {::dup(0), ::dup(1)};
  ::close(0);
  ::close(1);
  const std::string text = printed(command);
  ::dup2(saved[0], 0);
  ::dup2(saved[1], 1);
  ::close(saved[0]);
  ::close(saved[1]);

  EXPECT_THAT(text, HasSubstr("out\n"));
  EXPECT_THAT(text, HasSubstr("error\n"));
}

TEST_F(ProcessTest, OptionsShapeTheChild) {
  char *env[] = {const_cast<char *>("PATH=/usr/bin:/bin"), const_cast<char *>("WHO=child"),
                 nullptr};
  Command command = Command::shell(
      "pwd; echo $WHO $HOME; umask; ulimit -c; ulimit -Hc; "
      "test $(cut -d' ' -f6 /proc/self/stat) = $(cut -d' ' -f1 /proc/$$/stat) && echo session");
  command.options.file = "sh";
  command.options.cwd = "/var";
  command.options.env = env;
  command.options.umask = 027;

  EXPECT_EQ("/var\nchild\n0027\n0\n0\nsession\n",
            printed(command, ORP_UV_SPAWN_SETSID | ORP_UV_SPAWN_UMASK | ORP_UV_SPAWN_NO_CORE));
}

TEST_F(ProcessTest, ClosesInheritedDescriptorsUpToTheLoopsHighest) {
  // Not close-on-exec, as other libraries leave them.
  for (const int fd : {20, 21, 60}) ASSERT_EQ(fd, ::fcntl(0, F_DUPFD, fd));
  Command command = Command::shell(
      "for fd in 20 21 60; do [ -e /proc/$$/fd/$fd ] && echo $fd; done > /var/open; :");
  const auto kept = [&] {
    spawn(command);
    run_to_end();
    return content("/var/open");
  };

  EXPECT_EQ("60\n", kept()) << "without descriptors in the loop: up to 50";
  command.options.keepFd = [](const OrpUvSpawnOptions *, int32_t fd) -> uint32_t {
    return fd == 21;
  };
  EXPECT_EQ("21\n60\n", kept());
  OrpUvLoopGetDefault()->maxFd = 20;
  command.options.keepFd = nullptr;
  EXPECT_EQ("21\n60\n", kept());
  for (const int fd : {20, 21, 60}) ::close(fd);
}

TEST_F(ProcessTest, RunsAsAnotherUserWithItsGroups) {
  if (::setgroups(0, nullptr) != 0) GTEST_SKIP() << "not allowed to change groups here";
  const passwd *daemon = ::getpwnam("daemon");
  ASSERT_NE(nullptr, daemon);
  const gid_t groups[] = {4, 20};
  Command command = Command::shell("id -u; id -ru; id -g; id -G");
  command.options.uid = daemon->pw_uid;
  command.options.gid = daemon->pw_gid;
  command.options.groups = groups;
  command.options.groupCount = 2;

  const std::string uid = std::to_string(daemon->pw_uid) + "\n";
  const std::string gid = std::to_string(daemon->pw_gid) + "\n";
  EXPECT_EQ(uid + uid + "0\n0 4 20\n", printed(command, ORP_UV_SPAWN_SETUID)) << "setgroups alone";
  EXPECT_EQ(uid + uid + gid + gid, printed(command, ORP_UV_SPAWN_SETUID | ORP_UV_SPAWN_SETGID))
      << "the user's groups instead";
  Command effective({"/bin/grep", "Uid", "/proc/self/status"});
  effective.options.uid = 1;
  EXPECT_EQ("Uid:\t0\t1\t1\t1\n", printed(effective, ORP_UV_SPAWN_SETEUID));
}

TEST_F(ProcessTest, CommandsRunAsTheUserOfTheirName) {
  if (::setgroups(0, nullptr) != 0) GTEST_SKIP() << "not allowed to change groups here";
  ASSERT_NE(nullptr, ::getpwnam("games"));
  const std::string uid = std::to_string(::getpwnam("games")->pw_uid);
  std::filesystem::create_directory("/var/t");
  ::chmod("/var/t", 0777);
  std::filesystem::copy_file("/bin/sh", "/var/t/games");
  ::setenv("PATH", "/var/t:/usr/bin:/bin", 1);
  std::ofstream("/var/t/games.v2.sh") << "id -u > /var/t/id\n";
  const auto user_of = [](const char *command, bool is_waited_for, int32_t exit_code) {
    if (is_waited_for) {
      EXPECT_EQ(exit_code, ORP_UTIL_ExecCmdWithPermissionsFullEx(command, 0, 0, 0));
    } else {
      EXPECT_EQ(exit_code,
                ORP_UTIL_WaitForPidEx(ORP_UTIL_ExecCmdWithPermissions(command), 0, 0, 0));
    }
    return content("/var/t/id");
  };

  EXPECT_EQ(uid + "\n", user_of("games -c 'id -u > /var/t/id; exit 7'&", false, 7));
  EXPECT_EQ("0\n", user_of("/bin/sh -c 'id -u > /var/t/id; exit 7'&", true, 7));
  EXPECT_EQ(uid + "\n", user_of("/bin/sh /var/t/games.v2.sh", false, 0));
  EXPECT_EQ("0\n", user_of("/bin/sh /var/t/games.v2.sh", true, 0)) << "here the script is no user";
  EXPECT_EQ(uid + "\n", user_of("games -c \"id -u > /var/t/id\"", true, 0));
  EXPECT_EQ(-1, ORP_UTIL_ExecCmdWithPermissions("/bin/sh .x")) << "a script without a name";
  for (const char *bad : {"", "&", "'unfinished", "no-such-program"}) {
    EXPECT_EQ(-1, ORP_UTIL_ExecCmdWithPermissions(bad)) << bad;
    EXPECT_EQ(-1, ORP_UTIL_ExecCmdWithPermissionsFullEx(bad, 0, 0, 0)) << bad;
  }
  run_default_once();
}

TEST_F(ProcessTest, WaitForPidFindsTheStatusWhoeverCollectedIt) {
  // Without a handler.
  pid_t child = ::fork();
  if (child == 0) ::_exit(5);
  EXPECT_EQ(5, ORP_UTIL_WaitForPidEx(child, 0, 1, 0));
  EXPECT_EQ(-1, ORP_UTIL_WaitForPidEx(child, 0, 1, 0)) << "collected once";

  // Beside the handler, which reaps everything.
  Command command = Command::shell("exit 6");
  const int32_t watched = spawn(command)->pid;
  EXPECT_EQ(6, ORP_UTIL_WaitForPidEx(watched, 0, 0, 0));
  child = ::fork();
  if (child == 0) ::raise(SIGTERM);
  EXPECT_EQ(128 + SIGTERM, ORP_UTIL_WaitForPidEx(child, 0, 0, 0));
  run_to_end();
  EXPECT_THAT(calls, ElementsAre("0: exit 6 signal 0")) << "the watcher learns of it, too";

  for (const int32_t bad : {0, -1, 1}) EXPECT_EQ(-1, ORP_UTIL_WaitForPidEx(bad, 0, 0, 0));
}

TEST_F(ProcessTest, WaitForPidEndsAfterItsTimeOut) {
  const pid_t child = ::fork();
  while (child == 0) ::pause();

  EXPECT_EQ(0x10005, ORP_UTIL_WaitForPidEx(child, 5, 1, 0));
  EXPECT_EQ(0, ::kill(child, 0));
  EXPECT_EQ(0x10005, ORP_UTIL_WaitForPidEx(child, 5, 1, 1));
  EXPECT_EQ(-1, ::kill(child, 0)) << "killed and reaped";
}

TEST_F(ProcessTest, WaitpidHandsOutTheStatusOfAProcessWithoutWatcher) {
  const pid_t child = ::fork();
  if (child == 0) ::_exit(9);
  ORP_UV_WAIT_ST record = {child, -1};

  while (OrpUvProcessWaitpid(&record) == 0) continue;

  EXPECT_EQ(9, WEXITSTATUS(record.status));
  EXPECT_EQ(9, ORP_UTIL_WaitForPidEx(child, 0, 0, 0)) << "remembered";
}

TEST_F(ProcessTest, DeletedWatcherReportsNothingButTheStatusStaysKnownAndThePipeCloses) {
  const test::FdCheck check;
  Command command = Command::shell("echo late; exit 6");
  enum When { kRunning, kExited, kFreed };
  for (const When when : {kRunning, kExited, kFreed}) {
    OrpUvProcess *process = spawn(command, ORP_UV_SPAWN_STDOUT);
    const int32_t pid = process->pid;
    while (when != kRunning && process->exited == 0) ::usleep(100);
    if (when != kRunning) {
      EXPECT_EQ(0u, OrpUvProcessKill(process, SIGKILL)) << "no error, the number is not its own";
    }
    OrpUvWatcherDelete(&process->head);
    if (when == kFreed) run_default_once();
    EXPECT_EQ(6, ORP_UTIL_WaitForPidEx(pid, 0, 0, 0)) << when;
  }
  run_default_once();

  EXPECT_THAT(calls, testing::IsEmpty());
  EXPECT_TRUE(output.empty());
}

TEST_F(ProcessTest, AnotherLoopReportsItsChildren) {
  Command command = Command::shell("exit 4");
  command.options.exitProc = [](OrpUvProcess *process, int32_t, uint32_t code, uint32_t) {
    recorded(std::to_string(code));
    OrpUvLoopStop(process->head.loop);
  };
  ASSERT_EQ(ORP_OK, OrpUvProcessSpawn(&loop_, nullptr, &command.options));

  EXPECT_EQ(ORP_OK, run(0));

  EXPECT_THAT(calls, ElementsAre("4"));
}

TEST_F(ProcessTest, SignalThatReachesAnotherThreadIsHandledByTheLoops) {
  std::promise<void> done;
  std::thread other([&] { done.get_future().wait(); });
  sigset_t child_signal, before;
  sigemptyset(&child_signal);
  sigaddset(&child_signal, SIGCHLD);
  ::pthread_sigmask(SIG_BLOCK, &child_signal, &before);
  static pid_t handled_by;
  Command command = Command::shell("exit 0");
  command.options.reapProc = [](OrpUvProcess *, int32_t, uint32_t, uint32_t) {
    handled_by = ::gettid();
  };

  const OrpUvProcess *process = spawn(command);
  for (sigset_t pending = {}; sigismember(&pending, SIGCHLD) == 0;) ::sigpending(&pending);
  EXPECT_EQ(0u, process->exited);
  ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
  EXPECT_EQ(1u, process->exited);
  EXPECT_EQ(::gettid(), handled_by);

  done.set_value();
  other.join();
  run_to_end();
}

TEST_F(ProcessTest, SignalHandlerKeepsErrno) {
  Command command = Command::shell("exit 0");
  spawn(command);
  run_to_end();

  errno = 77;
  ::raise(SIGCHLD);  // no child is left: the handler's waitpid() fails

  EXPECT_EQ(77, errno);
}

TEST_F(ProcessTest, ChildReapedJustBeforeTheWaitIsReportedNotTakenForIdleTime) {
  Command command({"/bin/sleep", "1000"});
  static OrpUvProcess *process;
  process = spawn(command);
  ORP_UV_IdleStart(nullptr, [](OrpUvIdle *self) {  // comes after the reaper
    if (self->head.loop->iteration != 0) return;
    OrpUvProcessKill(process, SIGKILL);
    while (process->exited == 0) ::usleep(100);
  });

  EXPECT_EQ(ORP_OK, ORP_UV_LoopRun(nullptr, 5000));

  EXPECT_THAT(calls, ElementsAre("0: exit 0 signal 9"));
}

// ---- Synchronous spawn ----

using SyncSpawnTest = ProcessTest;

TEST_F(SyncSpawnTest, ReturnsTheExitCode) {
  const test::FdCheck check;
  Command exits = Command::shell("echo text; exit 42"), missing({"/no/such/program"});
  Command killed = Command::shell("kill -9 $$"), terminated = Command::shell("kill -15 $$");
  exits.options.data = 8;
  exits.options.outputProc = record_output;
  exits.options.flags = ORP_UV_SPAWN_STDOUT;
  exits.options.exitProc = [](OrpUvProcess *process, int32_t, uint32_t code, uint32_t) {
    recorded(std::to_string(process->head.data) + " " + std::to_string(code));
    Command inner = Command::shell("exit 0");
    EXPECT_EQ(ORP_ERR_SPAWN_RUNNING, OrpUvProcessSpawnSync(&inner.options, 0));
  };

  EXPECT_EQ(42u, OrpUvProcessSpawnSync(&exits.options, 60000));
  EXPECT_EQ("text\n", output[8]);
  EXPECT_EQ(ORP_ERR_TIMEOUT, OrpUvProcessSpawnSync(&killed.options, 0));
  EXPECT_EQ(0u, OrpUvProcessSpawnSync(&terminated.options, 0));
  testing::internal::CaptureStdout();
  EXPECT_EQ(127u, OrpUvProcessSpawnSync(&missing.options, 0));
  testing::internal::GetCapturedStdout();

  EXPECT_THAT(calls, ElementsAre("8 42"));
  EXPECT_EQ(ORP_ERR_ARGUMENT, OrpUvProcessSpawnSync(nullptr, 0));
  fail_allocation(1);
  EXPECT_EQ(ORP_ERR_MEMORY, OrpUvProcessSpawnSync(&exits.options, 0));
}

TEST_F(SyncSpawnTest, TimeOutLeavesTheChildButNotItsPipes) {
  const test::FdCheck check;
  Command command({"/bin/sleep", "1000"});
  static int32_t child;
  command.options.stdinProc = [](OrpUvProcess *process, OrpUvIo *io) {
    child = process->pid;
    OrpUvIoStop(io, ORP_UV_WRITABLE);
  };
  command.options.flags = ORP_UV_SPAWN_STDIN;

  EXPECT_EQ(0u, OrpUvProcessSpawnSync(&command.options, 1));

  EXPECT_EQ(0, ::kill(child, SIGKILL)) << "still running";
  EXPECT_EQ(128 + SIGKILL, ORP_UTIL_WaitForPidEx(child, 0, 0, 0));
}

TEST_F(SyncSpawnTest, ChildrenOfTheLoopPutAsideAreReportedAfterwards) {
  Command outer = Command::shell("while [ ! -e /var/inner ]; do sleep 0.01; done; exit 1");
  outer.options.data = 1;
  static int32_t outer_pid;
  outer_pid = spawn(outer)->pid;

  ORP_UV_IdleStart(nullptr, [](OrpUvIdle *self) {
    if (self->head.loop->iteration != 0) return;
    const std::string is_left = "kill -0 " + std::to_string(outer_pid) + " 2>/dev/null";
    Command inner =
        Command::shell(">/var/inner; while " + is_left + "; do sleep 0.01; done; exit 2");
    recorded("sync " + std::to_string(OrpUvProcessSpawnSync(&inner.options, 0)));
  });
  run_to_end();

  EXPECT_THAT(calls, ElementsAre("sync 2", "1: exit 1 signal 0"));
}

// ---- Storm ----

TEST_F(ProcessTest, StormOfChildrenLosesNothing) {
  constexpr uint32_t kAtATime = 200;
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  constexpr uint32_t kTotal = 500;  // a fork copies the sanitizer's memory map as well
#else
  constexpr uint32_t kTotal = 5000 / test::kSlowness;
#endif
  const uint32_t total = kTotal * test::soak_factor();
  const test::FdCheck check;
  const std::string program = std::string(std::getenv("MSGAPI_BIN")) + "/storm_child";
  std::map<ORP_WORD, std::string> expected;
  std::mt19937 random(test::seed());
  uint32_t started = 0, reported = 0;

  const auto summary = [](ORP_WORD id, int exit, int signal, size_t output_size) {
    return std::to_string(id) + ": exit " + std::to_string(exit) + " signal " +
           std::to_string(signal) + " output " + std::to_string(output_size);
  };
  const auto start_one = [&] {
    const ORP_WORD id = ++started;
    const auto random_size = [&] { return random() % 4 == 0 ? random() % 100000 : random() % 100; };
    const size_t out = random_size(), error = random_size();
    constexpr int kSignals[] = {SIGKILL, SIGTERM, SIGUSR1};
    const int end = random() % 4 == 0 ? -kSignals[random() % 3] : static_cast<int>(random() % 256);
    expected[id] = summary(id, std::max(end, 0), std::max(-end, 0), out + error);
    Command command({program, std::to_string(out), std::to_string(error), std::to_string(end)});
    command.options.data = id;
    ASSERT_NE(nullptr, spawn(command, ORP_UV_SPAWN_STDOUT | ORP_UV_SPAWN_STDERR));
  };
  on_exit = [&](OrpUvProcess *process) {
    const ORP_WORD id = process->head.data;
    ++reported;
    EXPECT_EQ(expected[id], calls.back() + " output " + std::to_string(output[id].size()));
    expected.erase(id);
    output.erase(id);
    calls.clear();
    if (started < total) start_one();
  };

  while (started < kAtATime) start_one();
  run_to_end();

  EXPECT_EQ(total, reported);
  EXPECT_TRUE(expected.empty());
  run_default_once();
}

}  // namespace
}  // namespace msgapi
