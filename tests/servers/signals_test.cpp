#include <gmock/gmock.h>
#include <signal.h>

#include <utility>

#include "support/process.h"

namespace {

TEST(Servers, OutliveATerminalAndAReaderThatGoAway) {
  constexpr std::pair<const char *, const char *> kServers[] = {
      {"msgsvr", "the built-in rules hold"},
      {"notifyserver", "there is no file to read anew"},
      {"mlogserver", "read"},
  };
  for (const auto &[name, what_sighup_does] : kServers) {
    test::Process server(name);
    ASSERT_TRUE(server.wait_for("ready")) << name;

    ::kill(server.pid(), SIGPIPE);
    ::kill(server.pid(), SIGHUP);
    EXPECT_TRUE(server.wait_for(what_sighup_does)) << name;

    EXPECT_EQ(0, server.stop(SIGTERM)) << server.output();
  }
}

}  // namespace
