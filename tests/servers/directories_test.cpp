#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "support/process.h"

namespace {

using testing::HasSubstr;
using testing::Not;

mode_t mode_of(const char *path) {
  struct stat status {};
  return ::stat(path, &status) == 0 ? status.st_mode & 07777 : 0;
}

TEST(BodyDirectory, IsMadeWhateverTheUmaskAndLeftAsItIs) {
  ASSERT_EQ(0, ::rmdir("/var/run/msg"));
  ::umask(0077);
  {
    test::Process server("msgsvr");
    ASSERT_TRUE(server.wait_for("ready"));
    EXPECT_TRUE(mode_of("/var/run/msg") == 0755 || mode_of("/var/run/msg") == 01770);
    EXPECT_THAT(server.output(), Not(HasSubstr("leads to")));
    EXPECT_EQ(0, server.stop(SIGTERM));
  }
  ASSERT_EQ(0, ::chmod("/var/run/msg", 0711));

  test::Process again("msgsvr");
  ASSERT_TRUE(again.wait_for("ready"));
  EXPECT_EQ(0711u, mode_of("/var/run/msg"));
}

TEST(BodyDirectory, BehindALinkIsReported) {
  std::filesystem::rename("/var/run", "/var/real");
  std::filesystem::create_symlink("real", "/var/run");

  test::Process server("msgsvr");
  ASSERT_TRUE(server.wait_for("ready"));

  EXPECT_THAT(server.output(), HasSubstr("/var/run/msg leads to /var/real/msg"));
}

}  // namespace
