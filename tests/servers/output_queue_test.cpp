#include "common/output_queue.h"

#include <gmock/gmock.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <utility>

#include "support/fd_check.h"
#include "support/resource_limit.h"

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

TEST_F(OutputQueueTest, HoldsLaterFramesBehindAnOpenStreamAndUsesItsMemoryAgain) {
  OutputQueue queue(ours_.get(), kLimit);
  const std::string sent = send_until(&queue, 20000);
  const std::string first(150000, '1');
  const std::string second(300000, '2');  // more than the socket takes

  OutputQueue::Stream *stream =
      queue.open_stream(std::string("head"), first.size() + second.size(), {7, 2});
  const auto extend = [&](const std::string &bytes) {
    for (size_t at = 0; at < bytes.size(); at += 50000) {
      queue.extend(stream, std::span(bytes).subspan(at, 50000));
    }
  };
  EXPECT_EQ(0u, send(&queue, "next"));
  EXPECT_EQ(nullptr, queue.awaited());
  extend(first);
  EXPECT_EQ(sent + "head" + first, receive(&queue));
  EXPECT_FALSE(queue.blocked());
  ASSERT_NE(nullptr, queue.awaited());
  EXPECT_EQ(2u, queue.awaited()->type);
  extend(second);

  EXPECT_EQ(second + "next", receive(&queue));
  EXPECT_EQ(sent.size() / 10000 + 2, queue.frames_written());
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

TEST_F(OutputQueueTest, KeepsToItsAccountsWhenTheReaderGoesInTheMiddleOfAStream) {
  OutputQueue queue(ours_.get(), kLimit);
  EXPECT_TRUE(queue.send_descriptor(UniqueFd(::dup(ours_.get())), {7, 9}));
  OutputQueue::Stream *stream = queue.open_stream(std::string("head"), 30000, {7, 2});
  EXPECT_EQ(0u, send(&queue, "after"));
  theirs_.reset();

  queue.extend(stream, std::string(10000, 'x'));
  EXPECT_TRUE(queue.broken());
  EXPECT_EQ(nullptr, queue.awaited());
  EXPECT_FALSE(queue.blocked());
  queue.extend(stream, std::string(10000, 'y'));
  EXPECT_EQ(nullptr, queue.open_stream(std::string("next"), 1, {7, 3}));
  EXPECT_FALSE(queue.send_descriptor(UniqueFd(::dup(ours_.get())), {7, 4}));
  OutputQueue::Frame late[] = {{"late", 4, {7, 5}}, {"later", 5, {7, 6}}};
  EXPECT_EQ(2u, queue.send(late));

  std::string lost;
  queue.take_unwritten([&lost](const Tag &tag, std::span<const char> bytes) {
    lost += std::to_string(tag.type) + " " + std::string(bytes.begin(), bytes.end()) + "\n";
  });
  EXPECT_EQ("1 after\n", lost);
  EXPECT_EQ(1u, send(&queue, "late"));
  EXPECT_EQ(0u, queue.weight());
}

struct Watcher final : OutputQueue::Observer {
  std::string seen;
  void wrote() noexcept override {}
  void written(const Tag &tag) noexcept override { seen += "w" + std::to_string(tag.type); }
  void descriptor_passed(const Tag &tag) noexcept override {
    seen += "p" + std::to_string(tag.type);
  }
  void descriptor_dropped(const Tag &tag) noexcept override {
    seen += "d" + std::to_string(tag.type);
  }
};

TEST_F(OutputQueueTest, DescriptorsKeepTheirPlaceAndWeigh) {
  Watcher watcher;
  OutputQueue queue(ours_.get(), 98000, &watcher);
  const auto descriptor = [this] { return UniqueFd(::dup(ours_.get())); };
  const auto owner = std::make_shared<int>();
  ASSERT_TRUE(queue.send_descriptor(descriptor(), {7, 2}));
  EXPECT_EQ("p2w2", watcher.seen);
  EXPECT_EQ(0u, queue.frames_written()) << "it is no message";
  EXPECT_EQ(2u, receive(&queue).size());

  const std::string before = send_until(&queue, 90000);
  EXPECT_TRUE(queue.send_descriptor(descriptor(), {7, 3}, 0, owner));
  EXPECT_EQ(2, owner.use_count());
  EXPECT_EQ(1u, queue.descriptors());
  EXPECT_EQ(0u, send(&queue, "small"));
  EXPECT_FALSE(queue.send_descriptor(descriptor(), {7, 4})) << "for want of room";
  EXPECT_TRUE(queue.send_descriptor(descriptor(), {7, 5}, 10000));
  watcher.seen.clear();
  EXPECT_EQ(before + std::string(2, '\0') + "small" + std::string(2, '\0'), receive(&queue));

  EXPECT_THAT(watcher.seen, testing::EndsWith("w1p3w3w1p5w5"));
  EXPECT_EQ(1, owner.use_count());
  EXPECT_EQ(0u, queue.descriptors());
  EXPECT_EQ(0u, queue.weight());
}

TEST_F(OutputQueueTest, DropsADescriptorThatTheKernelDoesNotPass) {
  Watcher watcher;
  OutputQueue queue(ours_.get(), kLimit, &watcher);
  UniqueFd descriptors[] = {UniqueFd(::dup(ours_.get())), UniqueFd(::dup(ours_.get()))};
  ASSERT_TRUE(queue.send_descriptor(std::move(descriptors[0]), {7, 2}));

  // A user may have as many on their way as a process may open, unless he has capabilities.
  {
    const test::DescriptorLimit none(0);
    const bool root = ::geteuid() == 0 && ::seteuid(65534) == 0;
    EXPECT_TRUE(queue.send_descriptor(std::move(descriptors[1]), {7, 3}));
    ASSERT_EQ(0, root ? ::seteuid(0) : 0);
  }

  EXPECT_EQ(0u, send(&queue, "next"));
  EXPECT_EQ("p2w2d3w1", watcher.seen);
  EXPECT_EQ(std::string(2, '\0') + "next", receive(&queue));
  EXPECT_EQ(0u, queue.descriptors());
  EXPECT_EQ(0u, queue.weight());
}

}  // namespace
}  // namespace servers
