// Hand-over files with clients of several users: who owns them before and after they are passed on.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <string>

#include "servers/users.h"
#include "support/file.h"
#include "support/message_peer.h"

namespace {

using test::Frame;
using test::kType;
using test::kUser;
using test::padded;
using test::RawClient;
using Trust = test::Users;
using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;

// Anybody may write to the directory of hand-over files: it is sticky.
class BodyFiles : public Trust {
 protected:
  static constexpr uid_t kReceiver = 2345;
  static constexpr uid_t kHostile = 3456;
  static constexpr const char *kPath = "/var/run/msg/msg_file_7";

  BodyFiles() { EXPECT_EQ(0, ::chmod("/var/run/msg", 01777)); }

  static std::unique_ptr<RawClient> client_of(uid_t user, const std::string &name) {
    std::unique_ptr<RawClient> client;
    as(user, {}, [&](bool) { client = std::make_unique<RawClient>(name); });
    return client;
  }

  // Makes the file like the library.
  static void make_file(uid_t user) {
    as(user, {}, [&](bool) {
      const int fd = ::open(kPath, O_WRONLY | O_CREAT | O_EXCL, 0600);
      EXPECT_EQ(6, ::write(fd, "secret", 6));
      EXPECT_EQ(0, ::fchmod(fd, 01204));
      ::close(fd);
    });
  }

  static Frame message(uint32_t type, const std::string &to) {
    return {.type = type | ORP_MSG_TYPE_BODY_IN_FILE,
            .to = to,
            .body = padded(kPath, ORP_MSG_HAND_OVER_PATH_SIZE)};
  }

  static bool can_read(uid_t user, const std::string &path) {
    int fd = -1;
    as(user, {}, [&](bool) { fd = ::open(path.c_str(), O_RDONLY); });
    if (fd >= 0) ::close(fd);
    return fd >= 0;
  }

  static bool can_remove(uid_t user, const std::string &path) {
    bool removed = false;
    as(user, {}, [&](bool) { removed = ::unlink(path.c_str()) == 0; });
    return removed;
  }

