// The preloaded object comes between a program with its libraries and the C library, and makes one
// call fail as the plan says. A failing call does nothing, except for close(), which closes and
// fails, and for short counts, which do a part.
//
// Calls inside the C library are not seen, so its stream functions fail as a whole. Its own
// allocations do not fail, because parts of it (the name service switch) do not survive without
// memory.

#include <dlfcn.h>
#include <fcntl.h>
#include <link.h>
#include <poll.h>
#include <spawn.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/select.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/timerfd.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <new>
#include <span>

#include "plan.h"

// This is for 64-bit machines, where the C library's functions with 64 at the end of their names
// are the same as those without.
static_assert(sizeof(off_t) == sizeof(off64_t));

namespace {

using torture::Plan;

constexpr int kShort = -1;

Plan *g_plan;

// Set while the shim itself, or a function that it wraps, is at work: the calls of that do not
// count.
thread_local bool g_inside __attribute__((tls_model("initial-exec")));

class Inside {
 public:
  Inside() { g_inside = true; }
  Inside(const Inside &) = delete;
  Inside &operator=(const Inside &) = delete;
  ~Inside() { g_inside = before_; }

 private:
  const bool before_ = g_inside;
};

// Memory for dlsym(), which may allocate while the real allocator is being looked up.
char g_early[4096];
size_t g_early_used;

// Blocks that this process has from malloc() and the like.
std::atomic<int32_t> g_blocks;

bool is_early(const void *block) {
  return block >= g_early && block < g_early + sizeof g_early;
}

void *early_alloc(size_t size) {
  const size_t rounded = (size + 15) & ~size_t{15};
  if (rounded > sizeof g_early - g_early_used) std::abort();
  void *block = g_early + g_early_used;
  g_early_used += rounded;
  return block;
}

// The function that this object hides.
template <typename Function>
Function *next(const char *name) {
  const Inside inside;
  void *found = ::dlsym(RTLD_NEXT, name);
  if (found == nullptr) std::abort();
  return reinterpret_cast<Function *>(found);
}

void record(const char *call, int error, size_t variants, const void *caller) {
  const Inside inside;
  Dl_info info{};
  ::dladdr(caller, &info);
  const char *object = info.dli_fname == nullptr ? "?" : info.dli_fname;
  const char *slash = std::strrchr(object, '/');
  const auto offset = static_cast<const char *>(caller) - static_cast<char *>(info.dli_fbase);
  std::snprintf(g_plan->caller, sizeof g_plan->caller, "%s+0x%tx", slash ? slash + 1 : object,
                offset);
  std::snprintf(g_plan->call, sizeof g_plan->call, "%s", call);
  g_plan->error = error;
  g_plan->variants = static_cast<uint32_t>(variants);
  g_plan->struck = 1;
}

// Counts a call. 0 when it is to be made; otherwise the errno of its failure, or kShort.
[[gnu::noinline]] int strike_at(const void *caller, const char *call, std::span<const int> faults) {
  if (g_plan == nullptr || g_inside || g_plan->armed.load(std::memory_order_relaxed) == 0) return 0;
  if (faults.empty()) return 0;
  if (g_plan->count.fetch_add(1) + 1 != g_plan->nth) return 0;
  int fitting[8];  // without zeros, which mean faults that cannot happen here
  size_t count = 0;
  for (const int fault : faults) {
    if (fault != 0) fitting[count++] = fault;
  }
  const int fault = fitting[g_plan->variant % count];
  record(call, fault, count, caller);
  return fault;
}

[[gnu::always_inline]] inline int strike(const char *call, std::span<const int> faults) {
  return strike_at(__builtin_return_address(0), call, faults);
}

[[gnu::always_inline]] inline int strike(const char *call, std::initializer_list<int> faults) {
  return strike_at(__builtin_return_address(0), call, {faults.begin(), faults.size()});
}

int fail(int error) {
  errno = error;
  return -1;
}

bool never_waits(int fd, int flags = 0) {
  return (flags & MSG_DONTWAIT) != 0 ||
         (static_cast<int>(next<decltype(::fcntl)>("fcntl")(fd, F_GETFL)) & O_NONBLOCK) != 0;
}

// The type of a socket; -1 for other descriptors.
int socket_type(int fd) {
  int type = -1;
  socklen_t size = sizeof type;
  const int before = errno;
  if (::getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &size) != 0) type = -1;
  errno = before;
  return type;
}

