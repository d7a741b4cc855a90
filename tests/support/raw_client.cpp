#include "support/raw_client.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <utility>

#include "support/network.h"

namespace test {
namespace {

using Clock = std::chrono::steady_clock;

bool ready(int fd, short events, int timeout_ms) {
  pollfd entry{.fd = fd, .events = events, .revents = 0};
  return ::poll(&entry, 1, timeout_ms) == 1;
}

void swap_words(ORP_MSG_HEADER_ST *header) {
  for (uint32_t *word :
       {&header->ulMsgType, &header->ulSeqNum, &header->ulMsgData, &header->ulDataLen}) {
    *word = __builtin_bswap32(*word);
  }
}

}  // namespace

std::string RawFrame::bytes(const std::string &sender, bool swapped) const {
  ORP_MSG_HEADER_ST header{};
  header.ulMsgType = type;
  header.ulSeqNum = sequence;
  header.ulMsgData = data;
  header.ulDataLen = static_cast<uint32_t>(body.size());
  sender.copy(header.aucSendApp, sizeof header.aucSendApp - 1);
  to.copy(header.aucRecvApp, sizeof header.aucRecvApp - 1);
  if (swapped) swap_words(&header);
  return std::string(reinterpret_cast<const char *>(&header), sizeof header) + body;
}

RawClient::RawClient(const std::string &name, Register how, const std::string &socket_path)
    : name_(name), fd_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  socket_path.copy(address.sun_path, sizeof address.sun_path - 1);
  EXPECT_EQ(0, ::connect(fd_, reinterpret_cast<sockaddr *>(&address), sizeof address));
  if (how == Register::kYes) {
    EXPECT_TRUE(enter());
  }
}

RawClient::RawClient(const std::string &name, uint16_t port)
    : name_(name), fd_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
  const sockaddr_in address = loopback(port);
  EXPECT_EQ(0, ::connect(fd_, reinterpret_cast<const sockaddr *>(&address), sizeof address));
  EXPECT_TRUE(enter());
}

RawClient::RawClient(RawClient &&other) noexcept
    : name_(other.name_), fd_(std::exchange(other.fd_, -1)), swapped_(other.swapped_) {}

RawClient::~RawClient() {
  close();
}

void RawClient::close() {
  if (fd_ >= 0) ::close(std::exchange(fd_, -1));
}

std::optional<RawFrame> RawClient::enter() {
  send({.type = ORP_MSG_REGISTER, .sequence = 1});
  const std::optional<RawFrame> reply = receive();
  if (reply) swapped_ = reply->data != 0;
  return reply;
}

bool RawClient::send_bytes(std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t count = ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (count < 0) return false;
    bytes.remove_prefix(static_cast<size_t>(count));
  }
  return true;
}

std::optional<RawFrame> RawClient::receive(int timeout_ms) {
  if (!ready(fd_, POLLIN, timeout_ms)) return std::nullopt;
  ORP_MSG_HEADER_ST header;
  const ssize_t count = ::read(fd_, &header, sizeof header);
  if (count <= 0) return std::nullopt;
  EXPECT_EQ(sizeof header, static_cast<size_t>(count)) << "a reader would lose its step here";
  if (count != sizeof header) return std::nullopt;
  if (swapped_) swap_words(&header);
  RawFrame frame;
  frame.type = header.ulMsgType;
  frame.sequence = header.ulSeqNum;
  frame.from = header.aucSendApp;
  frame.to = header.aucRecvApp;
  frame.data = header.ulMsgData;
  frame.body = receive_bytes(header.ulDataLen, timeout_ms);
  if (frame.body.size() != header.ulDataLen) return std::nullopt;
  return frame;
}

std::string RawClient::receive_bytes(size_t count, int timeout_ms) {
  std::string bytes(count, '\0');
  size_t have = 0;
  while (have < count && ready(fd_, POLLIN, timeout_ms)) {
    const ssize_t got = ::read(fd_, bytes.data() + have, count - have);
    if (got <= 0) break;
    have += static_cast<size_t>(got);
  }
  bytes.resize(have);
  return bytes;
}

std::optional<RawFrame> RawClient::ask(const RawFrame &request, int timeout_ms) {
  send(request);
  for (;;) {
    std::optional<RawFrame> frame = receive(timeout_ms);
    if (!frame || frame->type == request.type) return frame;
  }
}

bool RawClient::closed(int timeout_ms) {
  const auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
  char dropped[4096];
  for (;;) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    if (!ready(fd_, POLLIN, static_cast<int>(std::max<int64_t>(left, 0)))) return false;
    if (::read(fd_, dropped, sizeof dropped) <= 0) return true;
  }
}

}  // namespace test
