// A notify server that does what the test says, one step at a time and on the test's own thread:
// sockets hold what either side has sent until the other reads it.
#pragma once

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
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

class FakeNotifyServer {
 public:
  FakeNotifyServer() : listener_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, "/var/run/notify/notifyserver");
    EXPECT_EQ(
        0, ::bind(listener_.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address));
    EXPECT_EQ(0, ::listen(listener_.get(), 10));
  }

  // Takes the connection that waits; the former one is closed.
  void accept() { connection_.reset(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC)); }
  bool somebody_connects() const { return has_data(listener_.get()); }

  // The next whole message; an empty type 0xFFFFFFFF when the client has ended the stream.
  NotifyMessage receive() {
    NotifyMessage message;
    if (!read_all(reinterpret_cast<char *>(&message.head), sizeof message.head)) {
      message.head.msg_type = UINT32_MAX;
      return message;
    }
    message.data.resize(message.head.data_len);
    EXPECT_TRUE(read_all(message.data.data(), message.data.size()));
    return message;
  }
  bool has_received() const { return has_data(connection_.get()); }

  void send(const NotifyMessage &message) { send_bytes(message.bytes()); }
  void send_bytes(const std::string &bytes) {
    EXPECT_EQ(static_cast<ssize_t>(bytes.size()),
              ::send(connection_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL));
  }

  void close() { connection_.reset(); }
  int fd() const { return connection_.get(); }

 private:
  static bool has_data(int fd) {
    pollfd entry{fd, POLLIN, 0};
    return ::poll(&entry, 1, 0) == 1;
  }

  bool read_all(char *out, size_t size) {
    return size == 0 ||
           ::recv(connection_.get(), out, size, MSG_WAITALL) == static_cast<ssize_t>(size);
  }

  msgapi::os::UniqueFd listener_;
  msgapi::os::UniqueFd connection_;
};

}  // namespace test
