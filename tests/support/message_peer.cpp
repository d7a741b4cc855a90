#include "support/message_peer.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>

#include "base/text.h"
#include "msg/context.h"
#include "os/wait.h"

namespace test {
namespace {

constexpr uint32_t kPatience_ms = 10000;

bool readable(int fd) {
  return msgapi::os::wait_readable(fd, kPatience_ms) == msgapi::os::Readiness::kReady;
}

}  // namespace

std::string Frame::from() const {
  return std::string(msgapi::field_text(header.aucSendApp));
}

std::string Frame::to() const {
  return std::string(msgapi::field_text(header.aucRecvApp));
}

std::string Frame::bytes(bool swap) const {
  ORP_MSG_HEADER_ST sent = header;
  if (swap) ORP_MSG_HeadEndianSwap(&sent);
  return std::string(reinterpret_cast<const char *>(&sent), sizeof sent) + body;
}

Frame make_frame(const FrameFields &fields) {
  Frame frame;
  frame.header.ulMsgType = fields.type;
  frame.header.ulSeqNum = fields.seq;
  msgapi::copy_cut(frame.header.aucSendApp, fields.from);
  msgapi::copy_cut(frame.header.aucRecvApp, fields.to);
  frame.header.ulMsgData = fields.data;
  frame.header.ulDataLen = static_cast<uint32_t>(fields.body.size());
  frame.body = fields.body;
  return frame;
}

std::string MessagePeer::read_bytes(size_t size) {
  std::string bytes(size, '\0');
  for (size_t done = 0; done < size;) {
    const ssize_t count = readable(fd()) ? ::read(fd(), bytes.data() + done, size - done) : -1;
    if (count <= 0) {
      ADD_FAILURE() << "only " << done << " of " << size << " bytes came";
      return bytes.substr(0, done);
    }
    done += static_cast<size_t>(count);
  }
  return bytes;
}

Frame MessagePeer::read() {
  Frame frame;
  const std::string head = read_bytes(sizeof frame.header);
  if (head.size() < sizeof frame.header) return {};
  std::memcpy(&frame.header, head.data(), sizeof frame.header);
  if (swap_) ORP_MSG_HeadEndianSwap(&frame.header);
  frame.body = read_bytes(frame.header.ulDataLen);
  return frame;
}

bool MessagePeer::quiet() {
  char byte;
  return ::recv(fd(), &byte, 1, MSG_DONTWAIT | MSG_PEEK) < 0 && errno == EAGAIN;
}

bool MessagePeer::closed() {
  char byte;
  return readable(fd()) && ::recv(fd(), &byte, 1, MSG_PEEK) <= 0;
}

void MessagePeer::write_bytes(std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t written = ::send(fd(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (written < 0) return;  // the other end may be gone: what it then sees is the test's matter
    bytes.remove_prefix(static_cast<size_t>(written));
  }
}

void MessagePeer::answer(const Frame &request, uint32_t data, const std::string &body) {
  write(make_frame({.type = request.type(),
                    .from = request.to(),
                    .to = request.from(),
                    .data = data,
                    .seq = request.header.ulSeqNum,
                    .body = body}));
}

Frame MessagePeer::accept_registration(std::string_view name, bool swap, uint32_t keep_alive,
                                       uint32_t period_s) {
  const Frame request = read();
  EXPECT_EQ(ORP_MSG_REGISTER, request.type());
  const uint32_t words[] = {keep_alive, period_s};
  write(make_frame({.type = ORP_MSG_REGISTER,
                    .to = name,
                    .data = swap ? 1u : 0u,
                    .seq = request.header.ulSeqNum,
                    .body = {reinterpret_cast<const char *>(words), sizeof words}}));
  swap_ = swap;
  return request;
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

FakeServer::FakeServer(std::function<void(MessagePeer &)> script, uint16_t *tcp_port)
    : listener_(::socket(tcp_port == nullptr ? AF_UNIX : AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  if (tcp_port == nullptr) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    msgapi::copy_cut(address.sun_path, ORP_MSG_SERVER_PATH);
    EXPECT_EQ(0, ::bind(listener_.get(), reinterpret_cast<sockaddr *>(&address), sizeof address));
  }
  EXPECT_EQ(0, ::listen(listener_.get(), 4));  // which also gives a TCP socket its port
  if (tcp_port != nullptr) {
    sockaddr_in address = {};
    socklen_t size = sizeof address;
    ::getsockname(listener_.get(), reinterpret_cast<sockaddr *>(&address), &size);
    *tcp_port = ntohs(address.sin_port);
  }

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
