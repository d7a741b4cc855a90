// sandbox: runs one command in a private user, mount, process and network namespace in which the
// fixed paths of the library exist and can be written.
//
// The command sees the machine's files on a root of its own: every directory of the machine is
// bound into a fresh tmpfs, and the directories that the library writes to (/var, /var/run, /mnt,
// ...) are real directories of that tmpfs. What the machine holds directly below /var and /mnt
// stays visible there. When the command ends, its namespaces and everything in them are gone.
//
// Three processes: the launcher (forwards signals and the exit status), the init of the process
// namespace (reaps orphans), and the command.

#include <dirent.h>
#include <fcntl.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <set>
#include <string>

namespace {

namespace fs = std::filesystem;

constexpr int kSetupFailed = 125;
constexpr int kCommandNotFound = 127;

[[noreturn]] void fail(const std::string &what) {
  std::fprintf(stderr, "sandbox: %s: %s\n", what.c_str(), std::strerror(errno));
  std::exit(kSetupFailed);
}

void check(bool succeeded, const std::string &what) {
  if (!succeeded) fail(what);
}

void write_file(const char *path, const std::string &text) {
  std::ofstream file(path);
  file << text;
}

void enter_namespaces() {
  constexpr int kSpaces = CLONE_NEWNS | CLONE_NEWPID | CLONE_NEWNET | CLONE_NEWIPC | CLONE_NEWUTS;
  if (::unshare(kSpaces) == 0) return;

  const uid_t uid = ::getuid();
  const gid_t gid = ::getgid();
  if (::unshare(kSpaces | CLONE_NEWUSER) != 0) {
    std::fprintf(stderr,
                 "sandbox: this system does not let this user create namespaces (%s).\n"
                 "Run the command as root, or allow it once, as root, with whichever of these the "
                 "system has:\n"
                 "  sysctl -w kernel.unprivileged_userns_clone=1\n"
                 "  sysctl -w user.max_user_namespaces=10000\n"
                 "  sysctl -w kernel.apparmor_restrict_unprivileged_userns=0\n",
                 std::strerror(errno));
    std::exit(kSetupFailed);
  }
  write_file("/proc/self/setgroups", "deny");
  write_file("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1\n");
  write_file("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1\n");
}

// Shows `source` at `target`, which gets the same kind of entry.
void show(const fs::path &source, const fs::path &target) {
  const fs::file_status status = fs::symlink_status(source);
  if (fs::is_symlink(status)) {
    fs::create_symlink(fs::read_symlink(source), target);
    return;
  }
  if (fs::is_directory(status)) {
    fs::create_directory(target);
  } else {
    std::ofstream{target};
  }
  if (::mount(source.c_str(), target.c_str(), nullptr, MS_BIND | MS_REC, nullptr) != 0) {
    // An entry that cannot be bound (a mount of another user, say) is simply not shown.
    fs::remove(target);
  }
}

// Makes `target` a directory of ours that shows what `source` holds, but for `hidden`.
void mirror(const fs::path &source, const fs::path &target, const std::set<std::string> &hidden) {
  fs::create_directories(target);
  std::error_code ignored;
  for (const fs::directory_entry &entry : fs::directory_iterator(source, ignored)) {
    const std::string name = entry.path().filename();
    if (!hidden.contains(name)) show(entry.path(), target / name);
  }
}

// Before the machine's own views are detached: an ordinary user may mount a fresh one only beside
// one that is visible.
void mount_kernel_views(const fs::path &root) {
  constexpr unsigned long kFlags = MS_NOSUID | MS_NODEV | MS_NOEXEC;
  check(::mount("proc", (root / "proc").c_str(), "proc", kFlags, nullptr) == 0, "mount /proc");
  // A container may refuse a fresh sysfs; only tests of interfaces under /sys miss it then.
  ::mount("sysfs", (root / "sys").c_str(), "sysfs", kFlags, nullptr);
}

void build_root() {
  check(::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0, "make mounts private");

  const std::string here = fs::current_path();
  // The place where the new root is built, removed again as soon as the root is entered.
  char place[] = "/tmp/sandbox.XXXXXX";
  check(::mkdtemp(place) != nullptr, "make a directory in /tmp");
  const fs::path root = place;
  const int real_var = ::open("/var", O_PATH | O_DIRECTORY | O_CLOEXEC);
  const int real_mnt = ::open("/mnt", O_PATH | O_DIRECTORY | O_CLOEXEC);
  check(real_var >= 0, "open /var");
  // Large folios, where the kernel has them, make the files that carry large bodies cheap.
  check(::mount("sandbox", place, "tmpfs", 0, "mode=0755,huge=within_size") == 0 ||
            ::mount("sandbox", place, "tmpfs", 0, "mode=0755") == 0,
        "mount a root");

  const auto opened = [](int fd) { return fs::path("/proc/self/fd/" + std::to_string(fd)) / ""; };
  mirror("/", root, {"tmp", "var", "mnt", "online", "app", "proc", "sys"});
  fs::create_directories(root / "tmp");
  check(::mount("/tmp", (root / "tmp").c_str(), nullptr, MS_BIND, nullptr) == 0, "bind /tmp");
  mirror(opened(real_var), root / "var", {"run", "mlog", "lock", "log"});
  if (real_mnt >= 0) mirror(opened(real_mnt), root / "mnt", {});
  for (const char *path : {"var/run/msg", "var/run/notify", "var/mlog", "var/lock", "var/log",
                           "mnt", "online", "app", "proc", "sys"}) {
    fs::create_directories(root / path);
  }

  mount_kernel_views(root);
  check(::chdir(root.c_str()) == 0 && ::syscall(SYS_pivot_root, ".", ".") == 0, "pivot_root");
  check(::umount2(".", MNT_DETACH) == 0, "detach the machine's root");
  ::rmdir(place);
  if (::chdir(here.c_str()) != 0) check(::chdir("/") == 0, "chdir");
}

void bring_up_loopback() {
  const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  check(fd >= 0, "socket");
  ifreq request{};
  std::strcpy(request.ifr_name, "lo");
  request.ifr_flags = IFF_UP | IFF_RUNNING;
  check(::ioctl(fd, SIOCSIFFLAGS, &request) == 0, "bring up lo");
  ::close(fd);
}

// The host's forms of the platform's programs stand beside this one and come before the machine's.
void put_programs_first() {
  const char *rest = std::getenv("PATH");
  std::string path = fs::read_symlink("/proc/self/exe").parent_path();
  if (rest != nullptr) path += std::string(":") + rest;
  check(::setenv("PATH", path.c_str(), 1) == 0, "set PATH");
}

volatile sig_atomic_t g_child;

void forward(int signal) {
  if (g_child > 0) ::kill(g_child, signal);
}

constexpr int kForwarded[] = {SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGUSR1, SIGUSR2, SIGCONT};

void forward_signals_to(pid_t child) {
  g_child = child;
  struct sigaction action {};
  action.sa_handler = forward;
  action.sa_flags = SA_RESTART;
  for (int signal : kForwarded) ::sigaction(signal, &action, nullptr);
}

// Signals wait while a child is made, so that none is lost before they can be forwarded.
pid_t fork_with_signals_held() {
  sigset_t held, before;
  sigemptyset(&held);
  for (int signal : kForwarded) sigaddset(&held, signal);
  ::sigprocmask(SIG_BLOCK, &held, &before);
  const pid_t child = ::fork();
  check(child >= 0, "fork");
  if (child > 0) forward_signals_to(child);
  ::sigprocmask(SIG_SETMASK, &before, nullptr);
  return child;
}

int exit_status(int status) {
  return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

// Reaps until `child` ends.
int wait_for(pid_t child) {
  for (;;) {
    int status;
    const pid_t pid = ::waitpid(-1, &status, 0);
    if (pid == child) return exit_status(status);
    if (pid < 0 && errno != EINTR) fail("waitpid");
  }
}

[[noreturn]] void run(char **command) {
  ::execvp(command[0], command);
  std::fprintf(stderr, "sandbox: %s: %s\n", command[0], std::strerror(errno));
  std::_Exit(kCommandNotFound);
}

[[noreturn]] void be_init(char **command) {
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  build_root();
  bring_up_loopback();

  const pid_t child = fork_with_signals_held();
  if (child == 0) run(command);
  // Ending this process ends everything that is left in the namespace.
  std::_Exit(wait_for(child));
}

}  // namespace

int main(int argc, char **argv) {
  char **command = argv + 1;
  if (argc > 1 && std::strcmp(command[0], "--") == 0) ++command;
  if (*command == nullptr) {
    std::fprintf(stderr,
                 "usage: sandbox [--] COMMAND [ARGUMENT...]\n"
                 "Runs COMMAND with private /var, /var/run, /var/mlog, /mnt, /online and /app, a\n"
                 "network of its own with lo up, and a /proc that shows only its own processes.\n"
                 "The exit status is COMMAND's (128 + signal when one ended it), or 125 when the\n"
                 "sandbox could not be set up.\n");
    return kSetupFailed;
  }

  enter_namespaces();
  try {
    put_programs_first();
    const pid_t init = fork_with_signals_held();
    if (init == 0) be_init(command);
    return wait_for(init);
  } catch (const std::exception &error) {
    std::fprintf(stderr, "sandbox: %s\n", error.what());
    return kSetupFailed;
  }
}
