// Commands run as the system user of their name, and the wait for a child by its number.

#include <pwd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>

#include "base/memory.h"
#include "base/text.h"
#include "orputil.h"
#include "os/clock.h"
#include "uv/child.h"
#include "uv/child_signal.h"
#include "uv/default_loop.h"
#include "uv/process.h"
#include "uv/reaper.h"
#include "uv/trace_point.h"

namespace msgapi::uv {
namespace {

constexpr size_t kCommandSize = 512;
constexpr size_t kPathSize = 256;
constexpr size_t kAppNameSize = 256;
constexpr uint32_t kDefaultPoll_ms = 10;

// The words of a command line. There are none when it is too long: a command that was cut is
// another command.
class CommandWords {
 public:
  explicit CommandWords(const char *command) {
    char text[kCommandSize];
    if (!copy_exact(text, command)) return;
    const size_t length = std::strlen(text);
    if (length > 0 && text[length - 1] == '&') text[length - 1] = '\0';
    if (ORP_UTIL_ParseArgsEx(text, &args_, &count_, &symbols_) != 0) args_ = nullptr;
    UtilFreeSymbols(symbols_);
  }
  CommandWords(const CommandWords &) = delete;
  CommandWords &operator=(const CommandWords &) = delete;
  ~CommandWords() { ORP_UTIL_FreeArgs(args_); }

  explicit operator bool() const { return args_ != nullptr && count_ > 0; }
  char *const *get() const { return args_; }

