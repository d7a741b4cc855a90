#include <gmock/gmock.h>
#include <signal.h>

#include "support/process.h"

namespace {

TEST(Servers, OutliveATerminalAndAReaderThatGoAway) {
  for (const char *name : {"msgsvr", "notifyserver", "mlogserver"}) {
    test::Process server(name);
    ASSERT_TRUE(server.wait_for("ready")) << name;

    ::kill(server.pid(), SIGPIPE);
    ::kill(server.pid(), SIGHUP);
    EXPECT_TRUE(server.wait_for("read")) << name;

    EXPECT_EQ(0, server.stop(SIGTERM)) << server.output();
  }
}

}  // namespace
