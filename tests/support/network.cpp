#include "support/network.h"

#include <gtest/gtest.h>

#include <cstdlib>

namespace test {

void run(const std::string &command) {
  EXPECT_EQ(0, std::system(command.c_str())) << command;
}

void add_bridge(const std::string &name) {
  run("ip link add " + name + " type bridge && ip link set " + name + " up");
}

void add_bridge_port(const std::string &bridge, const std::string &port, const std::string &peer) {
  run("ip link add " + port + " type veth peer name " + peer);
  run("ip link set " + port + " master " + bridge + " up && ip link set " + peer + " up");
}

}  // namespace test
