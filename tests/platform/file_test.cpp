#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <string>

#include "orputil.h"
#include "support/fd_check.h"

namespace {

constexpr const char *kPath = "/var/file";

std::string read_file(const char *path) {
  char *text = nullptr;
  uint32_t size = 0;
  EXPECT_EQ(0u, ORP_UTIL_ReadFileToBuf(path, &text, &size));
  const std::string result(text, text == nullptr ? 0 : size + 1);
  std::free(text);
  return result;
}

TEST(Files, AreReadAsTheyWereWrittenAndTerminated) {
  const test::FdCheck check;
  // The last replaces a longer file.
  for (const size_t size : {4095u, 4096u, 4097u, 100000u, 0u}) {
    const std::string text(size, '\x01');
    ASSERT_EQ(0u, ORP_UTIL_WriteBufToFile(kPath, text.data(), static_cast<uint32_t>(size)));
    EXPECT_EQ(text + '\0', read_file(kPath));
  }
  // The kernel's own files have the size 0.
  EXPECT_NE(std::string::npos, read_file("/proc/self/status").find("Name:"));
}

TEST(Files, FailWithTheReasonAndHandOverNothing) {
  const test::FdCheck check;
  char *text = nullptr;
  uint32_t size = 7;
  ASSERT_EQ(0, ::mkfifo("/var/pipe", 0600));

  for (const char *path : {"/var/absent", "/var", "/dev/null", "/var/pipe"}) {
    EXPECT_EQ(0x10007u, ORP_UTIL_ReadFileToBuf(path, &text, &size)) << path;
    EXPECT_EQ(nullptr, text);
    EXPECT_EQ(0u, size);
  }
  EXPECT_EQ(0x10001u, ORP_UTIL_ReadFileToBuf(nullptr, &text, &size));
  for (const char *path : {"/var", "/dev/full"}) {
    EXPECT_EQ(0x10007u, ORP_UTIL_WriteBufToFile(path, "x", 1)) << path;
  }
}

TEST(Permissions, AreThoseWhereOthersMayNotWrite) {
  ASSERT_EQ(0u, ORP_UTIL_WriteBufToFile(kPath, "x", 1));

  EXPECT_EQ(0u, ORP_UTIL_RemoveAndroidWPerm(kPath, "777", "775"));
  for (const char *mode : {"", "8", "77x", "07775"}) {
    EXPECT_EQ(1u, ORP_UTIL_RemoveAndroidWPerm(kPath, "775", mode)) << mode;
  }

  struct stat info;
  ASSERT_EQ(0, ::stat(kPath, &info));
  EXPECT_EQ(0775u, info.st_mode & 07777u);
}

}  // namespace
