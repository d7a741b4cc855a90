// Reading DNS messages: names with their compression (RFC 1035 section 4.1.4), questions, records,
// and the walk over them.
//
// All readers follow one rule for names: every byte of a name, its last included, must be followed
// by another byte of the packet. The length of a question or record and the bytes that reading it
// consumes differ in some cases (see the header); relays rely on each as it is.

#include "util/dns/packet.h"

#include <algorithm>
#include <cstddef>
#include <optional>
#include <span>

#include "msgapi/dns.h"

namespace msgapi::dns {
namespace {

constexpr uint8_t kMaxLabelSize = 63;
// Pieces of a name: the first and those that pointers lead to.
constexpr unsigned kMaxNamePieces = 10;

constexpr size_t kTypeAndClassSize = 4;
constexpr size_t kRecordFieldsSize = 10;
constexpr size_t kRecordLengthAt = 8;

constexpr bool is_pointer(uint8_t length) {
  return (length & kPointerMark) == kPointerMark;
}

size_t offset_in(const ORP_DNS_PACKET_ST *packet, const uint8_t *position) {
  // A position before the packet wraps to an offset beyond it.
  return reinterpret_cast<uintptr_t>(position) -
         reinterpret_cast<uintptr_t>(ORP_DNS_PACKET_MESSAGE(packet));
}

const uint8_t *position_in(const ORP_DNS_PACKET_ST *packet, std::optional<size_t> offset) {
  return offset ? ORP_DNS_PACKET_MESSAGE(packet) + *offset : nullptr;
}

// The part that all lengths share: the name's. 0 for anything malformed.
size_t name_length(std::span<const uint8_t> message, size_t offset) {
  ByteReader in(message, offset);
  for (;;) {
    const uint8_t length = in.next();
    if (in.left() == 0) return 0;
    if (length == 0) return in.offset() - offset;
    if (is_pointer(length)) return in.left() < 2 ? 0 : in.offset() + 1 - offset;
    if (length > kMaxLabelSize) return 0;
    if (in.take(length).empty()) return 0;
  }
}

// Appends a label and its dot, which must leave room for the NUL.
bool put_label(TextWriter *out, std::span<const uint8_t> label) {
  const std::span<char> room = out->rest();
  if (room.size() < label.size() + 2) return false;
  bool has_dot = false;
  for (size_t i = 0; i < label.size(); ++i) {
    has_dot |= label[i] == '.';
    room[i] = static_cast<char>(label[i]);
  }
  room[label.size()] = '.';
  out->advance(label.size() + 1);
  // A dot inside a label would read as two labels.
  return !has_dot;
}

// Reads the name at `offset` into `text`, through its pointers (RFC 1035 section 4.1.4).
// `*consumed` receives the bytes that the name takes at `offset`; a name of labels that ends in a
// pointer leaves it untouched.
bool read_name(std::span<const uint8_t> message, size_t offset, std::span<char> text,
               uint32_t *consumed) {
  TextWriter out(text);
  for (unsigned piece = 0; piece < kMaxNamePieces; ++piece) {
    const bool through_pointer = piece > 0;
    ByteReader in(message, offset);
    uint8_t length = in.next();
    if (through_pointer && is_pointer(length)) return false;

    while (!is_pointer(length)) {
      if (in.left() == 0) return false;
      if (length == 0) {
        // The NUL takes the place of the last dot.
        text[out.offset() == 0 ? 0 : out.offset() - 1] = '\0';
        if (!through_pointer) *consumed = static_cast<uint32_t>(in.offset() - offset);
        return true;
      }
      const std::span<const uint8_t> label = in.take(length);
      if (length > kMaxLabelSize || label.empty() || !put_label(&out, label)) return false;
      length = in.next();
    }

    if (in.left() < 2) return false;
    const bool only_pointer = in.offset() - offset == 1;
    offset = static_cast<size_t>(length & ~kPointerMark) << 8 | in.next();
    if (offset > message.size()) return false;
    if (only_pointer) *consumed = 2;
  }
  return false;
}

uint32_t get_name(const ORP_DNS_PACKET_ST *packet, const uint8_t *position, std::span<char> text,
                  uint32_t *consumed) {
  *consumed = 0;
  if (text.data() == nullptr || text.empty()) return ORP_DNS_ERR_ARGUMENT;
  text[0] = '\0';
  if (packet == nullptr || position == nullptr) return ORP_DNS_ERR_ARGUMENT;

  if (read_name(message_of(packet), offset_in(packet, position), text, consumed)) return ORP_DNS_OK;
  text[0] = '\0';
  return ORP_DNS_ERR_MALFORMED;
}

size_t question_length(std::span<const uint8_t> message, size_t offset) {
  const size_t name = name_length(message, offset);
  if (name == 0) return 0;
  // A question that ends the packet counts without type and class: the records of a query that
  // carries only its question "begin" at the type field.
  return message.size() - offset - name > kTypeAndClassSize ? name + kTypeAndClassSize : name;
}

size_t record_length(std::span<const uint8_t> message, size_t offset) {
  const size_t name = name_length(message, offset);
  if (name == 0) return 0;
  ByteReader in(message, offset + name);
  in.take(kRecordLengthAt);
  const size_t length_at = in.offset();
  // In 16 bits, as the field itself.
  const auto field_and_data = static_cast<uint16_t>(in.be16() + 2);
  if (!in.ok() || field_and_data >= message.size() - length_at) return 0;
  return name + kRecordLengthAt + field_and_data;
}

std::optional<size_t> skip_records(std::span<const uint8_t> message, size_t offset,
                                   uint16_t count) {
  for (; count > 0; --count) {
    const size_t length = record_length(message, offset);
    if (length == 0) return std::nullopt;
    offset += length;
  }
  return offset;
}

std::optional<size_t> first_record(std::span<const uint8_t> message) {
  if (message.size() < kHeaderSize) return std::nullopt;
  size_t offset = kHeaderSize;
  for (uint16_t count = header_field(message, kQuestionCountAt); count > 0; --count) {
    const size_t length = question_length(message, offset);
    if (length == 0) return std::nullopt;
    offset += length;
  }
  return offset;
}

// The record after the first `count` ones.
const uint8_t *record_after(const ORP_DNS_PACKET_ST *packet, uint16_t count) {
  const std::span<const uint8_t> message = message_of(packet);
  const std::optional<size_t> first = first_record(message);
  return first ? position_in(packet, skip_records(message, *first, count)) : nullptr;
}

}  // namespace

Owned<ORP_DNS_PACKET_ST> new_packet(uint64_t length, std::span<const uint8_t> head) {
  Owned<ORP_DNS_PACKET_ST> packet(
      static_cast<ORP_DNS_PACKET_ST *>(guarded_zalloc(sizeof(ORP_DNS_PACKET_ST) + length)));
  if (!packet) return nullptr;
  packet->ulLength = static_cast<uint32_t>(length);
  ByteWriter(writable_message_of(packet.get()))
      .put_all(head.first(std::min<size_t>(head.size(), packet->ulLength)));
  return packet;
}

}  // namespace msgapi::dns

