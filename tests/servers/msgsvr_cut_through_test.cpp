// Long messages, which the message server passes on while they arrive.

#include <gmock/gmock.h>

#include <string>

#include "servers/message_server.h"
#include "support/message_peer.h"

namespace {

using test::Frame;
using test::kType;
using test::RawClient;
using testing::IsEmpty;

class CutThrough : public test::MessageServer {
 protected:
  static constexpr size_t kBody = 1000000;

  // The stall time is long enough for a busy machine; senders that stop here stop for good.
  CutThrough() : MessageServer({"--stall", "2000"}) {
    std::string body(kBody, '\0');
    for (size_t i = 0; i < body.size(); ++i) body[i] = static_cast<char>(i % 251);
    frame_ = Frame{.type = kType, .to = "b", .body = body, .sequence = 11}.bytes("a");
  }

  RawClient a_{"a"};
  RawClient b_{"b"};
  RawClient c_{"c"};
  std::string frame_;
};

TEST_F(CutThrough, PassesALongFrameOnWhileItArrives) {
  a_.send_bytes(std::string_view(frame_).substr(0, 30000));
  EXPECT_EQ(frame_.substr(0, 30000), b_.receive_bytes(30000));
  // Messages that others send meanwhile wait until the frame is whole.
  c_.send({.type = kType, .to = "b", .body = "after"});
  settle();
  in_child([&] { return a_.send_bytes(std::string_view(frame_).substr(30000)); });
  EXPECT_TRUE(frame_.substr(30000) == b_.receive_bytes(frame_.size() - 30000));
  EXPECT_EQ("after", b_.read().body);
  expect_delivery(&a_, &b_);
}

TEST_F(CutThrough, FillsTheFrameUpWhenItsSenderDies) {
  // The header is enough to open the frame.
  for (const size_t cut : {size_t{40}, size_t{41}, size_t{70000}, frame_.size() - 1}) {
    {
      RawClient dying("dying");
      in_child([&] { return dying.send_bytes(std::string_view(frame_).substr(0, cut)); });
      ASSERT_TRUE(b_.receive_bytes(cut) == frame_.substr(0, cut)) << cut;
    }
    EXPECT_TRUE(b_.receive_bytes(frame_.size() - cut) == std::string(frame_.size() - cut, '\0'));
    expect_delivery(&c_, &b_);
    EXPECT_TRUE(server_->wait_for("is cut short"));
  }
}

TEST_F(CutThrough, FillsTheFrameUpWhenItsSenderStops) {
  a_.send_bytes(std::string_view(frame_).substr(0, 90000));

  const Frame got = b_.read();

  EXPECT_EQ(kBody, got.body.size());
  EXPECT_EQ(frame_.substr(40, 89960), got.body.substr(0, 89960));
  EXPECT_EQ(std::string::npos, got.body.find_first_not_of('\0', 89960));
  expect_undeliverable(&a_, kType, 11);
  expect_delivery(&c_, &b_);
  // The rest is dropped, and the sender is still served.
  a_.send_bytes(std::string_view(frame_).substr(90000));
  EXPECT_THAT(a_.drain(), IsEmpty());
  expect_delivery(&a_, &b_);
}

TEST_F(CutThrough, TellsTheSenderWhenTheReceiverDies) {
  a_.send_bytes(std::string_view(frame_).substr(0, 90000));
  EXPECT_EQ(1000u, b_.receive_bytes(1000).size());
  b_.close();
  a_.send_bytes(std::string_view(frame_).substr(90000));

  expect_undeliverable(&a_, kType, 11);
  EXPECT_THAT(a_.drain(), IsEmpty());
  RawClient next("b");
  expect_delivery(&a_, &next);
}

TEST_F(CutThrough, TakesBackAFrameOfWhichNothingWasSeen) {
  // Fills b's socket, so that the frame has to wait.
  constexpr int kFilling = 300;
  const Frame filling = {.type = kType, .to = "b", .body = std::string(1000, 'f')};
  for (int i = 0; i < kFilling; ++i) c_.send(filling);
  settle();
  RawClient("dying").send_bytes(std::string_view(frame_).substr(0, 50000));
  EXPECT_TRUE(server_->wait_for("the receiver has seen nothing of it"));

  for (int i = 0; i < kFilling; ++i) ASSERT_EQ(1000u, b_.read().body.size());
  expect_delivery(&c_, &b_);
}

TEST_F(CutThrough, GivesUpAFrameWhoseReaderDoesNotRead) {
  // The sender is not blocked for ever, and nobody else is delayed.
  a_.send({.type = kType, .to = "b", .body = std::string(8 << 20, 'l'), .sequence = 3});
  expect_delivery(&c_, &c_);
  expect_undeliverable(&a_, kType, 3);

  const Frame got = b_.read();
  EXPECT_EQ(size_t{8 << 20}, got.body.size());
  const size_t end = got.body.find_first_not_of('l');
  ASSERT_NE(std::string::npos, end);
  EXPECT_EQ(std::string::npos, got.body.find_first_not_of('\0', end));
  expect_delivery(&a_, &b_);
}

}  // namespace
