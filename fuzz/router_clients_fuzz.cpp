// Clients of the message server do, in any order, what its rules allow: connect, register,
// subscribe, publish, send in pieces, ask, read a little, pass descriptors, leave. The input is a
// program of such steps, three bytes each.
//
// Nobody who keeps the rules is disconnected. Every message arrives whole, or with zeros in place
// of the end of a long one. Messages of one sender come in order, and none twice. The server's
// counts are what has been written and read.

#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <memory>
#include <numeric>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "common/event_loop.h"
#include "common/log_line.h"
#include "decisions.h"
#include "msgsvr/server.h"
#include "msgsvr/services.h"
#include "support/frame.h"

// Replaces the log.
void servers::write_log_line(std::string_view) noexcept {}

namespace {

using fuzz::check;
using servers::UniqueFd;
using test::Frame;

constexpr size_t kClients = 6;
constexpr size_t kStep = 3;
constexpr uint32_t kData = 0x1234;
constexpr uint32_t kUnserved = 0x7777;
constexpr uint32_t kEvent = ORP_MSG_EVENT_DEVICE;
constexpr uint32_t kCutThrough = 300;
// "s" has the other byte order. No client has the name "nobody".
constexpr std::array kNames = {"a", "b", "s", "wide", "nobody"};
constexpr size_t kTaken = kNames.size() - 1;
constexpr std::array<uint32_t, 16> kSizes = {0,   1,    2,    40,   200,  255,  259,   260,
                                             300, 1000, 2048, 4000, 5000, 9000, 20000, 40000};

char byte_of(uint32_t number) {
  return static_cast<char>('a' + number % 26);
}

// A client's end of its connection.
struct Peer {
  UniqueFd fd;
  uint32_t connection = 0;
  std::string name;
  bool swapped = false;
  std::string outgoing;      // built and not written yet
  std::vector<size_t> ends;  // of the messages in it, from its beginning
  std::string received;
  std::map<uint32_t, uint32_t> last;  // number of the last data message, by the sender's connection
  bool in_message() const { return !outgoing.empty() && started; }
  bool owes_zero = false;  // the second byte that belongs to a descriptor is still to come
  bool started = false;    // a part of the first message in `outgoing` has been written
};

class World {
 public:
  World() : server_(&loop_, options()) {
    services_.push_back(msgsvr::make_registration(&server_));
    services_.push_back(msgsvr::make_events(&server_));
    services_.push_back(msgsvr::make_restful(&server_));
    services_.push_back(msgsvr::make_sync_points(&server_));
    services_.push_back(msgsvr::make_login_control(&server_));
  }

  void step(uint8_t first, uint8_t x, uint8_t y) {
    const size_t which = first % 8 % kClients;
    Peer &peer = peers_[which];
    const auto operation = static_cast<uint8_t>(first / 8);
    if (!peer.fd) {
      connect(&peer);
    } else {
      act(&peer, operation, x, y);
    }
    if ((y & 1) == 0) loop_.turn(0);
  }

  void finish() {
    // Everybody goes on until nothing moves any more. The server's patience and stall time are a
    // millisecond, so that nothing waits for long.
    int turns = 0;
    for (int quiet = 0; quiet < 3; ++turns) {
      check(turns < 3000);
      const uint64_t before = moved_ + server_.journal().statistics().bytes_in;
      bool waits = false;
      for (Peer &peer : peers_) {
        if (!peer.fd) continue;
        write(&peer, SIZE_MAX);
        read(&peer, SIZE_MAX);
        waits |= !peer.outgoing.empty() || unread_of(peer) != 0;
      }
      loop_.turn(waits && quiet > 0 ? 1 : 0);
      if (before != moved_ + server_.journal().statistics().bytes_in) {
        quiet = 0;
      } else if (!waits || quiet < 2) {
        ++quiet;
      }
    }
    check_accounts();
  }

 private:
  static msgsvr::Options options() {
    msgsvr::Options options;
    options.policy = "none";
    options.queue_limit = 8192;
    options.cut_through = kCutThrough;
    options.patience_ms = 1;
    options.stall_ms = 1;
    options.swap_names = {"s"};
    options.limits = {16, 8192, 32, 32, 32, 32, 32};
    options.login_state.clear();
    return options;
  }

