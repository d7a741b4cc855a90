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
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <new>
#include <span>
#include <type_traits>

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

bool armed() {
  return g_plan != nullptr && !g_inside && g_plan->armed.load(std::memory_order_relaxed) != 0;
}

// Counts a call. 0 when it is to be made; otherwise the errno of its failure, or kShort.
[[gnu::noinline]] int strike_at(const void *caller, const char *call, std::span<const int> faults) {
  if (!armed()) return 0;
  int fitting[8];  // without zeros, which mean faults that cannot happen here
  size_t count = 0;
  for (const int fault : faults) {
    if (fault != 0) fitting[count++] = fault;
  }
  if (count == 0 || g_plan->count.fetch_add(1) + 1 != g_plan->nth) return 0;
  const int fault = fitting[g_plan->variant % count];
  record(call, fault, count, caller);
  return fault;
}

// These and the functions that use them are part of the function that the program calls: its caller
// is recorded.
[[gnu::always_inline]] inline int strike(const char *call, std::span<const int> faults) {
  return strike_at(__builtin_return_address(0), call, faults);
}

[[gnu::always_inline]] inline int strike(const char *call, std::initializer_list<int> faults) {
  return strike_at(__builtin_return_address(0), call, {faults.begin(), faults.size()});
}

template <typename Result>
Result failed(int error) {
  errno = error;
  if constexpr (std::is_pointer_v<Result>) return nullptr;
  return Result(-1);
}

// Fails with `fault`, or calls the function that `hidden` hides: one of this object, named `name`.
template <auto *hidden, typename... Arguments>
[[gnu::always_inline]] inline auto finish(const char *name, int fault, Arguments... arguments) {
  static const auto real = next<std::remove_pointer_t<decltype(hidden)>>(name);
  return fault > 0 ? failed<decltype(real(arguments...))>(fault) : real(arguments...);
}

// The same for a call that fails whole.
template <auto *hidden, typename... Arguments>
[[gnu::always_inline]] inline auto make(const char *name, std::initializer_list<int> faults,
                                        Arguments... arguments) {
  return finish<hidden>(name, strike(name, faults), arguments...);
}

bool never_waits(int fd, int flags = 0) {
  return (flags & MSG_DONTWAIT) != 0 ||
         (static_cast<int>(next<decltype(::fcntl)>("fcntl")(fd, F_GETFL)) & O_NONBLOCK) != 0;
}

// A descriptor that never waits is not interrupted.
int interrupted(int fd, int flags) {
  return never_waits(fd, flags) ? EAGAIN : EINTR;
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

enum Way { kRead, kWrite };

// How reading and writing `size` bytes can fail, by the kind of descriptor.
std::array<int, 3> transfer_faults(Way way, int fd, size_t size, int flags = 0) {
  if (!armed()) return {};
  const int type = socket_type(fd);
  const bool datagram = type >= 0 && type != SOCK_STREAM;
  const int read_error = type >= 0 ? ECONNRESET : EIO;
  const int write_error = type >= 0 ? (datagram ? ENOBUFS : EPIPE) : ENOSPC;
  return {interrupted(fd, flags), way == kRead ? read_error : write_error,
          size > 1 && !datagram ? kShort : 0};
}

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

bool is_libc(const void *caller) {
  dl_find_object found;
  return ::_dl_find_object(const_cast<void *>(caller), &found) == 0 &&
         std::strstr(found.dlfo_link_map->l_name, "/libc.so") != nullptr;
}

[[gnu::always_inline]] inline bool strike_memory(const char *call) {
  if (!armed() || is_libc(__builtin_return_address(0))) return false;
  if (strike(call, {ENOMEM}) == 0) return false;
  errno = ENOMEM;
  return true;
}

template <auto *hidden, typename... Sizes>
[[gnu::always_inline]] inline void *allocate(const char *name, Sizes... sizes) {
  static decltype(hidden) real;
  static bool searching;
  if (real == nullptr) {
    if (searching) return early_alloc((sizes * ...));
    searching = true;
    real = next<std::remove_pointer_t<decltype(hidden)>>(name);
  }
  if (strike_memory(name)) return nullptr;
  void *block = real(sizes...);
  if (block != nullptr) ++g_blocks;
  return block;
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
    if (memory != MAP_FAILED) g_plan = static_cast<Plan *>(memory);
  }
  return g_main(count, words, environment);
}

}  // namespace

