// Descriptors that travel through the message server.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <string>

#include "msgapi.h"
#include "servers/message_server.h"
#include "support/message_peer.h"

namespace {

using test::Frame;
using test::kType;
using test::RawClient;

class Descriptors : public test::MessageServer {
 protected:
  // One read takes a third of the queue.
  Descriptors() : MessageServer({"--queue", "196608", "--tcp", "127.0.0.1:7070"}) {}

  static void send_with_descriptors(const RawClient &client, const std::string &bytes,
                                    size_t count = 1) {
    EXPECT_TRUE(test::send_with_descriptors(client.fd(), bytes, count));
  }

  static bool receives_a_descriptor(const RawClient &client) {
    g_stMsgCtx.slSocket = client.fd();
    int fd = -1;
    const bool came = ORP_MSG_RecvFd(&fd, 5000) == ORP_OK;
    g_stMsgCtx.slSocket = -1;
    ::close(fd);
    return came;
  }

  const std::string zeros_ = std::string(2, '\0');
};

// The library at both ends.
TEST_F(Descriptors, GoWhereTheSendersLastMessageWent) {
  const pid_t receiver = in_child([] {
    ORP_MSG_HEADER_ST *announced = nullptr;
    ORP_MSG_HEADER_ST *done = nullptr;
    int fd = -1;
    char byte = 'x';
    return ORP_MSG_InitWithoutHandle("b") == ORP_OK &&
           ORP_MSG_ReceiveManual(&announced, 5000) == ORP_OK && announced->ulMsgData == 1 &&
           ORP_MSG_RecvFd(&fd, 5000) == ORP_OK && ::read(fd, &byte, 1) == 1 && byte == '\0' &&
           ORP_MSG_ReceiveManual(&done, 5000) == ORP_OK && done->ulMsgData == 2;
  });
  ASSERT_EQ(ORP_OK, ORP_MSG_InitWithoutHandle("a"));
  while (ORP_MSG_GetNumOfProcesses("b") == 0) continue;
  const int zero = ::open("/dev/zero", O_RDONLY | O_CLOEXEC);

  EXPECT_EQ(ORP_OK, ORP_MSG_SendSimpleMsg("b", kType, 1));
  EXPECT_EQ(ORP_OK, ORP_MSG_SendFd(zero));
  EXPECT_EQ(ORP_OK, ORP_MSG_SendSimpleMsg("b", kType, 2));

  expect_success(receiver);
  expect_no_descriptors_but_of(1);
  ::close(zero);
}

TEST_F(Descriptors, AreClosedWhenNobodyCanTakeThem) {
  RawClient a("a");

  send_with_descriptors(a, zeros_);  // no message went before
  expect_undeliverable(&a, ORP_MSG_REGISTER, 1);
  a.send({.type = kType, .to = "nobody", .sequence = 2});
  expect_undeliverable(&a, kType, 2);
  send_with_descriptors(a, zeros_);
  expect_undeliverable(&a, kType, 2);
  a.send({.type = kType, .to = "a", .sequence = 3});
  send_with_descriptors(a, zeros_, 2);  // one at a time
  EXPECT_EQ(3u, a.read().sequence);
  expect_undeliverable(&a, kType, 3);

  // A board has no use for them.
  RawClient board("board", uint16_t{7070});
  a.send({.type = kType, .to = "board", .sequence = 4});
  EXPECT_EQ(4u, board.read().sequence);
  send_with_descriptors(a, zeros_);
  expect_undeliverable(&a, kType, 4);

  expect_delivery(&a, &a);
  expect_no_descriptors_but_of(2);
}

TEST_F(Descriptors, InsideAMessageEndTheClient) {
  RawClient b("b");
  const std::string frame = Frame{.type = kType, .to = "b", .body = "12345678"}.bytes("a");

  for (const std::string &bytes : {frame, zeros_ + frame, std::string(1, '\0'),
                                   frame.substr(0, 10) + zeros_, std::string("ab")}) {
    RawClient a("a");
    send_with_descriptors(a, bytes);
    EXPECT_TRUE(a.closed());
  }

  expect_no_descriptors_but_of(1);
  for (const Frame &got : b.drain()) EXPECT_EQ("12345678", got.body);
}

// A full read buffer may end between a descriptor's two bytes.
TEST_F(Descriptors, ArriveAtAnyPlaceInALongRow) {
  RawClient a("a");
  RawClient b("b");
  const std::string frame =
      Frame{.type = kType, .to = "b", .body = std::string(960, 'r')}.bytes("a");

  for (size_t extra = 0; extra < 8; ++extra) {
    // About 65536 bytes are there before the server reads.
    ::kill(server_->pid(), SIGSTOP);
    const size_t whole = 65;
    std::string row;
    for (size_t i = 0; i < whole; ++i) row += frame;
    row += Frame{.type = kType, .to = "b", .body = std::string(490 + extra, 'p')}.bytes("a");
    a.send_bytes(row);
    send_with_descriptors(a, zeros_);
    a.send({.type = kType, .to = "b", .body = "end"});
    ::kill(server_->pid(), SIGCONT);

    for (size_t i = 0; i <= whole; ++i) b.read();
    EXPECT_TRUE(receives_a_descriptor(b)) << extra;
    EXPECT_EQ("end", b.read().body);
  }
}

}  // namespace