  void connect(Peer *peer) {
    int ends[2];
    check(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends) == 0);
    // Little room, so that queues are used.
    const int size = 4096;
    ::setsockopt(ends[0], SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
    check(server_.adopt(UniqueFd(ends[0])) != nullptr);
    *peer = Peer();
    peer->fd = UniqueFd(ends[1]);
    peer->connection = ++connections_;
  }

  // Bytes that the server has not read.
  static int unread_of(const Peer &peer) {
    int unread = 0;
    check(::ioctl(peer.fd.get(), SIOCOUTQ, &unread) == 0);
    return unread;
  }

  void close(Peer *peer) {
    loop_.turn(0);
    read(peer, SIZE_MAX);
    if (unread_of(*peer) != 0) exact_ = false;
    // The server may have counted the message that was begun, or not, depending on its length.
    if (peer->started) exact_ = false;
    *peer = Peer();
  }

  // Appends a message to the bytes to be written.
  void send(Peer *peer, const Frame &frame) {
    if (peer->outgoing.size() > 100000) return;
    Frame mine = frame;
    mine.from = peer->name;
    peer->outgoing += mine.bytes({}, peer->swapped);
    peer->ends.push_back(peer->outgoing.size());
  }

  void send_data(Peer *peer, uint8_t x, uint8_t y) {
    const uint32_t number = ++numbers_;
    send(peer, {.type = kData,
                .to = kNames[x % kNames.size()],
                .body = std::string(kSizes[y / 16], byte_of(number)),
                .data = peer->connection,
                .sequence = number});
  }

  // The byte order may change with the answer, so nothing else may be on its way.
  void enter(Peer *peer, uint8_t x) {
    write(peer, SIZE_MAX);
    if (!peer->outgoing.empty()) return;
    const std::string name = kNames[x % kTaken];
    const std::string former = std::exchange(peer->name, name);
    send(peer, {.type = ORP_MSG_REGISTER, .sequence = ++numbers_});
    write(peer, SIZE_MAX);
    answered_ = false;
    for (int turns = 0; turns < 20 && !answered_; ++turns) {
      loop_.turn(turns < 10 ? 0 : 1);
      read(peer, SIZE_MAX);
    }
    // The server may not be reading from it because of a slow reader.
    if (!answered_) close(peer);
  }

  void act(Peer *peer, uint8_t operation, uint8_t x, uint8_t y) {
    const std::string some_name = test_name(x);
    switch (operation) {
      case 0:
        return close(peer);
      case 1:
        return enter(peer, x);
      case 2:
      case 3:
      case 4:
        send_data(peer, x, y);
        return write(peer, SIZE_MAX);
      case 5:  // to be written in pieces
      case 6:
        return send_data(peer, x, y);
      case 7:
      case 8:
        return write(peer, size_t{x} + 1);
      case 9:
        return write(peer, (size_t{x} + 1) * 64);
      case 10:
        return write(peer, SIZE_MAX);
      case 11:
        return read(peer, size_t{x} + 1);
      case 12:
        return read(peer, (size_t{x} + 1) * 256);
      case 13:
      case 14:
        return read(peer, SIZE_MAX);
      case 15:
        send(peer, {.type = ORP_MSG_SUBSCRIBE, .data = event_type(x)});
        break;
      case 16:
        send(peer, {.type = ORP_MSG_SUBSCRIBE, .body = some_name, .data = event_type(y)});
        break;
      case 17:
        send(peer, {.type = ORP_MSG_UNSUBSCRIBE,
                    .body = y % 2 == 0 ? "" : some_name,
                    .data = event_type(y)});
        break;
      case 18:
      case 19:
        send(peer, {.type = kEvent + x % 2,
                    .body = std::string(kSizes[y / 16 % 13], 'e'),
                    .sequence = ++numbers_});
        break;
      case 20:
        send(peer, {.type = ORP_MSG_SYNC_WAIT, .body = some_name, .sequence = ++numbers_});
        break;
      case 21:
        send(peer, {.type = ORP_MSG_SYNC_POST, .body = some_name});
        break;
      case 22:
        send(peer, {.type = ORP_MSG_COUNT_PROCESSES, .body = some_name, .sequence = ++numbers_});
        break;
      case 23:
        send(peer, {.type = ORP_MSG_RESTFUL_REGISTER, .body = paths(x)});
        break;
      case 24: {
        std::string body(136, '\0');
        paths(x).copy(body.data() + 8, 63);
        body.replace(8 + 64, 1, "h");
        send(peer,
             {.type = ORP_MSG_RESTFUL_REQUEST, .body = body + "text", .sequence = ++numbers_});
        break;
      }
      case 25:
        send(peer,
             {.type = ORP_LCTRL_MSG_LOGIN + x % 5, .body = std::string(y, static_cast<char>(x))});
        break;
      case 26:
        send(peer, {.type = std::array{ORP_MSG_KEEP_ALIVE, ORP_MSG_STOP_WATCHDOG, kUnserved,
                                       ORP_MSG_EXIT}[x % 4],
                    .body = x % 8 < 4 ? "" : some_name});
        break;
      case 27:
      case 28:
        return pass_descriptor(peer, x, y);
      default:
        loop_.turn(x % 8 == 0 ? 1 : 0);
    }
    write(peer, SIZE_MAX);
  }

