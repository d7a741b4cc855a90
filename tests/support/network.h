// Network objects of a test's own namespace, made with iproute2.
#pragma once

#include <string>

namespace test {

// Runs a shell command and fails the test when it does not succeed.
void run(const std::string &command);

// Makes the bridge `name` and brings it up.
void add_bridge(const std::string &name);

// Makes a pair of Ethernet interfaces that are each other's cable, both up; `port` becomes a port
// of `bridge`.
void add_bridge_port(const std::string &bridge, const std::string &port, const std::string &peer);

}  // namespace test
