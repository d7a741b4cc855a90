// A log server socket that a test reads and answers by hand.
#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <cstring>
#include <string>

#include "msgapi/log.h"
#include "os/fd.h"

namespace test {

inline sockaddr_un unix_address(const std::string &path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.data(), std::min(path.size(), sizeof address.sun_path));
  return address;
}

// The bytes of a message with this head.
inline std::string message_bytes(uint32_t type, uint32_t length, const std::string &payload = "") {
  const uint32_t head[] = {type, length};
  return std::string(reinterpret_cast<const char *>(head), sizeof head) + payload;
}

class FakeLogServer {
 public:
  FakeLogServer() : fd_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    ::mkdir(MLOG_IPC_PATH, 0770);
    const sockaddr_un address = unix_address(MLOG_IPC_PATH MLOG_SERVER_NAME);
    EXPECT_EQ(0, ::bind(fd_.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address));
  }

  // The next datagram; empty when there is none. With `wait` it waits for one.
  std::string receive(bool wait = false) {
    char bytes[2048];
    sockaddr_un peer{};
    socklen_t size = sizeof peer;
    const ssize_t got = ::recvfrom(fd_.get(), bytes, sizeof bytes, wait ? 0 : MSG_DONTWAIT,
                                   reinterpret_cast<sockaddr *>(&peer), &size);
    peer_ = peer;
    return got < 0 ? "" : std::string(bytes, static_cast<size_t>(got));
  }

  // The text in the next log line's payload.
  std::string line() {
    const std::string datagram = receive();
    if (datagram.size() < MLOG_HEAD_SIZE + 1) return "";
    const std::string text = datagram.substr(MLOG_HEAD_SIZE).c_str();
    const auto length = static_cast<uint32_t>(text.size() + 1);
    EXPECT_EQ(message_bytes(MLOG_TYPE_LOG, length, text + '\0'), datagram);
    return text;
  }

  // The same without what the log client puts before the text that it was given.
  std::string text() {
    const std::string whole = line();
    return whole.empty() ? "" : whole.substr(whole.find("]:") + 2);
  }

  std::string peer_path() const { return peer_.sun_path; }

  // Answers the client that sent the last datagram.
  void reply(const std::string &bytes) {
    ::sendto(fd_.get(), bytes.data(), bytes.size(), 0, reinterpret_cast<const sockaddr *>(&peer_),
             sizeof peer_);
  }

 private:
  msgapi::os::UniqueFd fd_;
  sockaddr_un peer_{};
};

// Sends to the server through `fd` until its queue is full.
inline void fill_queue(int fd) {
  const sockaddr_un address = unix_address(MLOG_IPC_PATH MLOG_SERVER_NAME);
  const std::string bytes = message_bytes(MLOG_TYPE_LOG, 0);
  while (::sendto(fd, bytes.data(), bytes.size(), MSG_DONTWAIT,
                  reinterpret_cast<const sockaddr *>(&address), sizeof address) >= 0) {
  }
  ASSERT_EQ(EAGAIN, errno);
}

}  // namespace test
