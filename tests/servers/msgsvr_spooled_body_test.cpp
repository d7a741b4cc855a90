// Bodies that come piece by piece: in memory while they are short, then in a hand-over file.

#include "msgsvr/spooled_body.h"

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <utility>

#include "msgapi/msg.h"
#include "msgsvr/hand_over.h"

namespace {

namespace fs = std::filesystem;
using msgsvr::SpooledBody;

constexpr const char *kDirectory = "/var/run/msg";
constexpr std::string_view kHead = "head";
// With the NUL the longest that travels in the message.
constexpr size_t kLongestInline = ORP_MSG_MAX_INLINE_BODY - kHead.size() - 1;

TEST(SpooledBody, NoticesThatItsFileIsNotWhatItWas) {
  SpooledBody body(kHead.size());
  ASSERT_TRUE(body.append(std::string(5000, 't')) && body.finish(kHead));
  const std::string path = msgsvr::hand_over_body(body.file()).data();
  std::string whole;
  fs::resize_file(path, 4999);
  EXPECT_FALSE(body.read(&whole));
  EXPECT_EQ(EIO, errno);
  fs::remove(path);
  EXPECT_FALSE(body.read(&whole));
  EXPECT_EQ(ENOENT, errno);
  SpooledBody moved(std::move(body));
  EXPECT_NE(0u, moved.give_away());
  EXPECT_EQ(0u, moved.file());
}

TEST(SpooledBody, IsRefusedWhereThereIsNoRoom) {
  if (::geteuid() != 0 || ::mount("full", kDirectory, "tmpfs", 0, "size=8k") != 0) {
    GTEST_SKIP() << std::strerror(errno);
  }
  {
    SpooledBody body(kHead.size());
    EXPECT_FALSE(body.append(std::string(9000, 't')));
    EXPECT_EQ(ENOSPC, errno);
    body.discard();
    EXPECT_TRUE(fs::is_empty(kDirectory));
  }
  // The piece with which the text needs a file may be the last one.
  std::ofstream(std::string(kDirectory) + "/other") << std::string(8192, 'o');
  {
    SpooledBody body(kHead.size());
    ASSERT_TRUE(body.append(std::string(kLongestInline + 1, 't')));
    EXPECT_FALSE(body.finish(kHead));
    EXPECT_EQ(ENOSPC, errno);
  }

  ASSERT_EQ(0, ::umount(kDirectory));
  fs::remove(kDirectory);
  SpooledBody nowhere(kHead.size());
  EXPECT_FALSE(nowhere.append(std::string(5000, 't')));
  EXPECT_EQ(ENOENT, errno);
}

}  // namespace
