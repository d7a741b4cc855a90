#include "os/stream_reader.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <thread>

#include "os/fd.h"

namespace msgapi::os {
namespace {

constexpr ReadPolicy kShort = {.patience_ms = 20};
constexpr ReadPolicy kBlocking = {.patience_ms = ReadPolicy::kBlock};

struct Ends {
  UniqueFd reader, writer;
};

Ends make_socket() {
  int ends[2];
  EXPECT_EQ(0, ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends));
  return {UniqueFd(ends[0]), UniqueFd(ends[1])};
}

Ends make_pipe() {
  int ends[2];
  EXPECT_EQ(0, ::pipe2(ends, O_CLOEXEC));
  return {UniqueFd(ends[0]), UniqueFd(ends[1])};
}

void write_text(const Ends &ends, std::string_view text) {
  ASSERT_EQ(static_cast<ssize_t>(text.size()),
            ::write(ends.writer.get(), text.data(), text.size()));
}

// On sockets and on pipes.
class StreamReaderTest : public testing::TestWithParam<Ends (*)()> {
 protected:
  Ends ends_ = GetParam()();
};

TEST_P(StreamReaderTest, ReadsNothingBeyondWhatIsAskedFor) {
  write_text(ends_, "onetwo");
  char text[3];

  EXPECT_EQ((Filled{ReadEnd::kData, 3}), StreamReader(ends_.reader.get(), kShort).fill(text));
  EXPECT_EQ("one", std::string(text, 3));
  EXPECT_EQ((Filled{ReadEnd::kData, 3}), StreamReader(ends_.reader.get(), kBlocking).fill(text));
  EXPECT_EQ("two", std::string(text, 3)) << "another reader goes on where the first stopped";
}

TEST_P(StreamReaderTest, TellsSilenceFromTheEndAndKeepsWhatHasCome) {
  write_text(ends_, "begun");
  char text[8];
  StreamReader reader(ends_.reader.get(), kShort);

  EXPECT_EQ((Filled{ReadEnd::kSilence, 5}), reader.fill(text));
  EXPECT_EQ("begun", std::string(text, 5));
  EXPECT_EQ(ReadEnd::kSilence,
            StreamReader(ends_.reader.get(), {.patience_ms = 0}).read_some(text).end);

  ends_.writer.reset();
  for (const ReadPolicy &policy : {kShort, kBlocking}) {
    const Piece piece = StreamReader(ends_.reader.get(), policy).read_some(text);
    EXPECT_EQ(ReadEnd::kPeerGone, piece.end);
    EXPECT_EQ(0, piece.count);
  }
}

TEST_P(StreamReaderTest, BlocksForWhatIsNotThereYet) {
  char text[4];
  std::thread writer([this] {
    write_text(ends_, "ab");
    write_text(ends_, "cd");
  });

  EXPECT_EQ((Filled{ReadEnd::kData, 4}), StreamReader(ends_.reader.get(), kBlocking).fill(text));

  writer.join();
  EXPECT_EQ("abcd", std::string(text, 4));
}

INSTANTIATE_TEST_SUITE_P(Descriptors, StreamReaderTest, testing::Values(make_socket, make_pipe));

TEST(StreamReader, DescriptorsThatCannotBeReadFailWithTheirReason) {
  char text[4];
  for (const ReadPolicy &policy : {kShort, kBlocking}) {
    errno = 0;
    EXPECT_EQ(ReadEnd::kFailed, StreamReader(999, policy).read_some(text).end);
    EXPECT_EQ(EBADF, errno);
  }
}

}  // namespace
}  // namespace msgapi::os