  static std::string test_name(uint8_t x) {
    std::string name = kNames[x % kNames.size()];
    name.resize(ORP_APP_NAME_SIZE);
    return name;
  }
  static uint32_t event_type(uint8_t x) { return x % 4 == 3 ? ORP_MSG_ALL_EVENTS : kEvent + x % 4; }
  static std::string paths(uint8_t x) {
    return std::string(std::array{"/p", "/p/q", "/p/h|/q/h", "/*/h"}[x % 4]) + '\0';
  }

  // Sends a descriptor after a message that names its receiver.
  void pass_descriptor(Peer *peer, uint8_t x, uint8_t y) {
    send_data(peer, x, y);
    write(peer, SIZE_MAX);
    if (!peer->outgoing.empty()) return;
    const std::array descriptors = {STDERR_FILENO};
    (void)test::send_with_descriptors(peer->fd.get(), std::string(2, '\0'), descriptors);
  }

  void write(Peer *peer, size_t most) {
    while (most > 0 && !peer->outgoing.empty()) {
      const size_t size = std::min({most, peer->outgoing.size(), size_t{4096}});
      const ssize_t count =
          ::send(peer->fd.get(), peer->outgoing.data(), size, MSG_NOSIGNAL | MSG_DONTWAIT);
      // A client that keeps the rules is not disconnected.
      if (count < 0) {
        check(errno == EAGAIN);
        return;
      }
      const auto done = static_cast<size_t>(count);
      moved_ += done;
      peer->outgoing.erase(0, done);
      most -= done;
      size_t whole = 0;
      while (whole < peer->ends.size() && peer->ends[whole] <= done) ++whole;
      written_ += whole;
      peer->started = whole == 0 || peer->ends[whole - 1] < done;
      peer->ends.erase(peer->ends.begin(), peer->ends.begin() + static_cast<ptrdiff_t>(whole));
      for (size_t &end : peer->ends) end -= done;
    }
  }

  void read(Peer *peer, size_t most) {
    while (most > 0) {
      char bytes[4096];
      alignas(cmsghdr) char control[CMSG_SPACE(8 * sizeof(int))];
      iovec piece{bytes, std::min(most, sizeof bytes)};
      msghdr message{};
      message.msg_iov = &piece;
      message.msg_iovlen = 1;
      message.msg_control = control;
      message.msg_controllen = sizeof control;
      const ssize_t count = ::recvmsg(peer->fd.get(), &message, MSG_DONTWAIT | MSG_CMSG_CLOEXEC);
      if (count < 0) {
        check(errno == EAGAIN);
        return;
      }
      check(count > 0);
      const auto size = static_cast<size_t>(count);
      moved_ += size;
      most -= size;
      peer->received.append(bytes, size);
      if (peer->owes_zero) {
        check(bytes[0] == 0);
        peer->received.erase(0, 1);
        peer->owes_zero = false;
      }
      take_frames(peer);
      const cmsghdr *head = CMSG_FIRSTHDR(&message);
      if (head == nullptr) continue;
      // A read ends behind the bytes that carry a descriptor: two zero bytes between two messages,
      // or the first of them if no more was asked for.
      check(head->cmsg_type == SCM_RIGHTS && head->cmsg_len == CMSG_LEN(sizeof(int)));
      const UniqueFd fd(*reinterpret_cast<const int *>(CMSG_DATA(head)));
      check(peer->received.size() == 1 || peer->received.size() == 2);
      check(peer->received.find_first_not_of('\0') == std::string::npos);
      peer->owes_zero = peer->received.size() == 1;
      peer->received.clear();
      ++descriptors_;
      ++read_;  // counted with the messages
    }
  }

