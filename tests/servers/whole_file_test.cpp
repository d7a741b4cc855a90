// Files that are replaced whole, or stay as they were.

#include "common/whole_file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

#include "os/fd.h"
#include "support/file.h"

namespace {

namespace fs = std::filesystem;
using servers::replace_file;

TEST(WholeFile, ReplacesAPathOrANameInTheWorkingDirectory) {
  ASSERT_EQ(0, ::chdir("/var"));
  std::ofstream("state.new") << "of a process that was killed";
  for (const char *path : {"/var/state", "state", "./state"}) {
    EXPECT_TRUE(replace_file(path, std::string("for ") + path)) << path;
    EXPECT_EQ(std::string("for ") + path, test::contents("/var/state"));
  }
  EXPECT_EQ(fs::perms{0600}, fs::status("/var/state").permissions());
  EXPECT_FALSE(fs::exists("state.new"));
}

TEST(WholeFile, IsLeftAsItIsWhenItCannotBeReplaced) {
  fs::create_directories("/var/a/directory");
  fs::create_directories("/var/a/taken.new/full");
  std::ofstream("/var/a/taken") << "old";

  EXPECT_FALSE(replace_file("/var/a/directory", std::string("new")));
  EXPECT_EQ(EISDIR, errno);
  EXPECT_FALSE(replace_file("/var/a/taken", std::string("new")));
  EXPECT_EQ(EEXIST, errno);
  EXPECT_FALSE(replace_file("/var/none/file", std::string("new")));
  EXPECT_EQ(ENOENT, errno);
  const msgapi::os::UniqueFd directory(::open("/var/a", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  EXPECT_FALSE(servers::replace_file_in(directory.get(), "directory", std::string("new")));
  EXPECT_EQ(EISDIR, errno);

  EXPECT_EQ("old", test::contents("/var/a/taken"));
  EXPECT_EQ(3, std::distance(fs::directory_iterator("/var/a"), {})) << "nothing is left behind";
}

TEST(WholeFile, KeepsTheOldContentOnAFullDisk) {
  fs::create_directory("/var/full");
  if (::geteuid() != 0 || ::mount("full", "/var/full", "tmpfs", 0, "size=8k") != 0) {
    GTEST_SKIP() << std::strerror(errno);
  }
  ASSERT_TRUE(replace_file("/var/full/state", std::string("old")));

  EXPECT_FALSE(replace_file("/var/full/state", std::string(8000, 'n')));
  EXPECT_EQ(ENOSPC, errno);
  EXPECT_EQ("old", test::contents("/var/full/state"));
  EXPECT_FALSE(fs::exists("/var/full/state.new"));
}

}  // namespace
