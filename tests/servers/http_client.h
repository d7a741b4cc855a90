// A connection to an HTTP server of a test, byte by byte.
#pragma once

#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <string>
#include <string_view>

#include "os/fd.h"
#include "support/network.h"

namespace test {

class HttpClient {
 public:
  // From the address `own` to the server's port at the loopback address of the same family. If
  // nobody listens there, nothing can be sent.
  explicit HttpClient(const std::string &own = "127.0.0.1") : fd_(connect_to(8080, own)) {}

  bool send(std::string_view bytes) const {
    return ::send(fd_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL) ==
           static_cast<ssize_t>(bytes.size());
  }

  // What has come so far, and whether that was all.
  const std::string &got() {
    char buffer[4096];
    ssize_t count;
    while ((count = ::recv(fd_.get(), buffer, sizeof buffer, MSG_DONTWAIT)) > 0) {
      got_.append(buffer, static_cast<size_t>(count));
    }
    ended_ = ended_ || count == 0 || errno != EAGAIN;
    return got_;
  }
  bool ended() {
    got();
    return ended_;
  }

  // Everything until the end, or within ten seconds.
  const std::string &read() {
    const auto last = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!ended() && std::chrono::steady_clock::now() < last) {
      pollfd entry{.fd = fd_.get(), .events = POLLIN, .revents = 0};
      ::poll(&entry, 1, 100);
    }
    return got_;
  }

 private:
  msgapi::os::UniqueFd fd_;
  std::string got_;
  bool ended_ = false;
};

}  // namespace test