  void take_frames(Peer *peer) {
    while (peer->received.size() >= msgsvr::kHeaderSize) {
      const msgsvr::Header header = msgsvr::load_header(peer->received.data(), peer->swapped);
      check(msgsvr::AppName::from_field(header.aucSendApp).has_value());
      check(header.ulDataLen <= 100000);
      const size_t size = msgsvr::kHeaderSize + header.ulDataLen;
      if (peer->received.size() < size) return;
      take(
          peer, header,
          std::string_view(peer->received).substr(msgsvr::kHeaderSize, size - msgsvr::kHeaderSize));
      peer->received.erase(0, size);
    }
  }

  void take(Peer *peer, const msgsvr::Header &header, std::string_view body) {
    ++read_;
    const uint32_t type = header.ulMsgType & ORP_MSG_TYPE_MASK;
    if (type == ORP_MSG_REGISTER) {
      check(peer->name == header.aucRecvApp);
      peer->swapped = header.ulMsgData != 0;
      answered_ = true;
    } else if (type == kData) {
      uint32_t &last = peer->last[header.ulMsgData];
      check(header.ulMsgData <= connections_ && header.ulSeqNum <= numbers_);
      check(header.ulSeqNum > last);
      last = header.ulSeqNum;
      const size_t right = std::min(body.find_first_not_of(byte_of(header.ulSeqNum)), body.size());
      const std::string_view rest = body.substr(right);
      check(rest.find_first_not_of('\0') == rest.npos);
      if (!rest.empty()) {
        check(body.size() + msgsvr::kHeaderSize > kCutThrough);
        ++cut_short_;
      }
    } else if (type == ORP_MSG_UNDELIVERABLE) {
      ++notices_;
    }
  }

  void check_accounts() {
    const msgsvr::Statistics &counted = server_.journal().statistics();
    uint64_t out = counted.frames_out;
    for (const auto &[id, client] : server_.clients()) out += client->out.frames_written();
    if (exact_ && std::ranges::none_of(peers_, &Peer::in_message)) {
      check(counted.frames_in == written_);
    }
    // A message with zeros in place of its end has been read, but the server counts it as lost.
    check(out <= read_ && read_ <= out + counted.of(flight::Loss::kCutShort));
    check(cut_short_ <= counted.of(flight::Loss::kCutShort));
    check(notices_ <= counted.told);
    check(descriptors_ == counted.descriptors_passed);
    const uint64_t lost = std::accumulate(counted.lost.begin(), counted.lost.end(), uint64_t{0});
    check(lost == counted.told + counted.untold);
    check(loop_.failures() == 0);
  }

  servers::EventLoop loop_;
  msgsvr::Server server_;
  msgsvr::Services services_;
  std::array<Peer, kClients> peers_;
  uint32_t connections_ = 0, numbers_ = 0;
  uint64_t moved_ = 0;
  bool answered_ = false;
  bool exact_ = true;  // everything that was written has been read by the server
  uint64_t written_ = 0, read_ = 0, notices_ = 0, cut_short_ = 0, descriptors_ = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  World world;
  for (std::span<const uint8_t> input(data, size); input.size() >= kStep;
       input = input.subspan(kStep)) {
    world.step(input[0], input[1], input[2]);
  }
  world.finish();
  return 0;
}
