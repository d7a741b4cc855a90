// A log server for a test, a client that sends any messages, and a disk that fills up.
#pragma once

#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include "msgapi/log.h"
#include "msgapi/ringlog.h"
#include "support/file.h"
#include "support/process.h"

namespace test {

// The log data of a module whose ring has not turned yet.
inline std::string log_of(const std::string &module,
                          const std::string &directory = "/var/mlogfile") {
  const std::string content = contents(directory + "/" + module + ".log");
  return content.substr(std::min<size_t>(content.size(), MLOG_FILE_HEADER_SIZE));
}

// Arguments for a server with this configuration.
inline std::vector<std::string> with_config(const std::string &text) {
  std::ofstream("/var/mlogserver.conf", std::ios::trunc) << text;
  return {"--config", "/var/mlogserver.conf"};
}

struct LogServer : Process {
  explicit LogServer(const std::vector<std::string> &arguments = {})
      : Process("mlogserver", arguments) {
    EXPECT_TRUE(wait_for("ready"));
  }
};

// Sends any messages.
class Sender {
 public:
  Sender() { EXPECT_EQ(0, MlogSocketOpen("sender", &fd_)); }
  Sender(const Sender &) = delete;
  Sender &operator=(const Sender &) = delete;
  ~Sender() { MlogSocketClose(fd_, "sender"); }

  void send(uint32_t type, const std::string &payload) {
    MlogMsg message{.type = type, .length = static_cast<uint32_t>(payload.size()), .payload = {}};
    std::memcpy(message.payload, payload.data(), payload.size());
    EXPECT_EQ(0, MlogSendMsg(fd_, &message, MLOG_SERVER_NAME));
  }

  // The length field of the next answer; none when there is no answer yet.
  std::optional<uint32_t> answer() {
    MlogMsg message;
    if (::recv(fd_, &message, sizeof message, MSG_DONTWAIT) < 0) return std::nullopt;
    return message.length;
  }

  // Waits until the server has taken everything out of its socket's queue.
  void wait_until_taken() {
    constexpr unsigned long kQueuedBytes = TIOCOUTQ;
    int queued = 0;
    while (::ioctl(fd_, kQueuedBytes, &queued) == 0 && queued > 0) {
    }
  }

 private:
  int32_t fd_ = -1;
};

// A small disk, and a file that fills it.
class SmallDisk {
 public:
  SmallDisk() {
    EXPECT_EQ(0, ::mkdir("/mnt/disk", 0755));
    EXPECT_EQ(0, ::mount("small", "/mnt/disk", "tmpfs", 0, "size=256k")) << std::strerror(errno);
  }
  void fill() { std::ofstream("/mnt/disk/ballast") << std::string(512 * 1024, 'x'); }
  void make_room() { std::filesystem::remove("/mnt/disk/ballast"); }
};

}  // namespace test
