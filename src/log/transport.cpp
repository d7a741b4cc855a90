// Log transport: Unix datagrams between short-lived client sockets and the log server, and the
// netlink channel to the kernel.
//
// poll() says that an unconnected Unix datagram socket is writable even when the receiver's queue
// is full. So sendto() itself waits for the queue, bounded by SO_SNDTIMEO (socket(7)): the kernel
// wakes the sender when the receiver takes a message.

#include "log/transport.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>

#include "base/bytes.h"
#include "base/copy_failure.h"
#include "base/result.h"
#include "base/text.h"
#include "os/clock.h"
#include "util/netlink/datagram.h"

namespace msgapi::log {
namespace {

constexpr char kConfigName[] = "mlogcfg";
constexpr int64_t kMaxWait_ms = 2000;
constexpr uint32_t kMaxReceiveWait_s = 30;
constexpr mode_t kDirectoryMode = 0770;
constexpr int kNetlinkProtocol = 28;
constexpr uint16_t kNetlinkType = 3;

static_assert(offsetof(MlogMsg, payload) == MLOG_HEAD_SIZE);
static_assert(sizeof(MlogMsg) == 1024);
static_assert(sizeof(MlogStat) == 516);
static_assert(sizeof(sockaddr_un) == 110);

int64_t now_ms() {
  os::RawTime now;
  if (!os::read_clock(CLOCK_MONOTONIC, &now)) return 0;
  return int64_t{now.seconds} * 1000 + now.nanoseconds / 1000000;
}

// A client's name is one file in the IPC directory, and never one of the server's: its socket, what
// it keeps beside it ("mlogServer.inbox" and the like) or the configuration.
bool may_name_client(std::string_view name) {
  return name.find('/') == std::string_view::npos && !begins_with(name, MLOG_SERVER_NAME) &&
         !begins_with(name, kConfigName);
}

bool make_address(const char *name, sockaddr_un *out) {
  *out = {};
  out->sun_family = AF_UNIX;
  const char *directory = begins_with(name, MLOG_IPC_PATH) ? "" : MLOG_IPC_PATH;
  if (format_exact(out->sun_path, "%s%s", directory, name)) return true;
  print_copy_failure("snprintf_s", -1);
  return false;
}

void set_time_limit(int fd, int option, int64_t limit_ms) {
  const timeval limit{.tv_sec = static_cast<time_t>(limit_ms / 1000),
                      .tv_usec = static_cast<suseconds_t>(limit_ms % 1000 * 1000)};
  ::setsockopt(fd, SOL_SOCKET, option, &limit, sizeof limit);
}

os::UniqueFd open_client(const char *name) {
  if (!may_name_client(name)) {
    errno = EINVAL;
    return {};
  }
  if (::mkdir(MLOG_IPC_PATH, kDirectoryMode) == 0) {
    // The caller's umask must not narrow the mode: other users' programs log, too.
    ::chmod(MLOG_IPC_PATH, kDirectoryMode);
  } else if (errno != EEXIST) {
    std::printf("[MLOG][ERROR][%d]: create mlog ipc path failed\n", __LINE__);
    return {};
  }

  os::UniqueFd fd(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (!fd) return {};
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (!format_exact(address.sun_path, "%s%s", MLOG_IPC_PATH, name)) {
    print_copy_failure("snprintf_s", -1);
    errno = ENAMETOOLONG;
    return {};
  }

  ::unlink(address.sun_path);
  if (::bind(fd.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
    return {};
  }
  if (::chmod(address.sun_path, 0660) != 0) {
    std::printf("[MLOG][ERROR][%d]: modify mlog socket permission failed\n", __LINE__);
  }
  return fd;
}

bool remove_client_file(const char *name) {
  if (!may_name_client(name)) return false;
  char path[128];
  if (!format_exact(path, "%s%s", MLOG_IPC_PATH, name)) {
    print_copy_failure("snprintf_s", -1);
    return false;
  }
  ::unlink(path);
  return true;
}

Status receive_message(int fd, MlogMsg *message, int64_t timeout_ms, std::span<char> peer_name) {
  const uint32_t capacity = message->length;
  if (capacity > MLOG_MAX_PAYLOAD) return Status::kNoSocket;

  const int64_t deadline_ms = timeout_ms == 0 ? INT64_MAX : now_ms() + timeout_ms;
  set_time_limit(fd, SO_RCVTIMEO, timeout_ms);

  sockaddr_un peer;
  socklen_t peer_size;
  ssize_t size;
  for (;;) {
    peer = {};
    peer_size = sizeof peer;
    size = ::recvfrom(fd, message, MLOG_HEAD_SIZE + capacity, 0,
                      reinterpret_cast<sockaddr *>(&peer), &peer_size);
    if (size >= 0) break;
    if (errno != EINTR) return Status::kNoSocket;
    if (timeout_ms != 0) {
      // A signal must not start the wait anew.
      const int64_t left_ms = deadline_ms - now_ms();
      if (left_ms <= 0) return Status::kNoSocket;
      set_time_limit(fd, SO_RCVTIMEO, left_ms);
    }
  }

  if (!peer_name.empty()) {
    // The path may fill sun_path to its last byte and then has no NUL.
    constexpr size_t kPathStart = offsetof(sockaddr_un, sun_path);
    const size_t path_size = std::clamp<size_t>(peer_size, kPathStart, sizeof peer) - kPathStart;
    if (!copy_exact(peer_name, field_text({peer.sun_path, path_size}))) {
      print_copy_failure("memcpy_s", ERANGE);
      return Status::kNoSocket;
    }
  }
  return size >= ssize_t{MLOG_HEAD_SIZE} &&
                 message->length == static_cast<size_t>(size) - MLOG_HEAD_SIZE
             ? Status::kOk
             : Status::kNoSocket;
}

int64_t receive_wait_ms(uint32_t timeout_s) {
  return int64_t{std::min(timeout_s, kMaxReceiveWait_s)} * 1000;
}

Result<os::UniqueFd, Status> open_netlink() {
  os::UniqueFd fd(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, kNetlinkProtocol));
  if (!fd) {
    std::printf("[MLOG][ERROR][%d]: create netlink socket failed\n", __LINE__);
    return Status::kNoNetlink;
  }

  if (!netlink::bind_to_port(fd.get(), static_cast<uint32_t>(::getpid())))
    return Status::kNoNetlink;
  return Result<os::UniqueFd, Status>(std::move(fd));
}

Status send_netlink(int fd, const void *data, uint32_t size) {
  const netlink::Datagram datagram =
      netlink::build_datagram(data, size, kNetlinkType, static_cast<uint32_t>(::getpid()));
  if (!datagram.block) return Status::kNoNetlink;

  iovec part{.iov_base = datagram.block.get(), .iov_len = datagram.size};
  msghdr envelope{};
  envelope.msg_iov = &part;
  envelope.msg_iovlen = 1;
  if (::sendmsg(fd, &envelope, MSG_NOSIGNAL) < 0) {
    std::printf("[MLOG][ERROR][%d]: send netlink message failed\n", __LINE__);
    return Status::kNoNetlink;
  }
  return Status::kOk;
}

Status receive_netlink(int fd, void *out, uint32_t out_size) {
  char message[532];
  const ssize_t size = ::recv(fd, message, sizeof message, 0);
  if (size < 0) {
    std::printf("[MLOG][ERROR][%d]: receive netlink message failed\n", __LINE__);
    return Status::kNoNetlink;
  }
  if (size < ssize_t{sizeof(nlmsghdr)}) return Status::kNoNetlink;

  const nlmsghdr head = load<nlmsghdr>(message);
  if (head.nlmsg_len <= sizeof head) return Status::kNoNetlink;
  const size_t payload_size = head.nlmsg_len - sizeof head;
  if (head.nlmsg_len > static_cast<size_t>(size) || payload_size > out_size) {
    print_copy_failure("memcpy_s", ERANGE);
    std::printf("[MLOG][ERROR][%d]: copy receive netlink message failed\n", __LINE__);
    return Status::kNoNetlink;
  }
  std::memcpy(out, message + sizeof head, payload_size);
  return Status::kOk;
}

}  // namespace

ClientSocket::ClientSocket(const char *name) : name_(name), fd_(open_client(name)) {}

ClientSocket::~ClientSocket() {
  if (!fd_) return;
  const int saved = errno;
  fd_.reset();
  remove_client_file(name_);
  errno = saved;
}

Status send_message(int fd, const MlogMsg *message, const char *server) {
  // The caller vouches for the block's length; the socket's buffer is the only limit.
  sockaddr_un address;
  size_t size;
  if (__builtin_add_overflow(message->length, size_t{MLOG_HEAD_SIZE}, &size)) {
    errno = EMSGSIZE;
    return Status::kNoSocket;
  }
  if (!make_address(server, &address)) {
    errno = ENAMETOOLONG;
    return Status::kNoSocket;
  }

  int64_t deadline_ms = 0;
  int flags = MSG_NOSIGNAL | MSG_DONTWAIT;
  for (;;) {
    if (::sendto(fd, message, size, flags, reinterpret_cast<const sockaddr *>(&address),
                 sizeof address) >= 0) {
      return Status::kOk;
    }
    if (errno != EINTR && errno != EAGAIN) return Status::kNoSocket;

    const int64_t now = now_ms();
    if (deadline_ms == 0) {
      deadline_ms = now + kMaxWait_ms;
    } else if (errno == EAGAIN && now < deadline_ms) {
      // The descriptor is non-blocking, so the limit below does not apply to it.
      ::poll(nullptr, 0, 5);
    }
    if (now >= deadline_ms) {
      errno = EAGAIN;
      return Status::kNoSocket;
    }
    set_time_limit(fd, SO_SNDTIMEO, deadline_ms - now);
    flags = MSG_NOSIGNAL;
  }
}

Status exchange_in_time(int fd, MlogMsg *message) {
  const int64_t end_ms = now_ms() + kMaxWait_ms;
  const Status sent = send_message(fd, message, MLOG_SERVER_NAME);
  if (sent != Status::kOk) return sent;
  return receive_message(fd, message, std::max<int64_t>(end_ms - now_ms(), 1), {});
}

}  // namespace msgapi::log

using namespace msgapi;

extern "C" int32_t MlogSocketOpen(const char *name, int32_t *fdOut) {
  if (fdOut == nullptr) return MLOG_ERR_SOCKET;
  *fdOut = -1;
  if (name == nullptr) return MLOG_ERR_SOCKET;

  *fdOut = log::open_client(name).release();
  return *fdOut >= 0 ? 0 : MLOG_ERR_SOCKET;
}

extern "C" int32_t MlogSocketClose(int32_t fd, const char *name) {
  os::UniqueFd closing(fd);
  closing.reset();
  return name != nullptr && log::remove_client_file(name) ? 0 : MLOG_ERR_SOCKET;
}

extern "C" int32_t MlogSendMsg(int32_t fd, const MlogMsg *msg, const char *serverName) {
  if (fd < 0 || msg == nullptr || serverName == nullptr) return MLOG_ERR_SOCKET;
  return code(log::send_message(fd, msg, serverName));
}

extern "C" int32_t MlogRecvMsg(int32_t fd, MlogMsg *msg, uint32_t timeoutSec, char *peerNameBuf,
                               uint32_t peerNameSize) {
  if (fd < 0 || msg == nullptr) return MLOG_ERR_SOCKET;
  const std::span<char> peer_name(peerNameBuf, peerNameBuf == nullptr ? 0 : peerNameSize);
  return code(log::receive_message(fd, msg, log::receive_wait_ms(timeoutSec), peer_name));
}

extern "C" int32_t MlogSendRecvMsg(int32_t fd, const MlogMsg *sendMsg, MlogMsg *recvMsg,
                                   uint32_t timeoutSec, const char *serverName) {
  if (fd < 0 || sendMsg == nullptr || recvMsg == nullptr || serverName == nullptr ||
      recvMsg->length > MLOG_MAX_PAYLOAD) {
    return MLOG_ERR_SOCKET;
  }
  const log::Status sent = log::send_message(fd, sendMsg, serverName);
  if (sent != log::Status::kOk) return code(sent);
  return code(log::receive_message(fd, recvMsg, log::receive_wait_ms(timeoutSec), {}));
}

extern "C" int32_t MlogNetlinkOpen(int32_t *fdOut) {
  if (fdOut == nullptr) return MLOG_ERR_NETLINK;
  *fdOut = -1;
  Result<os::UniqueFd, log::Status> fd = log::open_netlink();
  if (fd) *fdOut = fd->release();
  return code(fd.status());
}

extern "C" int32_t MlogNetlinkSend(int32_t fd, const void *data, uint32_t size) {
  if (fd < 0 || data == nullptr || size == 0) return MLOG_ERR_NETLINK;
  return code(log::send_netlink(fd, data, size));
}

extern "C" int32_t MlogNetlinkReceive(int32_t fd, void *buf, uint32_t bufSize) {
  if (fd < 0 || buf == nullptr || bufSize == 0) return MLOG_ERR_NETLINK;
  return code(log::receive_netlink(fd, buf, bufSize));
}
