// DNS packets as the relay handles them: owned blocks, header fields, and the one question.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <optional>
#include <span>
#include <string>

#include "msgapi/dns.h"

namespace dns_relay {

struct FreeDeleter {
  void operator()(void *block) const { std::free(block); }
};
using Packet = std::unique_ptr<ORP_DNS_PACKET_ST, FreeDeleter>;

// RFC 1035 sections 3.2 and 4.1.1, RFC 3596.
constexpr uint32_t kTypeA = 1;
constexpr uint32_t kTypeSoa = 6;
constexpr uint32_t kTypePtr = 12;
constexpr uint32_t kTypeAaaa = 28;
constexpr uint32_t kClassInternet = 1;

enum class ResponseCode : uint32_t {
  kNoError = 0,
  kFormatError = 1,
  kServerFailure = 2,
  kNameError = 3,
  kNotImplemented = 4,
  kRefused = 5,
};

constexpr size_t kHeaderSize = 12;
enum class Field : size_t {
  kIdentifier = 0,
  kFlags = 2,
  kQuestions = 4,
  kAnswers = 6,
  kAuthorities = 8,
  kAdditionals = 10,
};

Packet make_packet(std::span<const uint8_t> message);
std::span<const uint8_t> message_of(const Packet &packet);

// The packet has a whole header.
uint16_t field(const Packet &packet, Field field);
void set_field(const Packet &packet, Field field, uint16_t value);

bool is_reply(const Packet &packet);
// Not all records fitted.
bool is_cut_short(const Packet &packet);
ResponseCode response_code(const Packet &packet);
// Says in a reply that queries are passed on (RFC 1035 section 4.1.1).
void set_recursion_available(const Packet &packet);
// Where it stands in the flags; 0 is a standard query.
uint16_t operation_of(const Packet &packet);

struct Question {
  std::string name;  // lower case
  uint32_t type = 0;
  uint32_t klass = 0;

  bool operator==(const Question &) const = default;
  auto operator<=>(const Question &) const = default;
};

// The question of a packet that has exactly one, or nothing.
std::optional<Question> question_of(const Packet &packet);

// The packet's header and question alone: what replies are built on, as the builders keep
// everything behind the question.
Packet question_only(const Packet &packet);

// Behind the question of a packet that has one, where the first record stands; 0 when malformed.
size_t question_end(const Packet &packet);

// A name as it stands in a record's data; empty for one that cannot be written.
std::string wire_name(const std::string &name);

}  // namespace dns_relay
