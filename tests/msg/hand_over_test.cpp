#include "msg/hand_over.h"

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

#include "support/fake_log_server.h"
#include "support/fd_check.h"
#include "support/message_peer.h"

namespace msgapi::msg {
namespace {

const std::string kFile = "/var/run/msg/msg_file_1";

void write_file(const std::string &path, const std::string &content) {
  std::ofstream(path) << content;
}

// Completes a message whose body is `field`. Returns its new body, or the status in words.
std::string completed(const std::string &field) {
  const test::FdCheck no_leak;
  Header *message = test::make_block({.body = field}).release();
  const Status status = complete_hand_over(&message);
  const Owned<Header> owner(message);
  if (status == Status::kBadArgument) return "<bad argument>";
  if (status != Status::kOk) return status == Status::kSystem ? "<system>" : "<other>";
  EXPECT_EQ(std::string(16, '\0'), std::string(body(message) + message->ulDataLen, 16));
  return test::frame_of(message).body;
}

std::string path_field(const std::string &path) {
  return test::padded(path, 260);
}

TEST(HandOver, ReplacesThePathByTheFileAndDeletesIt) {
  const std::string large(3 << 20, 'x');
  for (const std::string &content : {large, std::string("short"), std::string()}) {
    write_file(kFile, content);
    EXPECT_TRUE(content == completed(path_field(kFile)));
    EXPECT_FALSE(std::filesystem::exists(kFile));
  }
  write_file(kFile, "x");
  EXPECT_EQ("x", completed(kFile)) << "a body without NUL ends with its length";
  write_file("/var/run/msg/msg_file", "least");
  EXPECT_EQ("least", completed(path_field("/var/run/msg/msg_file")));
  write_file(kFile, "round about");
  EXPECT_EQ("round about", completed(path_field("/var/run/msg/../msg/./msg_file_1")));
}

TEST(HandOver, RefusesPathsThatAreNotForBodies) {
  write_file("/var/secret", "secret");
  write_file("/var/run/msg/other", "other");
  std::filesystem::create_directory("/var/run/msg/msg_file_d");
  std::filesystem::create_symlink("/var/secret", "/var/run/msg/msg_file_link");

  for (const std::string path : {"", "/var/secret", "/var/run/msg/other", "/var/run/msg/msg_file_9",
                                 "/var/run/msg/msg_file_link", "/var/run/msg/msg_file_d/x",
                                 "/var/run/msg/msg_file_d/../../../secret"}) {
    EXPECT_EQ("<bad argument>", completed(path_field(path))) << path;
  }
  write_file(kFile, "x");
  EXPECT_EQ("<bad argument>", completed(std::string(300, '/') + kFile)) << "no NUL in 260 bytes";
  EXPECT_TRUE(std::filesystem::exists("/var/secret"));
  EXPECT_TRUE(std::filesystem::exists(kFile));
}

TEST(HandOver, TakesEveryPathThatLeadsToABodyFileAndRemovesWhatIsNamed) {
  namespace fs = std::filesystem;
  fs::create_directories("/var/run/msg/msg_file_d/e");
  const std::string deep = "/var/run/msg/msg_file_d/e/x";
  for (const std::string &path :
       {deep, std::string("/var/run/msg/./msg_file_d/../msg_file_d/e/x")}) {
    write_file(deep, "deeper");
    EXPECT_EQ("deeper", completed(path_field(path))) << path;
    EXPECT_FALSE(fs::exists(deep));
  }

  // A link is removed and its target stays, wherever the link is.
  write_file(kFile, "target");
  fs::current_path("/var");
  for (const std::string link :
       {"/var/run/msg/msg_file_link", "/var/run/msg/link", "/link", "relative_link"}) {
    fs::create_symlink(kFile, link);
    EXPECT_EQ("target", completed(path_field(link))) << link;
    EXPECT_FALSE(fs::is_symlink(link));
    EXPECT_TRUE(fs::exists(kFile));
  }
  // Through a link to the directory only the file is removed.
  fs::create_symlink("/var/run/msg", "/var/by_link");
  EXPECT_EQ("target", completed(path_field("/var/by_link/msg_file_1")));
  EXPECT_TRUE(fs::is_symlink("/var/by_link"));
  EXPECT_FALSE(fs::exists(kFile));
}

TEST(HandOver, SaysWhichFileIsNotTakenOrStaysAndWhy) {
  test::FakeLogServer log;
  const std::string prefix = "Body file of msg:[0x1234] src:[app?] ";
  const auto logged = [&](const std::string &field) {
    Header *message = test::make_block({.type = 0x1234, .body = field, .from = "app\n"}).release();
    (void)complete_hand_over(&message);
    std::free(message);
    return log.text();
  };
  EXPECT_EQ(prefix +
                "cannot be read, the message is dropped: No such file or directory (errno 2): " +
                kFile + "\n",
            logged(path_field(kFile)));
  write_file("/var/run/other\n", "");
  EXPECT_EQ(prefix +
                "cannot be read, the message is dropped: not a place of body files (errno 0): "
                "/var/run/other?\n",
            logged(path_field("/var/run/other\n")));
  EXPECT_EQ(prefix + "cannot be read, the message is dropped: path without an end (errno 0): \n",
            logged(std::string(300, 'x')));

  // A receiver that may read the file, but not write to the directory.
  write_file(kFile, "x");
  ASSERT_EQ(0, ::mount("/var/run/msg", "/var/run/msg", nullptr, MS_BIND, nullptr));
  ASSERT_EQ(0,
            ::mount(nullptr, "/var/run/msg", nullptr, MS_BIND | MS_REMOUNT | MS_RDONLY, nullptr));
  EXPECT_EQ(
      prefix + "cannot be removed and stays: Read-only file system (errno 30): " + kFile + "\n",
      logged(path_field(kFile)));
  ::umount("/var/run/msg");
}

TEST(HandOver, ReadsNothingButRegularFiles) {
  ASSERT_EQ(0, ::mkfifo(kFile.c_str(), 0600));
  EXPECT_EQ("<system>", completed(path_field(kFile))) << "and does not wait for a writer";
  std::filesystem::remove(kFile);
  std::filesystem::create_directory(kFile);
  EXPECT_EQ("<system>", completed(path_field(kFile)));
}

TEST(HandOver, RefusesAndDeletesAFileBeyondTheLimit) {
  for (const uint32_t size : {0x8000000u, 0x8000001u}) {
    write_file(kFile, "");
    std::filesystem::resize_file(kFile, size);
    EXPECT_EQ(size == 0x8000000 ? size : std::strlen("<bad argument>"),
              completed(path_field(kFile)).size());
    EXPECT_FALSE(std::filesystem::exists(kFile));
  }
}

TEST(HandOver, GivesTheMessageUpWithoutMemory) {
  write_file(kFile, "x");
  Header *message = test::make_block({.body = path_field(kFile)}).release();

  fail_allocation(1);
  EXPECT_EQ(Status::kNoMemory, complete_hand_over(&message));

  EXPECT_EQ(nullptr, message);
  EXPECT_FALSE(std::filesystem::exists(kFile));
  EXPECT_EQ(Status::kBadArgument, complete_hand_over(&message));
}

}  // namespace
}  // namespace msgapi::msg
