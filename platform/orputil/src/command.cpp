// Running commands without a shell.
//
// The command is started with posix_spawn(), which copies no large process and works in threaded
// ones. The command begins with default signals, none blocked, and no descriptor but 0 to 2. An
// intermediate process that ends at once starts a background command, so the system reaps that and
// nobody here has to.

#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <memory>

#include "fd.h"
#include "orputil.h"
#include "words.h"

namespace {

using orputil::Command;
using orputil::Fd;

constexpr size_t kCommandSize = 1024;
constexpr mode_t kResultMode = 0644;
constexpr const char *kDefaultPath = "/usr/sbin:/usr/bin:/sbin:/bin";

struct FreeDeleter {
  void operator()(void *block) const { std::free(block); }
};

const char *base_name(const char *path) {
  const char *slash = std::strrchr(path, '/');
  return slash == nullptr ? path : slash + 1;
}

bool is_one_of(const char *name, std::initializer_list<const char *> names) {
  for (const char *candidate : names) {
    if (std::strcmp(name, candidate) == 0) return true;
  }
  return false;
}

// "reboot", "busybox reboot -f" and the like.
bool ends_the_system(const Command &command) {
  const char *name = base_name(command.words[0]);
  if (std::strcmp(name, "busybox") == 0 && command.count > 1) name = command.words[1];
  return is_one_of(name, {"reboot", "poweroff", "halt", "shutdown"});
}

// Opens `path` where it may be written and is neither a link nor a directory, pipe or socket.
Fd open_existing(const char *path, int flags) {
  Fd file(
      ::open(path, O_WRONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC | flags, kResultMode));
  struct stat info;
  if (!file || ::fstat(file.get(), &info) != 0) return Fd(-1);
  return S_ISREG(info.st_mode) || S_ISCHR(info.st_mode) ? std::move(file) : Fd(-1);
}

// A result file is made anew, so that neither a link nor somebody else's open descriptor leads to
// it. Character devices such as /dev/null are used as they are.
Fd create_result_file(const char *path) {
  struct stat info;
  if (::lstat(path, &info) == 0) {
    if (S_ISCHR(info.st_mode)) return open_existing(path, 0);
    if (!S_ISREG(info.st_mode) && !S_ISLNK(info.st_mode)) return Fd(-1);
    if (::unlink(path) != 0 && errno != ENOENT) return Fd(-1);
  }
  return Fd(
      ::open(path, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_NOCTTY | O_CLOEXEC, kResultMode));
}

// What a child is started with.
class SpawnSettings {
 public:
  SpawnSettings(int output, bool background) {
    ok_ = ::posix_spawn_file_actions_init(&actions_) == 0 &&
          ::posix_spawnattr_init(&attributes_) == 0;
    sigset_t all, none;
    ::sigfillset(&all);
    ::sigemptyset(&none);
    add(::posix_spawnattr_setsigdefault(&attributes_, &all));
    add(::posix_spawnattr_setsigmask(&attributes_, &none));
    add(::posix_spawnattr_setflags(&attributes_, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK));
    if (background) {
      add(::posix_spawn_file_actions_addopen(&actions_, STDIN_FILENO, "/dev/null", O_RDONLY, 0));
    }
    if (output >= 0) add(::posix_spawn_file_actions_adddup2(&actions_, output, STDOUT_FILENO));
    add(::posix_spawn_file_actions_addclosefrom_np(&actions_, STDERR_FILENO + 1));
  }
  SpawnSettings(const SpawnSettings &) = delete;
  SpawnSettings &operator=(const SpawnSettings &) = delete;
  ~SpawnSettings() {
    ::posix_spawn_file_actions_destroy(&actions_);
    ::posix_spawnattr_destroy(&attributes_);
  }

  explicit operator bool() const { return ok_; }

  bool spawn(const char *program, char **words, pid_t *child) const {
    return ::posix_spawn(child, program, &actions_, &attributes_, words, environ) == 0;
  }

 private:
  void add(int error) { ok_ = ok_ && error == 0; }

