#include "uv/child.h"

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstring>

#include "uv/reaper.h"

namespace msgapi::uv {
namespace {

constexpr int kFirstInherited = 3;
constexpr int kExitFailed = 127;
constexpr int kMaxUserGroups = 1 << 16;  // the kernel's limit

// Moves a descriptor above the standard ones.
os::UniqueFd above_standard(os::UniqueFd fd) {
  if (!fd || fd.get() >= kFirstInherited) return fd;
  return os::UniqueFd(::fcntl(fd.get(), F_DUPFD_CLOEXEC, kFirstInherited));
}

iovec part_of(const char *text, size_t size) {
  return {.iov_base = const_cast<char *>(text), .iov_len = size};
}

// Writes to standard output from the child, where streams cannot be used.
void write_text(const char *text) {
  // Nothing can be done about a failure.
  [[maybe_unused]] const ssize_t ignored = ::write(STDOUT_FILENO, text, std::strlen(text));
}

void write_exec_failure(const char *file, int error) {
  static constexpr char kBegin[] = "[ msglo]| DEBUG||2588|Execve process [";
  static constexpr char kMiddle[] = "] failed with ";
  char number[16];
  const size_t digits =
      static_cast<size_t>(std::to_chars(number, number + sizeof number, error).ptr - number);
  const iovec line[] = {
      part_of(kBegin, sizeof kBegin - 1),
      part_of(file, std::strlen(file)),
      part_of(kMiddle, sizeof kMiddle - 1),
      part_of(number, digits),
      part_of("\r\n", 2),
  };
  [[maybe_unused]] const ssize_t ignored = ::writev(STDOUT_FILENO, line, 5);
}

// Caught signals get their default action, which exec would give them, before they are unblocked: a
// signal that is sent to the child must not run the parent's handler there.
void reset_signals(const sigset_t &mask) {
  for (int signal = 1; signal < NSIG; ++signal) {
    struct sigaction action;
    if (::sigaction(signal, nullptr, &action) != 0) continue;
    if (action.sa_handler == SIG_DFL || action.sa_handler == SIG_IGN) continue;
    action = {};
    action.sa_handler = SIG_DFL;
    ::sigaction(signal, &action, nullptr);
  }
  ::pthread_sigmask(SIG_SETMASK, &mask, nullptr);
}

void close_between(int first, int last) {
  if (first > last) return;
#ifdef SYS_close_range
  if (::syscall(SYS_close_range, first, last, 0) == 0) return;
#endif
  for (int fd = first; fd <= last; ++fd) ::close(fd);
}

}  // namespace

Pipe make_pipe() {
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) != 0) return {};
  Pipe pipe;
  pipe.read = above_standard(os::UniqueFd(ends[0]));
  pipe.write = above_standard(os::UniqueFd(ends[1]));
  if (!pipe.read || !pipe.write) return {};
  return pipe;
}

Status Child::prepare() {
  if ((options_.flags & ORP_UV_SPAWN_SETGID) != 0) {
    const Status status = find_user_groups();
    if (status != Status::kOk) return status;
  }
  start_ = make_pipe();
  return start_.read ? Status::kOk : Status::kSystem;
}

Status Child::find_user_groups() {
  const Owned<char> buffer(static_cast<char *>(plain_alloc(kUserBuffer)));
  if (!buffer) return Status::kNoMemory;
  passwd record;
  passwd *user = nullptr;
  ::getpwuid_r(options_.uid, &record, buffer.get(), kUserBuffer, &user);
  has_user_ = user != nullptr && user->pw_name != nullptr;
  if (has_user_) {
    for (int capacity = 64; capacity <= kMaxUserGroups; capacity *= 4) {
      const size_t size = static_cast<size_t>(capacity) * sizeof(gid_t);
      user_groups_.reset(static_cast<gid_t *>(plain_alloc(size)));
      if (!user_groups_) return Status::kNoMemory;
      user_group_count_ = capacity;
      if (::getgrouplist(user->pw_name, options_.gid, user_groups_.get(), &user_group_count_) >=
          0) {
        break;
      }
      user_groups_.reset();
    }
  }
  ::explicit_bzero(buffer.get(), kUserBuffer);
  return Status::kOk;
}

