// Building DNS messages: queries, answers from cached records, error and no-data replies.

#include <sys/sysinfo.h>

#include <algorithm>
#include <cstring>
#include <optional>
#include <string_view>

#include "base/bytes.h"
#include "msgapi/dns.h"
#include "util/dns/packet.h"

namespace msgapi::dns {
namespace {

constexpr size_t kMaxRequestNameLength = 259;
constexpr size_t kMaxAnswerPart = 0x7FFFFFF6;

constexpr uint16_t kTypeAddress = 1;
constexpr uint16_t kClassInternet = 1;

// RFC 1035 section 4.1.1: QR 0x8000, RD 0x0100, RA 0x0080, RCODE the low four bits.
constexpr uint16_t kQuery = 0x0100;
constexpr uint16_t kResponse = 0x8100;
constexpr uint16_t kResponseWithRecursion = 0x8180;
constexpr uint16_t kResponseCodeMask = 0x000F;

constexpr uint16_t kNameOfFirstQuestion = kPointerMark << 8 | kHeaderSize;
constexpr size_t kAnswerFieldsSize = 12;

void set_header_field(ORP_DNS_PACKET_ST *packet, size_t at, uint16_t value) {
  ByteWriter(writable_message_of(packet), at).be16(value);
}

// The first label of `*name`, cut off it with its dot; empty at the end of the name.
std::string_view cut_label(std::string_view *name) {
  name->remove_prefix(std::min(name->find_first_not_of('.'), name->size()));
  const std::string_view label(name->data(), std::min(name->find('.'), name->size()));
  name->remove_prefix(label.size());
  return label;
}

Owned<ORP_DNS_PACKET_ST> build_request(std::string_view name) {
  if (name.find_first_not_of('.') == name.npos || name.size() > kMaxRequestNameLength) {
    return nullptr;
  }
  // Empty labels are skipped below but do not shorten the message.
  Owned<ORP_DNS_PACKET_ST> packet =
      new_packet(kHeaderSize + name.size() + 2 + 2 * sizeof(uint16_t));
  if (!packet) return nullptr;

  const std::span<uint8_t> message = writable_message_of(packet.get());
  set_header_field(packet.get(), kFlagsAt, kQuery);
  // In host order, unlike every other field; senders correct it when they set the identifier.
  store<uint16_t>(&message[kQuestionCountAt], 1);

  ByteWriter out(message, kHeaderSize);
  for (std::string_view label = cut_label(&name); !label.empty(); label = cut_label(&name)) {
    out.put(static_cast<uint8_t>(label.size()));
    out.put_text(label);
  }
  out.put(0);
  out.be16(kTypeAddress);
  out.be16(kClassInternet);
  return packet;
}

// What is left of `ttl` for a record cached at uptime `cached_at_s`; none when it has run out.
std::optional<uint32_t> aged(uint32_t ttl_s, uint32_t cached_at_s) {
  if (cached_at_s == 0) return ttl_s;
  struct sysinfo now {};
  ::sysinfo(&now);
  const uint32_t elapsed_s = static_cast<uint32_t>(now.uptime) - cached_at_s;
  if (elapsed_s > ttl_s) return std::nullopt;
  return ttl_s - elapsed_s;
}

Owned<ORP_DNS_PACKET_ST> build_response(const ORP_DNS_PACKET_ST *query, const ORP_DNS_RR_ST &record,
                                        uint32_t cached_at_s) {
  const std::optional<uint32_t> ttl_s = aged(record.ulTtl, cached_at_s);
  if (!ttl_s) return nullptr;
  Owned<ORP_DNS_PACKET_ST> packet = new_packet(
      uint64_t{query->ulLength} + kAnswerFieldsSize + record.ulRdLength, message_of(query));
  if (!packet) return nullptr;

  set_header_field(packet.get(), kFlagsAt, kResponse);
  set_header_field(packet.get(), kAnswerCountAt, 1);
  set_header_field(packet.get(), kAdditionalCountAt, 0);

  ByteWriter out(writable_message_of(packet.get()), query->ulLength);
  out.be16(kNameOfFirstQuestion);
  out.be16(static_cast<uint16_t>(record.ulType));
  out.be16(static_cast<uint16_t>(record.ulClass));
  out.be32(*ttl_s);
  out.be16(static_cast<uint16_t>(record.ulRdLength));
  out.put_all({record.pucRdata, record.ulRdLength});
  return packet;
}

}  // namespace
}  // namespace msgapi::dns

using namespace msgapi;
using namespace msgapi::dns;

extern "C" ORP_DNS_PACKET_ST *ORP_DNS_PacketBuildRequest(const char *name) {
  return name == nullptr ? nullptr : build_request(name).release();
}

extern "C" ORP_DNS_PACKET_ST *ORP_DNS_PacketBuildResponse(const ORP_DNS_PACKET_ST *query,
                                                          const ORP_DNS_RR_ST *record,
                                                          uint32_t cached_at) {
  if (!has_header(query) || query->ulLength > kMaxAnswerPart) return nullptr;
  if (record == nullptr || record->ulRdLength > kMaxAnswerPart) return nullptr;
  if (record->pucRdata == nullptr && record->ulRdLength > 0) return nullptr;
  return build_response(query, *record, cached_at).release();
}

extern "C" ORP_DNS_PACKET_ST *ORP_DNS_PacketBuildErrorResponse(const ORP_DNS_PACKET_ST *query,
                                                               uint32_t response_code) {
  if (!has_header(query)) return nullptr;
  Owned<ORP_DNS_PACKET_ST> packet(ORP_DNS_PacketCopy(query, 0));
  if (!packet) return nullptr;

  set_header_field(packet.get(), kFlagsAt, static_cast<uint16_t>(response_code + kResponse));
  set_header_field(packet.get(), kAnswerCountAt, 0);
  set_header_field(packet.get(), kAuthorityCountAt, 0);
  set_header_field(packet.get(), kAdditionalCountAt, 0);
  return packet.release();
}

extern "C" ORP_DNS_PACKET_ST *ORP_DNS_IpTypeMismatchResponse(const ORP_DNS_PACKET_ST *query) {
  if (!has_header(query) || query->ulLength > kMaxAnswerPart) return nullptr;
  Owned<ORP_DNS_PACKET_ST> packet(ORP_DNS_PacketCopy(query, 0));
  if (!packet) return nullptr;

  set_header_field(packet.get(), kFlagsAt, kResponseWithRecursion);
  set_header_field(packet.get(), kAdditionalCountAt, 0);
  return packet.release();
}

extern "C" uint32_t ORP_DNS_PacketCheckIfErrorRely(const ORP_DNS_PACKET_ST *reply) {
  if (reply == nullptr) return 0;
  const std::span<const uint8_t> message = message_of(reply);
  if ((header_field(message, kFlagsAt) & kResponseCodeMask) != 0) return 1;
  const bool has_records = header_field(message, kAnswerCountAt) != 0 ||
                           header_field(message, kAuthorityCountAt) != 0 ||
                           header_field(message, kAdditionalCountAt) != 0;
  return has_records ? 0 : 1;
}
