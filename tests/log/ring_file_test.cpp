#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <fstream>

#include "msgapi/ringlog.h"
#include "support/fd_check.h"
#include "support/file.h"
#include "support/largest_file.h"

namespace {

using testing::HasSubstr;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

constexpr char kPath[] = "/var/ring";
constexpr char kEmptyRing[] = "[overturn=000][offset=0000000063][uploadoffset=000^0000001023]\n";

std::string content() {
  return test::contents(kPath);
}

void set_content(const std::string &bytes) {
  std::ofstream(kPath, std::ios::trunc) << bytes;
}

class Ring {
 public:
  explicit Ring(uint32_t max_size, const char *path = kPath)
      : target_{max_size, MlogFileConstructor(path, max_size)} {}
  Ring(const Ring &) = delete;
  Ring &operator=(const Ring &) = delete;
  ~Ring() { MlogFileDestructor(target_.file); }

  int32_t write(std::string data) {
    return MlogFileWrite(&target_, data.data(), static_cast<uint32_t>(data.size()));
  }

  MlogTarget *target() { return &target_; }
  MlogFile *file() const { return target_.file; }

 private:
  MlogTarget target_;
};

TEST(RingFile, FillsExactlyAndTurnsOver) {
  Ring ring(1000);
  EXPECT_EQ(63u, content().size());
  EXPECT_EQ(kEmptyRing, content());

  EXPECT_EQ(-1, ring.write(std::string(938, 'x')));
  EXPECT_EQ(0, ring.write(std::string(937, 'a')));
  EXPECT_EQ(
      "[overturn=000][offset=0000001000][uploadoffset=000^0000001023]\n" + std::string(937, 'a'),
      content());

  EXPECT_EQ(0, ring.write("b"));
  EXPECT_EQ(
      "[overturn=001][offset=0000000064][uploadoffset=001^0000001023]\nb" + std::string(936, 'a'),
      content());
}

TEST(RingFile, BlursWhatItWritesAndReadsNothingBeyond) {
  Ring ring(1000);
  std::string data = "at 10.0.0.1 and fe80::1 and 10.0.0.22";

  // The last digit of the address at the end is cut off.
  EXPECT_EQ(0, MlogFileWrite(ring.target(), data.data(), static_cast<uint32_t>(data.size() - 1)));

  EXPECT_EQ("at 10.*.*.1 and ******* and 10.*.*.2", content().substr(63));
  EXPECT_EQ("at 10.*.*.1 and ******* and 10.*.*.22", data);

  const std::string split("a\0 10.0.0.1", 11);  // text ends with its NUL
  ring.write(split);
  EXPECT_TRUE(content().ends_with(split));
}

TEST(RingFile, RefusesBadArguments) {
  Ring ring(1000);
  char data[] = "x";
  MlogFile closed{};
  MlogTarget targets[] = {{1000, nullptr}, {1000, &closed}};

  for (MlogTarget &target : targets) EXPECT_EQ(-1, MlogFileWrite(&target, data, 1));
  EXPECT_EQ(-1, MlogFileWrite(ring.target(), data, 0));
  EXPECT_EQ(-1, MlogFileWrite(ring.target(), data, UINT32_MAX));  // does not wrap to 62
  EXPECT_EQ(kEmptyRing, content());

  EXPECT_EQ(nullptr, MlogFileConstructor(nullptr, 1000));
  for (const uint32_t size : {0u, 0x200001u}) EXPECT_EQ(nullptr, MlogFileConstructor(kPath, size));
  EXPECT_NE(nullptr, Ring(0x200000).file());
}

TEST(RingFile, GoesOnWhereItsHeaderSays) {
  { Ring(100).write(std::string(30, 'a')); }
  CaptureStdout();
  {
    Ring ring(100);
    ring.write("bb");
    ring.write(std::string(10, 'c'));
  }
  EXPECT_THAT(GetCapturedStdout(), testing::Not(HasSubstr("[ERROR]")));

  EXPECT_EQ("[overturn=001][offset=0000000073][uploadoffset=001^0000001023]\n" +
                std::string(10, 'c') + std::string(20, 'a') + "bb",
            content());
}

TEST(RingFile, ReplacesWhatItCannotGoOnWith) {
  const char *const kUnreadable = ": read log file failed\n";
  const char *const kUnparsable = ": parse file header failed\n";
  const char *const kTaken = "]: overturn = 2, offset = 70\n";
  // What follows "[overturn=" in the header.
  struct {
    const char *header;
    const char *says;
    const char *reason;
  } const cases[] = {
      {"002][offset=0000000070][uploadoffset=002^0000000500]\n", kTaken, "uploaded in part"},
      {"002][offset=0000000070][uploadoffset=002^0000000000]\n", kTaken, "nothing uploaded"},
      {"002][offset=0000000062][uploadoffset=002^0000001023]\n", kUnparsable, "inside the header"},
      {"002][offset=0000000201][uploadoffset=002^0000001023]\n", kUnparsable, "beyond the limit"},
      {"002][offset=9999999999][uploadoffset=002^0000001023]\n", kUnparsable, "beyond 32 bits"},
      {"002][offset=-000000070][uploadoffset=002^0000001023]\n", kUnparsable, "negative"},
      {"-02][offset=0000000070][uploadoffset=002^0000001023]\n", kUnparsable, "negative"},
      {"002][offset=0000000070][uploadoffset=-02^0000001023]\n", kUnparsable, "negative"},
      {"002][offset=0000000070][uploadoffset=002]0000001023]\n", kUnparsable, "three numbers"},
      {"free text, long enough to be read as a header, but not one\n", kUnparsable, "foreign"},
      {"000][offset=0000000063]", kUnreadable, "short"},
  };
  for (const auto &[header, says, reason] : cases) {
    set_content("[overturn=" + std::string(header) + (says == kUnreadable ? "" : "old data"));
    CaptureStdout();

    { const Ring ring(200); }

    const std::string said = GetCapturedStdout();
    EXPECT_THAT(said, HasSubstr(says)) << reason;
    EXPECT_EQ(says != kTaken, said.find("[ERROR]") != std::string::npos) << reason;
    EXPECT_EQ(kEmptyRing, content()) << reason;
  }

  set_content(std::string("[overturn=002][offset=0000000200][uploadoffset=003^0000001023]\n") +
              std::string(137, 'x'));
  const Ring edge(200);
  EXPECT_EQ(200u, content().size()) << "the limit itself is fine";
  EXPECT_EQ(3, edge.file()->overturn) << "the second count holds";
}

TEST(RingFile, DiscardsAFileThatOutgrewTheLimit) {
  { Ring(1000).write(std::string(200, 'a')); }

  { const Ring ring(263); }
  EXPECT_EQ(263u, content().size());
  { const Ring ring(262); }
  EXPECT_EQ(kEmptyRing, content());
}

TEST(RingFile, RefusesWhatIsNoRegularFile) {
  const test::FdCheck fds;
  ::mkdir("/var/directory", 0700);
  ASSERT_EQ(0, ::symlink("/var/loop", "/var/loop"));
  ::mkfifo("/var/fifo", 0600);

  for (const auto &[path, result] : {std::pair{"/var/directory", "4\n"},
                                     {"/var/fifo", "4\n"},
                                     {"/var/loop", "2\n"},
                                     {"/var/absent/ring", ""}}) {  // absent, not refused
    CaptureStdout();
    EXPECT_EQ(nullptr, MlogFileConstructor(path, 1000));
    EXPECT_THAT(GetCapturedStdout(), testing::EndsWith(result)) << path;
  }
}

TEST(RingFile, KeepsItsLastHeaderBehindThe999thOverturn) {
  set_content("[overturn=999][offset=0000000090][uploadoffset=999^0000001023]\n" +
              std::string(27, 'a'));
  Ring ring(100);
  EXPECT_EQ(0, ring.write(std::string(10, 'b')));
  const std::string last = "[overturn=999][offset=0000000100][uploadoffset=999^0000001023]\n";
  EXPECT_EQ(last, content().substr(0, 63));
  CaptureStdout();

  EXPECT_EQ(0, ring.write("ccc"));
  EXPECT_EQ(0, ring.write("ddd"));

  EXPECT_EQ(1000, ring.file()->overturn);
  EXPECT_EQ(last + "cccddd" + std::string(21, 'a') + std::string(10, 'b'), content());
  EXPECT_THAT(GetCapturedStdout(),
              testing::MatchesRegex("(\\[.*\\]: rewrite log file header failed\n){2}"));
}

TEST(RingFile, AbortsWhenTheCountOfOverturnsWouldWrap) {
  Ring ring(100);
  ring.file()->overturn = LONG_MAX;
  ring.file()->offset = 100;

  EXPECT_DEATH(ring.write("x"), "");
}

TEST(RingFile, SurvivesADiskThatTakesNoMore) {
  Ring ring(1000);
  const test::LargestFile limit(70);

  EXPECT_EQ(0, ring.write(std::string(10, 'a')));
  EXPECT_NE(0, std::ferror(ring.file()->stream));

  EXPECT_EQ("[overturn=000][offset=0000000073][uploadoffset=000^0000001023]\naaaaaaa", content());
}

TEST(RingFile, SaysWhenItCannotBePositioned) {
  Ring ring(1000);
  CaptureStdout();
  ::close(::fileno(ring.file()->stream));

  EXPECT_EQ(-1, ring.write("x"));

  EXPECT_THAT(GetCapturedStdout(), HasSubstr(": seek file offset failed\n"));
}

TEST(MlogFileOpen, OpensForReading) {
  const test::FdCheck fds;
  set_content("text");

  const int32_t fd = MlogFileOpen(kPath);
  EXPECT_EQ(O_RDONLY | O_NONBLOCK, ::fcntl(fd, F_GETFL) & (O_ACCMODE | O_NONBLOCK));
  MlogFileClose(fd);
  EXPECT_EQ(-1, MlogFileOpen("/var/absent"));
}

}  // namespace
