#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <tuple>
#include <vector>

#include "msgapi/fdpass.h"
#include "support/allocation.h"
#include "support/fd_check.h"
#include "support/message_peer.h"

namespace {

using test::Connection;

const std::string kMark(2, '\0');

TEST(FdPassing, TravelsWithTwoBytesAndArrivesCloseOnExec) {
  const test::FdCheck no_leak;
  Connection connection("self");

  EXPECT_EQ(ORP_OK, ORP_MSG_SendFd(0));
  EXPECT_EQ(kMark, connection.peer.receive_bytes(2));
  EXPECT_TRUE(connection.peer.quiet());

  test::send_with_descriptors(connection.peer.fd(), kMark);
  int32_t received = -1;
  EXPECT_EQ(ORP_OK, ORP_MSG_RecvFd(&received, 1000));
  char byte;
  EXPECT_EQ(1, ::read(received, &byte, 1)) << "of /dev/zero";
  EXPECT_EQ(FD_CLOEXEC, ::fcntl(received, F_GETFD));
  ::close(received);
}

TEST(FdPassing, RefusesAnythingElseAndClosesWhatCameWithIt) {
  const test::FdCheck no_leak;
  Connection connection("self");
  const int peer = connection.peer.fd();
  int32_t received = 77;
  const std::tuple<std::string, std::vector<int>, const char *> kCases[] = {
      {kMark, {}, "no descriptor"},
      {kMark, {peer, peer}, "two descriptors"},
      {kMark, {peer, peer, peer, peer, peer}, "five descriptors"},
      {std::string(1, '\0'), {peer}, "one byte"},
      {std::string(3, '\0'), {peer}, "three bytes"},
      {std::string("\0\1", 2), {peer}, "other bytes"},
      {std::string(4000, 'm'), {peer}, "a message"},
  };
  for (const auto &[data, descriptors, what] : kCases) {
    EXPECT_TRUE(test::send_with_descriptors(peer, data, descriptors));
    received = 77;
    EXPECT_EQ(ORP_ERR_SYSTEM, ORP_MSG_RecvFd(&received, 1000)) << what;
    EXPECT_EQ(0, received);
  }

  connection.peer.send_bytes(std::string(5000, 'm'));
  EXPECT_EQ(ORP_ERR_SYSTEM, ORP_MSG_RecvFd(&received, 1000));
  EXPECT_EQ(ORP_ERR_SYSTEM, ORP_MSG_RecvFd(&received, 1000)) << "4096 bytes at a time";
  EXPECT_EQ(ORP_ERR_TIMEOUT, ORP_MSG_RecvFd(&received, 1));
}

TEST(FdPassing, ReportsTheStateOfTheConnection) {
  int32_t received = 77;
  EXPECT_EQ(ORP_ERR_NOT_CONNECTED, ORP_MSG_SendFd(0));
  EXPECT_EQ(ORP_ERR_NOT_CONNECTED, ORP_MSG_RecvFd(&received, 1));
  EXPECT_EQ(0, received);
  EXPECT_EQ(ORP_ERR_ARGUMENT, ORP_MSG_RecvFd(nullptr, 1));

  Connection connection("self");
  EXPECT_EQ(ORP_ERR_SYSTEM, ORP_MSG_SendFd(-1));
  connection.peer.close();
  EXPECT_EQ(ORP_ERR_PEER_GONE, ORP_MSG_RecvFd(&received, 1000));
  EXPECT_EQ(ORP_ERR_SYSTEM, ORP_MSG_SendFd(0));
}

TEST(FdPassing, NeedsMemoryOnceADirection) {
  Connection connection("self");
  int32_t received;
  for (int i = 0; i < 2; ++i) test::send_with_descriptors(connection.peer.fd(), kMark);
  msgapi::fail_allocation(1);
  EXPECT_EQ(ORP_ERR_MEMORY, ORP_MSG_SendFd(0));
  msgapi::fail_allocation(1);
  EXPECT_EQ(ORP_ERR_MEMORY, ORP_MSG_RecvFd(&received, 1000));
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(ORP_OK, ORP_MSG_SendFd(0));
    EXPECT_EQ(ORP_OK, ORP_MSG_RecvFd(&received, 1000)) << "nothing was consumed";
    ::close(received);
    msgapi::fail_allocation(1);
  }
}

}  // namespace
