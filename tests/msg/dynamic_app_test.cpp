#include "msgapi/dynapp.h"

#include <gtest/gtest.h>

#include <string>

#include "msg/dynamic_app.h"
#include "msgapi/status.h"
#include "support/allocation.h"
#include "support/message_peer.h"

namespace {

using test::Connection;
using test::padded;

TEST(DynamicApp, IsSwitchedOnAndSwitchesItselfWithoutBeingStopped) {
  Connection connection("self");
  testing::internal::CaptureStdout();
  EXPECT_EQ(ORP_OK, ORP_UTIL_UpdateDynAppListenFd("name-longer-than", 0));
  EXPECT_EQ(ORP_OK, ORP_UTIL_UpdateDynAppStatus("telnet", 7));
  EXPECT_EQ(ORP_OK, ORP_UTIL_UpdateDynAppListenFd("self", 1));
  EXPECT_EQ(1u, ORP_UTIL_UpdateDynAppListenFd(nullptr, 0));
  EXPECT_EQ("", testing::internal::GetCapturedStdout());

  connection.peer.expect({.type = ORP_MSG_DYNAPP_UPDATE, .body = padded("name-longer")});
  connection.peer.expect({.type = ORP_MSG_DYNAPP_UPDATE, .body = padded("telnet")});
  connection.peer.expect({.type = ORP_MSG_DYNAPP_UPDATE, .body = padded("self"), .data = 1});
}

TEST(DynamicApp, IsAskedToExitBeforeItIsSwitchedOffOrRestarted) {
  Connection connection("self");
  EXPECT_EQ(5000u, g_ulSafeExitMsgTimeout);
  g_ulSafeExitMsgTimeout = 1;
  const std::string asked =
      "ineted app telnet should stop. we will safe exit process [telnet] now.\n";

  connection.peer.send({.type = ORP_MSG_EXIT, .from = "telnet"});
  testing::internal::CaptureStdout();
  EXPECT_EQ(ORP_OK, ORP_UTIL_UpdateDynAppStatus("telnet", 0));
  EXPECT_EQ(ORP_OK, ORP_UTIL_RestartDynApp("telnet")) << "although it does not answer";
  EXPECT_EQ(asked + asked + "send msg to telnet failed when safe exit process, ret = 65541.\n",
            testing::internal::GetCapturedStdout());

  for (const uint32_t action : {1u, 2u}) {
    connection.peer.expect({.type = ORP_MSG_EXIT, .to = "telnet"});
    connection.peer.expect(
        {.type = ORP_MSG_DYNAPP_UPDATE, .body = padded("telnet"), .data = action});
  }
}

TEST(SyncPoint, CanOnlyBeReleased) {
  Connection connection("self");
  EXPECT_EQ(ORP_ERR_ARGUMENT, ORP_MSG_OrpSyncWait("start", 1000));
  EXPECT_EQ(ORP_ERR_ARGUMENT, ORP_MSG_OrpSyncWait(nullptr, 0));
  EXPECT_EQ(ORP_ERR_SYSTEM, ORP_MSG_OrpSyncWait("twelve chars", 0));
  EXPECT_EQ(1u, ORP_MSG_OrpSyncPost(nullptr));
  EXPECT_EQ(1u, ORP_MSG_OrpSyncPost(""));
  EXPECT_EQ(ORP_OK, ORP_MSG_OrpSyncPost("start"));
  connection.peer.expect({.type = ORP_MSG_SYNC_POST, .body = std::string("start\0", 6)});
}

TEST(PostScript, SendsArgumentAndScript) {
  Connection connection("self");
  EXPECT_EQ(1u, ORP_UTIL_PostLua("first", nullptr));
  EXPECT_EQ(1u, ORP_UTIL_PostLua(std::string(256, 'f').c_str(), "s"));
  EXPECT_EQ(1u, ORP_UTIL_PostLua("f", std::string(0x800000, 's').c_str())) << "beyond 8 MiB";
  msgapi::fail_allocation(1);
  EXPECT_EQ(1u, ORP_UTIL_PostLua("f", "s"));
  EXPECT_EQ(ORP_OK, ORP_UTIL_PostLua("first", "print(1)"));
  EXPECT_EQ(ORP_OK, ORP_UTIL_PostLua(nullptr, ""));

  connection.peer.expect({.type = ORP_MSG_POST_SCRIPT,
                          .to = "web",
                          .body = padded("first", 256) + padded("print(1)", 9)});
  connection.peer.expect({.type = ORP_MSG_POST_SCRIPT, .to = "web", .body = padded("", 257)});
}

TEST(SystemQueries, TellUptimeAndKernel) {
  EXPECT_LT(0u, ORP_UTIL_GetSysUpTime());
  EXPECT_EQ(1u, ORP_UTIL_GetLinuxVersion());
  EXPECT_EQ(0u, msgapi::msg::linux_version("2.6.36-2.6.21"));
  EXPECT_EQ(2u, msgapi::msg::linux_version("x2.6.36.5"));
  EXPECT_EQ(1u, msgapi::msg::linux_version("2.6.3"));
}

}  // namespace
