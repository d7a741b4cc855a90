// The socket is emptied in batches, because clients wait while its short queue is full. A client
// that does not take its reply never holds up the others.

#include "server.h"

#include <fmt/core.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <optional>
#include <stdexcept>

#include "common/listen.h"
#include "line.h"
#include "questions.h"
#include "say.h"

namespace mlogserver {
namespace {

constexpr char kSocketPath[] = MLOG_IPC_PATH MLOG_SERVER_NAME;
constexpr const char *kInboxPath = MLOG_IPC_PATH MLOG_SERVER_NAME ".inbox";
constexpr size_t kMaxStatistics = 256;
constexpr int kMaxBatches = 1000;
constexpr mode_t kDirectoryMode = 0770;
// Every byte may be a line feed, which gets a tab; its sender; and the line feed at the end.
constexpr size_t kRoomForLine = 2 * size_t{MLOG_MAX_PAYLOAD} + sizeof "from -2147483648: ";
static_assert(kRoomForLine <= RingStore::kLongestLine);

[[noreturn]] void fail(const std::string &what) {
  throw std::runtime_error(what + ": " + std::strerror(errno));
}

// A non-blocking socket at the server's path, which no other server may be reading.
servers::UniqueFd open_socket() {
  if (::mkdir(MLOG_IPC_PATH, kDirectoryMode) == 0) {
    // Whatever the umask: other users' programs put their sockets there.
    if (::chmod(MLOG_IPC_PATH, kDirectoryMode) != 0) fail(MLOG_IPC_PATH);
  } else if (errno != EEXIST) {
    fail(MLOG_IPC_PATH);
  }

  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, kSocketPath, sizeof kSocketPath);
  const auto *generic = reinterpret_cast<const sockaddr *>(&address);
  const servers::UniqueFd turn = servers::take_turn(kSocketPath);

