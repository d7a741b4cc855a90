#include <fcntl.h>
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstring>
#include <fstream>
#include <sstream>

#include "msgapi/ringlog.h"
#include "support/allocation.h"
#include "support/fd_check.h"

namespace {

using testing::HasSubstr;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

constexpr char kPath[] = "/var/ring";
constexpr char kEmptyRing[] = "[overturn=000][offset=0000000063][uploadoffset=000^0000001023]\n";

std::string content() {
  std::ostringstream bytes;
  bytes << std::ifstream(kPath).rdbuf();
  return bytes.str();
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

TEST(RingFile, StartsWithItsHeader) {
  const test::FdCheck fds;
  Ring ring(1000);

  ASSERT_NE(nullptr, ring.file());
  EXPECT_EQ(kEmptyRing, content());
  EXPECT_EQ(63u, content().size());
  EXPECT_EQ(1023, MLOG_NEW_FILE_FLAG);
}

TEST(RingFile, FillsExactlyAndTurnsOver) {
  Ring ring(1000);

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

TEST(RingFile, NeverSplitsABuffer) {
  Ring ring(100);

  EXPECT_EQ(0, ring.write(std::string(30, 'a')));
  EXPECT_EQ(0, ring.write(std::string(8, 'b')));

  EXPECT_EQ(1, ring.file()->overturn);
  EXPECT_EQ(71, ring.file()->offset);
  EXPECT_EQ(std::string(8, 'b') + std::string(22, 'a'), content().substr(63));
}

TEST(RingFile, BlursWhatItWritesAndReadsNothingBeyond) {
  Ring ring(1000);
  char data[] = "at 10.0.0.1 and fe80::1 and 10.0.0.22";

  // The address at the end is cut off before its last digit.
  EXPECT_EQ(0, MlogFileWrite(ring.target(), data, sizeof data - 2));

  EXPECT_EQ("at 10.*.*.1 and ******* and 10.*.*.2", content().substr(63));
  EXPECT_STREQ("at 10.*.*.1 and ******* and 10.*.*.22", data);
}

TEST(RingFile, RefusesBadArguments) {
  Ring ring(1000);
  char data[] = "x";
  MlogTarget no_file{1000, nullptr};
  MlogFile closed{};
  MlogTarget closed_target{1000, &closed};

  EXPECT_EQ(-1, MlogFileWrite(nullptr, data, 1));
  EXPECT_EQ(-1, MlogFileWrite(&no_file, data, 1));
  EXPECT_EQ(-1, MlogFileWrite(&closed_target, data, 1));
  EXPECT_EQ(-1, MlogFileWrite(ring.target(), nullptr, 1));
  EXPECT_EQ(-1, MlogFileWrite(ring.target(), data, 0));
  EXPECT_EQ(-1, MlogFileWrite(ring.target(), data, UINT32_MAX));  // does not wrap to 62
  EXPECT_EQ(kEmptyRing, content());

  MlogFileDestructor(nullptr);
  EXPECT_EQ(nullptr, MlogFileConstructor(nullptr, 1000));
  EXPECT_EQ(nullptr, MlogFileConstructor(kPath, 0));
  EXPECT_EQ(nullptr, MlogFileConstructor(kPath, 0x200001));
  Ring largest(0x200000);
  EXPECT_NE(nullptr, largest.file());
}

TEST(RingFile, GoesOnWhereItsHeaderSays) {
  { Ring(100).write(std::string(30, 'a')); }
  {
    Ring ring(100);
    ring.write("bb");
    ring.write(std::string(10, 'c'));
  }

  EXPECT_EQ("[overturn=001][offset=0000000073][uploadoffset=001^0000001023]\n" +
                std::string(10, 'c') + std::string(20, 'a') + "bb",
            content());
}

TEST(RingFile, ReplacesWhatItCannotGoOnWith) {
  struct {
    const char *header;
    const char *reason;
  } const cases[] = {
      {"[overturn=002][offset=0000000070][uploadoffset=002^0000000500]\n", "uploaded in part"},
      {"[overturn=002][offset=0000000062][uploadoffset=002^0000001023]\n", "inside the header"},
      {"[overturn=002][offset=0000000201][uploadoffset=002^0000001023]\n", "beyond the limit"},
      {"[overturn=002][offset=9999999999][uploadoffset=002^0000001023]\n", "beyond 32 bits"},
      {"[overturn=002][offset=-000000070][uploadoffset=002^0000001023]\n", "negative"},
      {"[overturn=-02][offset=0000000070][uploadoffset=002^0000001023]\n", "negative"},
      {"[overturn=002][offset=0000000070][uploadoffset=-02^0000001023]\n", "negative"},
      {"[overturn=002][offset=0000000070][uploadoffset=002]0000001023]\n", "three numbers"},
      {"[overturn=xxx][offset=0000000070][uploadoffset=002^0000001023]\n", "no number"},
      {"free text, long enough to be read as a header, but it is not one\n", "foreign"},
      {"[overturn=000][offset=0000000063]", "short"},
      {"", "empty"},
  };
  for (const auto &c : cases) {
    set_content(std::string(c.header) + "old data");
    if (std::strlen(c.header) < 63) set_content(c.header);

    { const Ring ring(200); }

    EXPECT_EQ(kEmptyRing, content()) << c.reason;
  }

  set_content(std::string("[overturn=002][offset=0000000200][uploadoffset=003^0000001023]\n") +
              std::string(137, 'x'));
  const Ring edge(200);
  EXPECT_EQ(200u, content().size()) << "the limit itself is fine";
  EXPECT_EQ(3, edge.file()->overturn) << "the second count holds";
}

TEST(RingFile, SaysWhatItFound) {
  set_content("[overturn=002][offset=0000000063][uploadoffset=002^0000001023]\n");
  CaptureStdout();
  { const Ring ring(200); }
  EXPECT_THAT(
      GetCapturedStdout(),
      testing::MatchesRegex("\\[MLOG\\]\\[INFO\\]\\[[0-9]+\\]: overturn = 2, offset = 63\n"));

  set_content("short");
  CaptureStdout();
  { const Ring ring(200); }
  EXPECT_THAT(GetCapturedStdout(), HasSubstr(": read log file failed\n"));

  set_content(std::string(63, 'x'));
  CaptureStdout();
  { const Ring ring(200); }
  EXPECT_THAT(GetCapturedStdout(), HasSubstr(": parse file header failed\n"));
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
  CaptureStdout();

  EXPECT_EQ(nullptr, MlogFileConstructor("/var/directory", 1000));
  EXPECT_EQ(nullptr, MlogFileConstructor("/var/fifo", 1000));
  EXPECT_EQ(nullptr, MlogFileConstructor("/var/loop", 1000));
  EXPECT_EQ(nullptr, MlogFileConstructor("/var/absent/ring", 1000));  // absent, not refused

  EXPECT_THAT(GetCapturedStdout(),
              testing::MatchesRegex("(\\[MLOG\\]\\[ERROR\\]\\[[0-9]+\\]: check file stat failed, "
                                    "return value is 4\n){2}"
                                    "\\[MLOG\\]\\[ERROR\\]\\[[0-9]+\\]: check file stat failed, "
                                    "return value is 2\n"));
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
              testing::MatchesRegex("(\\[MLOG\\]\\[ERROR\\]\\[[0-9]+\\]: rewrite log file header "
                                    "failed\n){2}"));
}

TEST(RingFile, AbortsWhenTheCountOfOverturnsWouldWrap) {
  Ring ring(100);
  ring.file()->overturn = LONG_MAX;
  ring.file()->offset = 100;

  EXPECT_DEATH(ring.write("x"), "");
}

TEST(RingFile, SurvivesADiskThatTakesNoMore) {
  Ring ring(1000);
  ::signal(SIGXFSZ, SIG_IGN);
  const rlimit limit{.rlim_cur = 70, .rlim_max = RLIM_INFINITY};
  ::setrlimit(RLIMIT_FSIZE, &limit);

  EXPECT_EQ(0, ring.write(std::string(10, 'a')));
  EXPECT_NE(0, std::ferror(ring.file()->stream));

  EXPECT_EQ("[overturn=000][offset=0000000073][uploadoffset=000^0000001023]\naaaaaaa", content());
}

TEST(RingFile, SaysWhenItCannotBePositioned) {
  Ring ring(1000);
  const int fd = ::fileno(ring.file()->stream);
  int pipe_fds[2];
  ASSERT_EQ(0, ::pipe2(pipe_fds, O_CLOEXEC));
  ::dup2(pipe_fds[1], fd);
  CaptureStdout();

  EXPECT_EQ(-1, ring.write("x"));

  EXPECT_THAT(GetCapturedStdout(), HasSubstr(": seek file offset failed\n"));
  ::close(pipe_fds[0]);
  ::close(pipe_fds[1]);
}

TEST(RingFile, WithoutMemoryOpensNothing) {
  const test::FdCheck fds;

  EXPECT_EQ(1u, test::fail_every_allocation([] {
              const Ring ring(1000);
              return ring.file() != nullptr;
            }));
}

TEST(MlogFileOpen, OpensForReading) {
  const test::FdCheck fds;
  set_content("text");

  const int32_t fd = MlogFileOpen(kPath);
  EXPECT_EQ(O_RDONLY | O_NONBLOCK, ::fcntl(fd, F_GETFL) & (O_ACCMODE | O_NONBLOCK));
  MlogFileClose(fd);
  MlogFileClose(-1);
  EXPECT_EQ(-1, MlogFileOpen(nullptr));
  EXPECT_EQ(-1, MlogFileOpen("/var/absent"));
}

}  // namespace
