#include <gtest/gtest.h>

#include "msgapi/device.h"
#include "msgapi/status.h"
#include "support/message_peer.h"

namespace {

using test::Connection;

TEST(Features, AnswerAsThisBuildIs) {
  uint32_t (*const kPresent[])() = {
      ORP_WEB_CheckWebUi,       ORP_IsSupportUrlFltWhiteListFeature,
      ORP_IsSupportIgmpFeature, ORP_IsSupportMacFltWhiteListFeature,
      ORP_IsSupportNpsEnable,   ORP_IsSupportVlanPassThroughFeature,
  };
  for (const auto feature : kPresent) EXPECT_EQ(1u, feature());
  EXPECT_EQ(0u, ORP_IsRepeaterProduct());

  char controller[4] = "abc";
  ORP_GetElinkController(controller, sizeof controller);
  EXPECT_STREQ("abc", controller);
}

TEST(SystemRequest, GoesToTheServerAsAHeader) {
  Connection connection("self");
  EXPECT_EQ(ORP_OK, ORP_APP_SendSysguardHeartBeat());
  EXPECT_EQ(ORP_OK, ORP_APP_StopSysguard());
  EXPECT_EQ(ORP_OK, ORP_UTIL_Reboot(3));

  const uint32_t expected[][2] = {
      {ORP_MSG_KEEP_ALIVE, 0}, {ORP_MSG_STOP_WATCHDOG, 0}, {ORP_MSG_REBOOT, 3}};
  for (const auto &[type, data] : expected) {
    connection.peer.expect({.type = type, .data = data});
  }
}

TEST(SystemRequest, FactoryModeIsTheAnswerOr0) {
  EXPECT_EQ(0u, ORP_APP_IsFactoryMode()) << "not connected";
  EXPECT_EQ(ORP_ERR_NOT_CONNECTED, ORP_UTIL_Reboot(0));

  Connection connection("self");
  connection.peer.send({.type = ORP_MSG_FACTORY_MODE, .data = 4});
  EXPECT_EQ(4u, ORP_APP_IsFactoryMode());
  connection.peer.expect({.type = ORP_MSG_FACTORY_MODE});
}

}  // namespace
