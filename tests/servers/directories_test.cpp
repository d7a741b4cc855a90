#include <gmock/gmock.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

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

TEST(BodyDirectory, IsRidOfBodiesThatNobodyTakesOver) {
  namespace fs = std::filesystem;
  const std::string directory = "/var/run/msg/";
  for (const char *name : {"msg_file_1", "msg_file_2", "msg_file_3", "other", "target"}) {
    std::ofstream(directory + name) << "x";
    fs::last_write_time(directory + name, fs::file_time_type::min());
  }
  fs::create_symlink(directory + "target", directory + "msg_file_link");
  fs::create_directory(directory + "msg_file_directory");
  {
    // A file's date proves nothing: the clock may have been set since.
    test::Process server("msgsvr");
    ASSERT_TRUE(server.wait_for("ready"));
    EXPECT_EQ(0, server.stop(SIGTERM));
    for (const char *name : {"msg_file_1", "msg_file_2", "msg_file_3"}) {
      EXPECT_TRUE(fs::exists(directory + name)) << name;
    }
  }

  test::Process forgetful("msgsvr", {"--body-age", "2"});
  ASSERT_TRUE(forgetful.wait_for("ready"));
  // The time begins with the file, not with its name, even if the server never sees the name
  // missing.
  ::kill(forgetful.pid(), SIGSTOP);
  std::ofstream(directory + "next") << "of another message";
  fs::rename(directory + "next", directory + "msg_file_3");
  std::this_thread::sleep_for(std::chrono::seconds(2));
  ::kill(forgetful.pid(), SIGCONT);

  ASSERT_TRUE(forgetful.wait_for("removed 2 body files that nobody took over within 2 s"));
  EXPECT_FALSE(fs::exists(directory + "msg_file_1"));
  EXPECT_FALSE(fs::exists(directory + "msg_file_2"));
  ASSERT_TRUE(forgetful.wait_for("removed 1 body files"));
  for (const char *name : {"other", "target", "msg_file_link", "msg_file_directory"}) {
    EXPECT_TRUE(fs::exists(directory + name)) << name;
  }
}

TEST(BodyDirectory, BehindALinkIsReported) {
  std::filesystem::rename("/var/run", "/var/real");
  std::filesystem::create_symlink("real", "/var/run");

  test::Process server("msgsvr");
  ASSERT_TRUE(server.wait_for("ready"));

  EXPECT_THAT(server.output(), HasSubstr("/var/run/msg leads to /var/real/msg"));
}

}  // namespace
