#include "common/network.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <string>

namespace servers {
namespace {

constexpr std::array<uint8_t, 12> kMapped = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xff, 0xff};

// Whether the first `count` bits of both are the same.
bool begin_alike(const uint8_t *a, const uint8_t *b, unsigned count) {
  if (std::memcmp(a, b, count / 8) != 0) return false;
  if (count % 8 == 0) return true;
  const auto mask = static_cast<uint8_t>(0xff00u >> (count % 8));
  return ((a[count / 8] ^ b[count / 8]) & mask) == 0;
}

}  // namespace

std::optional<Network> Network::parse(std::string_view text) {
  const size_t slash = text.find('/');
  const std::string address(text.substr(0, slash));
  Network network;
  uint8_t *bytes = network.address_.data();
  unsigned most = 128;
  unsigned offset = 0;
  if (::inet_pton(AF_INET, address.c_str(), bytes + kMapped.size()) == 1) {
    std::copy(kMapped.begin(), kMapped.end(), bytes);
    most = 32;
    offset = 96;
  } else if (::inet_pton(AF_INET6, address.c_str(), bytes) != 1) {
    return std::nullopt;
  }
  unsigned prefix = most;
  if (slash != text.npos) {
    const std::string_view digits = text.substr(slash + 1);
    const auto [end, error] = std::from_chars(digits.begin(), digits.end(), prefix);
    if (error != std::errc() || end != digits.end() || prefix > most) return std::nullopt;
  }
  network.prefix_ = offset + prefix;
  // A bit behind the prefix would be a mistake about the network's size.
  for (unsigned bit = network.prefix_; bit < 128; ++bit) {
    if ((bytes[bit / 8] & (0x80u >> (bit % 8))) != 0) return std::nullopt;
  }
  return network;
}

std::optional<Network::Bytes> Network::bytes_of(const sockaddr_storage &address) {
  Bytes bytes{};
  if (address.ss_family == AF_INET) {
    std::copy(kMapped.begin(), kMapped.end(), bytes.begin());
    const auto &ip4 = reinterpret_cast<const sockaddr_in &>(address).sin_addr;
    std::memcpy(bytes.data() + kMapped.size(), &ip4, sizeof ip4);
    return bytes;
  }
  if (address.ss_family != AF_INET6) return std::nullopt;
  const auto &ip6 = reinterpret_cast<const sockaddr_in6 &>(address).sin6_addr;
  std::memcpy(bytes.data(), &ip6, sizeof ip6);
  return bytes;
}

bool Network::contains(const sockaddr_storage &address) const {
  const auto bytes = bytes_of(address);
  return bytes && begin_alike(bytes->data(), address_.data(), prefix_);
}

}  // namespace servers