using namespace msgapi;
using namespace msgapi::dns;

static_assert(offsetof(ORP_DNS_RR_ST, pucRdata) == 272 && sizeof(ORP_DNS_PACKET_ST) == 4);

extern "C" ORP_DNS_PACKET_ST *ORP_DNS_PacketCopy(const ORP_DNS_PACKET_ST *packet,
                                                 uint32_t max_length) {
  if (packet == nullptr) return nullptr;
  const uint32_t length =
      max_length == 0 ? packet->ulLength : std::min(packet->ulLength, max_length);
  if (length > 0xFFFFFFFA) return nullptr;
  return new_packet(length, message_of(packet)).release();
}

extern "C" uint32_t ORP_DNS_PacketGetNameLen(const ORP_DNS_PACKET_ST *packet,
                                             const uint8_t *position) {
  if (packet == nullptr || position == nullptr) return 0;
  return static_cast<uint32_t>(name_length(message_of(packet), offset_in(packet, position)));
}

extern "C" uint32_t ORP_DNS_PacketGetName(const ORP_DNS_PACKET_ST *packet, const uint8_t *position,
                                          char *text, uint32_t size, uint32_t *consumed) {
  uint32_t ignored;
  return get_name(packet, position, {text, size}, consumed == nullptr ? &ignored : consumed);
}

