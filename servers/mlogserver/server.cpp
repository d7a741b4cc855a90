// The socket is emptied in batches: clients wait while its short queue is full, so the sooner a
// datagram is out of it the better. A client that does not take its reply never holds up the rest.

#include "server.h"

#include <fmt/core.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string_view>

namespace mlogserver {
namespace {

constexpr const char *kSocketPath = MLOG_IPC_PATH MLOG_SERVER_NAME;
constexpr size_t kMaxStatistics = 256;

[[noreturn]] void fail(const std::string &what) {
  throw std::runtime_error(what + ": " + std::strerror(errno));
}

// The text of a fixed-size field; false when it has no NUL.
bool read_field(const char (&field)[256], std::string *text) {
  const size_t length = ::strnlen(field, sizeof field);
  text->assign(field, length);
  return length < sizeof field;
}

}  // namespace

Server::Server(Store *store) : store_(store) {
  if (::mkdir(MLOG_IPC_PATH, 0770) != 0 && errno != EEXIST) fail(MLOG_IPC_PATH);

  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strcpy(address.sun_path, kSocketPath);
  const auto *generic = reinterpret_cast<const sockaddr *>(&address);

  // Only a socket that somebody reads can be connected to.
  const servers::UniqueFd probe(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (::connect(probe.get(), generic, sizeof address) == 0) {
    throw std::runtime_error(fmt::format("a server is already running on {}", kSocketPath));
  }

  fd_.reset(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!fd_) fail("socket");
  ::unlink(kSocketPath);
  if (::bind(fd_.get(), generic, sizeof address) != 0 || ::chmod(kSocketPath, 0660) != 0) {
    fail(kSocketPath);
  }
}

Server::~Server() {
  ::unlink(kSocketPath);
}

void Server::drain() {
  std::array<mmsghdr, kBatch> messages;
  std::array<iovec, kBatch> parts;
  std::array<sockaddr_un, kBatch> peers;
  for (;;) {
    for (size_t i = 0; i < kBatch; ++i) {
      parts[i] = {.iov_base = datagrams_[i].data(), .iov_len = kDatagramSize};
      messages[i] = {};
      messages[i].msg_hdr.msg_iov = &parts[i];
      messages[i].msg_hdr.msg_iovlen = 1;
      messages[i].msg_hdr.msg_name = &peers[i];
      messages[i].msg_hdr.msg_namelen = sizeof peers[i];
    }
    const int count = ::recvmmsg(fd_.get(), messages.data(), kBatch, MSG_DONTWAIT, nullptr);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return;

    for (size_t i = 0; i < static_cast<size_t>(count); ++i) {
      handle({datagrams_[i].data(), messages[i].msg_len}, peers[i],
             messages[i].msg_hdr.msg_namelen);
    }
  }
}

void Server::handle(std::span<const char> datagram, const sockaddr_un &peer, socklen_t peer_size) {
  MlogMsg head;
  if (datagram.size() >= MLOG_HEAD_SIZE) std::memcpy(&head, datagram.data(), MLOG_HEAD_SIZE);
  if (datagram.size() < MLOG_HEAD_SIZE || datagram.size() > sizeof(MlogMsg) ||
      head.length != datagram.size() - MLOG_HEAD_SIZE) {
    ++counters_.malformed;
    return;
  }

  const std::span<const char> payload = datagram.subspan(MLOG_HEAD_SIZE);
  switch (head.type) {
    case MLOG_TYPE_LOG:
      if (const size_t length = ::strnlen(payload.data(), payload.size()); length > 0) {
        ++counters_.lines;
        store_->append({payload.data(), length});
        return;
      }
      break;
    case MLOG_TYPE_SET_STAT:
      if (payload.size() < offsetof(MlogStat, reserved)) break;
      ++counters_.requests;
      set_statistics(payload);
      return;
    case MLOG_TYPE_GET_STAT:
      if (payload.size() < sizeof(MlogStat::module)) break;
      ++counters_.requests;
      get_statistics(payload, peer, peer_size);
      return;
    case MLOG_TYPE_FLUSH: {
      ++counters_.requests;
      MlogMsg answer{.type = MLOG_TYPE_FLUSH, .length = 0, .payload = {}};
      // A length that disagrees with the datagram makes the client's call fail at once.
      if (!store_->sync()) answer.length = UINT32_MAX;
      reply(answer, 0, peer, peer_size);
      return;
    }
    default:
      break;
  }
  ++counters_.malformed;
}

void Server::set_statistics(std::span<const char> payload) {
  MlogStat fields;
  std::memcpy(&fields, payload.data(), offsetof(MlogStat, reserved));
  std::string module;
  std::string info;
  if (!read_field(fields.module, &module) || !read_field(fields.info, &info)) {
    ++counters_.malformed;
    return;
  }
  if (statistics_.size() >= kMaxStatistics && statistics_.count(module) == 0) {
    ++counters_.stats_refused;
    return;
  }
  statistics_[module] = info;
}

void Server::get_statistics(std::span<const char> payload, const sockaddr_un &peer,
                            socklen_t peer_size) {
  MlogStat fields{};
  std::memcpy(fields.module, payload.data(), sizeof fields.module);
  std::string module;
  if (!read_field(fields.module, &module)) {
    ++counters_.malformed;
    return;
  }
  if (const auto known = statistics_.find(module); known != statistics_.end()) {
    std::memcpy(fields.info, known->second.c_str(), known->second.size() + 1);
  }
  MlogMsg answer{.type = MLOG_TYPE_GET_STAT, .length = sizeof fields, .payload = {}};
  std::memcpy(answer.payload, &fields, sizeof fields);
  reply(answer, sizeof fields, peer, peer_size);
}

void Server::reply(const MlogMsg &message, size_t payload_size, const sockaddr_un &peer,
                   socklen_t peer_size) {
  if (::sendto(fd_.get(), &message, MLOG_HEAD_SIZE + payload_size, MSG_DONTWAIT | MSG_NOSIGNAL,
               reinterpret_cast<const sockaddr *>(&peer), peer_size) < 0) {
    ++counters_.unanswered;
  }
}

}  // namespace mlogserver