Status Child::make(int highest_fd, int32_t *pid) {
  close_bound_ = highest_fd < 4 ? 50 : highest_fd;
  sigset_t all, saved;
  ::sigfillset(&all);
  ::pthread_sigmask(SIG_SETMASK, &all, &saved);
  const pid_t made = ::fork();
  if (made == 0) run(saved);

  if (made > 0) {
    forget_status(made);
    *pid = made;
  }
  ::pthread_sigmask(SIG_SETMASK, &saved, nullptr);
  return made > 0 ? Status::kOk : Status::kSystem;
}

void Child::start() {
  start_ = {};
  for (os::UniqueFd &fd : standard_) fd.reset();
}

void Child::run(const sigset_t &mask) {
  reset_signals(mask);
  start_.write.reset();
  const bool ready = set_up();
  wait_for_start();
  if (!ready) ::_exit(kExitFailed);

  move_standard();
  ::execvp(options_.file, options_.args);
  write_exec_failure(options_.file, errno);
  ::_exit(kExitFailed);
}

bool Child::set_up() {
  // A new session has a process group of its own (setsid(2)): signals to the parent's group, from a
  // terminal say, do not reach the child.
  if ((options_.flags & ORP_UV_SPAWN_SETSID) != 0) ::setsid();
  close_inherited();
  if (options_.cwd != nullptr && ::chdir(options_.cwd) != 0) return false;
  if (!set_ids()) return false;

  if (options_.env != nullptr) ::environ = const_cast<char **>(options_.env);
  if ((options_.flags & ORP_UV_SPAWN_UMASK) != 0) ::umask(options_.umask);
  if ((options_.flags & ORP_UV_SPAWN_NO_CORE) != 0) {
    const rlimit none = {.rlim_cur = 0, .rlim_max = 0};
    ::setrlimit(RLIMIT_CORE, &none);
  }
  return true;
}

void Child::close_inherited() const {
  if (options_.keepFd == nullptr) {
    int first = kFirstInherited;
    for (int fd = kFirstInherited; fd <= close_bound_; ++fd) {
      if (!is_kept(fd)) continue;
      close_between(first, fd - 1);
      first = fd + 1;
    }
    close_between(first, close_bound_);
    return;
  }
  for (int fd = kFirstInherited; fd <= close_bound_; ++fd) {
    if (!is_kept(fd) && options_.keepFd(&options_, fd) == 0) ::close(fd);
  }
}

bool Child::is_kept(int fd) const {
  return fd == start_.read.get() || fd == standard_[0].get() || fd == standard_[1].get() ||
         fd == standard_[2].get();
}

// Groups first, the user last: after setuid() the child may no longer change its groups. A child
// that cannot take on the requested ids does not run, because it would run with the wrong rights.
// Supplementary groups that cannot be set are only reported, because a parent that is not root may
// never set them (setgroups(2)).
bool Child::set_ids() const {
  const uint32_t flags = options_.flags;
  if ((flags & (ORP_UV_SPAWN_SETUID | ORP_UV_SPAWN_SETGID)) != 0 &&
      ::setgroups(options_.groupCount, options_.groups) != 0) {
    write_text("setgroups error.");
  }
  if (has_user_ && (!user_groups_ ||
                    ::setgroups(static_cast<size_t>(user_group_count_), user_groups_.get()) != 0)) {
    write_text("initgroups error");
  }
  if ((flags & ORP_UV_SPAWN_SETGID) != 0 && ::setgid(options_.gid) != 0) return false;
  if ((flags & ORP_UV_SPAWN_SETEUID) != 0 && ::seteuid(options_.uid) != 0) return false;
  return (flags & ORP_UV_SPAWN_SETUID) == 0 || ::setuid(options_.uid) == 0;
}

void Child::wait_for_start() const {
  char unused[4];
  while (::read(start_.read.get(), unused, sizeof unused) < 0 && errno == EINTR) continue;
}

void Child::move_standard() const {
  for (int target = 0; target < 3; ++target) {
    const int fd = standard_[target].get();
    if (fd < 0) continue;
    while (::dup2(fd, target) < 0 && errno == EINTR) continue;
    ::close(fd);
  }
}

}  // namespace msgapi::uv
