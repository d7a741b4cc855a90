// The example, run like a user runs it.

#include <gmock/gmock.h>
#include <signal.h>

#include <cstdlib>
#include <string>

#include "support/network.h"
#include "support/process.h"

namespace {

using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;

std::string lan_watch(const std::string &arguments) {
  const test::Output output = test::shell("lan_watch " + arguments);
  EXPECT_EQ(0, output.status) << output.text;
  return output.text;
}

TEST(LanWatch, ShowsHostsOnTheirPorts) {
  EXPECT_THAT(lan_watch("--count 1"), HasSubstr("no bridges\n"));

  test::add_bridge("br0");
  test::add_bridge_port("br0", "lan1", "pc1");
  test::add_bridge_port("br0", "lan2", "pc2");
  test::run("ip addr add fe80::1/64 dev br0 nodad && ip addr add 192.168.1.1/24 dev br0");
  test::run("ip neigh add 192.168.1.20 lladdr 02:00:00:ab:cd:01 dev br0 nud permanent");
  test::run("ip neigh add 192.168.1.30 lladdr 02:00:00:ab:cd:03 dev br0 nud permanent");
  test::teach_bridge("br0", "pc2", "02:00:00:ab:cd:01");
  test::teach_bridge("br0", "pc2", "02:00:00:ab:cd:02");

  const std::string table = lan_watch("--count 2 --interval 10");
  EXPECT_THAT(table, ContainsRegex("br0  fe80::1\n"));
  EXPECT_THAT(table, ContainsRegex("lan2 +[0-9]+ .* 02:00:00:ab:cd:01  192.168.1.20\n"));
  EXPECT_THAT(table, ContainsRegex("\n +02:00:00:ab:cd:02  \n")) << "the second host of the port";
  EXPECT_THAT(table, Not(HasSubstr("ab:cd:03"))) << "on no port";
  EXPECT_THAT(lan_watch("--count 1 --mask"), HasSubstr("02:**:**:ab:**:01  192.168.1.20\n"));
}

TEST(LanWatch, SaysThatBrctlIsMissing) {
  ASSERT_EQ(0, ::setenv("PATH", "/var", 1));
  const test::Output output = test::run_program("lan_watch", {"--count", "1"});

  EXPECT_EQ(1, output.status);
  EXPECT_THAT(output.text, HasSubstr("the program brctl is not in PATH"));
  EXPECT_THAT(output.text, Not(HasSubstr("no bridges")));
}

TEST(LanWatch, EndsOnSignal) {
  test::Process program("lan_watch");
  ASSERT_TRUE(program.wait_for("no bridges\n"));

  EXPECT_EQ(0, program.stop(SIGTERM));
}

}  // namespace
