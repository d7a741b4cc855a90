// DNS messages: every reader at every position, then the builders, and names beside the system's
// resolver.

#include <arpa/nameser.h>
#include <netinet/in.h>
#include <resolv.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "msgapi/dns.h"

namespace {

using PacketOwner = std::unique_ptr<ORP_DNS_PACKET_ST, decltype(&std::free)>;

constexpr uint32_t kMaxPositions = 300;

void require(bool condition) {
  if (!condition) std::abort();
}

PacketOwner make_packet(const uint8_t *data, size_t size) {
  auto *packet = static_cast<ORP_DNS_PACKET_ST *>(std::malloc(sizeof(ORP_DNS_PACKET_ST) + size));
  packet->ulLength = static_cast<uint32_t>(size);
  std::copy(data, data + size, ORP_DNS_PACKET_MESSAGE(packet));
  return {packet, &std::free};
}

// The resolver escapes some characters as "\c" or "\ddd".
std::string unescape(const char *text) {
  std::string plain;
  while (*text != '\0') {
    if (*text != '\\') {
      plain += *text++;
    } else if (text[1] >= '0' && text[1] <= '9') {
      plain += static_cast<char>(std::atoi(std::string(text + 1, 3).c_str()));
      text += 4;
    } else {
      plain += text[1];
      text += 2;
    }
  }
  return plain;
}

void compare_name(const ORP_DNS_PACKET_ST *packet, const uint8_t *position) {
  const uint8_t *const message = ORP_DNS_PACKET_MESSAGE(packet);
  char text[ORP_DNS_NAME_SIZE], peer_text[NS_MAXDNAME];
  uint32_t consumed;
  const bool accepted =
      ORP_DNS_PacketGetName(packet, position, text, sizeof text, &consumed) == ORP_DNS_OK;
  const uint32_t length = ORP_DNS_PacketGetNameLen(packet, position);
  const int peer_length = ::dn_expand(message, message + packet->ulLength, position, peer_text,
                                      static_cast<int>(sizeof peer_text));

  if (accepted) {
    require(length > 0 && std::strlen(text) < sizeof text);
    require(consumed == 0 || consumed == length);
    if (peer_length >= 0) {
      const std::string expected = unescape(peer_text);
      require(std::strlen(text) != expected.size() || expected == text);
      // A NUL in a label ends the library's text.
      require(expected.find('\0') != std::string::npos || expected == text);
      require(static_cast<uint32_t>(peer_length) == length);
    } else {
      // The resolver gives up earlier on some names with pointers, and on those beyond the 255
      // bytes of RFC 1035 section 2.3.4.
      require(consumed != length || length == 2 || length > NS_MAXCDNAME);
    }
    return;
  }
  if (peer_length < 0 || length == 0) return;
  // Both read the same length, so only dots in labels and the targets of pointers may differ.
  const bool has_pointer = (position[length - 2] & 0xC0) == 0xC0;
  require(std::strstr(peer_text, "\\.") != nullptr || has_pointer);
}

void read_everywhere(const ORP_DNS_PACKET_ST *packet) {
  const uint8_t *const message = ORP_DNS_PACKET_MESSAGE(packet);
  for (uint32_t offset = 0; offset < std::min(packet->ulLength, kMaxPositions); ++offset) {
    const uint8_t *const position = message + offset;
    compare_name(packet, position);
    ORP_DNS_RR_ST record;
    uint32_t consumed;
    if (ORP_DNS_PacketGetValuesOfQuestion(packet, position, &record, &consumed) == ORP_DNS_OK) {
      require(offset + consumed <= packet->ulLength);
    }
    if (ORP_DNS_PacketGetValuesOfRR(packet, position, &record, &consumed) == ORP_DNS_OK) {
      require(record.pucRdata + record.ulRdLength <= message + packet->ulLength);
    }
    require(offset + ORP_DNS_PacketGetQuestionLen(packet, position) <= packet->ulLength);
    require(offset + ORP_DNS_PacketGetRRLen(packet, position) < packet->ulLength);
  }
}

void walk(const ORP_DNS_PACKET_ST *packet) {
  const uint8_t *const end = ORP_DNS_PACKET_MESSAGE(packet) + packet->ulLength;
  for (const uint8_t *at = ORP_DNS_PacketGetFirstRR(packet); at != nullptr;) {
    require(at <= end);
    const uint8_t *const next = ORP_DNS_PacketGetNextRR(packet, at);
    require(next == nullptr || next > at);
    at = next;
  }
  const uint8_t *const authority = ORP_DNS_PacketGetFirstAuthorityRecord(packet);
  const uint8_t *const additional = ORP_DNS_PacketGetFirstAddtionalRecord(packet);
  require(authority == nullptr || authority <= end);
  require(additional == nullptr || additional <= end);
}

void build(const ORP_DNS_PACKET_ST *packet) {
  const uint8_t *const message = ORP_DNS_PACKET_MESSAGE(packet);
  const ORP_DNS_RR_ST record = {"", 1, 1, 60, packet->ulLength, message};
  const PacketOwner answer(ORP_DNS_PacketBuildResponse(packet, &record, 0), &std::free);
  if (answer != nullptr) walk(answer.get());
  const PacketOwner error(ORP_DNS_PacketBuildErrorResponse(packet, packet->ulLength), &std::free);
  const PacketOwner mismatch(ORP_DNS_IpTypeMismatchResponse(packet), &std::free);
  const PacketOwner copy(ORP_DNS_PacketCopy(packet, packet->ulLength / 2), &std::free);
  ORP_DNS_PacketCheckIfErrorRely(packet);

  const std::string text(message, message + packet->ulLength);
  const PacketOwner query(ORP_DNS_PacketBuildRequest(text.c_str()), &std::free);
  if (query != nullptr) walk(query.get());
  const uint32_t size = packet->ulLength % 70;
  const std::unique_ptr<char[]> address(new char[size]{});
  uint32_t is_ipv4;
  ORP_DNS_PacketPTRName2Addr(text.c_str(), address.get(), size, &is_ipv4);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const PacketOwner packet = make_packet(data, size);
  read_everywhere(packet.get());
  walk(packet.get());
  build(packet.get());
  return 0;
}
