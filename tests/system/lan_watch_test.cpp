// The example, run like a user runs it.

#include <gmock/gmock.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "support/network.h"
#include "support/process.h"

namespace {

using testing::ContainsRegex;
using testing::HasSubstr;
using testing::Not;

std::string lan_watch(const std::string &arguments) {
  const std::string command = std::string(std::getenv("MSGAPI_BIN")) + "/lan_watch " + arguments;
  FILE *pipe = ::popen(command.c_str(), "r");
  std::string output;
  for (int c; (c = std::fgetc(pipe)) != EOF;) output += static_cast<char>(c);
  EXPECT_EQ(0, ::pclose(pipe)) << output;
  return output;
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
  test::Process program("lan_watch", {"--count", "1"});

  EXPECT_EQ(1, program.wait());
  EXPECT_THAT(program.output(), HasSubstr("the program brctl is not in PATH"));
  EXPECT_THAT(program.output(), Not(HasSubstr("no bridges")));
}

TEST(LanWatch, EndsOnSignal) {
  const std::string program = std::string(std::getenv("MSGAPI_BIN")) + "/lan_watch";
  int output[2];
  ASSERT_EQ(0, ::pipe(output));
  const pid_t child = ::fork();
  if (child == 0) {
    ::dup2(output[1], STDOUT_FILENO);
    ::execl(program.c_str(), "lan_watch", nullptr);
    ::_exit(127);
  }
  ::close(output[1]);

  char drawn;
  ASSERT_EQ(1, ::read(output[0], &drawn, 1)) << "the first table: it runs";
  ::kill(child, SIGTERM);
  int status = -1;
  ASSERT_EQ(child, ::waitpid(child, &status, 0));
  EXPECT_EQ(0, status);
}

}  // namespace
