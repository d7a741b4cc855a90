// Requests of applications to the message server about the device itself.

#include <gtest/gtest.h>
#include <signal.h>

#include "servers/services.h"
#include "support/message_peer.h"

namespace {

using test::RawClient;

class MsgsvrDevice : public test::Services {};

TEST_F(MsgsvrDevice, TellsTheFactoryModeAndRebootsNothing) {
  start();
  EXPECT_EQ(0u, RawClient("web").ask({.type = ORP_MSG_FACTORY_MODE}).data);
  RawClient("web").send({.type = ORP_MSG_REBOOT, .data = 3});
  EXPECT_TRUE(server_->wait_for("asks for a reboot, mode 3; not executed"));

  server_->stop(SIGTERM);
  start({"--factory-mode"});
  EXPECT_EQ(1u, RawClient("web").ask({.type = ORP_MSG_FACTORY_MODE}).data);
}

}  // namespace
