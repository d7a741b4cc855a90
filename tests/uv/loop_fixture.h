// What the tests of the loop share: private loops, connected sockets and a record of calls.
#pragma once

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "msgapi/loop.h"

namespace msgapi {

// A new record of a watcher, to be owned by its loop.
template <typename T>
T *new_record() {
  return static_cast<T *>(std::calloc(1, sizeof(T)));
}

// A loop of the test's own. At the end it is destroyed, and so is the default loop. Static objects
// need no reset, because every case is a process of its own.
class LoopTest : public testing::Test {
 public:
  static void recorded(const std::string &call) {
    calls.push_back(call);
    if (on_recorded) on_recorded();
  }

 protected:
  LoopTest() { OrpUvLoopInit(&loop_); }
  ~LoopTest() override {
    ORP_UV_LoopDestroy(&loop_);
    ORP_UV_LoopDestroy(OrpUvLoopGetDefault());
    for (const int fd : sockets_) ::close(fd);
  }

  // Runs until nothing has happened for `idle_ms`.
  uint32_t run(uint32_t idle_ms = 1) { return ORP_UV_LoopRun(&loop_, idle_ms); }

  // One iteration that ends at a safe point, when no descriptor is ready.
  static void turn(OrpUvLoop *loop) {
    auto *io = new_record<OrpUvIo>();
    OrpUvIoInit(loop, io, -1, [](OrpUvIo *self, uint32_t) {
      OrpUvLoopStop(self->head.loop);
      OrpUvIoDelete(self);
    });
    OrpUvIoForcedLoop(io, ORP_UV_READABLE);
    EXPECT_EQ(ORP_OK, ORP_UV_LoopRun(loop, 0));
  }

  // Makes a socket pair. The returned end belongs to the caller, the other one is `peer_`.
  int socket(int type = SOCK_STREAM) {
    int pair[2];
    EXPECT_EQ(0, ::socketpair(AF_UNIX, type | SOCK_CLOEXEC, 0, pair));
    sockets_.push_back(pair[1]);
    peer_ = pair[1];
    return pair[0];
  }
  int readable_socket() {
    const int fd = socket();
    EXPECT_EQ(1, ::write(peer_, "x", 1));
    return fd;
  }

  // A descriptor with an exceptional condition: the mounts have changed (proc_pid_mounts(5)).
  static int changed_mounts() {
    const int fd = ::open("/proc/self/mounts", O_RDONLY | O_CLOEXEC);
    EXPECT_EQ(0, ::mount("none", "/mnt", "tmpfs", 0, nullptr));
    return fd;
  }

  // A started I/O watcher of the loop that records its calls.
  OrpUvIo *watch(int fd, uint32_t events, uint32_t name = 0) {
    auto *io = new_record<OrpUvIo>();
    EXPECT_EQ(ORP_OK, OrpUvIoInit(&loop_, io, fd, record_event));
    EXPECT_EQ(ORP_OK, OrpUvIoStart(io, events));
    io->head.data = name;
    return io;
  }

  // Records "<name>:<event>", then calls on_call.
  static void record_event(OrpUvIo *io, uint32_t event) {
    calls.push_back(std::to_string(io->head.data) + ":" + std::to_string(event));
    if (on_call) on_call(io);
  }

  OrpUvLoop loop_;
  int peer_ = -1;
  std::vector<int> sockets_;
  static inline std::vector<std::string> calls;
  static inline std::function<void(OrpUvIo *)> on_call;
  static inline std::function<void()> on_recorded;
};

}  // namespace msgapi