extern "C" {

void torture_attach(Plan *plan) {
  g_plan = plan;
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
  return allocate<::malloc>("malloc", size);
}

void *calloc(size_t count, size_t size) noexcept {
  return allocate<::calloc>("calloc", count, size);
}

void *realloc(void *block, size_t size) noexcept {
  if (is_early(block)) {
    void *moved = malloc(size);
    const auto rest = static_cast<size_t>(g_early + sizeof g_early - static_cast<char *>(block));
    if (moved != nullptr) std::memcpy(moved, block, std::min(size, rest));
    return moved;
  }
  if (strike_memory("realloc")) return nullptr;
  void *moved = finish<::realloc>("realloc", 0, block, size);
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
  return make<::socket>("socket", {EMFILE, ENOBUFS}, domain, type, protocol);
}

int socketpair(int domain, int type, int protocol, int ends[2]) noexcept {
  return make<::socketpair>("socketpair", {EMFILE}, domain, type, protocol, ends);
}

int bind(int fd, const sockaddr *address, socklen_t size) noexcept {
  return make<::bind>("bind", {EADDRINUSE, EACCES}, fd, address, size);
}

int listen(int fd, int backlog) noexcept {
  return make<::listen>("listen", {EADDRINUSE}, fd, backlog);
}

int connect(int fd, const sockaddr *address, socklen_t size) {
  return make<::connect>("connect", {ECONNREFUSED, EINTR, never_waits(fd) ? EAGAIN : 0}, fd,
                         address, size);
}

int accept(int fd, sockaddr *address, socklen_t *size) {
  return make<::accept>("accept", {EMFILE, ECONNABORTED, EINTR}, fd, address, size);
}

int accept4(int fd, sockaddr *address, socklen_t *size, int flags) {
  return make<::accept4>("accept4", {EMFILE, ECONNABORTED, EINTR}, fd, address, size, flags);
}

int open(const char *path, int flags, ...) {
  va_list rest;
  va_start(rest, flags);
  const auto mode = takes_mode(flags) ? va_arg(rest, mode_t) : 0;
  va_end(rest);
  const int full = takes_mode(flags) ? ENOSPC : 0;
  return make<::open>("open", {EMFILE, EACCES, full}, path, flags, mode);
}
int open64(const char *path, int flags, ...) __attribute__((alias("open")));

int openat(int directory, const char *path, int flags, ...) {
  va_list rest;
  va_start(rest, flags);
  const auto mode = takes_mode(flags) ? va_arg(rest, mode_t) : 0;
  va_end(rest);
  const int full = takes_mode(flags) ? ENOSPC : 0;
  return make<::openat>("openat", {EMFILE, EACCES, full}, directory, path, flags, mode);
}

int close(int fd) {
  const int error = strike("close", {EINTR, EIO});
  const int result = finish<::close>("close", 0, fd);
  return error != 0 && result == 0 ? failed<int>(error) : result;
}

int fcntl(int fd, int command, ...) {
  va_list rest;
  va_start(rest, command);
  void *argument = va_arg(rest, void *);
  va_end(rest);
  const int error = strike("fcntl", fcntl_faults(command, argument));
  return finish<::fcntl>("fcntl", error, fd, command, argument);
}
int fcntl64(int fd, int command, ...) __attribute__((alias("fcntl")));

int pipe(int ends[2]) noexcept {
  return make<::pipe>("pipe", {EMFILE}, ends);
}

int pipe2(int ends[2], int flags) noexcept {
  return make<::pipe2>("pipe2", {EMFILE}, ends, flags);
}

int eventfd(unsigned count, int flags) noexcept {
  return make<::eventfd>("eventfd", {EMFILE}, count, flags);
}

int signalfd(int fd, const sigset_t *signals, int flags) noexcept {
  return make<::signalfd>("signalfd", {EMFILE}, fd, signals, flags);
}

int timerfd_create(clockid_t clock, int flags) noexcept {
  return make<::timerfd_create>("timerfd_create", {EMFILE}, clock, flags);
}

// ---- Reading and writing -----------------------------------------------------------------------

ssize_t read(int fd, void *buffer, size_t size) {
  const int fault = strike("read", transfer_faults(kRead, fd, size));
  return finish<::read>("read", fault, fd, buffer, fault == kShort ? 1 : size);
}

ssize_t pread(int fd, void *buffer, size_t size, off_t offset) {
  return make<::pread>("pread", {EIO, EINTR}, fd, buffer, size, offset);
}
ssize_t pread64(int fd, void *buffer, size_t size, off64_t offset) __attribute__((alias("pread")));

ssize_t recv(int fd, void *buffer, size_t size, int flags) {
  const int fault = strike("recv", transfer_faults(kRead, fd, size, flags));
  return finish<::recv>("recv", fault, fd, buffer, fault == kShort ? 1 : size, flags);
}

ssize_t recvfrom(int fd, void *buffer, size_t size, int flags, sockaddr *address,
                 socklen_t *address_size) {
  return make<::recvfrom>("recvfrom", {interrupted(fd, flags), ENOMEM}, fd, buffer, size, flags,
                          address, address_size);
}

ssize_t recvmsg(int fd, msghdr *message, int flags) {
  return finish<::recvmsg>("recvmsg", strike("recvmsg", transfer_faults(kRead, fd, 0, flags)), fd,
                           message, flags);
}

ssize_t write(int fd, const void *buffer, size_t size) {
  const int fault = strike("write", transfer_faults(kWrite, fd, size));
  return finish<::write>("write", fault, fd, buffer, fault == kShort ? size / 2 : size);
}

ssize_t pwrite(int fd, const void *buffer, size_t size, off_t offset) {
  return make<::pwrite>("pwrite", {ENOSPC, EINTR}, fd, buffer, size, offset);
}
ssize_t pwrite64(int fd, const void *buffer, size_t size, off64_t offset)
    __attribute__((alias("pwrite")));

// A short count writes only the first piece.
ssize_t writev(int fd, const iovec *pieces, int count) {
  const int fault = strike("writev", transfer_faults(kWrite, fd, count > 1 ? 2 : 1));
  return finish<::writev>("writev", fault, fd, pieces, fault == kShort ? 1 : count);
}

ssize_t send(int fd, const void *buffer, size_t size, int flags) {
  const int fault = strike("send", transfer_faults(kWrite, fd, size, flags));
  return finish<::send>("send", fault, fd, buffer, fault == kShort ? size / 2 : size, flags);
}

ssize_t sendto(int fd, const void *buffer, size_t size, int flags, const sockaddr *address,
               socklen_t address_size) {
  const int fault = strike("sendto", transfer_faults(kWrite, fd, size, flags));
  return finish<::sendto>("sendto", fault, fd, buffer, fault == kShort ? size / 2 : size, flags,
                          address, address_size);
}

ssize_t sendmsg(int fd, const msghdr *message, int flags) {
  const int fault =
      strike("sendmsg", transfer_faults(kWrite, fd, message->msg_iovlen > 1 ? 2 : 1, flags));
  msghdr first = *message;
  if (fault == kShort) first.msg_iovlen = 1;
  return finish<::sendmsg>("sendmsg", fault, fd, &first, flags);
}

ssize_t splice(int in, off64_t *in_offset, int out, off64_t *out_offset, size_t size,
               unsigned flags) {
  const int fault = strike("splice", {EAGAIN, ENOMEM, size > 1 ? kShort : 0});
  return finish<::splice>("splice", fault, in, in_offset, out, out_offset,
                          fault == kShort ? 1 : size, flags);
}

// ---- Waiting -----------------------------------------------------------------------------------

int select(int count, fd_set *read, fd_set *write, fd_set *exceptional, timeval *timeout) {
  return make<::select>("select", {EINTR, ENOMEM}, count, read, write, exceptional, timeout);
}

int pselect(int count, fd_set *read, fd_set *write, fd_set *exceptional, const timespec *timeout,
            const sigset_t *mask) {
  return make<::pselect>("pselect", {EINTR, ENOMEM}, count, read, write, exceptional, timeout,
                         mask);
}

int poll(pollfd *entries, nfds_t count, int timeout) {
  return make<::poll>("poll", {EINTR, ENOMEM}, entries, count, timeout);
}

int ppoll(pollfd *entries, nfds_t count, const timespec *timeout, const sigset_t *mask) {
  return make<::ppoll>("ppoll", {EINTR, ENOMEM}, entries, count, timeout, mask);
}

int epoll_create1(int flags) noexcept {
  return make<::epoll_create1>("epoll_create1", {EMFILE}, flags);
}

int epoll_ctl(int epoll, int operation, int fd, epoll_event *event) noexcept {
  // The others take no memory.
  const int error = operation == EPOLL_CTL_ADD ? strike("epoll_ctl", {ENOMEM, ENOSPC}) : 0;
  return finish<::epoll_ctl>("epoll_ctl", error, epoll, operation, fd, event);
}

int epoll_wait(int epoll, epoll_event *events, int count, int timeout) {
  return make<::epoll_wait>("epoll_wait", {EINTR}, epoll, events, count, timeout);
}

// ---- Processes and files -----------------------------------------------------------------------

pid_t fork() noexcept {
  return make<::fork>("fork", {EAGAIN, ENOMEM});
}

int posix_spawn(pid_t *child, const char *path, const posix_spawn_file_actions_t *actions,
                const posix_spawnattr_t *attributes, char *const words[],
                char *const environment[]) {
  if (const int error = strike("posix_spawn", {EAGAIN, ENOMEM})) return error;
  return finish<::posix_spawn>("posix_spawn", 0, child, path, actions, attributes, words,
                               environment);
}

int rename(const char *from, const char *to) noexcept {
  return make<::rename>("rename", {ENOSPC, EACCES}, from, to);
}

int unlink(const char *path) noexcept {
  return make<::unlink>("unlink", {EACCES, EIO}, path);
}

int fsync(int fd) {
  return make<::fsync>("fsync", {EIO, ENOSPC}, fd);
}

int fdatasync(int fd) {
  return make<::fdatasync>("fdatasync", {EIO, ENOSPC}, fd);
}

int ftruncate(int fd, off_t size) noexcept {
  return make<::ftruncate>("ftruncate", {ENOSPC, EINTR}, fd, size);
}
int ftruncate64(int fd, off64_t size) noexcept __attribute__((alias("ftruncate")));

void *mmap(void *address, size_t size, int protection, int flags, int fd, off_t offset) noexcept {
  if (const int error = strike("mmap", {ENOMEM})) return errno = error, MAP_FAILED;
  return finish<::mmap>("mmap", 0, address, size, protection, flags, fd, offset);
}
void *mmap64(void *address, size_t size, int protection, int flags, int fd, off64_t offset) noexcept
    __attribute__((alias("mmap")));

// ---- Streams -----------------------------------------------------------------------------------

FILE *fopen(const char *path, const char *mode) {
  return make<::fopen>("fopen", {EMFILE, ENOMEM}, path, mode);
}
FILE *fopen64(const char *path, const char *mode) __attribute__((alias("fopen")));

FILE *fdopen(int fd, const char *mode) noexcept {
  return make<::fdopen>("fdopen", {ENOMEM}, fd, mode);
}

size_t fwrite(const void *data, size_t size, size_t count, FILE *stream) {
  const int fault = strike("fwrite", {ENOSPC, size * count > 1 ? kShort : 0});
  if (fault == 0) return finish<::fwrite>("fwrite", 0, data, size, count, stream);
  errno = ENOSPC;
  if (fault != kShort) return 0;
  return finish<::fwrite>("fwrite", 0, data, size_t{1}, size * count / 2, stream) / size;
}

int fflush(FILE *stream) {
  return make<::fflush>("fflush", {ENOSPC}, stream);
}

}  // extern "C"

// The sanitizers' operator new does not call malloc(). Without them it does, and counts once.
void *operator new(size_t size) {
  static const auto real = next<void *(size_t)>("_Znwm");
  if (strike("new", {ENOMEM}) != 0) throw std::bad_alloc();
  const Inside inside;
  return real(size);
}