  posix_spawn_file_actions_t actions_;
  posix_spawnattr_t attributes_;
  bool ok_;
};

// Waits until `child` has ended. A handler elsewhere in the process may have reaped it already
// (ECHILD); then *status stays as it is.
void wait_for(pid_t child, int *status) {
  while (::waitpid(child, status, 0) < 0 && errno == EINTR) continue;
}

bool run_in_foreground(const SpawnSettings &settings, const char *program, char **words) {
  pid_t child;
  if (!settings.spawn(program, words, &child)) return false;
  int status;
  wait_for(child, &status);
  return true;
}

bool run_in_background(const SpawnSettings &settings, const char *program, char **words) {
  // No handler of the caller may run in the child, its copy.
  sigset_t all, before;
  ::sigfillset(&all);
  ::pthread_sigmask(SIG_SETMASK, &all, &before);
  const pid_t starter = ::fork();
  if (starter == 0) {
    pid_t child;
    ::_exit(settings.spawn(program, words, &child) ? 0 : 1);
  }
  ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
  if (starter < 0) return false;

  int status = 0;
  wait_for(starter, &status);
  return status == 0;
}

bool run(const Command &command) {
  Fd output(-1);
  if (command.result_file != nullptr) {
    // Opened before anything can fail, as a shell does, so that nobody takes an old result for new.
    output = command.append ? open_existing(command.result_file, O_APPEND | O_CREAT)
                            : create_result_file(command.result_file);
    if (!output) return false;
  }
  if (command.count == 0) return true;

  char program[PATH_MAX];
  if (ORP_UTIL_GetExeFullPath(command.words[0], program, sizeof program) != 0) return false;
  const SpawnSettings settings(output.get(), command.background);
  if (!settings) return false;
  return command.background ? run_in_background(settings, program, command.words)
                            : run_in_foreground(settings, program, command.words);
}

bool is_executable_file(const char *path) {
  struct stat info;
  return ::stat(path, &info) == 0 && S_ISREG(info.st_mode) &&
         ::faccessat(AT_FDCWD, path, X_OK, AT_EACCESS) == 0;
}

bool fits(int length, uint32_t size) {
  return length >= 0 && static_cast<uint32_t>(length) < size;
}

}  // namespace

extern "C" uint32_t ORP_VALID_CmdArgs(const char *text) {
  if (text == nullptr || text[0] == '\0' || text[0] == '-') return 0;
  return text[std::strspn(text,
                          "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789"
                          "._-/:@%+=,")] == '\0';
}

extern "C" uint32_t ORP_UTIL_ExecCmdNoHang(const char * /*tag*/, uint32_t /*line*/,
                                           const char *text) {
  Command command;
  if (text == nullptr || !orputil::parse_command(text, &command)) return 1;
  const std::unique_ptr<char *, FreeDeleter> owner(command.words);

  if (command.count > 0 && ends_the_system(command)) {
    std::printf("orputil: not run on this host: %s\n", text);
    return 0;
  }
  return run(command) ? 0 : 1;
}

extern "C" uint32_t ORP_UTIL_VExecCmdNoHang(const char *tag, uint32_t line, const char *format,
                                            ...) {
  if (format == nullptr) return 1;

  char command[kCommandSize];
  va_list arguments;
  va_start(arguments, format);
  const int length = std::vsnprintf(command, sizeof command, format, arguments);
  va_end(arguments);
  return fits(length, sizeof command) ? ORP_UTIL_ExecCmdNoHang(tag, line, command) : 1;
}

extern "C" uint32_t ORP_UTIL_GetExeFullPath(const char *program, char *out, uint32_t size) {
  if (program == nullptr || out == nullptr || size == 0) return 1;
  out[0] = '\0';
  if (program[0] == '\0') return 1;
  if (std::strchr(program, '/') != nullptr) {
    if (fits(std::snprintf(out, size, "%s", program), size)) return 0;
    out[0] = '\0';
    return 1;
  }

  const char *directory = std::getenv("PATH");
  if (directory == nullptr) directory = kDefaultPath;
  for (size_t length;; directory += length + 1) {
    length = std::strcspn(directory, ":");
    if (directory[0] == '/' && length <= INT_MAX &&
        fits(std::snprintf(out, size, "%.*s/%s", static_cast<int>(length), directory, program),
             size) &&
        is_executable_file(out)) {
      return 0;
    }
    if (directory[length] == '\0') break;
  }
  out[0] = '\0';
  return 1;
}
