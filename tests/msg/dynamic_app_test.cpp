#include "msgapi/dynapp.h"

#include <gtest/gtest.h>
#include <sys/sysinfo.h>

#include <string>

#include "msg/dynamic_app.h"
#include "msgapi/status.h"
#include "support/allocation.h"
#include "support/message_peer.h"

namespace {

using test::Connection;
using test::Frame;

void expect_update(Connection &connection, uint32_t action, const std::string &name) {
  const Frame frame = connection.peer.read();
  EXPECT_EQ(0x5001u, frame.type());
  EXPECT_EQ("", frame.to());
  EXPECT_EQ(action, frame.header.ulMsgData);
  EXPECT_EQ(name + std::string(12 - name.size(), '\0'), frame.body);
}

TEST(DynamicApp, IsSwitchedOnWithoutBeingStopped) {
  Connection connection("self");
  EXPECT_EQ(ORP_OK, ORP_UTIL_UpdateDynAppListenFd("telnet", 0));
  EXPECT_EQ(ORP_OK, ORP_UTIL_UpdateDynAppStatus("telnet", 7));
  EXPECT_EQ(ORP_OK, ORP_UTIL_UpdateDynAppListenFd("name-longer-than", 0));
  EXPECT_EQ(1u, ORP_UTIL_UpdateDynAppListenFd(nullptr, 0));

  expect_update(connection, 0, "telnet");
  expect_update(connection, 0, "telnet");
  expect_update(connection, 0, "name-longer");
}

TEST(DynamicApp, IsAskedToExitBeforeItIsSwitchedOffOrRestarted) {
  Connection connection("self");
  for (const uint32_t action : {ORP_DYNAPP_OFF, ORP_DYNAPP_RESTART}) {
    connection.peer.write(test::make_frame({.type = 0x706, .from = "telnet"}));
    testing::internal::CaptureStdout();
    EXPECT_EQ(ORP_OK, action == ORP_DYNAPP_OFF ? ORP_UTIL_UpdateDynAppStatus("telnet", 0)
                                               : ORP_UTIL_RestartDynApp("telnet"));
    EXPECT_EQ("ineted app telnet should stop. we will safe exit process [telnet] now.\n",
              testing::internal::GetCapturedStdout());

    const Frame exit = connection.peer.read();
    EXPECT_EQ(0x706u, exit.type());
    EXPECT_EQ("telnet", exit.to());
    EXPECT_EQ(0u, exit.header.ulDataLen);
    expect_update(connection, action, "telnet");
  }
}

TEST(DynamicApp, IsUpdatedAlthoughItDoesNotAnswer) {
  Connection connection("self");
  EXPECT_EQ(5000u, g_ulSafeExitMsgTimeout);
  g_ulSafeExitMsgTimeout = 1;

  testing::internal::CaptureStdout();
  EXPECT_EQ(ORP_OK, ORP_UTIL_RestartDynApp("telnet"));
  EXPECT_EQ(
      "ineted app telnet should stop. we will safe exit process [telnet] now.\n"
      "send msg to telnet failed when safe exit process, ret = 65541.\n",
      testing::internal::GetCapturedStdout());

  EXPECT_EQ(0x706u, connection.peer.read().type());
  expect_update(connection, 2, "telnet");
}

TEST(DynamicApp, DoesNotStopItself) {
  Connection connection("self");
  testing::internal::CaptureStdout();
  EXPECT_EQ(ORP_OK, ORP_UTIL_UpdateDynAppListenFd("self", 1));
  EXPECT_EQ("", testing::internal::GetCapturedStdout());
  expect_update(connection, 1, "self");
}

TEST(DynamicApp, AllAreStoppedAtOnce) {
  Connection connection("self");
  connection.peer.write(test::make_frame({.type = 0x504D, .data = 3}));
  EXPECT_EQ(3u, ORP_UTIL_KillAllDynApp());
  EXPECT_EQ(0x504Du, connection.peer.read().type());
  connection.peer.close();
  EXPECT_EQ(ORP_ERR_PEER_GONE, ORP_UTIL_KillAllDynApp());
}

TEST(SyncPoint, CanOnlyBeReleased) {
  Connection connection("self");
  EXPECT_EQ(ORP_ERR_ARGUMENT, ORP_MSG_OrpSyncWait("start", 1000));
  EXPECT_EQ(ORP_ERR_ARGUMENT, ORP_MSG_OrpSyncWait(nullptr, 0));
  EXPECT_EQ(ORP_ERR_SYSTEM, ORP_MSG_OrpSyncWait("twelve chars", 0));
  EXPECT_EQ(1u, ORP_MSG_OrpSyncPost(nullptr));
  EXPECT_EQ(1u, ORP_MSG_OrpSyncPost(""));
  EXPECT_TRUE(connection.peer.quiet());

  EXPECT_EQ(ORP_OK, ORP_MSG_OrpSyncPost("start"));
  const Frame post = connection.peer.read();
  EXPECT_EQ(0x5019u, post.type());
  EXPECT_EQ("", post.to());
  EXPECT_EQ(std::string("start\0", 6), post.body);
}

TEST(PostScript, SendsArgumentAndScript) {
  Connection connection("self");
  EXPECT_EQ(ORP_OK, ORP_UTIL_PostLua("first", "print(1)"));
  EXPECT_EQ(ORP_OK, ORP_UTIL_PostLua(nullptr, ""));

  const Frame frame = connection.peer.read();
  EXPECT_EQ(0x490Cu, frame.type());
  EXPECT_EQ("web", frame.to());
  EXPECT_NE(0u, frame.header.ulSeqNum);
  EXPECT_EQ("first" + std::string(251, '\0') + std::string("print(1)\0", 9), frame.body);
  EXPECT_EQ(std::string(257, '\0'), connection.peer.read().body);
}

TEST(PostScript, RefusesWhatItCannotSend) {
  Connection connection("self");
  EXPECT_EQ(1u, ORP_UTIL_PostLua("first", nullptr));
  EXPECT_EQ(1u, ORP_UTIL_PostLua(std::string(256, 'f').c_str(), "s"));
  EXPECT_EQ(1u, ORP_UTIL_PostLua("f", std::string(0x800000, 's').c_str())) << "beyond 8 MiB";
  msgapi::fail_allocation(1);
  EXPECT_EQ(1u, ORP_UTIL_PostLua("f", "s"));
  EXPECT_TRUE(connection.peer.quiet());
}

TEST(SystemQueries, TellUptimeAndKernel) {
  struct sysinfo before, after;
  ::sysinfo(&before);
  const uint32_t uptime = ORP_UTIL_GetSysUpTime();
  ::sysinfo(&after);
  EXPECT_GE(uptime, static_cast<uint32_t>(before.uptime));
  EXPECT_LE(uptime, static_cast<uint32_t>(after.uptime));

  EXPECT_EQ(1u, ORP_UTIL_GetLinuxVersion());
  EXPECT_EQ(0u, msgapi::msg::linux_version("2.6.36-2.6.21"));
  EXPECT_EQ(0u, msgapi::msg::linux_version("x2.6.21.5"));
  EXPECT_EQ(2u, msgapi::msg::linux_version("2.6.36"));
  EXPECT_EQ(1u, msgapi::msg::linux_version("2.6.3"));
  EXPECT_EQ(1u, msgapi::msg::linux_version(""));
}

}  // namespace
