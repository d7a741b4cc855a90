// sandbox: runs one command in private user, mount, process and network namespaces, in which the
// fixed paths of the library exist and can be written.
//
// With --listen the command gets a listening socket of the machine's own network. A socket stays in
// the network in which it was made (network_namespaces(7)): this is the only way into the sandbox.
//
// The command has a root of its own: a fresh tmpfs, into which every directory of the machine is
// bound except for the trees that hold the library's fixed paths (/var, /mnt, ...). These are empty
// directories of the tmpfs. Of the machine's own trees with these names the command gets only what
// it cannot do without: /var/lib and /var/cache, read-only, and the part that holds the command,
// this program or the working directory. When the command ends, its namespaces and everything in
// them are gone.
//
// Three processes: the launcher (forwards signals and the exit status), the init of the process
// namespace (reaps orphans), and the command.

#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/auxv.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <iterator>
#include <set>
#include <string>
#include <system_error>
#include <vector>

#include "common/printable.h"

namespace {

namespace fs = std::filesystem;

// Each holds a fixed path of the library or a place that it takes files from. /tmp stays the
// machine's, so that files can pass in and out.
constexpr const char *kPrivateTrees[] = {"app", "data", "html", "mnt", "online", "system", "var"};

constexpr int kUsage = 2;
constexpr int kSetupFailed = 125;
constexpr int kCommandNotFound = 127;

[[noreturn]] void fail(const std::string &what) {
  const int reason = errno;
  std::fprintf(stderr, "sandbox: %s: %s\n", servers::printable(what).c_str(),
               std::strerror(reason));
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
                 "In a chroot only root may create them; user_namespaces(7) says why.\n"
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

// Keeps what is mounted here out of the machine's sight. This and pivot_root(2) need a root that is
// a mount point, which it is not in a chroot. Joining the mount namespace in which the process is
// already leads to the real root (setns(2)); there the chroot's directory is bound to itself, which
// makes it a mount point.
void make_mounts_private() {
  constexpr unsigned long kPrivate = MS_REC | MS_PRIVATE;
  if (::mount(nullptr, "/", nullptr, kPrivate, nullptr) == 0) return;

  const fs::path here = fs::current_path();
  const int root = ::open("/", O_PATH | O_DIRECTORY | O_CLOEXEC);
  const int self = static_cast<int>(::syscall(SYS_pidfd_open, ::getpid(), 0));
  check(root >= 0 && self >= 0 && ::setns(self, CLONE_NEWNS) == 0, "leave the chroot");
  check(::mount(nullptr, "/", nullptr, kPrivate, nullptr) == 0, "make mounts private");
  check(::fchdir(root) == 0, "find the chroot");
  const std::string place = fs::current_path();
  check(::mount(".", ".", nullptr, MS_BIND | MS_REC, nullptr) == 0 &&
            ::chroot(place.c_str()) == 0 && ::chdir("/") == 0,
        "enter the chroot " + place);
  ::close(root);
  ::close(self);
  if (::chdir(here.c_str()) != 0) check(::chdir("/") == 0, "chdir");
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
    // An entry that cannot be bound, for example another user's mount, is not shown.
    fs::remove(target);
  }
}

// Makes `target` a directory of ours that shows what `source` holds, except for `hidden`.
void mirror(const fs::path &source, const fs::path &target, const std::set<std::string> &hidden) {
  fs::create_directories(target);
  std::error_code ignored;
  for (const fs::directory_entry &entry : fs::directory_iterator(source, ignored)) {
    const std::string name = entry.path().filename();
    if (!hidden.contains(name)) show(entry.path(), target / name);
  }
}

// Call it before the machine's own views are detached: an ordinary user may mount a fresh one only
// while another one is visible (user_namespaces(7)).
void mount_kernel_views(const fs::path &root) {
  constexpr unsigned long kFlags = MS_NOSUID | MS_NODEV | MS_NOEXEC;
  check(::mount("proc", (root / "proc").c_str(), "proc", kFlags, nullptr) == 0, "mount /proc");
  // A container may refuse a fresh sysfs. Only tests of interfaces below /sys miss it then.
  ::mount("sysfs", (root / "sys").c_str(), "sysfs", kFlags, nullptr);
}

// Shows the entry right below /var, /mnt or /data that `path` leads through, unless it is one that
// the library's paths name.
void show_what_holds(const fs::path &path, const fs::path &root) {
  static const std::set<std::string> kTrees = {"var", "mnt", "data"};
  static const std::set<std::string> kOwn = {"var/cfm", "var/mlogfile", "var/policy_custom",
                                             "mnt/mlog", "data/userdata"};
  auto part = path.begin();
  if (std::distance(part, path.end()) < 3 || !kTrees.contains(*++part)) return;
  fs::path entry = *part;
  entry /= *++part;
  if (kOwn.contains(entry) || !fs::exists("/" / entry) || fs::exists(root / entry)) return;
  fs::create_directories((root / entry).parent_path());
  show("/" / entry, root / entry);
}

// For the packages' databases and caches, which programs of the machine read.
void show_read_only(const fs::path &directory, const fs::path &root) {
  const fs::path target = root / directory;
  if (!fs::is_directory("/" / directory) || fs::exists(target)) return;
  show("/" / directory, target);
  mount_attr attributes{};
  attributes.attr_set = MOUNT_ATTR_RDONLY;
  if (fs::exists(target)) {
    check(::mount_setattr(AT_FDCWD, target.c_str(), AT_RECURSIVE, &attributes, sizeof attributes) ==
              0,
          "make /" + directory.string() + " read-only");
  }
}

// `used` are paths that must be visible on the new root.
void build_root(const std::vector<fs::path> &used) {
  make_mounts_private();

  const fs::path here = fs::current_path();
  // Where the new root is built. Removed as soon as the root is entered.
  char place[] = "/tmp/sandbox.XXXXXX";
  check(::mkdtemp(place) != nullptr, "make a directory in /tmp");
  const fs::path root = place;
  // Large folios, if the kernel has them, make hand-over files cheap. Scripts know the sandbox by
  // the name of the mount's source.
  check(::mount("sandbox", place, "tmpfs", 0, "mode=0755,huge=within_size") == 0 ||
            ::mount("sandbox", place, "tmpfs", 0, "mode=0755") == 0,
        "mount a root");

  std::set<std::string> hidden = {"tmp", "proc", "sys"};
  hidden.insert(std::begin(kPrivateTrees), std::end(kPrivateTrees));
  mirror("/", root, hidden);
  for (const char *path : {"tmp", "proc", "sys", "var/run/msg", "var/run/notify", "var/mlog",
                           "var/lock", "var/log", "var/tmp", "mnt", "online", "app"}) {
    fs::create_directories(root / path);
  }
  fs::permissions(root / "var/tmp", fs::perms(01777));
  check(::mount("/tmp", (root / "tmp").c_str(), nullptr, MS_BIND, nullptr) == 0, "bind /tmp");
  show_what_holds(here, root);
  for (const fs::path &path : used) show_what_holds(path, root);
  for (const char *path : {"var/lib", "var/cache"}) show_read_only(path, root);
  if (fs::exists(root / "etc/api")) {
    check(::mount("sandbox", (root / "etc/api").c_str(), "tmpfs", 0, nullptr) == 0, "/etc/api");
  }

  mount_kernel_views(root);
  check(::chdir(root.c_str()) == 0 && ::syscall(SYS_pivot_root, ".", ".") == 0, "pivot_root");
  check(::umount2(".", MNT_DETACH) == 0, "detach the machine's root");
  ::rmdir(place);
  if (::chdir(here.c_str()) != 0) check(::chdir("/") == 0, "chdir");
}

// Listens at an address like "127.0.0.1:8970". The command gets the socket as descriptor 3.
void listen_outside(const std::string &where) {
  constexpr int kDescriptor = 3;
  const size_t colon = where.rfind(':');
  sockaddr_in address{};
  address.sin_family = AF_INET;
  unsigned port = 0;
  const char *end = where.data() + where.size();
  const char *digits = where.data() + (colon == std::string::npos ? where.size() : colon + 1);
  const auto [rest, error] = std::from_chars(digits, end, port);
  if (::inet_pton(AF_INET, where.substr(0, colon).c_str(), &address.sin_addr) != 1 ||
      error != std::errc() || rest != end || port == 0 || port > UINT16_MAX) {
    std::fprintf(stderr, "sandbox: --listen takes ADDRESS:PORT, as in 127.0.0.1:8970\n");
    std::exit(kUsage);
  }
  address.sin_port = htons(static_cast<uint16_t>(port));
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
  const int on = 1;
  check(fd >= 0 && ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) == 0, "socket");
  check(::bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0 &&
            ::listen(fd, SOMAXCONN) == 0,
        where);
  if (fd == kDescriptor) return;
  check(::dup2(fd, kDescriptor) == kDescriptor, "dup2");
  ::close(fd);
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

// The directory of this program. Call it before the namespaces are entered: in a chroot the link
// cannot be read afterwards. A bare system may have no /proc at all.
fs::path own_directory() {
  std::error_code failure;
  const fs::path link = fs::read_symlink("/proc/self/exe", failure);
  if (!failure) return link.parent_path();
  return fs::canonical(reinterpret_cast<const char *>(::getauxval(AT_EXECFN))).parent_path();
}

// The host's forms of the platform's programs are beside this one, and come before the machine's.
void put_programs_first(const fs::path &directory) {
  const char *rest = std::getenv("PATH");
  std::string path = directory;
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

// Blocks signals while the child is made, so that none is lost before they can be forwarded.
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
  const int reason = errno;
  std::fprintf(stderr, "sandbox: %s: %s\n", servers::printable(command[0]).c_str(),
               std::strerror(reason));
  std::_Exit(kCommandNotFound);
}

[[noreturn]] void be_init(char **command, const std::vector<fs::path> &used) {
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  build_root(used);
  bring_up_loopback();

  const pid_t child = fork_with_signals_held();
  if (child == 0) run(command);
  // Ending this process ends everything that is left in the namespace.
  std::_Exit(wait_for(child));
}

}  // namespace