// How reading and writing `size` bytes can fail, by the kind of descriptor. Zero: it cannot.
struct Transfer {
  Transfer(int fd, size_t size, int flags) : type(socket_type(fd)) {
    const bool datagram = type >= 0 && type != SOCK_STREAM;
    partly = size > 1 && !datagram ? kShort : 0;
    // A descriptor that never waits is not interrupted.
    interrupted = never_waits(fd, flags) ? EAGAIN : EINTR;
    read_error = type >= 0 ? ECONNRESET : EIO;
    write_error = type >= 0 ? (datagram ? ENOBUFS : EPIPE) : ENOSPC;
  }
  int type, partly, interrupted, read_error, write_error;
};

// O_TMPFILE has several bits; one of them is O_DIRECTORY.
bool takes_mode(int flags) {
  return (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE;
}

// Calls that only fail for a bad descriptor or flag fail here all the same.
std::span<const int> fcntl_faults(int command, const void *argument) {
  static constexpr int kCopy[] = {EMFILE}, kLock[] = {EAGAIN, ENOLCK}, kWait[] = {EINTR, ENOLCK},
                       kOther[] = {EINVAL};
  switch (command) {
    case F_DUPFD:
    case F_DUPFD_CLOEXEC:
      return kCopy;
    case F_SETLK:
      // Linux refuses an unlock only when it lacks the memory to split a range. SQLite then counts
      // a lock that stays for the rest of the process, and nothing above SQLite can mend that.
      if (static_cast<const struct flock *>(argument)->l_type == F_UNLCK) return {};
      return kLock;
    case F_SETLKW:
      return kWait;
    default:
      return kOther;
  }
}

// Where the C library is in memory.
uintptr_t g_libc_begin, g_libc_end;

bool is_libc(const void *caller) {
  const auto address = reinterpret_cast<uintptr_t>(caller);
  return address >= g_libc_begin && address < g_libc_end;
}

int find_libc(dl_phdr_info *object, size_t, void *) {
  if (object->dlpi_name == nullptr || std::strstr(object->dlpi_name, "/libc.so") == nullptr)
    return 0;
  g_libc_begin = object->dlpi_addr;
  for (int i = 0; i < object->dlpi_phnum; ++i) {
    const auto end =
        object->dlpi_addr + object->dlpi_phdr[i].p_vaddr + object->dlpi_phdr[i].p_memsz;
    if (object->dlpi_phdr[i].p_type == PT_LOAD) g_libc_end = std::max<uintptr_t>(g_libc_end, end);
  }
  return 1;
}

[[gnu::always_inline]] inline bool strike_memory(const char *call) {
  if (is_libc(__builtin_return_address(0)) || strike(call, {ENOMEM}) == 0) return false;
  errno = ENOMEM;
  return true;
}

bool armed() {
  return g_plan != nullptr && !g_inside && g_plan->armed.load(std::memory_order_relaxed) != 0;
}

void attach(Plan *plan) {
  g_plan = plan;
}

using Main = int(int, char **, char **);
Main *g_main;

// Counts from here on: a program can do nothing about failures before main().
int counted_main(int count, char **words, char **environment) {
  const char *path = std::getenv(torture::kPlanVariable);
  if (path != nullptr) {
    const Inside inside;
    const int fd = next<decltype(::open)>("open")(path, O_RDWR | O_CLOEXEC);
    void *memory = next<decltype(::mmap)>("mmap")(nullptr, sizeof(Plan), PROT_READ | PROT_WRITE,
                                                  MAP_SHARED, fd, 0);
    next<decltype(::close)>("close")(fd);
    if (memory != MAP_FAILED) attach(static_cast<Plan *>(memory));
  }
  return g_main(count, words, environment);
}

[[gnu::constructor]] void start() {
  ::dl_iterate_phdr(find_libc, nullptr);
}

}  // namespace

