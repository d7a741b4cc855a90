// What the DNS sources share: the packet block as a span, and where the header's fields stand.
#pragma once

#include <span>

#include "base/cursor.h"
#include "base/memory.h"
#include "msgapi/dns.h"

namespace msgapi::dns {

// RFC 1035 section 4.1.1: six 16-bit fields.
constexpr size_t kFlagsAt = 2;
constexpr size_t kQuestionCountAt = 4;
constexpr size_t kAnswerCountAt = 6;
constexpr size_t kAuthorityCountAt = 8;
constexpr size_t kAdditionalCountAt = 10;
constexpr size_t kHeaderSize = 12;

// A label's length byte with both top bits set is the first byte of a compression pointer.
constexpr uint8_t kPointerMark = 0xC0;

inline std::span<const uint8_t> message_of(const ORP_DNS_PACKET_ST *packet) {
  return {ORP_DNS_PACKET_MESSAGE(packet), packet->ulLength};
}

inline std::span<uint8_t> writable_message_of(ORP_DNS_PACKET_ST *packet) {
  return {ORP_DNS_PACKET_MESSAGE(packet), packet->ulLength};
}

inline bool has_header(const ORP_DNS_PACKET_ST *packet) {
  return packet != nullptr && packet->ulLength >= kHeaderSize;
}

// A header field; 0 when the message ends before it.
inline uint16_t header_field(std::span<const uint8_t> message, size_t at) {
  return ByteReader(message, at).be16();
}

// A zeroed packet of `length` bytes that begins with as much of `head` as fits; null without
// memory.
Owned<ORP_DNS_PACKET_ST> new_packet(uint64_t length, std::span<const uint8_t> head = {});

}  // namespace msgapi::dns
