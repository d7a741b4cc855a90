// Hand-over files as the message server treats them: whose they are before and after they are
// passed on, and what becomes of names that lead elsewhere and of files that cannot be given away.

#include <gmock/gmock.h>
#include <linux/capability.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <utility>

#include "msgsvr/hand_over.h"
#include "msgsvr/wire.h"
#include "servers/users.h"
#include "support/file.h"
#include "support/message_peer.h"

namespace {

namespace fs = std::filesystem;
using msgsvr::kUnknownUser;
using servers::UniqueFd;
using test::Frame;
using test::kType;
using test::kUser;
using test::padded;
using test::RawClient;
using testing::IsEmpty;
using testing::Pair;

constexpr uid_t kReceiver = 2345;
constexpr uid_t kOther = 3456;
constexpr const char *kDirectory = "/var/run/msg";
constexpr mode_t kMode = 01204;      // the library's
constexpr mode_t kGivenMode = 0600;  // nobody else reads it any more

class HandOver : public test::Users {
 protected:
  // A file like the library's.
  static void make_file(uid_t user, const std::string &path, const std::string &text = "secret") {
    std::ofstream(path) << text;
    EXPECT_EQ(0, ::chown(path.c_str(), user, user));
    EXPECT_EQ(0, ::chmod(path.c_str(), kMode));
  }

  static std::pair<uid_t, mode_t> owner_and_mode(const std::string &path) {
    struct stat status {};
    EXPECT_EQ(0, ::lstat(path.c_str(), &status)) << path;
    return {status.st_uid, status.st_mode & 07777};
  }

  static Frame message(const std::string &body, const std::string &to, uint32_t type = kType) {
    return {.type = type | ORP_MSG_TYPE_BODY_IN_FILE, .to = to, .body = body};
  }

