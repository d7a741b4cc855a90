// Networks of IP addresses, and who belongs to them.
#pragma once

#include <sys/socket.h>

#include <array>
#include <cstdint>
#include <optional>
#include <string_view>

namespace servers {

class Network {
 public:
  // "192.168.1.0/24", "fd00::/8", or a single address. None for anything else, also for set bits
  // behind the prefix.
  static std::optional<Network> parse(std::string_view text);
  // An IPv4 address in IPv6's form is the IPv4 address.
  bool contains(const sockaddr_storage &address) const;

 private:
  using Bytes = std::array<uint8_t, 16>;  // an IPv4 address in IPv6's form (RFC 4291, 2.5.5.2)

  static std::optional<Bytes> bytes_of(const sockaddr_storage &address);

  Bytes address_{};
  unsigned prefix_ = 0;
};

}  // namespace servers
