// The log: a line from the client, beside the bare system calls; a ring write, beside a plain
// append; lines from the client to the disk through mlogserver, beside syslog(3) to a receiver that
// only appends to a file.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "msgapi/log.h"
#include "msgapi/ringlog.h"

namespace {

constexpr char kText[] = "link eth0.2 is up, speed 1000, duplex full, mtu 1492";
constexpr int kBurst = 1000;

int bound_socket(const char *path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strcpy(address.sun_path, path);
  const int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  ::unlink(path);
  if (::bind(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) std::abort();
  return fd;
}

// Takes the datagram that was just sent, so that the queue is never full.
void take(int fd) {
  char bytes[1100];
  if (::recv(fd, bytes, sizeof bytes, MSG_DONTWAIT) <= 0) std::abort();
}

void LogLine(benchmark::State &state) {
  ::mkdir("/var/mlog", 0770);
  const int server = bound_socket("/var/mlog/mlogServer");
  for (auto _ : state) {
    MlogPrint("bench", MLOG_LEVEL_INFO, "%s", kText);
    take(server);
  }
  ::close(server);
  ::unlink("/var/mlog/mlogServer");
}

void LogLineBareCalls(benchmark::State &state) {
  ::mkdir("/var/mlog", 0770);
  const int server = bound_socket("/var/mlog/mlogServer");
  sockaddr_un to{};
  to.sun_family = AF_UNIX;
  std::strcpy(to.sun_path, "/var/mlog/mlogServer");
  sockaddr_un own{};
  own.sun_family = AF_UNIX;
  std::strcpy(own.sun_path, "/var/mlog/bench");
  const size_t size = MLOG_HEAD_SIZE + 28 + sizeof kText;
  for (auto _ : state) {
    char message[1024] = {};
    ::mkdir("/var/mlog/", 0770);
    const int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ::unlink(own.sun_path);
    ::bind(fd, reinterpret_cast<const sockaddr *>(&own), sizeof own);
    ::chmod(own.sun_path, 0660);
    timespec now{};
    ::syscall(SYS_clock_gettime, CLOCK_BOOTTIME, &now);
    ::sendto(fd, message, size, MSG_DONTWAIT, reinterpret_cast<const sockaddr *>(&to), sizeof to);
    ::close(fd);
    ::unlink(own.sun_path);
    take(server);
  }
  ::close(server);
  ::unlink("/var/mlog/mlogServer");
}

std::string line() {
  return std::string("[00000123456][bench][INFO]:") + kText + "\n";
}

void RingWrite(benchmark::State &state) {
  MlogTarget target{256 * 1024, MlogFileConstructor("/var/ring", 256 * 1024)};
  std::string data = line();
  for (auto _ : state) MlogFileWrite(&target, data.data(), static_cast<uint32_t>(data.size()));
  MlogFileDestructor(target.file);
  state.SetItemsProcessed(state.iterations());
}

// The cost of a ring without masking: data and header, each written to its place.
void RingWriteBareCalls(benchmark::State &state) {
  const int fd = ::open("/var/ring", O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  const std::string data = line();
  const char header[64] = {};
  off_t offset = 63;
  for (auto _ : state) {
    if (offset + static_cast<off_t>(data.size()) > 256 * 1024) offset = 63;
    ::lseek(fd, offset, SEEK_SET);
    if (::write(fd, data.data(), data.size()) < 0) std::abort();
    offset += static_cast<off_t>(data.size());
    ::lseek(fd, 0, SEEK_SET);
    if (::write(fd, header, 63) < 0) std::abort();
  }
  ::close(fd);
  state.SetItemsProcessed(state.iterations());
}

void PlainAppend(benchmark::State &state) {
  const int fd = ::open("/var/plain", O_WRONLY | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0600);
  const std::string data = line();
  uint64_t size = 0;
  for (auto _ : state) {
    if (::write(fd, data.data(), data.size()) < 0) std::abort();
    // Bounded like the ring.
    if ((size += data.size()) > 256 * 1024) {
      if (::ftruncate(fd, 0) != 0) std::abort();
      size = 0;
    }
  }
  ::close(fd);
  state.SetItemsProcessed(state.iterations());
}

pid_t start_server() {
  const char *directory = std::getenv("MSGAPI_BIN");
  const std::string path = std::string(directory == nullptr ? "." : directory) + "/mlogserver";
  const pid_t pid = ::fork();
  if (pid == 0) {
    const int null = ::open("/dev/null", O_RDWR);
    ::dup2(null, STDOUT_FILENO);
    ::dup2(null, STDERR_FILENO);
    ::execl(path.c_str(), path.c_str(), nullptr);
    ::_exit(127);
  }
  while (MlogFlushLog() != 0 && ::waitpid(pid, nullptr, WNOHANG) == 0) ::poll(nullptr, 0, 10);
  return pid;
}

// A burst of lines and a flush, which returns when all of them are on the disk.
void ClientToDisk(benchmark::State &state) {
  const pid_t server = start_server();
  for (auto _ : state) {
    for (int i = 0; i < kBurst; ++i) MlogPrint("bench", MLOG_LEVEL_INFO, "%s", kText);
    if (MlogFlushLog() != 0) state.SkipWithError("the server does not answer");
  }
  state.SetItemsProcessed(state.iterations() * kBurst);
  ::kill(server, SIGTERM);
  ::waitpid(server, nullptr, 0);
}

void receive_syslog(int socket, int done) {
  const int file = ::open("/var/syslog", O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  for (int count = 1;; ++count) {
    char bytes[2048];
    const ssize_t size = ::recv(socket, bytes, sizeof bytes, 0);
    if (size <= 0 || ::write(file, bytes, static_cast<size_t>(size)) != size) ::_exit(1);
    if (count % kBurst == 0) {
      ::fsync(file);
      if (::write(done, "", 1) != 1) ::_exit(1);
    }
  }
}

void SyslogToDisk(benchmark::State &state) {
  // syslog(3) knows only one path, so this process gets a /dev of its own.
  if (::unshare(CLONE_NEWNS) != 0 || ::mount("dev", "/dev", "tmpfs", 0, nullptr) != 0) {
    state.SkipWithError("/dev/log cannot be made");
    return;
  }
  const int socket = bound_socket("/dev/log");
  int done[2];
  if (::pipe(done) != 0) std::abort();
  const pid_t receiver = ::fork();
  if (receiver == 0) receive_syslog(socket, done[1]);
  ::close(socket);
  ::openlog("bench", LOG_NDELAY, LOG_DAEMON);
  for (auto _ : state) {
    for (int i = 0; i < kBurst; ++i) ::syslog(LOG_INFO, "%s", kText);
    char byte;
    if (::read(done[0], &byte, 1) != 1) state.SkipWithError("the receiver is gone");
  }
  state.SetItemsProcessed(state.iterations() * kBurst);
  ::closelog();
  ::kill(receiver, SIGKILL);
  ::waitpid(receiver, nullptr, 0);
  ::umount2("/dev", MNT_DETACH);
}

BENCHMARK(LogLine);
BENCHMARK(LogLineBareCalls);
BENCHMARK(RingWrite);
BENCHMARK(RingWriteBareCalls);
BENCHMARK(PlainAppend);
BENCHMARK(ClientToDisk)->UseRealTime();
BENCHMARK(SyslogToDisk)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
