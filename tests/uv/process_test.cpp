#include "msgapi/process.h"

#include <fcntl.h>
#include <grp.h>

#include <algorithm>
#include <atomic>
#include <random>
#include <thread>

#include "base/memory.h"
#include "support/fd_check.h"
#include "support/file.h"
#include "support/soak.h"
#include "support/trace_records.h"
#include "uv/process_fixture.h"

namespace msgapi {
namespace {

using testing::ElementsAre;
using testing::MatchesRegex;
using testing::UnorderedElementsAre;

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
  options.args = command.options.args;
  options.outputProc = record_output;
  options.flags = ORP_UV_SPAWN_STDOUT | ORP_UV_SPAWN_STDERR;
  for (const uint32_t nth : {1u, 2u, 2u, 3u}) {  // the watcher, the reaper (once) and the two pipes
    fail_allocation(nth);
    const uint32_t expected = nth == 1 ? ORP_ERR_MEMORY : ORP_ERR_SYSTEM;
    EXPECT_EQ(expected, OrpUvProcessSpawn(nullptr, nullptr, &options));
  }
  fail_allocation(0);
}

TEST_F(ProcessTest, ServesAllThreePipesAndDrainsBeforeTheReport) {
  const test::FdCheck check;
  Command command = Command::shell("cat; echo error >&2; exec 1>&- 2>&-; exit 1");
  command.options.data = 5;
  static size_t written;
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
  for (const int fd : {0, 1}) ::close(fd);
  const std::string text = printed(command);
  for (const int fd : {0, 1}) ::dup2(saved[fd], fd);

  EXPECT_THAT(text, testing::AnyOf("out\nerror\n", "error\nout\n"));
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
  // Not close-on-exec, like descriptors that other libraries leave open.
  for (const int fd : {20, 21, 60}) ASSERT_EQ(fd, ::fcntl(0, F_DUPFD, fd));
  Command command = Command::shell(
      "for fd in 20 21 60; do [ -e /proc/$$/fd/$fd ] && echo $fd; done > /var/open; :");
  const auto kept = [&] {
    spawn(command);
    run_to_end();
    return test::contents("/var/open");
  };

  EXPECT_EQ("60\n", kept()) << "without descriptors in the loop: up to 50";
  command.options.keepFd = [](const OrpUvSpawnOptions *, int32_t fd) -> uint32_t {
    return fd == 21;
  };
  EXPECT_EQ("21\n60\n", kept());
  OrpUvLoopGetDefault()->maxFd = 20;
  command.options.keepFd = nullptr;
  EXPECT_EQ("21\n60\n", kept());
}

TEST_F(ProcessTest, RunsAsAnotherUserWithItsGroups) {
  if (::setgroups(0, nullptr) != 0) GTEST_SKIP() << "not allowed to change groups here";
  const gid_t groups[] = {4, 20};
  Command command = Command::shell("echo $(id -u) $(id -ru) $(id -g) $(id -G)");
  OrpUvSpawnOptions &options = command.options;
  options.uid = options.gid = 1;  // daemon
  options.groups = groups;
  options.groupCount = 2;

  EXPECT_EQ("1 1 0 0 4 20\n", printed(command, ORP_UV_SPAWN_SETUID)) << "setgroups alone";
  EXPECT_EQ("1 1 1 1\n", printed(command, ORP_UV_SPAWN_SETUID | ORP_UV_SPAWN_SETGID))
      << "the user's groups instead";
  Command effective({"/bin/grep", "Uid", "/proc/self/status"});
  effective.options.uid = 1;
  EXPECT_EQ("Uid:\t0\t1\t1\t1\n", printed(effective, ORP_UV_SPAWN_SETEUID));
}

TEST_F(ProcessTest, DeletedWatcherReportsNothingButTheStatusStaysKnownAndThePipeCloses) {
  const test::FdCheck check;
  Command command = Command::shell("echo late; exit 6");
  enum When { kRunning, kExited, kFreed };
  for (const When when : {kRunning, kExited, kFreed}) {
    OrpUvProcess *process = spawn(command, ORP_UV_SPAWN_STDOUT);
    const int32_t pid = process->pid;
    while (when != kRunning && process->exited == 0) ::usleep(100);
    EXPECT_EQ(0u, OrpUvProcessKill(process, 0)) << "no error though its number may be another's";
    OrpUvWatcherDelete(&process->head);
    if (when == kFreed) run_default_once();
    EXPECT_EQ(6, ORP_UTIL_WaitForPidEx(pid, 0, 0, 0)) << when;
  }
  run_default_once();

  EXPECT_THAT(calls, testing::IsEmpty());
  EXPECT_TRUE(output.empty());
}

TEST_F(ProcessTest, AnotherLoopReportsAllThatEndedBeforeItRan) {
  constexpr uint32_t kChildren = 100;
  Command command = Command::shell("exit 4");
  command.options.exitProc = [](OrpUvProcess *process, int32_t, uint32_t code, uint32_t) {
    EXPECT_EQ(4u, code);
    if (--left == 0) OrpUvLoopStop(process->head.loop);
  };
  left = kChildren;
  int32_t pid = 0;
  for (uint32_t n = 0; n < kChildren; ++n) {
    OrpUvProcess *process = nullptr;
    ASSERT_EQ(ORP_OK, OrpUvProcessSpawn(&loop_, &process, &command.options));
    pid = process->pid;
  }
  while (OrpUvProcessWaitpid(nullptr) == 0) ::usleep(1000);
  EXPECT_EQ(4, ORP_UTIL_WaitForPidEx(pid, 0, 0, 0)) << "that tells the watcher's status as well";

  EXPECT_EQ(ORP_OK, run(1000));

  EXPECT_EQ(0u, left);
}

TEST_F(ProcessTest, SignalThatReachesAnotherThreadIsHandledByTheLoopsWhichKeepsErrno) {
  sigset_t child_signal;
  sigemptyset(&child_signal);
  sigaddset(&child_signal, SIGCHLD);
  ::pthread_sigmask(SIG_BLOCK, &child_signal, nullptr);
  static pid_t handled_by;
  Command command = Command::shell("exit 0");
  command.options.reapProc = [](OrpUvProcess *, int32_t, uint32_t, uint32_t) {
    handled_by = ::gettid();
  };
  const OrpUvProcess *process = spawn(command);
  siginfo_t unused;
  ::waitid(P_PID, static_cast<id_t>(process->pid), &unused, WEXITED | WNOWAIT);

  std::thread([&] { ::pthread_sigmask(SIG_UNBLOCK, &child_signal, nullptr); }).join();
  EXPECT_EQ(0u, process->exited) << "handed on, and blocked there";
  ::pthread_sigmask(SIG_UNBLOCK, &child_signal, nullptr);
  EXPECT_EQ(1u, process->exited);
  EXPECT_EQ(::gettid(), handled_by);

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

// Tools read the records, so their texts must not change.
TEST_F(ProcessTest, TraceRecordsTellOfTheEnd) {
  std::string pid;
  const auto records = test::trace_records("exit-proc", [&] {
    Command command = Command::shell("exit 3");
    pid = std::to_string(spawn(command)->pid);
    run_to_end();
  });

  const std::string begin = "uvProcessDoExitCallback track 8: \\[start exit-proc [0-9]+:" + pid +
                            ":/bin/sh -c exit 3\\] ";
  EXPECT_THAT(records, ElementsAre(MatchesRegex(begin + "sig 0, status 3 0x[0-9a-f]+"),
                                   MatchesRegex(begin + "0x[0-9a-f]+")));
}

// ---- Synchronous spawn ----

using SyncSpawnTest = ProcessTest;

TEST_F(SyncSpawnTest, ReturnsTheExitCode) {
  const test::FdCheck check;
  Command exits = Command::shell("echo text; exit 42");
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
  EXPECT_THAT(calls, ElementsAre("8 42"));
  EXPECT_EQ(ORP_ERR_ARGUMENT, OrpUvProcessSpawnSync(nullptr, 0));
  fail_allocation(1);
  EXPECT_EQ(ORP_ERR_MEMORY, OrpUvProcessSpawnSync(&exits.options, 0));
}

TEST_F(SyncSpawnTest, EndsAlsoWhenACallbackRunsTheLoopThatReportsTheChild) {
  Command command = Command::shell("echo text; exit 42");
  command.options.outputProc = [](OrpUvProcess *process, OrpUvIo *io, uint32_t which) {
    record_output(process, io, which);
    if (calls.empty()) ORP_UV_LoopRun(nullptr, 0);
  };
  command.options.exitProc = [](OrpUvProcess *, int32_t, uint32_t, uint32_t) { recorded("exit"); };
  command.options.flags = ORP_UV_SPAWN_STDOUT;

  EXPECT_EQ(42u, OrpUvProcessSpawnSync(&command.options, 0));

  EXPECT_THAT(calls, ElementsAre("exit"));
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
  const uint32_t total = 1000 / test::kSlowness * test::soak_factor();
  const test::FdCheck check;
  std::map<ORP_WORD, std::string> expected;
  std::mt19937 random(test::seed());
  uint32_t started = 0, reported = 0;

  const auto start_one = [&] {
    const ORP_WORD id = ++started;
    const auto random_size = [&] { return 1 + random() % (random() % 4 == 0 ? 100000 : 100); };
    const size_t out = random_size(), error = random_size();
    constexpr uint32_t kSignals[] = {SIGKILL, SIGTERM, SIGUSR1};
    const uint32_t signal = random() % 4 == 0 ? kSignals[random() % 3] : 0;
    const uint32_t exit = signal == 0 ? random() % 256 : 0;
    expected[id] = end_of(id, exit, signal) + std::to_string(out + error);
    const std::string end =
        signal == 0 ? "exit " + std::to_string(exit) : "kill -" + std::to_string(signal) + " $$";
    Command command = Command::shell("printf %0" + std::to_string(out) + "d 0; printf %0" +
                                     std::to_string(error) + "d 0 >&2; " + end);
    command.options.data = id;
    ASSERT_NE(nullptr, spawn(command, ORP_UV_SPAWN_STDOUT | ORP_UV_SPAWN_STDERR));
  };
  on_exit = [&](OrpUvProcess *process) {
    const ORP_WORD id = process->head.data;
    ++reported;
    EXPECT_EQ(expected[id], calls.back() + std::to_string(output[id].size()));
    expected.erase(id);
    output.erase(id);
    calls.clear();
    if (started < total) start_one();
  };

  while (started < std::min(total, kAtATime)) start_one();
  run_to_end();

  EXPECT_EQ(total, reported);
  EXPECT_TRUE(expected.empty());
  run_default_once();
}

}  // namespace
}  // namespace msgapi
