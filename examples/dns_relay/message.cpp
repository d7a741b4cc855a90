#include "message.h"

#include <algorithm>
#include <new>

namespace dns_relay {
namespace {

constexpr uint16_t kReplyFlag = 0x8000;
constexpr uint16_t kOperationMask = 0x7800;
constexpr uint16_t kCutShortFlag = 0x0200;
constexpr uint16_t kRecursionFlag = 0x0080;
constexpr uint16_t kCodeMask = 0x000F;
constexpr size_t kTypeAndClassSize = 4;

uint8_t *bytes_of(const Packet &packet) {
  return ORP_DNS_PACKET_MESSAGE(packet.get());
}

}  // namespace

size_t question_end(const Packet &packet) {
  const uint32_t name_size = ORP_DNS_PacketGetNameLen(packet.get(), bytes_of(packet) + kHeaderSize);
  const size_t end = kHeaderSize + name_size + kTypeAndClassSize;
  return name_size == 0 || end > packet->ulLength ? 0 : end;
}

Packet make_packet(std::span<const uint8_t> message) {
  Packet packet(
      static_cast<ORP_DNS_PACKET_ST *>(std::malloc(sizeof(ORP_DNS_PACKET_ST) + message.size())));
  if (!packet) throw std::bad_alloc();
  packet->ulLength = static_cast<uint32_t>(message.size());
  std::copy(message.begin(), message.end(), bytes_of(packet));
  return packet;
}

std::span<const uint8_t> message_of(const Packet &packet) {
  return {bytes_of(packet), packet->ulLength};
}

uint16_t field(const Packet &packet, Field field) {
  const uint8_t *at = bytes_of(packet) + static_cast<size_t>(field);
  return static_cast<uint16_t>(at[0] << 8 | at[1]);
}

void set_field(const Packet &packet, Field field, uint16_t value) {
  uint8_t *at = bytes_of(packet) + static_cast<size_t>(field);
  at[0] = static_cast<uint8_t>(value >> 8);
  at[1] = static_cast<uint8_t>(value & 0xFF);
}

bool is_reply(const Packet &packet) {
  return (field(packet, Field::kFlags) & kReplyFlag) != 0;
}

bool is_cut_short(const Packet &packet) {
  return (field(packet, Field::kFlags) & kCutShortFlag) != 0;
}

ResponseCode response_code(const Packet &packet) {
  return static_cast<ResponseCode>(field(packet, Field::kFlags) & kCodeMask);
}

void set_recursion_available(const Packet &packet) {
  set_field(packet, Field::kFlags,
            static_cast<uint16_t>(field(packet, Field::kFlags) | kRecursionFlag));
}

uint16_t operation_of(const Packet &packet) {
  return field(packet, Field::kFlags) & kOperationMask;
}

std::optional<Question> question_of(const Packet &packet) {
  const size_t end = question_end(packet);
  ORP_DNS_RR_ST record;
  uint32_t consumed;
  if (field(packet, Field::kQuestions) != 1 || end == 0 ||
      ORP_DNS_PacketGetValuesOfQuestion(packet.get(), bytes_of(packet) + kHeaderSize, &record,
                                        &consumed) != ORP_DNS_OK) {
    return std::nullopt;
  }
  // Nothing stands before the first name that it could point to.
  if (kHeaderSize + consumed != end) return std::nullopt;

  Question question{record.aucName, record.ulType, record.ulClass};
  for (char &letter : question.name) {
    if (letter >= 'A' && letter <= 'Z') letter = static_cast<char>(letter - 'A' + 'a');
  }
  return question;
}

Packet question_only(const Packet &packet) {
  Packet copy(ORP_DNS_PacketCopy(packet.get(), static_cast<uint32_t>(question_end(packet))));
  if (!copy) throw std::bad_alloc();
  for (const Field count : {Field::kAnswers, Field::kAuthorities, Field::kAdditionals}) {
    set_field(copy, count, 0);
  }
  return copy;
}

std::string wire_name(const std::string &name) {
  const Packet query(ORP_DNS_PacketBuildRequest(name.c_str()));
  if (!query) return {};
  const uint8_t *const begin = bytes_of(query) + kHeaderSize;
  return {begin, begin + ORP_DNS_PacketGetNameLen(query.get(), begin)};
}

}  // namespace dns_relay
