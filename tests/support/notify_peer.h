// The far end of a notify connection, played by the test on its own thread: the sockets hold what
// either side has sent until the other one reads it.
#pragma once

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <string>

#include "msgapi/notify.h"
#include "os/fd.h"

namespace test {

struct NotifyMessage {
  NOTIFY_MSG head{};
  std::string data;

  std::string bytes() const {
    NOTIFY_MSG complete = head;
    complete.data_len = static_cast<uint32_t>(data.size());
    return std::string(reinterpret_cast<const char *>(&complete), sizeof complete) + data;
  }
};

inline msgapi::os::UniqueFd notify_socket(decltype(::connect) bind_or_connect) {
  msgapi::os::UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const sockaddr_un address{.sun_family = AF_UNIX, .sun_path = "/var/run/notify/notifyserver"};
  EXPECT_EQ(
      0, bind_or_connect(fd.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address));
  return fd;
}

class NotifyPeer {
 public:
  // A client of the notify server, unless it is told otherwise.
  explicit NotifyPeer(msgapi::os::UniqueFd fd = notify_socket(::connect)) : fd_(std::move(fd)) {}

  // The next whole message; an empty type 0xFFFFFFFF when the other side has ended the stream.
  NotifyMessage receive() {
    NotifyMessage message;
    if (!read_all(&message.head, sizeof message.head)) {
      message.head = {};
      message.head.msg_type = UINT32_MAX;
    }
    message.data.resize(message.head.data_len);
    EXPECT_TRUE(read_all(message.data.data(), message.data.size()));
    return message;
  }
  bool has_received() const { return has_data(fd_.get()); }
  void wait_for_data() const { EXPECT_TRUE(has_data(fd_.get(), kPatience)); }

  void send(const NotifyMessage &message) { send(message.bytes()); }
  void send(const std::string &bytes) {
    EXPECT_EQ(static_cast<ssize_t>(bytes.size()),
              ::send(fd_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL));
  }
  void stop_sending() { ::shutdown(fd_.get(), SHUT_WR); }
  void stop_receiving() { ::shutdown(fd_.get(), SHUT_RD); }
  void close() { fd_.reset(); }

 protected:
  static constexpr int kPatience = 10000;  // ms

  static bool has_data(int fd, int wait_ms = 0) {
    pollfd entry{fd, POLLIN, 0};
    return ::poll(&entry, 1, wait_ms) == 1;
  }

  msgapi::os::UniqueFd fd_;

 private:
  bool read_all(void *out, size_t size) {
    return size == 0 || ::recv(fd_.get(), out, size, MSG_WAITALL) == static_cast<ssize_t>(size);
  }
};

// A notify server that does what the test says, one step at a time.
class FakeNotifyServer : public NotifyPeer {
 public:
  FakeNotifyServer() : NotifyPeer(msgapi::os::UniqueFd()), listener_(notify_socket(::bind)) {
    EXPECT_EQ(0, ::listen(listener_.get(), 10));
  }

  // Accepts the connection that waits and closes the former one.
  void accept() { fd_.reset(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC)); }
  bool somebody_connects() const { return has_data(listener_.get()); }

 private:
  msgapi::os::UniqueFd listener_;
};

}  // namespace test
