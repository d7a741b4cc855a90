// The notify server and modules of several users.

#include <gmock/gmock.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <thread>

#include "servers/notify_server.h"

namespace {

using test::kCms;
using test::kWeb;
using test::Module;
using test::notice;
using test::NotifyMessage;
using test::NotifyPeer;
using test::NotifyServer;
using test::registration;
using testing::AllOf;
using testing::HasSubstr;

constexpr uid_t kWebUser = 1234;

// The kernel passes on the user of the thread that connects. Null if it cannot be another user.
std::unique_ptr<NotifyPeer> peer_of(uid_t user) {
  std::unique_ptr<NotifyPeer> peer;
  std::thread([&] {
    if (::syscall(SYS_setresuid, user, user, user) == 0) peer = std::make_unique<NotifyPeer>();
  }).join();
  return peer;
}

TEST(NotifyTrust, ModulesBelongToTheUsersOfTheCommandLine) {
  NotifyServer server({"--own", "cms=root", "--own", "26=1234"});
  Module cms(&server, kCms);
  const auto web = peer_of(kWebUser);
  if (web == nullptr) GTEST_SKIP() << "an ordinary user's sandbox has no other users";
  web->send(registration(kCms));
  ASSERT_TRUE(server.wait_for("of user 1234 may not be module 8"));
  web->send(registration(kWeb));
  ASSERT_TRUE(server.wait_for("is registered"));
  const auto other = peer_of(kWebUser + 1);
  other->send(registration(kWeb));
  ASSERT_TRUE(server.wait_for("of user 1235 may not be module 26"));
  other->send(registration(20));
  ASSERT_TRUE(server.wait_for("is registered"));

  // Messages carry their sender's module, also long ones that come in pieces.
  other->send(notice(kWeb, kCms));
  EXPECT_EQ(20u, cms.receive().head.source_id);
  const std::string large(300000, 'x');
  other->send(notice(kWeb, kCms, large));
  const NotifyMessage got = cms.receive();
  EXPECT_EQ(20u, got.head.source_id);
  EXPECT_EQ(large, got.data);
  web->send(notice(kWeb, kCms));
  EXPECT_EQ(kWeb, cms.receive().head.source_id);
  EXPECT_EQ(0, server.stop(SIGTERM));
  EXPECT_THAT(server.output(), AllOf(HasSubstr("of user 1235 sends as module 26"),
                                     HasSubstr("foreign 2 forged 0 not_permitted 2")));
}

TEST(NotifyTrust, WithoutOwnersSourcesStayButNobodyIsTheServer) {
  NotifyServer server({"--mode", "0600"});
  struct stat socket {};
  ASSERT_EQ(0, ::stat("/var/run/notify/notifyserver", &socket));
  EXPECT_EQ(0600u, socket.st_mode & 0777);
  Module cms(&server, kCms);
  Module web(&server, kWeb);
  web.send(notice(ORP_NOTIFYCLT_SERVER, kCms));
  web.send(notice(kCms, kCms));
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