extern "C" {

void torture_attach(Plan *plan) {
  attach(plan);
}

int32_t torture_blocks() {
  return g_blocks;
}

// The calling thread's calls pass uncounted from now on, or count again. cmake/coverage.c calls it.
void torture_spare(int spares) {
  g_inside = spares != 0;
}

// The program's start code calls main() with this function.
int __libc_start_main(Main *main, int count, char **words, void (*init)(), void (*fini)(),
                      void (*loader_fini)(), void *stack_end) {
  g_main = main;
  return next<int(Main *, int, char **, void (*)(), void (*)(), void (*)(), void *)>(
      "__libc_start_main")(counted_main, count, words, init, fini, loader_fini, stack_end);
}

// ---- Memory ------------------------------------------------------------------------------------

void *malloc(size_t size) noexcept {
  static decltype(&::malloc) real;
  static bool searching;
  if (real == nullptr) {
    if (searching) return early_alloc(size);
    searching = true;
    real = next<void *(size_t) noexcept>("malloc");
  }
  if (strike_memory("malloc")) return nullptr;
  void *block = real(size);
  if (block != nullptr) ++g_blocks;
  return block;
}

void *calloc(size_t count, size_t size) noexcept {
  static decltype(&::calloc) real;
  static bool searching;
  if (real == nullptr) {
    if (searching) return early_alloc(count * size);
    searching = true;
    real = next<void *(size_t, size_t) noexcept>("calloc");
  }
  if (strike_memory("calloc")) return nullptr;
  void *block = real(count, size);
  if (block != nullptr) ++g_blocks;
  return block;
}

void *realloc(void *block, size_t size) noexcept {
  static const auto real = next<void *(void *, size_t) noexcept>("realloc");
  if (is_early(block)) {
    void *moved = malloc(size);
    const auto rest = static_cast<size_t>(g_early + sizeof g_early - static_cast<char *>(block));
    if (moved != nullptr) std::memcpy(moved, block, std::min(size, rest));
    return moved;
  }
  if (strike_memory("realloc")) return nullptr;
  void *moved = real(block, size);
  if (block == nullptr && moved != nullptr) ++g_blocks;
  if (block != nullptr && size == 0) --g_blocks;
  return moved;
}

void free(void *block) noexcept {
  static const auto real = next<void(void *) noexcept>("free");
  if (block == nullptr || is_early(block)) return;
  --g_blocks;
  real(block);
}

// ---- Descriptors -------------------------------------------------------------------------------

int socket(int domain, int type, int protocol) noexcept {
  if (const int error = strike("socket", {EMFILE, ENOBUFS})) return fail(error);
  static const auto real = next<int(int, int, int)>("socket");
  return real(domain, type, protocol);
}

int socketpair(int domain, int type, int protocol, int ends[2]) noexcept {
  if (const int error = strike("socketpair", {EMFILE})) return fail(error);
  static const auto real = next<int(int, int, int, int *)>("socketpair");
  return real(domain, type, protocol, ends);
}

int bind(int fd, const sockaddr *address, socklen_t size) noexcept {
  if (const int error = strike("bind", {EADDRINUSE, EACCES})) return fail(error);
  static const auto real = next<int(int, const sockaddr *, socklen_t)>("bind");
  return real(fd, address, size);
}

int listen(int fd, int backlog) noexcept {
  if (const int error = strike("listen", {EADDRINUSE})) return fail(error);
  static const auto real = next<int(int, int)>("listen");
  return real(fd, backlog);
}

int connect(int fd, const sockaddr *address, socklen_t size) {
  if (const int error = strike("connect", {ECONNREFUSED, EINTR, never_waits(fd) ? EAGAIN : 0})) {
    return fail(error);
  }
  static const auto real = next<int(int, const sockaddr *, socklen_t)>("connect");
  return real(fd, address, size);
}

int accept(int fd, sockaddr *address, socklen_t *size) {
  if (const int error = strike("accept", {EMFILE, ECONNABORTED, EINTR})) return fail(error);
  static const auto real = next<int(int, sockaddr *, socklen_t *)>("accept");
  return real(fd, address, size);
}

int accept4(int fd, sockaddr *address, socklen_t *size, int flags) {
  if (const int error = strike("accept4", {EMFILE, ECONNABORTED, EINTR})) return fail(error);
  static const auto real = next<int(int, sockaddr *, socklen_t *, int)>("accept4");
  return real(fd, address, size, flags);
}

int open(const char *path, int flags, ...) {
  va_list rest;
  va_start(rest, flags);
  const auto mode = takes_mode(flags) ? va_arg(rest, mode_t) : 0;
  va_end(rest);
  const int full = takes_mode(flags) ? ENOSPC : 0;
  if (const int error = strike("open", {EMFILE, EACCES, full})) return fail(error);
  static const auto real = next<int(const char *, int, ...)>("open");
  return real(path, flags, mode);
}
int open64(const char *path, int flags, ...) __attribute__((alias("open")));

int openat(int directory, const char *path, int flags, ...) {
  va_list rest;
  va_start(rest, flags);
  const auto mode = takes_mode(flags) ? va_arg(rest, mode_t) : 0;
  va_end(rest);
  const int full = takes_mode(flags) ? ENOSPC : 0;
  if (const int error = strike("openat", {EMFILE, EACCES, full})) return fail(error);
  static const auto real = next<int(int, const char *, int, ...)>("openat");
  return real(directory, path, flags, mode);
}

int close(int fd) {
  static const auto real = next<int(int)>("close");
  const int error = strike("close", {EINTR, EIO});
  const int result = real(fd);
  return error != 0 && result == 0 ? fail(error) : result;
}

int fcntl(int fd, int command, ...) {
  va_list rest;
  va_start(rest, command);
  void *argument = va_arg(rest, void *);
  va_end(rest);
  static const auto real = next<int(int, int, ...)>("fcntl");
  if (const int error = strike("fcntl", fcntl_faults(command, argument))) return fail(error);
  return real(fd, command, argument);
}
int fcntl64(int fd, int command, ...) __attribute__((alias("fcntl")));

int pipe(int ends[2]) noexcept {
  if (const int error = strike("pipe", {EMFILE})) return fail(error);
  static const auto real = next<int(int *)>("pipe");
  return real(ends);
}

int pipe2(int ends[2], int flags) noexcept {
  if (const int error = strike("pipe2", {EMFILE})) return fail(error);
  static const auto real = next<int(int *, int)>("pipe2");
  return real(ends, flags);
}

int eventfd(unsigned count, int flags) noexcept {
  if (const int error = strike("eventfd", {EMFILE})) return fail(error);
  static const auto real = next<int(unsigned, int)>("eventfd");
  return real(count, flags);
}

int signalfd(int fd, const sigset_t *signals, int flags) noexcept {
  if (const int error = strike("signalfd", {EMFILE})) return fail(error);
  static const auto real = next<int(int, const sigset_t *, int)>("signalfd");
  return real(fd, signals, flags);
}

int timerfd_create(clockid_t clock, int flags) noexcept {
  if (const int error = strike("timerfd_create", {EMFILE})) return fail(error);
  static const auto real = next<int(clockid_t, int)>("timerfd_create");
  return real(clock, flags);
}

// ---- Reading and writing -----------------------------------------------------------------------

ssize_t read(int fd, void *buffer, size_t size) {
  static const auto real = next<ssize_t(int, void *, size_t)>("read");
  if (armed()) {
    const Transfer can(fd, size, 0);
    const int fault = strike("read", {can.interrupted, can.read_error, can.partly});
    if (fault > 0) return fail(fault);
    if (fault == kShort) size = 1;
  }
  return real(fd, buffer, size);
}

ssize_t pread(int fd, void *buffer, size_t size, off_t offset) {
  static const auto real = next<ssize_t(int, void *, size_t, off_t)>("pread");
  if (const int error = strike("pread", {EIO, EINTR})) return fail(error);
  return real(fd, buffer, size, offset);
}
ssize_t pread64(int fd, void *buffer, size_t size, off64_t offset) __attribute__((alias("pread")));

ssize_t recv(int fd, void *buffer, size_t size, int flags) {
  static const auto real = next<ssize_t(int, void *, size_t, int)>("recv");
  if (armed()) {
    const Transfer can(fd, size, flags);
    const int fault = strike("recv", {can.interrupted, can.read_error, can.partly});
    if (fault > 0) return fail(fault);
    if (fault == kShort) size = 1;
  }
  return real(fd, buffer, size, flags);
}

ssize_t recvfrom(int fd, void *buffer, size_t size, int flags, sockaddr *address,
                 socklen_t *address_size) {
  static const auto real =
      next<ssize_t(int, void *, size_t, int, sockaddr *, socklen_t *)>("recvfrom");
  if (armed()) {
    const Transfer can(fd, size, flags);
    if (const int error = strike("recvfrom", {can.interrupted, ENOMEM})) return fail(error);
  }
  return real(fd, buffer, size, flags, address, address_size);
}

ssize_t recvmsg(int fd, msghdr *message, int flags) {
  static const auto real = next<ssize_t(int, msghdr *, int)>("recvmsg");
  if (armed()) {
    const Transfer can(fd, 0, flags);
    if (const int error = strike("recvmsg", {can.interrupted, can.read_error})) return fail(error);
  }
  return real(fd, message, flags);
}

ssize_t write(int fd, const void *buffer, size_t size) {
  static const auto real = next<ssize_t(int, const void *, size_t)>("write");
  if (armed()) {
    const Transfer can(fd, size, 0);
    const int fault = strike("write", {can.interrupted, can.write_error, can.partly});
    if (fault > 0) return fail(fault);
    if (fault == kShort) size /= 2;
  }
  return real(fd, buffer, size);
}

ssize_t pwrite(int fd, const void *buffer, size_t size, off_t offset) {
  static const auto real = next<ssize_t(int, const void *, size_t, off_t)>("pwrite");
  if (const int error = strike("pwrite", {ENOSPC, EINTR})) return fail(error);
  return real(fd, buffer, size, offset);
}
ssize_t pwrite64(int fd, const void *buffer, size_t size, off64_t offset)
    __attribute__((alias("pwrite")));

// A short count writes only the first piece.
ssize_t writev(int fd, const iovec *pieces, int count) {
  static const auto real = next<ssize_t(int, const iovec *, int)>("writev");
  if (armed()) {
    const Transfer can(fd, count > 1 ? 2 : 1, 0);
    const int fault = strike("writev", {can.interrupted, can.write_error, can.partly});
    if (fault > 0) return fail(fault);
    if (fault == kShort) count = 1;
  }
  return real(fd, pieces, count);
}

ssize_t send(int fd, const void *buffer, size_t size, int flags) {
  static const auto real = next<ssize_t(int, const void *, size_t, int)>("send");
  if (armed()) {
    const Transfer can(fd, size, flags);
    const int fault = strike("send", {can.interrupted, can.write_error, can.partly});
    if (fault > 0) return fail(fault);
    if (fault == kShort) size /= 2;
  }
  return real(fd, buffer, size, flags);
}

ssize_t sendto(int fd, const void *buffer, size_t size, int flags, const sockaddr *address,
               socklen_t address_size) {
  static const auto real =
      next<ssize_t(int, const void *, size_t, int, const sockaddr *, socklen_t)>("sendto");
  if (armed()) {
    const Transfer can(fd, size, flags);
    const int fault = strike("sendto", {can.interrupted, can.write_error, can.partly});
    if (fault > 0) return fail(fault);
    if (fault == kShort) size /= 2;
  }
  return real(fd, buffer, size, flags, address, address_size);
}

ssize_t sendmsg(int fd, const msghdr *message, int flags) {
  static const auto real = next<ssize_t(int, const msghdr *, int)>("sendmsg");
  msghdr first = *message;
  if (armed()) {
    const Transfer can(fd, message->msg_iovlen > 1 ? 2 : 1, flags);
    const int fault = strike("sendmsg", {can.interrupted, can.write_error, can.partly});
    if (fault > 0) return fail(fault);
    if (fault == kShort) first.msg_iovlen = 1;
  }
  return real(fd, &first, flags);
}

ssize_t splice(int in, off64_t *in_offset, int out, off64_t *out_offset, size_t size,
               unsigned flags) {
  static const auto real =
      next<ssize_t(int, off64_t *, int, off64_t *, size_t, unsigned)>("splice");
  const int fault = strike("splice", {EAGAIN, ENOMEM, size > 1 ? kShort : 0});
  if (fault > 0) return fail(fault);
  return real(in, in_offset, out, out_offset, fault == kShort ? size_t{1} : size, flags);
}

// ---- Waiting -----------------------------------------------------------------------------------

int select(int count, fd_set *read, fd_set *write, fd_set *exceptional, timeval *timeout) {
  static const auto real = next<int(int, fd_set *, fd_set *, fd_set *, timeval *)>("select");
  if (const int error = strike("select", {EINTR, ENOMEM})) return fail(error);
  return real(count, read, write, exceptional, timeout);
}

int pselect(int count, fd_set *read, fd_set *write, fd_set *exceptional, const timespec *timeout,
            const sigset_t *mask) {
  static const auto real =
      next<int(int, fd_set *, fd_set *, fd_set *, const timespec *, const sigset_t *)>("pselect");
  if (const int error = strike("pselect", {EINTR, ENOMEM})) return fail(error);
  return real(count, read, write, exceptional, timeout, mask);
}

int poll(pollfd *entries, nfds_t count, int timeout) {
  static const auto real = next<int(pollfd *, nfds_t, int)>("poll");
  if (const int error = strike("poll", {EINTR, ENOMEM})) return fail(error);
  return real(entries, count, timeout);
}

int ppoll(pollfd *entries, nfds_t count, const timespec *timeout, const sigset_t *mask) {
  static const auto real = next<int(pollfd *, nfds_t, const timespec *, const sigset_t *)>("ppoll");
  if (const int error = strike("ppoll", {EINTR, ENOMEM})) return fail(error);
  return real(entries, count, timeout, mask);
}

int epoll_create1(int flags) noexcept {
  if (const int error = strike("epoll_create1", {EMFILE})) return fail(error);
  static const auto real = next<int(int)>("epoll_create1");
  return real(flags);
}

int epoll_ctl(int epoll, int operation, int fd, epoll_event *event) noexcept {
  static const auto real = next<int(int, int, int, epoll_event *)>("epoll_ctl");
  if (operation == EPOLL_CTL_ADD) {  // the others take no memory
    if (const int error = strike("epoll_ctl", {ENOMEM, ENOSPC})) return fail(error);
  }
  return real(epoll, operation, fd, event);
}

int epoll_wait(int epoll, epoll_event *events, int count, int timeout) {
  static const auto real = next<int(int, epoll_event *, int, int)>("epoll_wait");
  if (const int error = strike("epoll_wait", {EINTR})) return fail(error);
  return real(epoll, events, count, timeout);
}

// ---- Processes and files -----------------------------------------------------------------------

pid_t fork() noexcept {
  if (const int error = strike("fork", {EAGAIN, ENOMEM})) return fail(error);
  static const auto real = next<pid_t()>("fork");
  return real();
}

int posix_spawn(pid_t *child, const char *path, const posix_spawn_file_actions_t *actions,
                const posix_spawnattr_t *attributes, char *const words[],
                char *const environment[]) {
  if (const int error = strike("posix_spawn", {EAGAIN, ENOMEM})) return error;
  static const auto real =
      next<int(pid_t *, const char *, const posix_spawn_file_actions_t *, const posix_spawnattr_t *,
               char *const[], char *const[])>("posix_spawn");
  return real(child, path, actions, attributes, words, environment);
}

int rename(const char *from, const char *to) noexcept {
  if (const int error = strike("rename", {ENOSPC, EACCES})) return fail(error);
  static const auto real = next<int(const char *, const char *)>("rename");
  return real(from, to);
}

int unlink(const char *path) noexcept {
  if (const int error = strike("unlink", {EACCES, EIO})) return fail(error);
  static const auto real = next<int(const char *)>("unlink");
  return real(path);
}

int fsync(int fd) {
  if (const int error = strike("fsync", {EIO, ENOSPC})) return fail(error);
  static const auto real = next<int(int)>("fsync");
  return real(fd);
}

int fdatasync(int fd) {
  if (const int error = strike("fdatasync", {EIO, ENOSPC})) return fail(error);
  static const auto real = next<int(int)>("fdatasync");
  return real(fd);
}

int ftruncate(int fd, off_t size) noexcept {
  if (const int error = strike("ftruncate", {ENOSPC, EINTR})) return fail(error);
  static const auto real = next<int(int, off_t)>("ftruncate");
  return real(fd, size);
}
int ftruncate64(int fd, off64_t size) noexcept __attribute__((alias("ftruncate")));

void *mmap(void *address, size_t size, int protection, int flags, int fd, off_t offset) noexcept {
  static const auto real = next<void *(void *, size_t, int, int, int, off_t)>("mmap");
  if (const int error = strike("mmap", {ENOMEM})) return errno = error, MAP_FAILED;
  return real(address, size, protection, flags, fd, offset);
}
void *mmap64(void *address, size_t size, int protection, int flags, int fd, off64_t offset) noexcept
    __attribute__((alias("mmap")));

// ---- Streams -----------------------------------------------------------------------------------

FILE *fopen(const char *path, const char *mode) {
  static const auto real = next<FILE *(const char *, const char *)>("fopen");
  if (const int error = strike("fopen", {EMFILE, ENOMEM})) return errno = error, nullptr;
  return real(path, mode);
}
FILE *fopen64(const char *path, const char *mode) __attribute__((alias("fopen")));

FILE *fdopen(int fd, const char *mode) noexcept {
  static const auto real = next<FILE *(int, const char *)>("fdopen");
  if (const int error = strike("fdopen", {ENOMEM})) return errno = error, nullptr;
  return real(fd, mode);
}

size_t fwrite(const void *data, size_t size, size_t count, FILE *stream) {
  static const auto real = next<size_t(const void *, size_t, size_t, FILE *)>("fwrite");
  const int fault = strike("fwrite", {ENOSPC, size * count > 1 ? kShort : 0});
  if (fault == 0) return real(data, size, count, stream);
  errno = ENOSPC;
  return fault == kShort ? real(data, 1, size * count / 2, stream) / size : 0;
}

int fflush(FILE *stream) {
  static const auto real = next<int(FILE *)>("fflush");
  if (const int error = strike("fflush", {ENOSPC})) return fail(error);
  return real(stream);
}

}  // extern "C"

// The sanitizers' operator new does not call malloc(). Without them it does, and counts once.
void *operator new(size_t size) {
  static const auto real = next<void *(size_t)>("_Znwm");
  if (strike("new", {ENOMEM}) != 0) throw std::bad_alloc();
  const Inside inside;
  return real(size);
}