  const std::string path_ = std::string(ORP_MSG_HAND_OVER_PREFIX) + "7";
  const std::string body_ = padded(path_, ORP_MSG_HAND_OVER_PATH_SIZE);
};

TEST_F(HandOver, NeedsAPathDirectlyInItsDirectory) {
  const std::string prefix = ORP_MSG_HAND_OVER_PREFIX;
  EXPECT_EQ(path_, msgsvr::hand_over_path(body_));
  for (const std::string &bad :
       {std::string(), std::string("/var/x\0", 7), prefix + '\0', prefix + "1/x" + '\0',
        path_ /* without its NUL */, std::string(ORP_MSG_HAND_OVER_PATH_SIZE, 'x') + '\0'}) {
    EXPECT_EQ(std::nullopt, msgsvr::hand_over_path(bad)) << bad;
    std::string out;
    EXPECT_FALSE(msgsvr::read_hand_over(bad, 100, 0, &out)) << bad;
    EXPECT_TRUE(msgsvr::pass_hand_over(bad, kUser, kReceiver)) << "its receiver refuses " << bad;
  }
}

TEST_F(HandOver, IsARegularFileOfItsSender) {
  make_file(kUser, "/var/target");
  const struct {
    const char *what;
    std::function<void()> make;
    bool of_user;     // may kUser hand it over?
    bool of_anybody;  // may root, and an unknown sender?
    bool is_there = true;
  } kCases[] = {
      {"its own", [&] { make_file(kUser, path_); }, true, true},
      {"of another user", [&] { make_file(kOther, path_); }, false, true},
      {"a link", [&] { fs::create_symlink("/var/target", path_); }, false, false},
      {"a directory", [&] { fs::create_directory(path_); }, false, false},
      {"a FIFO", [&] { EXPECT_EQ(0, ::mkfifo(path_.c_str(), 0666)); }, false, false},
      {"nothing", [] {}, false, false, false},
  };
  for (const auto &each : kCases) {
    for (const uid_t sender : {kUser, uid_t{0}, kUnknownUser}) {
      SCOPED_TRACE(std::string(each.what) + ", sender " + std::to_string(sender));
      const bool may = sender == kUser ? each.of_user : each.of_anybody;
      each.make();
      const uid_t owner = each.is_there ? owner_and_mode(path_).first : 0;

      EXPECT_EQ(may, static_cast<bool>(msgsvr::open_hand_over(path_, sender)));
      std::string out = "untouched";
      EXPECT_FALSE(msgsvr::read_hand_over(body_, 5, sender, &out)) << "too long or not allowed";
      EXPECT_EQ("untouched", out);
      EXPECT_EQ(each.is_there && !may, fs::is_symlink(path_) || fs::exists(path_));

      if (may) each.make();
      // A message whose file has gone is passed on: the receiver notices it.
      const bool passes = sender != kUser || each.of_user || !each.is_there;
      EXPECT_EQ(passes, msgsvr::pass_hand_over(body_, sender, kReceiver));
      if (each.is_there) {
        EXPECT_EQ(may && sender != kUnknownUser ? kReceiver : owner, owner_and_mode(path_).first);
      }
      fs::remove(path_);
      if (!may) continue;

      each.make();
      EXPECT_TRUE(msgsvr::read_hand_over(body_, 6, sender, &out));
      EXPECT_EQ("secret", out);
      EXPECT_FALSE(fs::exists(path_));
    }
  }
  EXPECT_EQ(kUser, owner_and_mode("/var/target").first) << "links are not followed";
}

TEST_F(HandOver, OfAMessageThatNobodyGetsIsRemovedIfItIsTheSenders) {
  const std::string frame = message(body_, "to").bytes("from");
  const auto stays = [&](const std::string &bytes, uid_t sender, uid_t receiver = kUnknownUser) {
    msgsvr::remove_sent_file(bytes, false, sender, receiver);
    return fs::exists(path_);
  };
  make_file(kUser, path_);
  EXPECT_TRUE(stays(frame, kOther));
  EXPECT_TRUE(stays(frame, kUnknownUser));
  EXPECT_TRUE(stays(frame.substr(0, msgsvr::kHeaderSize - 1), kUser));
  EXPECT_TRUE(stays(Frame{.type = kType, .body = body_}.bytes(), kUser)) << "the body is no path";
  EXPECT_TRUE(stays(message(path_, "to").bytes(), kUser)) << "the path has no end";
  EXPECT_FALSE(stays(frame, kUser));
  EXPECT_FALSE(stays(frame, kUser)) << "it has gone already";

  make_file(kUser, "/var/elsewhere");
  stays(message(padded("/var/elsewhere", ORP_MSG_HAND_OVER_PATH_SIZE), "to").bytes(), kUser);
  EXPECT_TRUE(fs::exists("/var/elsewhere"));

  make_file(kReceiver, path_);
  EXPECT_TRUE(stays(frame, kUser));
  EXPECT_FALSE(stays(frame, kUser, kReceiver)) << "it was given away already";
  fs::create_directory(path_);
  EXPECT_TRUE(stays(frame, 0));
}

TEST_F(HandOver, IsGivenOnlyToOrdinaryUsersAndOnlyByRoot) {
  make_file(kUser, path_);
  for (const uid_t receiver : {uid_t{0}, kUnknownUser}) {
    EXPECT_TRUE(msgsvr::pass_hand_over(body_, kUser, receiver));
    EXPECT_EQ(kUser, owner_and_mode(path_).first) << receiver;
  }
  as(kUser, {}, [&](bool) { EXPECT_TRUE(msgsvr::pass_hand_over(body_, kUser, kReceiver)); });
  EXPECT_EQ(kUser, owner_and_mode(path_).first);

  msgsvr::give_hand_over(8, kReceiver);  // there is no such file
  msgsvr::give_hand_over(7, 0);
  EXPECT_THAT(owner_and_mode(path_), Pair(kUser, kMode));
  msgsvr::give_hand_over(7, kReceiver);
  EXPECT_THAT(owner_and_mode(path_), Pair(kReceiver, kGivenMode));
}

TEST_F(HandOver, StaysItsSendersIfItCannotBeGiven) {
  make_file(kUser, path_);
  testing::internal::CaptureStderr();
  std::thread([&] {
    __user_cap_header_struct head{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct rights[2]{};
    EXPECT_EQ(0, ::syscall(SYS_capget, &head, rights));
    rights[0].effective &= ~(1u << CAP_CHOWN);
    EXPECT_EQ(0, ::syscall(SYS_capset, &head, rights));
    for (int i = 0; i < 2; ++i) {
      EXPECT_TRUE(msgsvr::pass_hand_over(body_, kUser, kReceiver));
      EXPECT_THAT(owner_and_mode(path_), Pair(kUser, kMode))
          << "the receiver reads it as one of the others";
    }
  }).join();
  EXPECT_EQ(1u, count(testing::internal::GetCapturedStderr(), "cannot be given away"))
      << "each file would say the same";

  // Nor where nothing can be changed.
  fs::remove(path_);
  ASSERT_EQ(0, ::mount("files", kDirectory, "tmpfs", 0, "mode=1777")) << std::strerror(errno);
  make_file(kUser, path_);
  ASSERT_EQ(0, ::mount(nullptr, kDirectory, nullptr, MS_REMOUNT | MS_RDONLY, nullptr));
  EXPECT_TRUE(msgsvr::pass_hand_over(body_, kUser, kReceiver));
  EXPECT_THAT(owner_and_mode(path_), Pair(kUser, kMode));
}

TEST_F(HandOver, IsRefusedWhenNobodyCanTellWhoseItIs) {
#ifdef __SANITIZE_ADDRESS__
  GTEST_SKIP() << "the sanitizer's own checks need descriptors";
#endif
  make_file(kUser, path_);
  rlimit before{};
  ASSERT_EQ(0, ::getrlimit(RLIMIT_NOFILE, &before));
  const rlimit none{0, before.rlim_max};
  ASSERT_EQ(0, ::setrlimit(RLIMIT_NOFILE, &none));
  const bool passed = msgsvr::pass_hand_over(body_, kUser, kReceiver);
  uint32_t number = 5;
  const bool made = static_cast<bool>(msgsvr::create_hand_over(&number));
  const int reason = errno;
  ASSERT_EQ(0, ::setrlimit(RLIMIT_NOFILE, &before));
  EXPECT_FALSE(passed);
  EXPECT_FALSE(made);
  EXPECT_EQ(EMFILE, reason);
  EXPECT_EQ(5u, number) << "untouched";
}

TEST_F(HandOver, IsSharedWholeOrNotAtAll) {
  constexpr off_t kMost = ORP_MSG_MAX_DISPATCHED_BODY;
  make_file(kUser, path_, std::string(kMost, 's'));
  const UniqueFd file = msgsvr::open_hand_over(path_, kUser);
  ASSERT_TRUE(file);
  const auto is_alone = [&] { return std::distance(fs::directory_iterator(kDirectory), {}) == 1; };
  // Root gets a second name, others a copy.
  for (const uid_t receiver : {uid_t{0}, kReceiver}) {
    const uint32_t number = msgsvr::share_hand_over(file, receiver);
    ASSERT_NE(0u, number);
    const std::string path = msgsvr::hand_over_body(number).data();
    EXPECT_TRUE(std::string(kMost, 's') == test::contents(path));
    EXPECT_EQ(receiver == 0 ? kUser : kReceiver, owner_and_mode(path).first);
    EXPECT_EQ(receiver == 0, fs::equivalent(path, path_));
    msgsvr::remove_hand_over(number);
  }

  const auto refused = [&](const UniqueFd &shared, uid_t receiver) {
    EXPECT_EQ(0u, msgsvr::share_hand_over(shared, receiver)) << receiver;
    return errno;
  };
  ASSERT_EQ(0, ::truncate(path_.c_str(), kMost + 1));
  EXPECT_EQ(EFBIG, refused(file, kReceiver));
  EXPECT_EQ(EBADF, refused(UniqueFd(), kReceiver));
  EXPECT_TRUE(is_alone());

  // Nothing is left behind where there is no room for a copy.
  ASSERT_EQ(0, ::truncate(path_.c_str(), 100000));
  ASSERT_EQ(0, ::mount("files", kDirectory, "tmpfs", 0, "size=16k")) << std::strerror(errno);
  EXPECT_EQ(ENOSPC, refused(file, kReceiver));
  EXPECT_EQ(EXDEV, refused(file, 0)) << "a link leads to the same file system";
  EXPECT_TRUE(fs::is_empty(kDirectory));
  ASSERT_EQ(0, ::umount(kDirectory));
  fs::rename(kDirectory, "/var/run/elsewhere");
  EXPECT_EQ(ENOENT, refused(file, kReceiver));
  EXPECT_EQ(ENOENT, refused(file, 0));
}

// The server with clients of several users.
class BodyFiles : public HandOver {
 protected:
  BodyFiles() { start(); }

  static void subscribe(RawClient *client) {
    client->send({.type = ORP_MSG_SUBSCRIBE, .data = ORP_MSG_EVENT_WAN});
    client->drain();
  }
};

TEST_F(BodyFiles, BecomeTheirReceivers) {
  const auto sender = user("sender");
  const auto receiver = user("receiver", {}, kReceiver);
  const auto other = user("other");
  RawClient root("root");
  // The library's mode does not let processes of the same user read, so the file changes for them,
  // too. For root nothing has to change.
  const struct {
    RawClient *to;
    uid_t owner;
    mode_t mode;
  } kCases[] = {
      {receiver.get(), kReceiver, kGivenMode},
      {other.get(), kUser, kGivenMode},
      {&root, kUser, kMode},
  };
  for (const auto &[to, owner, mode] : kCases) {
    make_file(kUser, path_);
    sender->send(message(body_, to->name()));
    EXPECT_EQ(body_, to->read().body);
    EXPECT_THAT(owner_and_mode(path_), Pair(owner, mode)) << to->name();
    fs::remove(path_);
  }
}

TEST_F(BodyFiles, OfOthersNobodyHandsOver) {
  const auto hostile = user("hostile", {}, kOther);
  const auto receiver = user("receiver", {}, kReceiver);
  subscribe(receiver.get());
  make_file(kUser, path_);
  expect_refusal(*hostile, message(body_, "receiver"));
  hostile->send(message(body_, "mic", ORP_MSG_EVENT_WAN));
  hostile->send(message(body_, "nobody"));
  hostile->drain();
  // Nor with a message that is so long that the server passes it on while it arrives.
  expect_refusal(*hostile, message(padded(path_, 400000), "receiver"));
  EXPECT_TRUE(receiver->quiet());
  EXPECT_THAT(owner_and_mode(path_), Pair(kUser, kMode));
}

TEST_F(BodyFiles, GoWithTheirMessages) {
  const auto sender = user("sender");
  {
    const auto receiver = user("receiver", {}, kReceiver);
    // The receiver leaves before it reads.
    receiver->send({.type = kType, .to = "receiver", .body = std::string(400000, 'f')});
    make_file(kUser, path_);
    sender->send(message(body_, "receiver"));
    EXPECT_THAT(sender->drain(), IsEmpty());
  }
  sender->expect(notice(kType, "sender"));
  EXPECT_FALSE(fs::exists(path_));
}

TEST_F(BodyFiles, OfEventsReachEachSubscriberAsItsOwn) {
  const auto sender = user("sender");
  const auto a = user("a", {}, kReceiver);
  const auto b = user("b");
  RawClient root("root");
  for (RawClient *client : {a.get(), b.get(), &root}) subscribe(client);
  make_file(kUser, path_);
  sender->send(message(body_, "mic", ORP_MSG_EVENT_WAN));
  for (RawClient *client : {a.get(), b.get(), &root}) {
    const Frame got = client->read();
    EXPECT_EQ(ORP_MSG_EVENT_WAN | ORP_MSG_TYPE_BODY_IN_FILE, got.type);
    ASSERT_EQ(ORP_MSG_HAND_OVER_PATH_SIZE, got.body.size());
    EXPECT_NE(body_, got.body);
    EXPECT_EQ("secret", test::contents(got.body.c_str())) << client->name();
    EXPECT_THAT(owner_and_mode(got.body.c_str()),
                Pair(client == a.get() ? kReceiver : kUser, client == &root ? kMode : kGivenMode));
  }
  EXPECT_FALSE(fs::exists(path_));

  // A file of holes costs its publisher nothing, so it is not copied beyond what applications take.
  make_file(kUser, path_);
  EXPECT_EQ(0, ::truncate(path_.c_str(), ORP_MSG_MAX_DISPATCHED_BODY + 1));
  sender->send(message(body_, "mic", ORP_MSG_EVENT_WAN));
  root.read();
  EXPECT_THAT(a->drain(), IsEmpty());
  EXPECT_FALSE(fs::exists(path_));
}

}  // namespace