int main(int argc, char **argv) try {
  char **command = argv + 1;
  const bool help = argc > 1 && std::strcmp(command[0], "--help") == 0;
  const char *outside = nullptr;
  if (argc > 2 && std::strcmp(command[0], "--listen") == 0) {
    outside = command[1];
    command += 2;
  }
  if (*command != nullptr && std::strcmp(command[0], "--") == 0) ++command;
  if (help || *command == nullptr) {
    std::fprintf(
        help ? stdout : stderr,
        "usage: sandbox [--listen ADDRESS:PORT] [--] COMMAND [ARGUMENT...]\n"
        "Runs COMMAND with private /var, /mnt, /online, /app, /data, /html and /system, a\n"
        "network of its own with lo up, and a /proc that shows only its own processes.\n"
        "Below these directories the machine's own entry is there only where COMMAND, this\n"
        "program or the working directory lies; /var/lib and /var/cache can be read.\n"
        "With --listen COMMAND has a listening socket of the machine's network as descriptor 3.\n"
        "The exit status is COMMAND's (128 + signal when one ended it), or 125 when the\n"
        "sandbox could not be set up.\n");
    return help ? EXIT_SUCCESS : kUsage;
  }

  const fs::path directory = own_directory();
  std::vector<fs::path> used = {directory};
  if (std::strchr(*command, '/') != nullptr) used.push_back(fs::weakly_canonical(*command));
  put_programs_first(directory);
  if (outside != nullptr) listen_outside(outside);
  enter_namespaces();
  const pid_t init = fork_with_signals_held();
  if (init == 0) be_init(command, used);
  return wait_for(init);
} catch (const std::exception &error) {
  std::fprintf(stderr, "sandbox: %s\n", servers::printable(error.what()).c_str());
  return kSetupFailed;
}
