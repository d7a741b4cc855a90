// Packets for tests, in blocks of exactly their size, so that a memory checker sees every read
// beyond them.
#pragma once

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>
#include <vector>

#include "msgapi/dns.h"
#include "util/dns/captures.h"

using PacketOwner = std::unique_ptr<ORP_DNS_PACKET_ST, decltype(&std::free)>;

inline PacketOwner own(ORP_DNS_PACKET_ST *packet) {
  return {packet, &std::free};
}

inline PacketOwner make_packet(const std::vector<uint8_t> &message) {
  auto *packet =
      static_cast<ORP_DNS_PACKET_ST *>(std::malloc(sizeof(ORP_DNS_PACKET_ST) + message.size()));
  packet->ulLength = static_cast<uint32_t>(message.size());
  std::copy(message.begin(), message.end(), ORP_DNS_PACKET_MESSAGE(packet));
  return own(packet);
}

inline PacketOwner make_packet(std::string_view hex) {
  return make_packet(captures::bytes_of(hex));
}

inline std::vector<uint8_t> message_of(const PacketOwner &packet) {
  const uint8_t *message = ORP_DNS_PACKET_MESSAGE(packet.get());
  return {message, message + packet->ulLength};
}

inline const uint8_t *at(const PacketOwner &packet, size_t offset) {
  return ORP_DNS_PACKET_MESSAGE(packet.get()) + offset;
}
