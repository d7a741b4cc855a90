#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <string>
#include <vector>

#include "base/memory.h"
#include "msgapi/proc.h"
#include "support/fd_check.h"
#include "support/file.h"

namespace msgapi {
namespace {

// A process with the command line "NAME 1000 2000".
class Sleeper {
 public:
  explicit Sleeper(const std::string &name) : pid_(::fork()) {
    if (pid_ == 0) {
      ::execl("/bin/sleep", name.c_str(), "1000", "2000", nullptr);
      ::_exit(1);
    }
    const std::string path = "/proc/" + std::to_string(pid_) + "/cmdline";
    while (!test::contents(path).starts_with(name)) ::usleep(100);
  }
  Sleeper(const Sleeper &) = delete;
  Sleeper &operator=(const Sleeper &) = delete;
  ~Sleeper() {
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
  }

  uint32_t pid() const { return static_cast<uint32_t>(pid_); }

 private:
  pid_t pid_;
};

std::vector<uint32_t> find(const char *name) {
  const Owned<uint32_t> list(ORP_UTIL_FindPidByName(name));
  std::vector<uint32_t> pids;
  for (const uint32_t *pid = list.get(); pid != nullptr && *pid != 0; ++pid) {
    pids.push_back(*pid);
    if (*pid == 0xFFFFFFFF) break;
  }
  return pids;
}

TEST(FindPidByName, SearchesTheJoinedCommandLines) {
  const test::FdCheck check;
  const Sleeper first("a program"), second("another");
  const Sleeper cut(std::string(230, 'x') + "visible" + "hidden");

  EXPECT_EQ((std::vector{first.pid(), second.pid()}), find("10002000"));
  EXPECT_EQ(std::vector{second.pid()}, find("other10002000"));
  EXPECT_EQ(std::vector{cut.pid()}, find("xvisible"));
  EXPECT_EQ(std::vector{0xFFFFFFFFu}, find("visibleh")) << "237 characters are looked at";
  EXPECT_EQ(std::vector{0xFFFFFFFFu}, find("no such process"));
  EXPECT_EQ(std::vector{1u}, find("init")) << "found or not";
  EXPECT_EQ(nullptr, ORP_UTIL_FindPidByName(nullptr));
}

TEST(GetPid, IgnoresBlanksInTheName) {
  const Sleeper process("aprogram");

  EXPECT_EQ(process.pid(), ORP_UTIL_GetPid("aprogram 1000 2000"));
  EXPECT_EQ(0xFFFFFFFFu, ORP_UTIL_GetPid("no such process"));
  EXPECT_EQ(1u, ORP_UTIL_GetPid(" init "));
  EXPECT_EQ(0u, ORP_UTIL_GetPid(nullptr));
  EXPECT_EQ(0u, ORP_UTIL_GetPid(std::string(240, 'x').c_str()));
  EXPECT_EQ(0xFFFFFFFFu, ORP_UTIL_GetPid(std::string(239, 'x').c_str()));
}

TEST(FindKernelPidByName, SearchesTheNameOfTheStatus) {
  ::prctl(PR_SET_NAME, "kfinder");

  EXPECT_EQ(static_cast<uint32_t>(::getpid()), ORP_UTIL_FindKernelPidByName("kfind"));
  EXPECT_EQ(0xFFFFFFFFu, ORP_UTIL_FindKernelPidByName("no such thread"));
  EXPECT_EQ(0xFFFFFFFFu, ORP_UTIL_FindKernelPidByName(nullptr));
}

TEST(GetIpByName, ReadsTheAddressOfAnInterface) {
  const test::FdCheck check;
  sockaddr_in address = {};
  address.sin_port = 1;

  EXPECT_EQ(0u, ORP_UTIL_GetIpByName("lo", &address));
  EXPECT_EQ(AF_INET, address.sin_family);
  EXPECT_EQ(htonl(INADDR_LOOPBACK), address.sin_addr.s_addr);
  EXPECT_EQ(1u, ORP_UTIL_GetIpByName("none0", &address));
  EXPECT_EQ(0u, address.sin_addr.s_addr) << "cleared";
  EXPECT_EQ(1u, ORP_UTIL_GetIpByName(nullptr, &address));
  EXPECT_EQ(1u, ORP_UTIL_GetIpByName("lo", nullptr));
}

}  // namespace
}  // namespace msgapi
