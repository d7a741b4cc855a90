#include "stream.h"

#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <new>
#include <span>
#include <stdexcept>
#include <utility>

namespace dns_relay {
namespace {

constexpr size_t kLengthSize = 2;
// Replies of some queries that the other side has not read yet.
constexpr size_t kMaxOutput = 262144;

bool try_later(int error) {
  return error == EAGAIN || error == EINTR || error == EINPROGRESS || error == ENOTCONN;
}

}  // namespace

Stream::Stream(int fd, uint32_t idle_ms, Owner *owner)
    : watcher_(static_cast<OrpUvIo *>(std::malloc(sizeof(OrpUvIo)))),
      idle_ms_(idle_ms),
      owner_(owner) {
  const auto callback = [](OrpUvIo *watcher, uint32_t event) {
    auto *const stream = reinterpret_cast<Stream *>(watcher->head.data);
    if (stream != nullptr) stream->ready(event);
  };
  if (watcher_ == nullptr || OrpUvIoInit(nullptr, watcher_, fd, callback) != ORP_OK) {
    std::free(watcher_);
    ::close(fd);
    throw std::runtime_error("cannot watch a connection");
  }
  watcher_->head.data = reinterpret_cast<ORP_WORD>(this);
  OrpUvIoStart(watcher_, ORP_UV_READABLE);
  restart_timer();
}

Stream::~Stream() {
  if (destroyed_ != nullptr) *destroyed_ = true;
  OrpUtilTimerDel(timer_);
  watcher_->head.data = 0;
  OrpUvIoDelete(watcher_);
}

void Stream::send(const Packet &message) {
  const std::span<const uint8_t> bytes = message_of(message);
  if (bytes.size() > UINT16_MAX) return;
  output_.push_back(static_cast<uint8_t>(bytes.size() >> 8));
  output_.push_back(static_cast<uint8_t>(bytes.size() & 0xFF));
  output_.insert(output_.end(), bytes.begin(), bytes.end());
  // From the loop, so that whoever sends is not told of an end meanwhile.
  OrpUvIoStart(watcher_, ORP_UV_WRITABLE);
}

void Stream::ready(uint32_t event) {
  bool destroyed = false;
  destroyed_ = &destroyed;
  if ((event & ORP_UV_WRITABLE) != 0) {
    flush();
  } else {
    read();
  }
  if (!destroyed) destroyed_ = nullptr;
}

void Stream::read() {
  std::array<uint8_t, 4096> bytes;
  const ssize_t count = ::recv(watcher_->fd, bytes.data(), bytes.size(), 0);
  if (count < 0 && try_later(errno)) return;
  if (count <= 0) {
    owner_->ended(this);
    return;
  }

  input_.insert(input_.end(), bytes.begin(), bytes.begin() + count);
  bool *const destroyed = destroyed_;
  while (input_.size() >= kLengthSize) {
    const size_t size = kLengthSize + (size_t{input_[0]} << 8 | input_[1]);
    if (input_.size() < size) break;
    Packet message = make_packet(std::span(input_).subspan(kLengthSize, size - kLengthSize));
    input_.erase(input_.begin(), input_.begin() + static_cast<ptrdiff_t>(size));
    restart_timer();
    owner_->received(this, std::move(message));
    if (*destroyed) return;
  }
  if (output_.size() > kMaxOutput) owner_->ended(this);
}

void Stream::flush() {
  const ssize_t count = ::send(watcher_->fd, output_.data(), output_.size(), MSG_NOSIGNAL);
  if (count < 0) {
    if (!try_later(errno)) owner_->ended(this);
    return;
  }
  output_.erase(output_.begin(), output_.begin() + count);
  if (output_.empty()) OrpUvIoStop(watcher_, ORP_UV_WRITABLE);
}

void Stream::restart_timer() {
  OrpUtilTimerDel(timer_);
  timer_ = ORP_TIMER_AddWithName(
      idle_ms_, 1,
      [](ORP_WORD data) {
        auto *const stream = reinterpret_cast<Stream *>(data);
        stream->timer_ = nullptr;
        stream->owner_->ended(stream);
      },
      "dns_relay", reinterpret_cast<ORP_WORD>(this));
  if (timer_ == nullptr) throw std::bad_alloc();
}

}  // namespace dns_relay