 private:
  char **args_ = nullptr;
  uint32_t count_ = 0;
  void *symbols_ = nullptr;
};

// Makes the options run as the system user `name`. They stay unchanged when the look-up says that
// there is no such user. A failed look-up is an error, because nobody knows then whose rights the
// command should have.
Status use_user(const char *name, OrpUvSpawnOptions *options) {
  const Owned<char> buffer(static_cast<char *>(plain_alloc(kUserBuffer)));
  if (!buffer) return Status::kNoMemory;
  passwd record;
  passwd *user = nullptr;
  int result;
  do {
    result = ::getpwnam_r(name, &record, buffer.get(), kUserBuffer, &user);
  } while (result == EINTR);
  if (result != 0) return Status::kSystem;
  if (user == nullptr) return Status::kOk;

  options->flags |= ORP_UV_SPAWN_SETUID | ORP_UV_SPAWN_SETGID;
  options->uid = user->pw_uid;
  options->gid = user->pw_gid;
  return Status::kOk;
}

// The application that an argument vector starts: for a shell script the script's name up to its
// first dot, else the program as it is named.
void find_app_name(char *const *args, std::span<char> app_name) {
  const bool is_script = std::strcmp(args[0], "/bin/sh") == 0 && args[1] != nullptr;
  if (!is_script) return copy_cut(app_name, args[0]);

  const char *slash = std::strrchr(args[1], '/');
  const char *base = slash == nullptr ? args[1] : slash + 1;
  copy_cut(app_name, {base, std::strcspn(base, ".")});
}

int32_t run_as_its_user(char *const *args) {
  char path[kPathSize], app_name[kAppNameSize];
  if (ORP_UTIL_GetExeFullPath(args[0], path, sizeof path) != 0) return -1;
  find_app_name(args, app_name);
  ORP_TRACE_PrintInfo("ORP_UTIL_ExecCmdWithPermissions", __LINE__, 0, "track", kTraceLevel,
                      "[end Parse appName[%s]\n", app_name);
  if (app_name[0] == '\0') return -1;

  OrpUvSpawnOptions options = {};
  options.file = path;
  options.args = args;
  if (use_user(app_name, &options) != Status::kOk) return -1;
  OrpUvProcess *process;
  return spawn(nullptr, &process, &options) == Status::kOk ? process->pid : -1;
}

int32_t remaining_ms(const ORP_TIME_ST &start, uint32_t timeout_ms) {
  ORP_TIME_ST now;
  (void)os::read_monotonic(&now);
  const int64_t elapsed_ms = (int64_t{now.seconds} - start.seconds) * 1000 +
                             (int64_t{now.microseconds} - start.microseconds) / 1000;
  return static_cast<int32_t>(std::clamp<int64_t>(timeout_ms - elapsed_ms, 0, INT32_MAX));
}

// A SIGCHLD ends the sleep early.
void sleep_ms(uint32_t ms) {
  const timespec time = {.tv_sec = static_cast<time_t>(ms / 1000),
                         .tv_nsec = static_cast<long>(ms % 1000 * 1000000)};
  ::nanosleep(&time, nullptr);
}

// False when it must not be killed. A child that has ended meanwhile counts as killed.
bool kill_child(pid_t pid) {
  const ChildSignalBlock block;  // so that its number is not given to another process meanwhile
  return ::waitid(P_PID, static_cast<id_t>(pid), nullptr, WEXITED | WNOHANG | WNOWAIT) != 0 ||
         ::kill(pid, SIGKILL) == 0;
}

int32_t wait_for_child(pid_t pid, uint32_t timeout_ms, uint32_t poll_ms, bool kill_on_timeout) {
  if (pid <= 0) return -1;
  if (poll_ms == 0) poll_ms = kDefaultPoll_ms;
  ORP_TIME_ST start;
  (void)os::read_monotonic(&start);

  bool expired = false;
  for (;;) {
    int status;
    switch (look_at_child(pid, &status)) {
      case ChildState::kUnknown:
        return expired ? static_cast<int32_t>(ORP_ERR_TIMEOUT) : -1;
      case ChildState::kEnded: {
        if (expired) return static_cast<int32_t>(ORP_ERR_TIMEOUT);
        const ExitStatus ended = decode_status(status);
        return static_cast<int32_t>(ended.term_signal == 0 ? ended.exit_code
                                                           : 128 + ended.term_signal);
      }
      case ChildState::kRunning:
        break;
    }

    uint32_t nap_ms = poll_ms;
    if (timeout_ms != 0 && !expired) {
      const auto left_ms = static_cast<uint32_t>(remaining_ms(start, timeout_ms));
      if (left_ms == 0) {
        if (!kill_on_timeout || !kill_child(pid)) return static_cast<int32_t>(ORP_ERR_TIMEOUT);
        expired = true;
      } else {
        nap_ms = std::min(nap_ms, left_ms);
      }
    }
    sleep_ms(nap_ms);
  }
}

int32_t run_and_wait(char *const *args, uint32_t timeout_ms, uint32_t poll_ms,
                     bool kill_on_timeout) {
  char path[kPathSize];
  if (args == nullptr || args[0] == nullptr) return -1;
  if (ORP_UTIL_GetExeFullPath(args[0], path, sizeof path) != 0) return -1;

  OrpUvSpawnOptions options = {};
  options.file = path;
  options.args = args;
  // By the program's name as it stands, on purpose: the script of a shell does not count here.
  if (use_user(args[0], &options) != Status::kOk) return -1;
  Child child(options);
  int32_t pid;
  if (child.prepare() != Status::kOk || child.make(default_loop()->maxFd, &pid) != Status::kOk) {
    return static_cast<int32_t>(ORP_ERR_SYSTEM);
  }
  child.start();
  return wait_for_child(pid, timeout_ms, poll_ms, kill_on_timeout);
}

}  // namespace
}  // namespace msgapi::uv

using namespace msgapi;
using namespace msgapi::uv;

extern "C" int32_t ORP_UTIL_ExecCmdWithPermissions(const char *command) {
  if (command == nullptr) return -1;

  const CommandWords words(command);
  return words ? run_as_its_user(words.get()) : -1;
}

extern "C" int32_t ORP_UTIL_ExecCmdWithPermissionsMorePara(char *const *args, uint32_t timeoutMs,
                                                           uint32_t pollMs,
                                                           uint32_t killOnTimeout) {
  return run_and_wait(args, timeoutMs, pollMs, killOnTimeout != 0);
}

extern "C" int32_t ORP_UTIL_ExecCmdWithPermissionsFullEx(const char *command, uint32_t timeoutMs,
                                                         uint32_t pollMs, uint32_t killOnTimeout) {
  if (command == nullptr) return -1;

  const CommandWords words(command);
  return words ? run_and_wait(words.get(), timeoutMs, pollMs, killOnTimeout != 0) : -1;
}

extern "C" int32_t ORP_UTIL_WaitForPidEx(int32_t pid, uint32_t timeoutMs, uint32_t pollMs,
                                         uint32_t killOnTimeout) {
  return wait_for_child(pid, timeoutMs, pollMs, killOnTimeout != 0);
}
