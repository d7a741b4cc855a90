// A message server for a test, and helpers for tests with several raw clients.
#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "servers/services.h"
#include "support/message_peer.h"

namespace test {

// The position of the receiver's name in a message on the wire.
constexpr size_t kReceiverField = offsetof(ORP_MSG_HEADER_ST, aucRecvApp);

class MessageServer : public Services {
 protected:
  MessageServer() = default;
  explicit MessageServer(const std::vector<std::string> &arguments) { start(arguments); }

  void start(const std::vector<std::string> &arguments = {}) {
    Services::start(arguments);
    idle_descriptors_ = open_descriptors();
  }

  ptrdiff_t open_descriptors() const {
    const std::string path = "/proc/" + std::to_string(server_->pid()) + "/fd";
    return std::distance(std::filesystem::directory_iterator(path), {});
  }

  // Connections that have just been closed may still be there for a moment.
  void expect_no_descriptors_but_of(ptrdiff_t clients) const {
    for (int i = 0; i < kPatience_ms && open_descriptors() != idle_descriptors_ + clients; ++i) {
      ::usleep(1000);
    }
    EXPECT_EQ(idle_descriptors_ + clients, open_descriptors());
  }

  // The server's memory in bytes.
  size_t memory() const {
    std::ifstream file("/proc/" + std::to_string(server_->pid()) + "/statm");
    size_t pages = 0;
    file >> pages >> pages;
    return pages * static_cast<size_t>(::sysconf(_SC_PAGESIZE));
  }

  // Waits until the server has dealt with everything that other clients did before, the end of
  // their connections included, which a client that was just served may overtake.
  static void settle() { RawClient("settle").drain(); }

  static void subscribe(RawClient *client, uint32_t type = ORP_MSG_EVENT_WLAN) {
    client->send({.type = ORP_MSG_SUBSCRIBE, .data = type});
    client->drain();
  }

  template <typename Procedure>
  static pid_t in_child(Procedure procedure) {
    const pid_t child = ::fork();
    if (child == 0) ::_exit(procedure() ? 0 : 1);
    return child;
  }

  static void expect_success(pid_t child) {
    int status = -1;
    EXPECT_EQ(child, ::waitpid(child, &status, 0));
    EXPECT_EQ(0, status);
  }

  static void expect_undeliverable(RawClient *client, uint32_t type, uint32_t sequence) {
    const Frame notice = client->read();
    EXPECT_EQ(ORP_MSG_UNDELIVERABLE, notice.type);
    EXPECT_EQ(type, notice.data);
    EXPECT_EQ(sequence, notice.sequence);
  }

  static void expect_delivery(RawClient *from, RawClient *to) {
    static uint32_t sequence = 7000;
    ASSERT_TRUE(
        from->send({.type = kType, .to = to->name(), .body = "ok", .sequence = ++sequence}));
    const Frame got = to->read();
    EXPECT_EQ(sequence, got.sequence);
    EXPECT_EQ("ok", got.body);
  }

  ptrdiff_t idle_descriptors_ = 0;
};

}  // namespace test
