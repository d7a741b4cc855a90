#include "common/listen.h"

#include <gmock/gmock.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <barrier>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>

#include "support/fd_check.h"
#include "support/resource_limit.h"

namespace servers {
namespace {

using test::DescriptorLimit;
using testing::EndsWith;
using testing::HasSubstr;

const std::string kPath = "/var/run/listen_test";

std::string refusal(const std::function<UniqueFd()> &listen) {
  try {
    listen();
  } catch (const std::runtime_error &error) {
    return error.what();
  }
  return "";
}

sockaddr_un unix_address() {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  kPath.copy(address.sun_path, sizeof address.sun_path - 1);
  return address;
}

// A client of the socket at kPath; without a descriptor when it is refused.
UniqueFd connected() {
  UniqueFd fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  const sockaddr_un address = unix_address();
  if (::connect(fd.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
    fd.reset();
  }
  return fd;
}

int next_descriptor() {
  return UniqueFd(::dup(STDIN_FILENO)).get();
}

TEST(ListenTcp, TakesAddressesOfBothKinds) {
  for (const char *address : {"127.0.0.1:18080", "[::1]:18080"}) {
    const UniqueFd listener = listen_tcp(address);
    EXPECT_EQ(address, local_address(listener.get()));
    EXPECT_EQ("", peer_address(listener.get()));
    EXPECT_EQ(std::string("cannot listen on ") + address + ": Address already in use",
              refusal([&] { return listen_tcp(address); }));
  }
  EXPECT_EQ("[::1]:18081", local_address(listen_tcp("::1:18081").get()));
}

TEST(ListenTcp, SaysWhyAnAddressIsOfNoUse) {
  const char *const port = ": the port is not a number from 1 to 65535";
  const std::pair<std::string, std::string> cases[] = {
      {"8080", ": it is not ADDRESS:PORT"},
      {"127.0.0.1:", port},
      {"127.0.0.1:0", port},
      {"127.0.0.1:65536", port},
      {"127.0.0.1:000080", port},
      {"127.0.0.1:80a", port},
      {"127.0.0.1:-1", port},
      {":8080", ": Name or service not known"},
      {"localhost:8080", ": Name or service not known"},
      {"[]:8080", ": Name or service not known"},
      {"[::1:8080", ": Name or service not known"},
      {"::1]:8080", ": Name or service not known"},
      {"192.0.2.1:8080", ": Cannot assign requested address"},
  };
  for (const auto &[address, why] : cases) {
    EXPECT_EQ("cannot listen on " + address + why, refusal([&] { return listen_tcp(address); }));
  }
}

TEST(ListenUnix, ReplacesOnlyASocketThatNobodyReads) {
  const test::FdCheck check;
  const auto refused = [] { return refusal([] { return listen_unix(kPath, 0660); }); };
  {
    const UniqueFd living = listen_unix(kPath, 0640);
    struct stat status {};
    ASSERT_EQ(0, ::stat(kPath.c_str(), &status));
    EXPECT_EQ(mode_t{S_IFSOCK | 0640}, status.st_mode);
    EXPECT_THAT(refused(), EndsWith(kPath + ": a server is running there"));
    remove_unix(kPath);
    EXPECT_EQ("", local_address(living.get())) << "it has no port";

    // With a full backlog, it lives all the same.
    const UniqueFd waiting = connected();
    ASSERT_TRUE(waiting);
    ASSERT_EQ(0, ::listen(living.get(), 0));
    ASSERT_FALSE(connected());
    EXPECT_EQ("", peer_address(waiting.get()));
    EXPECT_THAT(refused(), EndsWith("a server is running there"));
    const DescriptorLimit none(0);
    EXPECT_THAT(refused(), EndsWith("whether a server is running there: Too many open files"));
  }
  { const UniqueFd next = listen_unix(kPath, 0660); }
  remove_unix(kPath);
  EXPECT_FALSE(std::filesystem::exists(kPath));

  const UniqueFd of_another_kind(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  const sockaddr_un address = unix_address();
  ASSERT_EQ(0, ::bind(of_another_kind.get(), reinterpret_cast<const sockaddr *>(&address),
                      sizeof address));
  EXPECT_THAT(refused(), HasSubstr("cannot find out whether a server is running there: "));
  remove_unix(kPath);
  EXPECT_TRUE(std::filesystem::exists(kPath));

  std::filesystem::remove(kPath);
  std::ofstream(kPath) << "a file";
  EXPECT_THAT(refused(), EndsWith("there is a file that is no socket"));
}

TEST(ListenUnix, LetsOneOfTwoListenThatStartTogether) {
  for (int i = 0; i < 200; ++i) {
    listen_unix(kPath, 0660).reset();  // what a dead server leaves
    std::barrier start(2);
    std::array<UniqueFd, 2> listeners;
    const auto listen = [&start](UniqueFd *listener) {
      start.arrive_and_wait();
      refusal([listener] {
        *listener = listen_unix(kPath, 0660);
        return UniqueFd();
      });
    };
    {
      const std::jthread other(listen, &listeners[0]);
      listen(&listeners[1]);
    }
    ASSERT_NE(static_cast<bool>(listeners[0]), static_cast<bool>(listeners[1]));
    ASSERT_TRUE(connected());
  }
}

TEST(ListenUnix, SaysWhyAPathIsOfNoUse) {
  const auto refused = [](const std::string &path) {
    return refusal([&] { return listen_unix(path, 0660); });
  };
  EXPECT_THAT(refused(""), EndsWith(": the path is too long"));
  EXPECT_THAT(refused("/" + std::string(107, 'x')), EndsWith(": the path is too long"));
  EXPECT_THAT(refused("/no/directory/socket"), EndsWith(": No such file or directory"));
  const DescriptorLimit none(0);
  EXPECT_THAT(refused(kPath), EndsWith(": Too many open files"));
}

TEST(Acceptor, RefusesAConnectionThatItHasNoDescriptorFor) {
#ifdef __SANITIZE_ADDRESS__
  GTEST_SKIP() << "its checks need descriptors";
#endif
  Acceptor acceptor(listen_unix(kPath, 0660));
  EXPECT_FALSE(acceptor.accept());
  const UniqueFd first = connected();
  const UniqueFd second = connected();
  testing::internal::CaptureStderr();
  {
    const DescriptorLimit limit(next_descriptor());
    EXPECT_FALSE(acceptor.accept());
  }
  EXPECT_THAT(testing::internal::GetCapturedStderr(),
              HasSubstr("a connection is refused: Too many open files"));
  char byte;
  EXPECT_EQ(0, ::recv(first.get(), &byte, 1, 0)) << "the spare descriptor served to end it";
  {
    const DescriptorLimit none(0);
    EXPECT_FALSE(acceptor.accept());
  }
  EXPECT_EQ(-1, ::recv(second.get(), &byte, 1, 0)) << "it waits";
  EXPECT_TRUE(acceptor.accept());
}

}  // namespace
}  // namespace servers
