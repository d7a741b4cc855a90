#include <gtest/gtest.h>

#include "msgapi/device.h"
#include "msgapi/status.h"
#include "support/message_peer.h"

namespace {

using test::Connection;

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
