// The notify server and modules of several users.

#include <gmock/gmock.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <thread>

#include "support/notify_peer.h"
#include "support/process.h"

namespace {

using test::NotifyMessage;
using test::NotifyPeer;
using testing::AllOf;
using testing::HasSubstr;

constexpr uint32_t kCms = 8;
constexpr uint32_t kWeb = 26;
constexpr uint32_t kNoticeType = 0x77;
constexpr uid_t kWebUser = 1234;

// The kernel passes on the user of the thread that connects. Null if it cannot be another user.
std::unique_ptr<NotifyPeer> peer_of(uid_t user) {
  std::unique_ptr<NotifyPeer> peer;
  std::thread([&] {
    if (::syscall(SYS_setresuid, user, user, user) == 0) peer = std::make_unique<NotifyPeer>();
  }).join();
  return peer;
}

NotifyMessage message(uint32_t source, uint32_t destination, const std::string &data = "data") {
  NotifyMessage message{{}, data};
  message.head.msg_type = kNoticeType;
  message.head.source_id = source;
  message.head.des_id = destination;
  message.head.ack_tag = ORP_NOTIFYCLT_REQUEST;
  return message;
}

void enter(NotifyPeer *peer, uint32_t module) {
  const uint32_t values[] = {module, 0};
  NotifyMessage registration =
      message(0, ORP_NOTIFYCLT_SERVER, {reinterpret_cast<const char *>(values), sizeof values});
  registration.head.msg_type = ORP_NOTIFYCLT_REGISTER;
  peer->send(registration);
}

TEST(NotifyTrust, ModulesBelongToTheUsersOfTheCommandLine) {
  test::Process server("notifyserver", {"--own", "cms=root", "--own", "26=1234"});
  ASSERT_TRUE(server.wait_for("ready"));
  NotifyPeer cms;
  enter(&cms, kCms);
  ASSERT_TRUE(server.wait_for("is registered"));
  const auto web = peer_of(kWebUser);
  if (web == nullptr) GTEST_SKIP() << "an ordinary user's sandbox has no other users";
  enter(web.get(), kCms);
  ASSERT_TRUE(server.wait_for("of user 1234 may not be module 8"));
  enter(web.get(), kWeb);
  ASSERT_TRUE(server.wait_for("is registered"));
  const auto other = peer_of(kWebUser + 1);
  enter(other.get(), kWeb);
  ASSERT_TRUE(server.wait_for("of user 1235 may not be module 26"));
  enter(other.get(), 20);
  ASSERT_TRUE(server.wait_for("is registered"));

  // Messages carry their sender's module, also long ones that come in pieces.
  other->send(message(kWeb, kCms));
  EXPECT_EQ(20u, cms.receive().head.source_id);
  const std::string large(300000, 'x');
  other->send(message(kWeb, kCms, large));
  const NotifyMessage got = cms.receive();
  EXPECT_EQ(20u, got.head.source_id);
  EXPECT_EQ(large, got.data);
  web->send(message(kWeb, kCms));
  EXPECT_EQ(kWeb, cms.receive().head.source_id);
  EXPECT_EQ(0, server.stop(SIGTERM));
  EXPECT_THAT(server.output(), AllOf(HasSubstr("of user 1235 sends as module 26"),
                                     HasSubstr("foreign 2 forged 0 not_permitted 2")));
}

TEST(NotifyTrust, WithoutOwnersSourcesStayButNobodyIsTheServer) {
  test::Process server("notifyserver", {"--mode", "0600"});
  ASSERT_TRUE(server.wait_for("ready"));
  struct stat socket {};
  ASSERT_EQ(0, ::stat("/var/run/notify/notifyserver", &socket));
  EXPECT_EQ(0600u, socket.st_mode & 0777);
  NotifyPeer cms;
  enter(&cms, kCms);
  NotifyPeer web;
  enter(&web, kWeb);
  web.send(message(ORP_NOTIFYCLT_SERVER, kCms));
  web.send(message(kCms, kCms));
  EXPECT_EQ(kCms, cms.receive().head.source_id) << "as it was sent";
  EXPECT_EQ(0, server.stop(SIGTERM));
  EXPECT_THAT(server.output(), HasSubstr("foreign 2 forged 1 not_permitted 0"));
}

TEST(NotifyTrust, MistakesOfTheCommandLineAreNamed) {
  for (const char *bad :
       {"--own=nothing=root", "--own=8", "--own=8=no such user", "--own=8x=root",
        "--own=8=", "--own==root", "--own=99999999999=root", "--own=8=1x", "--own=0=root",
        "--own=110=root", "--mode=0888", "--mode=", "--mode=1777"}) {
    test::Process server("notifyserver", {bad});
    EXPECT_EQ(2, server.wait()) << bad;
  }
}

}  // namespace
