#include "common/confine.h"

#include <gmock/gmock.h>
#include <sys/mount.h>
#include <sys/ptrace.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <thread>

#include "servers/services.h"
#include "support/file.h"
#include "support/message_peer.h"
#include "support/network.h"

namespace {

using servers::Programs;
using testing::HasSubstr;

// The exit status of a child that is confined and then calls `what`.
template <typename Do>
int status_of(Programs programs, Do what) {
  const pid_t child = ::fork();
  if (child == 0) {
    servers::confine(programs);
    ::_exit(what());
  }
  int status = 0;
  ::waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

bool has_filter() {
  return status_of(Programs::kNone,
                   [] { return ::umount("/nowhere") != 0 && errno == EPERM ? 1 : 0; }) == 1;
}

int execute() {
  ::execl("/bin/true", "true", nullptr);
  return errno;
}

TEST(Confine, RefusesWhatNoServerNeeds) {
#ifdef __i386__
  GTEST_SKIP() << "socketcall(2) hides from a filter which kind of socket it is asked for";
#endif
  if (!has_filter()) GTEST_SKIP() << "this build or kernel has no filters of system calls";
  EXPECT_EQ(EPERM, status_of(Programs::kNone, execute));
  EXPECT_EQ(0, status_of(Programs::kStarted, execute));
  const auto error_of = [](Programs programs, auto call) {
    return status_of(programs, [call] { return call() >= 0 ? 0 : errno; });
  };
  for (const Programs each : {Programs::kNone, Programs::kStarted}) {
    EXPECT_EQ(EPERM, error_of(each, [] { return ::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr); }));
    EXPECT_EQ(EPERM, error_of(each, [] { return ::mount("none", "/mnt", "tmpfs", 0, nullptr); }));
    EXPECT_EQ(EPERM, error_of(each, [] { return ::chroot("/"); }));
  }
  EXPECT_EQ(EPERM, error_of(Programs::kNone, [] { return ::socket(AF_PACKET, SOCK_RAW, 0); }));
  EXPECT_EQ(0, status_of(Programs::kNone, [] {
              int result = 1;
              std::thread([&] { result = ::socket(AF_UNIX, SOCK_STREAM, 0) < 0 ? 1 : 0; }).join();
              return result;
            }));
}

using ConfinedServer = test::Services;

TEST_F(ConfinedServer, ServesAsEver) {
#ifdef __i386__
  GTEST_SKIP() << "socketcall(2) hides from a filter which kind of socket it is asked for";
#endif
  start({"--seccomp", "--http", "8080", "--tcp", "127.0.0.1:5050"});
  const std::string status = test::contents("/proc/" + std::to_string(server_->pid()) + "/status");
  EXPECT_THAT(status, HasSubstr("NoNewPrivs:\t1"));
  if (has_filter()) {
    EXPECT_THAT(status, HasSubstr("Seccomp:\t2"));
  }

  test::RawClient a("a");
  test::RawClient board("board", 5050);
  a.send({.type = 0x1234, .to = "board", .body = std::string(100000, 'x')});
  EXPECT_EQ(100000u, board.read().body.size());
  EXPECT_EQ(ORP_MSG_SAVE_CFG_SYNC, a.ask({.type = ORP_MSG_SAVE_CFG_SYNC}).type);
  EXPECT_GE(test::connect_to(8080), 0);
#ifndef __SANITIZE_ADDRESS__  // looks for leaks at the end by ptrace(), which is refused
  EXPECT_EQ(0, server_->stop(SIGTERM));
#endif
}

}  // namespace
