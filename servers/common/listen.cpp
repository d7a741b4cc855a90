#include "common/listen.h"

#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <memory>
#include <stdexcept>

#include "common/log_line.h"

namespace servers {
namespace {

[[noreturn]] void refuse(const std::string &where, const std::string &why) {
  throw std::runtime_error("cannot listen on " + where + ": " + why);
}

UniqueFd stream_socket(int family, const std::string &where) {
  UniqueFd fd(::socket(family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!fd) refuse(where, std::strerror(errno));
  return fd;
}

void start_listening(int fd, const std::string &where) {
  if (::listen(fd, SOMAXCONN) != 0) refuse(where, std::strerror(errno));
}

sockaddr_un unix_address(const std::string &path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof address.sun_path) refuse(path, "the path is too long");
  std::memcpy(address.sun_path, path.c_str(), path.size());
  return address;
}

// Whether nobody listens at that socket. Only a refused connection proves it; after any other
// failure, without a free descriptor for example, a living server must be assumed. When false,
// errno is set: 0 if somebody has answered.
bool is_dead(const sockaddr_un &address) {
  const UniqueFd probe(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!probe) return false;
  const auto *generic = reinterpret_cast<const sockaddr *>(&address);
  if (::connect(probe.get(), generic, sizeof address) == 0 || errno == EAGAIN) {
    errno = 0;  // a full backlog belongs to a living server
    return false;
  }
  return errno == ECONNREFUSED;
}

// The kernel has no descriptor or no memory for a connection, which stays in the backlog.
bool is_shortage(int error) {
  return error == EMFILE || error == ENFILE || error == ENOMEM || error == ENOBUFS;
}
constexpr int kShortagePause_ms = 10;

constexpr int kTurnPause_ms = 1;
constexpr int kTurnTries = 1000;

// The port of "ADDRESS:PORT", checked: the resolver takes longer numbers modulo 65536.
bool is_port(const std::string &text) {
  const bool digits = !text.empty() && text.size() <= 5 &&
                      text.find_first_not_of("0123456789") == std::string::npos;
  return digits && std::stoul(text) >= 1 && std::stoul(text) <= 65535;
}

// "ADDRESS:PORT" of the end of a TCP connection that `find` knows.
std::string address_of(int fd, int (*find)(int, sockaddr *, socklen_t *)) {
  sockaddr_storage address{};
  socklen_t size = sizeof address;
  if (find(fd, reinterpret_cast<sockaddr *>(&address), &size) != 0) return {};
  if (address.ss_family != AF_INET && address.ss_family != AF_INET6) return {};
  char host[NI_MAXHOST];
  char port[NI_MAXSERV];
  if (::getnameinfo(reinterpret_cast<sockaddr *>(&address), size, host, sizeof host, port,
                    sizeof port, NI_NUMERICHOST | NI_NUMERICSERV) != 0) {
    return {};
  }
  return address.ss_family == AF_INET6 ? fmt::format("[{}]:{}", host, port)
                                       : fmt::format("{}:{}", host, port);
}

}  // namespace

UniqueFd take_turn(const std::string &path) {
  const std::string directory = std::filesystem::path(path).parent_path();
  UniqueFd fd(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  for (int i = 0; fd && ::flock(fd.get(), LOCK_EX | LOCK_NB) != 0 && i < kTurnTries; ++i) {
    ::poll(nullptr, 0, kTurnPause_ms);
  }
  return fd;
}

UniqueFd listen_unix(const std::string &path, mode_t mode) {
  const sockaddr_un address = unix_address(path);
  const UniqueFd turn = take_turn(path);
  struct stat found {};
  if (::lstat(path.c_str(), &found) == 0) {
    if (!S_ISSOCK(found.st_mode)) refuse(path, "there is a file that is no socket");
    if (!is_dead(address)) {
      refuse(path, errno == 0 ? "a server is running there"
                              : fmt::format("cannot find out whether a server is running there: {}",
                                            std::strerror(errno)));
    }
    ::unlink(path.c_str());
  }

  UniqueFd fd = stream_socket(AF_UNIX, path);
  const mode_t before = ::umask(~mode & 0777);
  const int bound = ::bind(fd.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address);
  const int reason = errno;
  ::umask(before);
  if (bound != 0) refuse(path, std::strerror(reason));
  start_listening(fd.get(), path);
  return fd;
}

void remove_unix(const std::string &path) {
  const UniqueFd turn = take_turn(path);
  if (is_dead(unix_address(path))) ::unlink(path.c_str());
}

UniqueFd listen_tcp(const std::string &address_and_port) {
  const size_t colon = address_and_port.rfind(':');
  if (colon == std::string::npos) refuse(address_and_port, "it is not ADDRESS:PORT");
  std::string address = address_and_port.substr(0, colon);
  const std::string port = address_and_port.substr(colon + 1);
  if (!is_port(port)) refuse(address_and_port, "the port is not a number from 1 to 65535");
  if (address.size() > 2 && address.front() == '[' && address.back() == ']') {
    address = address.substr(1, address.size() - 2);
  }

  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV | AI_PASSIVE;
  addrinfo *found = nullptr;
  const int failure = ::getaddrinfo(address.c_str(), port.c_str(), &hints, &found);
  if (failure != 0) refuse(address_and_port, ::gai_strerror(failure));
  const std::unique_ptr<addrinfo, void (*)(addrinfo *)> owner(found, ::freeaddrinfo);

  UniqueFd fd = stream_socket(found->ai_family, address_and_port);
  const int on = 1;
  ::setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  if (::bind(fd.get(), found->ai_addr, found->ai_addrlen) != 0) {
    refuse(address_and_port, std::strerror(errno));
  }
  start_listening(fd.get(), address_and_port);
  return fd;
}

size_t raise_descriptor_limit() {
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) return 1024;
  limit.rlim_cur = limit.rlim_max;
  ::setrlimit(RLIMIT_NOFILE, &limit);
  return limit.rlim_max;
}

Acceptor::Acceptor(UniqueFd listener)
    : listener_(std::move(listener)), spare_(::open("/dev/null", O_RDONLY | O_CLOEXEC)) {}

UniqueFd Acceptor::accept() {
  for (;;) {
    UniqueFd fd(::accept4(listener_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (fd || !is_shortage(errno)) {
      if (fd || errno != EINTR) return fd;
      continue;
    }
    const std::string reason = std::strerror(errno);
    spare_.reset();
    UniqueFd refused(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
    // epoll reports the waiting connection again at once; without a pause nothing else gets its
    // turn.
    if (!refused && is_shortage(errno)) ::poll(nullptr, 0, kShortagePause_ms);
    if (refused) log_line("a connection is refused: {}", reason);
    refused.reset();
    spare_.reset(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    return {};
  }
}

std::string peer_address(int fd) {
  return address_of(fd, ::getpeername);
}

std::string local_address(int fd) {
  return address_of(fd, ::getsockname);
}

}  // namespace servers
