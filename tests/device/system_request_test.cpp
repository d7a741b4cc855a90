#include <gtest/gtest.h>

#include "msgapi/device.h"
#include "msgapi/status.h"
#include "support/message_peer.h"

namespace {

using test::Connection;
using test::Frame;

TEST(Features, AnswerAsThisBuildIs) {
  uint32_t (*const kPresent[])() = {
      ORP_WEB_CheckWebUi,       ORP_IsSupportUrlFltWhiteListFeature,
      ORP_IsSupportIgmpFeature, ORP_IsSupportMacFltWhiteListFeature,
      ORP_IsSupportNpsEnable,   ORP_IsSupportVlanPassThroughFeature,
  };
  uint32_t (*const kAbsent[])() = {
      ORP_IsRepeaterProduct,
      ORP_IsSupportXlinkFeature,
      ORP_IsSupportElinkFeature,
      ORP_IsSupportElinkV2Feature,
      ORP_IsSupportWolinkFeature,
      ORP_IsSupportAndlinkFeature,
      ORP_IsSupportAndlinkV2Feature,
      ORP_IsSupportUplinkWpsFeature,
      ORP_IsSupportTestWifiEncryptFeature,
      ORP_IsSupportApListFeature,
      ORP_IsSupportWpsPinFeature,
      ORP_IsSupportPDFeature,
      ORP_IsSupportDevReportFeature,
      ORP_IsSupportElinkOrXlinkFeature,
      ORP_IsSupportIptvFeature,
      ORP_IsSupportEmptyMacFilterFeature,
      ORP_CheckAndlinkEnable,
      ORP_IsCustomVersion,
      ORP_IsSupportSmartOsFeature,
      ORP_IsSupportCteiFeature,
      ORP_IsSupportDnsRedirect,
      ORP_IsSupportGuideStartLoginFeature,
  };
  for (const auto feature : kPresent) EXPECT_EQ(1u, feature());
  for (const auto feature : kAbsent) EXPECT_EQ(0u, feature());

  char controller[4] = "abc";
  ORP_ElinkSetStatus(1);
  ORP_GetElinkController(controller, sizeof controller);
  EXPECT_STREQ("abc", controller);
  EXPECT_EQ(1u, ORP_UPG_PreDownloadProtect(0, 0));
  EXPECT_EQ(1u, ORP_UPG_ReleaseAllProtect());
}

TEST(SystemRequest, GoesToTheServerAsAHeader) {
  Connection connection("self");
  EXPECT_EQ(ORP_OK, ORP_APP_SendSysguardHeartBeat());
  EXPECT_EQ(ORP_OK, ORP_APP_StopSysguard());
  EXPECT_EQ(ORP_OK, ORP_UTIL_Reboot(3));

  const uint32_t expected[][2] = {{0x708, 0}, {0x709, 0}, {0x500E, 3}};
  for (const auto &[type, data] : expected) {
    const Frame frame = connection.peer.read();
    EXPECT_EQ(type, frame.type());
    EXPECT_EQ(data, frame.header.ulMsgData);
    EXPECT_EQ("", frame.to());
    EXPECT_EQ(0u, frame.header.ulDataLen);
  }
}

TEST(SystemRequest, FactoryModeIsTheAnswerOr0) {
  EXPECT_EQ(0u, ORP_APP_IsFactoryMode()) << "not connected";
  EXPECT_EQ(ORP_ERR_NOT_CONNECTED, ORP_UTIL_Reboot(0));

  Connection connection("self");
  connection.peer.write(test::make_frame({.type = 0x70A, .data = 4}));
  EXPECT_EQ(4u, ORP_APP_IsFactoryMode());
  EXPECT_EQ(0x70Au, connection.peer.read().type());
}

}  // namespace
