#include <gmock/gmock.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "servers/services.h"
#include "support/file.h"
#include "support/message_peer.h"

namespace {

using testing::HasSubstr;
using testing::Not;

using BodyDirectory = test::Services;

mode_t mode_of(const char *path) {
  struct stat status {};
  return ::stat(path, &status) == 0 ? status.st_mode & 07777 : 0;
}

TEST_F(BodyDirectory, IsMadeWhateverTheUmaskAndLeftAsItIs) {
  ASSERT_EQ(0, ::rmdir("/var/run/msg"));
  ::umask(0077);
  start();
  EXPECT_TRUE(mode_of("/var/run/msg") == 0755 || mode_of("/var/run/msg") == 01770);
  EXPECT_THAT(server_->output(), Not(HasSubstr("leads to")));
  EXPECT_EQ(0, server_->stop(SIGTERM));
  ASSERT_EQ(0, ::chmod("/var/run/msg", 0711));

  start();
  EXPECT_EQ(0711u, mode_of("/var/run/msg"));
}

TEST_F(BodyDirectory, IsRidOfBodiesThatNobodyTakesOver) {
  namespace fs = std::filesystem;
  const std::string directory = "/var/run/msg/";
  for (const char *name : {"msg_file_1", "msg_file_2", "msg_file_3", "other", "target"}) {
    std::ofstream(directory + name) << "x";
    fs::last_write_time(directory + name, fs::file_time_type::min());
  }
  fs::create_symlink(directory + "target", directory + "msg_file_link");
  fs::create_directory(directory + "msg_file_directory");
  // A file's date proves nothing: the clock may have been set since.
  start();
  EXPECT_EQ(0, server_->stop(SIGTERM));
  for (const char *name : {"msg_file_1", "msg_file_2", "msg_file_3"}) {
    EXPECT_TRUE(fs::exists(directory + name)) << name;
  }

  start({"--body-age", "2"});
  // The time begins with the file, not with its name, even if the server never sees the name
  // missing.
  ::kill(server_->pid(), SIGSTOP);
  std::ofstream(directory + "next") << "of another message";
  fs::rename(directory + "next", directory + "msg_file_3");
  std::this_thread::sleep_for(std::chrono::seconds(2));
  ::kill(server_->pid(), SIGCONT);

  ASSERT_TRUE(server_->wait_for("removed 2 body files that nobody took over within 2 s"));
  EXPECT_FALSE(fs::exists(directory + "msg_file_1"));
  EXPECT_FALSE(fs::exists(directory + "msg_file_2"));
  ASSERT_TRUE(server_->wait_for("removed 1 body files"));
  for (const char *name : {"other", "target", "msg_file_link", "msg_file_directory"}) {
    EXPECT_TRUE(fs::exists(directory + name)) << name;
  }
}

TEST_F(BodyDirectory, BelongsToTheGroupOfTheDaemonsIfThereIsOne) {
  std::ofstream("/var/group") << test::contents("/etc/group") << "msgapi:x:4321:\n";
  if (::geteuid() != 0 || ::mount("/var/group", "/etc/group", nullptr, MS_BIND, nullptr) != 0) {
    GTEST_SKIP() << std::strerror(errno);
  }
  ASSERT_EQ(0, ::rmdir("/var/run/msg"));
  start();
  struct stat status {};
  ASSERT_EQ(0, ::stat("/var/run/msg", &status));
  if (status.st_gid != 4321) {
    // An ordinary user's sandbox has no other groups.
    EXPECT_THAT(server_->output(), HasSubstr("not given to the group msgapi"));
  } else {
    EXPECT_EQ(01770u, status.st_mode & 07777);
  }
}

TEST_F(BodyDirectory, ThatCannotBeMadeIsReportedAndShortBodiesStillPass) {
  std::filesystem::rename("/var/run", "/var/real");
  std::ofstream("/var/run") << "no directory";
  start({"--socket", "/var/bus", "--admin", "none", "--flight", "0"});
  EXPECT_THAT(server_->output(), HasSubstr("/var/run/msg: Not a directory; bodies above 2048 bytes "
                                           "cannot be passed"));
  test::RawClient client("a", test::RawClient::Register::kYes, "/var/bus");
  client.send({.type = test::kType, .to = "a", .body = "short"});
  EXPECT_EQ("short", client.read().body);
}

TEST_F(BodyDirectory, BehindALinkIsReported) {
  std::filesystem::rename("/var/run", "/var/real");
  std::filesystem::create_symlink("real", "/var/run");

  start();

  EXPECT_THAT(server_->output(), HasSubstr("/var/run/msg leads to /var/real/msg"));
}

}  // namespace