extern "C" uint32_t ORP_DNS_PacketGetValuesOfQuestion(const ORP_DNS_PACKET_ST *packet,
                                                      const uint8_t *position,
                                                      ORP_DNS_RR_ST *record, uint32_t *consumed) {
  if (consumed != nullptr) *consumed = 0;
  if (record == nullptr) return ORP_DNS_ERR_ARGUMENT;
  uint32_t name_size;
  const uint32_t status = get_name(packet, position, record->aucName, &name_size);
  if (status != ORP_DNS_OK) return status;

  ByteReader in(message_of(packet), offset_in(packet, position) + name_size);
  if (in.left() < kTypeAndClassSize) return ORP_DNS_ERR_MALFORMED;
  record->ulType = in.be16();
  record->ulClass = in.be16();
  if (consumed != nullptr) *consumed = name_size + static_cast<uint32_t>(kTypeAndClassSize);
  return ORP_DNS_OK;
}

extern "C" uint32_t ORP_DNS_PacketGetValuesOfRR(const ORP_DNS_PACKET_ST *packet,
                                                const uint8_t *position, ORP_DNS_RR_ST *record,
                                                uint32_t *consumed) {
  if (consumed != nullptr) *consumed = 0;
  if (record == nullptr) return ORP_DNS_ERR_ARGUMENT;
  uint32_t name_size;
  const uint32_t status = get_name(packet, position, record->aucName, &name_size);
  if (status != ORP_DNS_OK) return status;

  ByteReader in(message_of(packet), offset_in(packet, position) + name_size);
  if (in.left() < kRecordFieldsSize) return ORP_DNS_ERR_MALFORMED;
  record->ulType = in.be16();
  record->ulClass = in.be16();
  record->ulTtl = in.be32();
  record->ulRdLength = in.be16();
  record->pucRdata = in.rest().data();
  if (in.left() < record->ulRdLength) return ORP_DNS_ERR_MALFORMED;
  if (consumed != nullptr) {
    *consumed = name_size + static_cast<uint32_t>(kRecordFieldsSize) + record->ulRdLength;
  }
  return ORP_DNS_OK;
}

extern "C" uint32_t ORP_DNS_PacketGetQuestionLen(const ORP_DNS_PACKET_ST *packet,
                                                 const uint8_t *position) {
  if (packet == nullptr || position == nullptr) return 0;
  return static_cast<uint32_t>(question_length(message_of(packet), offset_in(packet, position)));
}

extern "C" uint32_t ORP_DNS_PacketGetRRLen(const ORP_DNS_PACKET_ST *packet,
                                           const uint8_t *position) {
  if (packet == nullptr || position == nullptr) return 0;
  return static_cast<uint32_t>(record_length(message_of(packet), offset_in(packet, position)));
}

extern "C" const uint8_t *ORP_DNS_PacketGetFirstRR(const ORP_DNS_PACKET_ST *packet) {
  return packet == nullptr ? nullptr : record_after(packet, 0);
}

extern "C" const uint8_t *ORP_DNS_PacketGetNextRR(const ORP_DNS_PACKET_ST *packet,
                                                  const uint8_t *position) {
  const uint32_t length = ORP_DNS_PacketGetRRLen(packet, position);
  return length == 0 ? nullptr : position + length;
}

extern "C" const uint8_t *ORP_DNS_PacketGetFirstAuthorityRecord(const ORP_DNS_PACKET_ST *packet) {
  if (packet == nullptr) return nullptr;
  return record_after(packet, header_field(message_of(packet), kAnswerCountAt));
}

extern "C" const uint8_t *ORP_DNS_PacketGetFirstAddtionalRecord(const ORP_DNS_PACKET_ST *packet) {
  if (packet == nullptr) return nullptr;
  const std::span<const uint8_t> message = message_of(packet);
  return record_after(packet, static_cast<uint16_t>(header_field(message, kAnswerCountAt) +
                                                    header_field(message, kAuthorityCountAt)));
}
