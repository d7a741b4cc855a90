// Network objects of a test's own namespace, made with iproute2.
#pragma once

#include <netinet/in.h>

#include <cstddef>
#include <string>

namespace test {

// Runs a shell command and fails the test when it does not succeed.
void run(const std::string &command);

// Makes the bridge `name`, without addresses, and brings it up.
void add_bridge(const std::string &name);

// Makes a pair of connected Ethernet interfaces (veth(4)), both up. `port` becomes a port of
// `bridge`.
void add_bridge_port(const std::string &bridge, const std::string &port, const std::string &peer);

// Lets `bridge` learn `mac`: a frame from it comes from `peer`, the far end of a port.
void teach_bridge(const std::string &bridge, const std::string &peer, const std::string &mac);

// A port of this machine.
sockaddr_in loopback(uint16_t port);

// A connection from the address `from` to a port of this machine, of the same family; -1 when
// nobody listens there.
int connect_to(uint16_t port, const std::string &from = "127.0.0.1");

// Sends `count` datagrams of `size` bytes to a closed port of this machine.
void send_over_loopback(int count, size_t size);

// Makes `program` a shell script that comes before every other program of this name.
void replace_program(const std::string &program, const std::string &script);

// A descriptor from which `text` can be read. It stays open for the whole test.
int readable(const std::string &text);

// A socket's option that is an int.
int socket_option(int fd, int level, int name);

// What the kernel says about an address that a socket is bound to.
std::string bound_address(int fd);

}  // namespace test
