#include "common/output_queue.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <string>

#include "support/fd_check.h"

namespace servers {
namespace {

using Tag = OutputQueue::Tag;

// A connected pair: the queue writes into one end, the test reads the other.
class OutputQueueTest : public testing::Test {
 protected:
  static constexpr size_t kLimit = 1 << 20;

  OutputQueueTest() {
    int ends[2];
    EXPECT_EQ(0, ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends));
    ours_.reset(ends[0]);
    theirs_.reset(ends[1]);
  }

  size_t send(OutputQueue *queue, const std::string &frame) {
    std::vector<Tag> refused;
    const OutputQueue::Frame frames[] = {{frame.data(), frame.size(), {7, 1}}};
    queue->send(frames, &refused);
    return refused.size();
  }

  // Fills the socket and then the queue up to `weight`.
  std::string send_until(OutputQueue *queue, size_t weight) {
    std::string sent;
    for (char c = 'a'; queue->weight() < weight; c = c == 'z' ? 'a' : static_cast<char>(c + 1)) {
      const std::string frame(10000, c);
      EXPECT_EQ(0u, send(queue, frame));
      sent += frame;
    }
    return sent;
  }

  // Receives everything; flushes the queue whenever nothing is there.
  std::string receive(OutputQueue *queue) {
    std::string all;
    char buffer[5000];
    for (;;) {
      const ssize_t count = ::read(theirs_.get(), buffer, sizeof buffer);
      if (count > 0) {
        all.append(buffer, static_cast<size_t>(count));
      } else if (queue->blocked()) {
        queue->flush();
      } else {
        return all;
      }
    }
  }

  test::FdCheck fd_check_;
  UniqueFd ours_;
  UniqueFd theirs_;
};

TEST_F(OutputQueueTest, KeepsTheOrderAcrossTheSocketAndItself) {
  OutputQueue queue(ours_.get(), kLimit);

  std::string sent = send_until(&queue, 100000);
  EXPECT_TRUE(queue.blocked());
  EXPECT_EQ(sent, receive(&queue));

  EXPECT_TRUE(queue.empty());
  EXPECT_EQ(0u, queue.weight());
  EXPECT_EQ(sent.size(), queue.bytes_written());
  EXPECT_EQ(sent.size() / 10000, queue.frames_written());
}

TEST_F(OutputQueueTest, RefusesWhatWouldExceedTheLimitAndNamesWhatWasNotWritten) {
  OutputQueue queue(ours_.get(), 100000);
  const size_t held = send_until(&queue, 85000).size() / 10000;

  EXPECT_EQ(1u, send(&queue, std::string(20000, 'x')));
  EXPECT_EQ(nullptr, queue.open_stream(std::string(20000, 'x'), 1, {7, 2}));
  EXPECT_EQ(0u, send(&queue, "small"));

  theirs_.reset();
  queue.flush();
  EXPECT_TRUE(queue.broken());
  EXPECT_EQ(1u, send(&queue, "late"));
  const size_t written = queue.frames_written();
  EXPECT_EQ(held + 1 - written, queue.take_unwritten().size());
}

TEST_F(OutputQueueTest, HoldsLaterFramesBehindAnOpenStream) {
  OutputQueue queue(ours_.get(), kLimit);

  OutputQueue::Stream *stream = queue.open_stream(std::string("head"), 200006, {7, 2});
  EXPECT_EQ(0u, send(&queue, "next"));
  EXPECT_EQ("head", receive(&queue));
  EXPECT_FALSE(queue.blocked());
  queue.extend(stream, std::string("middle"));
  const std::string rest(200000, 'r');
  for (size_t at = 0; at < rest.size(); at += 50000) {
    queue.extend(stream, std::span(rest).subspan(at, 50000));
  }

  EXPECT_EQ("middle" + rest + "next", receive(&queue));
  EXPECT_EQ(2u, queue.frames_written());
  EXPECT_EQ(0u, queue.weight());
}

TEST_F(OutputQueueTest, TakesAFrameBackWhoseBeginningIsNotWritten) {
  OutputQueue queue(ours_.get(), kLimit);
  const std::string before = send_until(&queue, 50000);

  OutputQueue::Stream *stream = queue.open_stream(std::string(1000, 's'), 100000, {7, 2});
  queue.extend(stream, std::string(70000, 't'));
  EXPECT_EQ(0u, send(&queue, "after"));

  EXPECT_TRUE(queue.give_up(stream));
  EXPECT_EQ(before + "after", receive(&queue));
  EXPECT_EQ(0u, queue.weight());
}

TEST_F(OutputQueueTest, FillsUpAFrameWhoseBeginningIsWritten) {
  OutputQueue queue(ours_.get(), kLimit);
  OutputQueue::Stream *stream = queue.open_stream(std::string("head"), 300000, {7, 2});
  queue.extend(stream, std::string(250000, 't'));
  EXPECT_EQ(0u, send(&queue, "after"));

  EXPECT_FALSE(queue.give_up(stream));

  EXPECT_EQ("head" + std::string(250000, 't') + std::string(50000, '\0') + "after",
            receive(&queue));
  EXPECT_EQ(1u, queue.frames_written());
  EXPECT_EQ(0u, queue.weight());
}

}  // namespace
}  // namespace servers