  // Only a socket that somebody reads can be connected to.
  const servers::UniqueFd probe(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (!probe) fail("socket");
  if (::connect(probe.get(), generic, sizeof address) == 0) {
    throw std::runtime_error(fmt::format("a server is already running on {}", kSocketPath));
  }

  servers::UniqueFd fd(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!fd) fail("socket");
  // The kernel says who sends what (SO_PASSCRED, unix(7)): not everybody may ask for everything.
  const int on = 1;
  if (::setsockopt(fd.get(), SOL_SOCKET, SO_PASSCRED, &on, sizeof on) != 0) fail("SO_PASSCRED");
  ::unlink(kSocketPath);
  if (::bind(fd.get(), generic, sizeof address) != 0 || ::chmod(kSocketPath, 0660) != 0) {
    fail(kSocketPath);
  }
  return fd;
}

// The inode of the socket's file, 0 when there is none.
ino_t socket_inode() {
  struct stat status {};
  return ::lstat(kSocketPath, &status) == 0 ? status.st_ino : 0;
}

// The text of a fixed-size field; false when it has no NUL.
bool read_field(const char (&field)[256], std::string *text) {
  const size_t length = ::strnlen(field, sizeof field);
  text->assign(field, length);
  return length < sizeof field;
}

// The payload of a message whose head agrees with its size; null otherwise.
const char *payload_of(std::span<char> datagram, MlogMsg *head) {
  if (datagram.size() < MLOG_HEAD_SIZE || datagram.size() > sizeof(MlogMsg)) return nullptr;
  std::memcpy(head, datagram.data(), MLOG_HEAD_SIZE);
  return head->length == datagram.size() - MLOG_HEAD_SIZE ? datagram.data() + MLOG_HEAD_SIZE
                                                          : nullptr;
}

}  // namespace

Server::Server(servers::EventLoop *loop, RingStore *store)
    : loop_(loop),
      store_(store),
      fd_(open_socket()),
      socket_inode_(socket_inode()),
      inbox_(kInboxPath) {
  line_.reserve(kRoomForLine);
  take_over();
}

Server::~Server() {
  turn_ = servers::take_turn(kSocketPath);
  // Not another server's, should it have taken the path.
  if (socket_inode() == socket_inode_) ::unlink(kSocketPath);
}

void Server::take_over() {
  uint64_t lines = 0;
  for (size_t slot = 0; slot < Inbox::kSlots; ++slot) {
    const std::span<char> datagram = inbox_.datagram(slot);
    MlogMsg head;
    // Nobody waits for the answers to old requests.
    if (payload_of(datagram, &head) != nullptr && head.type == MLOG_TYPE_LOG &&
        keep_line(datagram.subspan(MLOG_HEAD_SIZE), inbox_.credentials(slot).pid)) {
      ++lines;
    }
    inbox_.mark_done(slot);
  }
  if (lines > 0) say("{} lines of the server before are kept", lines);
}

void Server::drain() {
  // More than the queue of a socket holds, but bounded: clients that never pause must not keep the
  // server from its signals.
  for (int batches = 0; batches < kMaxBatches; ++batches) {
    const size_t count = inbox_.receive(fd_.get());
    for (size_t slot = 0; slot < count; ++slot) {
      Sender sender{};
      sender.address = &inbox_.sender(slot, &sender.size);
      sender.who = inbox_.credentials(slot);
      handle(inbox_.datagram(slot), sender);
      inbox_.mark_done(slot);
    }
    if (count < Inbox::kSlots) break;
  }
  await_notice();
}

void Server::await_notice() {
  const auto next = store_->next_notice();
  if (!next || awaits_notice_) return;
  const auto delay = std::max(
      std::chrono::ceil<std::chrono::milliseconds>(*next - std::chrono::steady_clock::now()),
      std::chrono::milliseconds(1));
  awaits_notice_ = loop_->attempt("telling of dropped lines has failed", [&] {
    loop_->after(delay, [this] {
      awaits_notice_ = false;
      store_->tell_dropped(false);
      await_notice();
    });
  });
}

void Server::handle(std::span<char> datagram, const Sender &sender) noexcept {
  MlogMsg head;
  const char *payload = payload_of(datagram, &head);
  bool understood = false;
  try {
    understood = payload != nullptr && dispatch(head, datagram.subspan(MLOG_HEAD_SIZE), sender);
  } catch (const std::exception &) {
    if (++counters_.given_up == 1) say("requests are given up: no memory");
    return;
  }
  if (!understood) {
    ++counters_.malformed;
  } else if (head.type == MLOG_TYPE_LOG) {
    ++counters_.lines;
  } else {
    ++counters_.requests;
  }
}

bool Server::dispatch(const MlogMsg &head, std::span<char> payload, const Sender &sender) {
  switch (head.type) {
    case MLOG_TYPE_LOG:
      return keep_line(payload, sender.who.pid);
    case MLOG_TYPE_SET_STAT:
      return set_statistics(payload, sender);
    case MLOG_TYPE_GET_STAT:
      return get_statistics(payload, sender);
    case MLOG_TYPE_FLUSH:
      flush(sender);
      return true;
    default:
      return false;
  }
}

bool Server::keep_line(std::span<const char> payload, pid_t sender) {
  const size_t length = ::strnlen(payload.data(), payload.size());
  if (length == 0) return false;
  line_.clear();
  add_clean_text({payload.data(), length}, &line_);
  line_ += '\n';
  store_->append(&line_, sender);
  return true;
}

bool Server::set_statistics(std::span<const char> payload, const Sender &sender) {
  if (payload.size() < offsetof(MlogStat, reserved)) return false;
  MlogStat fields;
  std::memcpy(&fields, payload.data(), offsetof(MlogStat, reserved));
  std::string module;
  std::string info;
  if (!read_field(fields.module, &module) || !read_field(fields.info, &info)) return false;

  if (module.starts_with(MLOG_SERVER_NAME)) return set_own(module, info, sender);
  if (statistics_.size() >= kMaxStatistics && statistics_.count(module) == 0) {
    ++counters_.stats_refused;
  } else {
    statistics_[module] = info;
  }
  return true;
}

bool Server::get_statistics(std::span<const char> payload, const Sender &sender) {
  MlogStat fields{};
  if (payload.size() < sizeof fields.module) return false;
  std::memcpy(fields.module, payload.data(), sizeof fields.module);
  std::string module;
  if (!read_field(fields.module, &module)) return false;

  if (module.starts_with(MLOG_SERVER_NAME)) {
    const std::string text = answer_own(module);
    std::memcpy(fields.info, text.data(), std::min(text.size(), sizeof fields.info - 1));
  } else if (const auto known = statistics_.find(module); known != statistics_.end()) {
    std::memcpy(fields.info, known->second.c_str(), known->second.size() + 1);
  }
  MlogMsg answer{.type = MLOG_TYPE_GET_STAT, .length = sizeof fields, .payload = {}};
  std::memcpy(answer.payload, &fields, sizeof fields);
  reply(answer, sizeof fields, sender);
  return true;
}

bool Server::set_own(const std::string &question, const std::string &text, const Sender &sender) {
  const std::string module = question.substr(std::min(kLevelQuestion.size(), question.size()));
  if (!question.starts_with(kLevelQuestion) || !is_module_name(module)) return false;
  std::optional<uint32_t> level;
  if (text != kConfiguredLevel) {
    level = MlogGetLogLevel(text.c_str());
    if (text != MlogGetLogLevelString(*level)) return false;
  }
  if ((sender.who.uid != 0 && sender.who.uid != ::geteuid()) || !store_->set_level(module, level)) {
    ++counters_.stats_refused;
  }
  return true;
}

std::string Server::answer_own(const std::string &question) const {
  if (question == kStateQuestion) return store_->state();
  if (question.starts_with(kLevelQuestion)) {
    return MlogGetLogLevelString(store_->level_of(question.substr(kLevelQuestion.size())));
  }
  if (question.starts_with(kModuleQuestion)) {
    const size_t index = std::strtoul(question.c_str() + kModuleQuestion.size(), nullptr, 10);
    if (index >= store_->counters().size()) return {};
    const auto &[module, count] =
        *std::next(store_->counters().begin(), static_cast<ptrdiff_t>(index));
    return format_module_line({module, MlogGetLogLevelString(store_->level_of(module)), count.kept,
                               count.below_level, count.dropped, count.lost});
  }
  return {};
}

void Server::flush(const Sender &sender) {
  MlogMsg answer{.type = MLOG_TYPE_FLUSH, .length = 0, .payload = {}};
  // A length that disagrees with the datagram makes the client's call fail at once.
  if (!store_->sync()) answer.length = UINT32_MAX;
  reply(answer, 0, sender);
}

void Server::reply(const MlogMsg &message, size_t payload_size, const Sender &sender) {
  if (::sendto(fd_.get(), &message, MLOG_HEAD_SIZE + payload_size, MSG_DONTWAIT | MSG_NOSIGNAL,
               reinterpret_cast<const sockaddr *>(sender.address), sender.size) < 0) {
    ++counters_.unanswered;
  }
}

}  // namespace mlogserver
