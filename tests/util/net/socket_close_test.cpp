#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

#include "msgapi/net.h"

namespace {

TEST(SocketClose, EndsTheConnectionThoughACopyIsOpen) {
  int pair[2];
  ASSERT_EQ(0, ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, pair));
  const int copy = ::fcntl(pair[0], F_DUPFD_CLOEXEC, 0);

  EXPECT_EQ(0u, ORP_UTIL_SocketClose(pair[0]));

  char byte;
  EXPECT_EQ(-1, ::fcntl(pair[0], F_GETFD));
  EXPECT_EQ(0, ::read(pair[1], &byte, 1));
  EXPECT_EQ(0, ::fcntl(copy, F_GETFL) & O_NONBLOCK);
  ::close(copy);
  ::close(pair[1]);
}

TEST(SocketClose, ReportsWhatIsNotOpenAndIgnoresNone) {
  EXPECT_EQ(0xFFFFFFFFu, ORP_UTIL_SocketClose(1000));
  EXPECT_EQ(EBADF, errno);
  EXPECT_EQ(0u, ORP_UTIL_SocketClose(-1));
}

}  // namespace