  static std::string path_in(const Frame &frame) { return frame.body.c_str(); }
  static bool exists(const std::string &path) { return ::access(path.c_str(), F_OK) == 0; }
};

TEST_F(BodyFiles, BecomeTheirReceivers) {
  start();
  const auto sender = client_of(kUser, "sender");
  const auto receiver = client_of(kReceiver, "receiver");
  make_file(kUser);
  EXPECT_FALSE(can_remove(kReceiver, kPath)) << "still the sender's";
  sender->send(message(kType, "receiver"));
  EXPECT_EQ(kPath, path_in(receiver->read()));

  EXPECT_FALSE(can_read(kHostile, kPath));
  EXPECT_FALSE(can_remove(kHostile, kPath));
  EXPECT_FALSE(can_remove(kUser, kPath));
  EXPECT_TRUE(can_read(kReceiver, kPath));
  EXPECT_TRUE(can_remove(kReceiver, kPath));

  // The library's mode does not let processes of the same user read, so the file changes for them,
  // too. For root nothing has to change.
  RawClient root("root");
  const auto other = client_of(kUser, "other");
  for (RawClient *to : {&root, other.get()}) {
    make_file(kUser);
    sender->send(message(kType, to->name()));
    to->read();
    struct stat file {};
    EXPECT_EQ(0, ::stat(kPath, &file));
    EXPECT_EQ(kUser, file.st_uid);
    EXPECT_EQ(to == &root ? 01204u : 0600u, file.st_mode & 07777);
    EXPECT_TRUE(can_remove(kUser, kPath));
  }
}

TEST_F(BodyFiles, OfOthersNobodyHandsOver) {
  start();
  const auto hostile = client_of(kHostile, "hostile");
  const auto receiver = client_of(kReceiver, "receiver");
  receiver->send({.type = ORP_MSG_SUBSCRIBE, .data = ORP_MSG_EVENT_WAN});
  receiver->drain();
  make_file(kUser);
  hostile->send(message(kType, "receiver"));
  hostile->expect(notice(kType, "hostile"));
  hostile->send(message(ORP_MSG_EVENT_WAN, "mic"));
  hostile->send(message(kType, "nobody"));
  hostile->drain();
  // Nor with a message that is so long that the server passes it on while it arrives.
  Frame longer = message(kType, "receiver");
  longer.body.resize(400000);
  hostile->send(longer);
  hostile->expect(notice(kType, "hostile"));
  EXPECT_TRUE(receiver->quiet());
  EXPECT_TRUE(exists(kPath));
  EXPECT_TRUE(can_remove(kUser, kPath)) << "it has stayed its owner's";

  as(kHostile, {}, [](bool) { EXPECT_EQ(0, ::symlink("/etc/passwd", kPath)); });
  hostile->send(message(kType, "receiver"));
  hostile->expect(notice(kType, "hostile"));
  EXPECT_TRUE(receiver->quiet());
}

TEST_F(BodyFiles, GoWithTheirMessages) {
  start();
  const auto sender = client_of(kUser, "sender");
  {
    const auto receiver = client_of(kReceiver, "receiver");
    // The receiver leaves before it reads.
    receiver->send({.type = kType, .to = "receiver", .body = std::string(400000, 'f')});
    make_file(kUser);
    sender->send(message(kType, "receiver"));
    EXPECT_THAT(sender->drain(), IsEmpty());
  }
  sender->expect(notice(kType, "sender"));
  EXPECT_FALSE(exists(kPath));
}

TEST_F(BodyFiles, OfEventsReachEachSubscriberAsItsOwn) {
  start();
  const auto sender = client_of(kUser, "sender");
  const auto a = client_of(kReceiver, "a");
  const auto b = client_of(kUser, "b");
  RawClient root("root");
  const std::pair<RawClient *, uid_t> kAll[] = {{a.get(), kReceiver}, {b.get(), kUser}, {&root, 0}};
  for (const auto &[client, uid] : kAll) {
    client->send({.type = ORP_MSG_SUBSCRIBE, .data = ORP_MSG_EVENT_WAN});
    client->drain();
  }
  make_file(kUser);
  sender->send(message(ORP_MSG_EVENT_WAN, "mic"));
  for (const auto &[client, uid] : kAll) {
    const std::string path = path_in(client->read());
    EXPECT_NE(kPath, path);
    EXPECT_EQ("secret", test::contents(path)) << client->name();
    EXPECT_TRUE(can_read(uid, path)) << client->name();
    EXPECT_TRUE(can_remove(uid, path)) << client->name();
  }
  EXPECT_FALSE(exists(kPath));
}

TEST_F(BodyFiles, OfEventsAreNotCopiedBeyondWhatApplicationsTake) {
  start();
  const auto sender = client_of(kUser, "sender");
  const auto receiver = client_of(kReceiver, "receiver");
  receiver->send({.type = ORP_MSG_SUBSCRIBE, .data = ORP_MSG_EVENT_WAN});
  receiver->drain();
  constexpr off_t kMost = ORP_MSG_MAX_DISPATCHED_BODY;
  for (const off_t size : {kMost, kMost + 1}) {
    make_file(kUser);
    EXPECT_EQ(0, ::truncate(kPath, size));
    sender->send(message(ORP_MSG_EVENT_WAN, "mic"));
    sender->drain();
    if (size == kMost) {
      EXPECT_EQ(static_cast<uintmax_t>(size),
                std::filesystem::file_size(path_in(receiver->read())));
    } else {
      EXPECT_TRUE(receiver->quiet()) << "a file of holes costs its publisher nothing";
    }
    EXPECT_FALSE(exists(kPath));
  }
}

}  // namespace
