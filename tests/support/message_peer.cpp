#include "support/message_peer.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <ostream>
#include <utility>

#include "base/text.h"
#include "msg/context.h"
#include "support/network.h"

namespace test {
namespace {

bool readable(int fd, int timeout_ms = kPatience_ms) {
  pollfd entry{.fd = fd, .events = POLLIN, .revents = 0};
  return ::poll(&entry, 1, timeout_ms) == 1;
}

// bind() or connect().
template <typename Call, typename Address>
bool use(Call call, int fd, const Address &address) {
  return call(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
}

sockaddr_un local(const std::string &path) {
  sockaddr_un address = {AF_UNIX, {}};
  path.copy(address.sun_path, sizeof address.sun_path - 1);
  return address;
}

}  // namespace

Frame frame_of(const ORP_MSG_HEADER_ST *message) {
  return {.type = message->ulMsgType,
          .to = std::string(msgapi::field_text(message->aucRecvApp)),
          .body = {reinterpret_cast<const char *>(message + 1), message->ulDataLen},
          .data = message->ulMsgData,
          .sequence = message->ulSeqNum,
          .from = std::string(msgapi::field_text(message->aucSendApp))};
}

std::ostream &operator<<(std::ostream &out, const Frame &frame) {
  return out << std::hex << "type 0x" << frame.type << " from [" << frame.from << "] to ["
             << frame.to << "] data 0x" << frame.data << " number " << std::dec << frame.sequence
             << " body " << testing::PrintToString(frame.body);
}

MessageBlock make_block(const Frame &frame) {
  const std::string bytes = frame.bytes();
  MessageBlock block(static_cast<ORP_MSG_HEADER_ST *>(std::malloc(bytes.size())));
  std::memcpy(block.get(), bytes.data(), bytes.size());
  return block;
}

std::string padded(std::string name, size_t size) {
  name.resize(size, '\0');
  return name;
}

bool MessagePeer::send_bytes(std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t count = ::send(fd(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (count < 0) return false;
    bytes.remove_prefix(static_cast<size_t>(count));
  }
  return true;
}

std::optional<Frame> MessagePeer::receive(int timeout_ms) {
  if (!readable(fd(), timeout_ms)) return std::nullopt;
  std::string bytes(ORP_MSG_HEADER_SIZE, '\0');
  const ssize_t count = ::read(fd(), bytes.data(), bytes.size());
  if (count <= 0) return std::nullopt;
  EXPECT_EQ(ssize_t{ORP_MSG_HEADER_SIZE}, count) << "a reader would lose its step here";
  if (count != ORP_MSG_HEADER_SIZE) return std::nullopt;

  auto *header = reinterpret_cast<ORP_MSG_HEADER_ST *>(bytes.data());
  if (swapped_) swap_words(header);
  const size_t size = ORP_MSG_HEADER_SIZE + header->ulDataLen;
  bytes += receive_bytes(header->ulDataLen, timeout_ms);
  if (bytes.size() != size) return std::nullopt;
  return frame_of(reinterpret_cast<const ORP_MSG_HEADER_ST *>(bytes.data()));
}

Frame MessagePeer::read() {
  std::optional<Frame> frame = receive();
  EXPECT_TRUE(frame) << "no message came";
  return frame.value_or(Frame());
}

void MessagePeer::expect(const Frame &expected, const char *file, int line) {
  Frame frame = read();
  if (expected.from.empty()) frame.from.clear();
  if (expected.sequence == 0) frame.sequence = 0;
  EXPECT_EQ(expected, frame) << file << ":" << line;
}

std::string MessagePeer::receive_bytes(size_t count, int timeout_ms) {
  std::string bytes(count, '\0');
  size_t done = 0;
  while (done < count && readable(fd(), timeout_ms)) {
    const ssize_t got = ::read(fd(), bytes.data() + done, count - done);
    if (got <= 0) break;
    done += static_cast<size_t>(got);
  }
  bytes.resize(done);
  return bytes;
}

bool MessagePeer::quiet() {
  char byte;
  return ::recv(fd(), &byte, 1, MSG_DONTWAIT | MSG_PEEK) < 0 && errno == EAGAIN;
}

bool MessagePeer::closed() {
  char dropped[4096];
  while (readable(fd())) {
    if (::read(fd(), dropped, sizeof dropped) <= 0) return true;
  }
  return false;
}

void MessagePeer::answer(const Frame &request, uint32_t data, const std::string &body) {
  send({request.type, request.from, body, data, request.sequence, request.to});
}

Frame MessagePeer::accept_registration(const std::string &name, bool swap, uint32_t keep_alive,
                                       uint32_t period_s) {
  const Frame request = read();
  EXPECT_EQ(ORP_MSG_REGISTER, request.type);
  const uint32_t words[] = {keep_alive, period_s};
  const std::string body(reinterpret_cast<const char *>(words), sizeof words);
  send({ORP_MSG_REGISTER, name, body, swap ? 1u : 0u, request.sequence});
  swapped_ = swap;
  return request;
}

bool send_with_descriptors(int fd, std::string bytes, size_t count) {
  const msgapi::os::UniqueFd zero(::open("/dev/zero", O_RDONLY | O_CLOEXEC));
  const std::vector<int> fds(count, zero.get());
  return send_with_descriptors(fd, std::move(bytes), fds);
}

RawClient::RawClient(const std::string &name, Register how, const std::string &socket_path)
    : MessagePeer(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0), false, name) {
  EXPECT_TRUE(use(::connect, fd(), local(socket_path)));
  if (how == Register::kYes) {
    EXPECT_TRUE(enter());
  }
}

RawClient::RawClient(const std::string &name, uint16_t port)
    : MessagePeer(connect_to(port), false, name) {
  EXPECT_TRUE(enter());
}

std::optional<Frame> RawClient::enter() {
  send({.type = ORP_MSG_REGISTER, .sequence = 1});
  std::optional<Frame> reply = receive();
  if (reply) swapped_ = reply->data != 0;
  return reply;
}

Frame RawClient::ask(const Frame &request) {
  send(request);
  Frame frame;
  do {
    frame = read();
  } while (frame.type != request.type && frame.type != 0);
  return frame;
}

std::vector<Frame> RawClient::drain() {
  constexpr uint32_t kMark = 0xdeadbeef;
  send({.type = ORP_MSG_COUNT_PROCESSES, .sequence = kMark});
  std::vector<Frame> frames;
  for (Frame frame = read(); frame.sequence != kMark && frame.type != 0; frame = read()) {
    frames.push_back(std::move(frame));
  }
  return frames;
}

Connection::Connection(std::string_view name, bool swap) : peer(-1) {
  int ends[2];
  EXPECT_EQ(0, ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends));
  g_stMsgCtx.slSocket = ends[0];
  if (swap) g_stMsgCtx.ulFlags |= ORP_MSG_CTX_SWAP;
  msgapi::msg::set_own_name(name);
  peer = MessagePeer(ends[1], swap);
}

Connection::~Connection() {
  if (g_stMsgCtx.slSocket >= 0) ::close(g_stMsgCtx.slSocket);
  g_stMsgCtx.slSocket = -1;
  g_stMsgCtx.ulFlags = 0;
  msgapi::msg::set_own_name({});
}

FakeServer::FakeServer(std::function<void(MessagePeer &)> script, uint16_t tcp_port)
    : listener_(::socket(tcp_port == 0 ? AF_UNIX : AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  const int on = 1;
  ::setsockopt(listener_.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  EXPECT_TRUE(tcp_port == 0 ? use(::bind, listener_.get(), local(ORP_MSG_SERVER_PATH))
                            : use(::bind, listener_.get(), loopback(tcp_port)));
  EXPECT_EQ(0, ::listen(listener_.get(), 4));

  thread_ = std::thread([this, script = std::move(script)] {
    if (!readable(listener_.get())) return;
    MessagePeer peer(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
    script(peer);
  });
}

FakeServer::~FakeServer() {
  thread_.join();
  ::unlink(ORP_MSG_SERVER_PATH);
}

}  // namespace test
