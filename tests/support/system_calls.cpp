// The child is traced (ptrace(2)). System calls that the code under test does not make mark the
// beginning and the end of what is counted.

#include "support/system_calls.h"

#include <gtest/gtest.h>
#include <linux/ptrace.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>

namespace test {
namespace {

constexpr long kMarker = SYS_getppid;

// Declared here because <sys/ptrace.h> and <linux/ptrace.h> cannot both be included.
long trace(long request, pid_t child, unsigned long address, void *data) {
  return ::syscall(SYS_ptrace, request, child, address, data);
}

[[noreturn]] void run_traced(const std::function<void()> &prepare,
                             const std::function<void()> &action) {
  if (trace(PTRACE_TRACEME, 0, 0, nullptr) != 0) ::_exit(1);
  ::raise(SIGSTOP);
  prepare();
  action();
  prepare();
  ::syscall(kMarker);
  action();
  ::syscall(kMarker);
  ::_exit(0);
}

}  // namespace

std::vector<SystemCall> system_calls(const std::function<void()> &prepare,
                                     const std::function<void()> &action) {
  std::vector<SystemCall> calls;
  const pid_t child = ::fork();
  if (child == 0) run_traced(prepare, action);

  int status = 0;
  bool counting = false;
  ::waitpid(child, &status, 0);
  if (!WIFSTOPPED(status)) return calls;
  trace(PTRACE_SETOPTIONS, child, 0,
        reinterpret_cast<void *>(PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL));
  while (trace(PTRACE_SYSCALL, child, 0, nullptr) == 0 && ::waitpid(child, &status, 0) == child &&
         WIFSTOPPED(status)) {
    ptrace_syscall_info info = {};
    if (WSTOPSIG(status) != (SIGTRAP | 0x80) ||
        trace(PTRACE_GET_SYSCALL_INFO, child, sizeof info, &info) <= 0 ||
        info.op != PTRACE_SYSCALL_INFO_ENTRY) {
      continue;
    }
    const auto number = static_cast<long>(info.entry.nr);
    if (number == kMarker) {
      counting = !counting;
    } else if (counting) {
      SystemCall &call = calls.emplace_back(SystemCall{number, {}});
      std::copy(std::begin(info.entry.args), std::end(info.entry.args), call.arguments);
    }
  }
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  return calls;
}

bool can_count_system_calls() {
  return !system_calls([] {}, [] { ::syscall(SYS_getpid); }).empty();
}

}  // namespace test
