#include "support/network.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <netdb.h>
#include <netpacket/packet.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>

#include "os/fd.h"
#include "support/process.h"

namespace test {

void run(const std::string &command) {
  EXPECT_EQ(0, std::system(command.c_str())) << command;
}

void add_bridge(const std::string &name) {
  run("ip link add " + name + " type bridge && ip link set " + name + " addrgenmode none");
  run("ip link set " + name + " up");
}

void add_bridge_port(const std::string &bridge, const std::string &port, const std::string &peer) {
  run("ip link add " + port + " type veth peer name " + peer);
  run("ip link set " + port + " master " + bridge + " up && ip link set " + peer + " up");
}

void teach_bridge(const std::string &bridge, const std::string &peer, const std::string &mac) {
  const msgapi::os::UniqueFd fd(::socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0));
  sockaddr_ll place{};
  place.sll_family = AF_PACKET;
  place.sll_ifindex = static_cast<int>(::if_nametoindex(peer.c_str()));

  // A broadcast of the local experimental EtherType (IEEE 802).
  unsigned char frame[60] = {0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0, 0, 0, 0, 0, 0, 0x88, 0xb5};
  unsigned char *source = frame + 6;
  ASSERT_EQ(6, std::sscanf(mac.c_str(), "%hhx:%hhx:%hhx:%hhx:%hhx:%hhx", &source[0], &source[1],
                           &source[2], &source[3], &source[4], &source[5]));

  const std::string known = "bridge fdb show br " + bridge + " | grep -qi ^" + mac;
  EXPECT_TRUE(eventually([&] {
    EXPECT_EQ(static_cast<ssize_t>(sizeof frame),
              ::sendto(fd.get(), frame, sizeof frame, 0, reinterpret_cast<sockaddr *>(&place),
                       sizeof place));
    return std::system(known.c_str()) == 0;
  }));
}

sockaddr_in loopback(uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

int connect_to(uint16_t port, const std::string &from) {
  const auto address_of = [](const char *host, uint16_t at) {
    addrinfo hints{};
    hints.ai_flags = AI_NUMERICHOST;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo *found = nullptr;
    EXPECT_EQ(0, ::getaddrinfo(host, std::to_string(at).c_str(), &hints, &found)) << host;
    return std::unique_ptr<addrinfo, decltype(&::freeaddrinfo)>(found, ::freeaddrinfo);
  };
  const auto own = address_of(from.c_str(), 0);
  const auto server = address_of(own->ai_family == AF_INET6 ? "::1" : "127.0.0.1", port);
  msgapi::os::UniqueFd fd(::socket(own->ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0));
  EXPECT_EQ(0, ::bind(fd.get(), own->ai_addr, own->ai_addrlen)) << from;
  return ::connect(fd.get(), server->ai_addr, server->ai_addrlen) == 0 ? fd.release() : -1;
}

void send_over_loopback(int count, size_t size) {
  const msgapi::os::UniqueFd fd(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  const sockaddr_in address = loopback(9);
  const std::string data(size, 'x');
  while (count-- > 0) {
    ::sendto(fd.get(), data.data(), data.size(), 0, reinterpret_cast<const sockaddr *>(&address),
             sizeof address);
  }
}

void replace_program(const std::string &program, const std::string &script) {
  const std::filesystem::path directory = "/var/test_programs";
  std::filesystem::create_directories(directory);
  std::ofstream(directory / program) << "#!/bin/sh\n" << script << "\n";
  ASSERT_EQ(0, ::chmod((directory / program).c_str(), 0755));

  const std::string path = std::getenv("PATH");
  if (!path.starts_with(directory.string() + ":")) {
    ::setenv("PATH", (directory.string() + ":" + path).c_str(), 1);
  }
}

int readable(const std::string &text) {
  const int fd = ::memfd_create("text", MFD_CLOEXEC);
  EXPECT_EQ(static_cast<ssize_t>(text.size()), ::write(fd, text.data(), text.size()));
  EXPECT_EQ(0, ::lseek(fd, 0, SEEK_SET));
  return fd;
}

int socket_option(int fd, int level, int name) {
  int value = -1;
  socklen_t size = sizeof value;
  EXPECT_EQ(0, ::getsockopt(fd, level, name, &value, &size));
  return value;
}

std::string bound_address(int fd) {
  sockaddr_storage address;
  socklen_t size = sizeof address;
  char host[NI_MAXHOST];
  EXPECT_EQ(0, ::getsockname(fd, reinterpret_cast<sockaddr *>(&address), &size));
  EXPECT_EQ(0, ::getnameinfo(reinterpret_cast<sockaddr *>(&address), size, host, sizeof host,
                             nullptr, 0, NI_NUMERICHOST));
  return host;
}

}  // namespace test
