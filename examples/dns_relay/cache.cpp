#include "cache.h"

#include <sys/sysinfo.h>

#include <algorithm>
#include <string_view>
#include <utility>

namespace dns_relay {
namespace {

// RFC 1035 section 3.3.13: five numbers behind two names, the last of them MINIMUM.
constexpr uint32_t kSoaNumbersSize = 20;
// TTL and length of the data stand right before the data.
constexpr size_t kTtlAndLengthSize = 6;
// RFC 2308 section 5 has one to three hours.
constexpr uint32_t kLongestDenial_s = 3 * 3600;

uint32_t big_endian(const uint8_t *at) {
  return uint32_t{at[0]} << 24 | uint32_t{at[1]} << 16 | uint32_t{at[2]} << 8 | at[3];
}

// Whether `zone` may speak for `name`, which is in lower case.
bool is_within(std::string_view name, std::string zone) {
  for (char &letter : zone) {
    if (letter >= 'A' && letter <= 'Z') letter = static_cast<char>(letter - 'A' + 'a');
  }
  if (zone.empty() || name == zone) return true;
  return name.ends_with("." + zone);
}

uint32_t uptime_s() {
  struct sysinfo now {};
  ::sysinfo(&now);
  return static_cast<uint32_t>(now.uptime);
}

}  // namespace

void Cache::store(const Question &question, const Packet &reply) {
  if (is_cut_short(reply)) return;
  const ResponseCode code = response_code(reply);
  if (code == ResponseCode::kNoError && field(reply, Field::kAnswers) > 0) {
    store_addresses(question, reply);
  } else if (code == ResponseCode::kNoError || code == ResponseCode::kNameError) {
    store_denial(question, reply);
  }
}

void Cache::store_addresses(const Question &question, const Packet &reply) {
  // Records of other types may hold compressed names, which mean something in their packet only.
  if (question.type != kTypeA && question.type != kTypeAaaa) return;

  Entry entry;
  entry.ttl_s = UINT32_MAX;
  const uint8_t *at = ORP_DNS_PacketGetFirstRR(reply.get());
  for (uint16_t left = field(reply, Field::kAnswers); left > 0 && at != nullptr; --left) {
    ORP_DNS_RR_ST record;
    if (ORP_DNS_PacketGetValuesOfRR(reply.get(), at, &record, nullptr) != ORP_DNS_OK) return;
    // What aliases on the way to the address live shorter than it shortens the answer's life.
    entry.ttl_s = std::min(entry.ttl_s, record.ulTtl);
    if (record.ulType == question.type && record.ulClass == question.klass) {
      entry.addresses.emplace_back(record.pucRdata, record.pucRdata + record.ulRdLength);
    }
    at = ORP_DNS_PacketGetNextRR(reply.get(), at);
  }
  if (!entry.addresses.empty()) add(question, std::move(entry));
}

// Only with the SOA record of the zone (RFC 2308 section 5), which must come first: its compressed
// names then still mean the same when what follows it is cut off. An answer that leads over an
// alias is not kept.
void Cache::store_denial(const Question &question, const Packet &reply) {
  if (field(reply, Field::kAnswers) > 0 || field(reply, Field::kAuthorities) == 0) return;
  const uint8_t *const at = ORP_DNS_PacketGetFirstRR(reply.get());
  ORP_DNS_RR_ST soa;
  if (at == nullptr || ORP_DNS_PacketGetValuesOfRR(reply.get(), at, &soa, nullptr) != ORP_DNS_OK ||
      soa.ulType != kTypeSoa || soa.ulRdLength < kSoaNumbersSize ||
      !is_within(question.name, soa.aucName)) {
    return;
  }

  Entry entry;
  const uint8_t *const minimum = soa.pucRdata + soa.ulRdLength - 4;
  entry.ttl_s = std::min({soa.ulTtl, big_endian(minimum), kLongestDenial_s});
  const uint8_t *const end = soa.pucRdata + soa.ulRdLength;
  const std::span<const uint8_t> message = message_of(reply);
  entry.denial = make_packet(message.first(static_cast<size_t>(end - message.data())));
  entry.denial_ttl_at = static_cast<size_t>(soa.pucRdata - message.data()) - kTtlAndLengthSize;
  set_field(entry.denial, Field::kAuthorities, 1);
  set_field(entry.denial, Field::kAdditionals, 0);
  Question key = question;
  if (response_code(reply) == ResponseCode::kNameError) key.type = 0;
  add(key, std::move(entry));
}

void Cache::add(const Question &question, Entry entry) {
  entry.stored_at_s = uptime_s();
  // An uptime of 0 would mean "do not age".
  if (entry.ttl_s == 0 || entry.stored_at_s == 0) return;

  if (entries_.size() >= max_entries_) {
    const auto oldest =
        std::min_element(entries_.begin(), entries_.end(), [](const auto &left, const auto &right) {
          return left.second.stored_at_s < right.second.stored_at_s;
        });
    if (oldest != entries_.end()) entries_.erase(oldest);
  }
  if (max_entries_ > 0) entries_.insert_or_assign(question, std::move(entry));
}

// The stored reply under the query's identifier and with its spelling of the name.
Packet Cache::denial(const Question &question, const Packet &query) {
  const auto found = entries_.find(question);
  if (found == entries_.end() || !found->second.denial) return nullptr;
  const Entry &entry = found->second;
  const uint32_t age_s = uptime_s() - entry.stored_at_s;
  const size_t question_size = question_end(entry.denial);
  if (age_s >= entry.ttl_s || question_size != query->ulLength) {
    entries_.erase(found);
    return nullptr;
  }

  Packet answer = make_packet(message_of(entry.denial));
  uint8_t *const bytes = ORP_DNS_PACKET_MESSAGE(answer.get());
  const std::span<const uint8_t> asked = message_of(query);
  std::copy(asked.begin() + kHeaderSize, asked.end(), bytes + kHeaderSize);
  set_field(answer, Field::kIdentifier, field(query, Field::kIdentifier));
  for (size_t i = 0; i < 4; ++i) {
    bytes[entry.denial_ttl_at + i] = static_cast<uint8_t>((entry.ttl_s - age_s) >> (24 - 8 * i));
  }
  return answer;
}

Packet Cache::answer(const Question &question, const Packet &query) {
  if (Packet denied = denial({question.name, 0, question.klass}, query)) return denied;
  if (Packet denied = denial(question, query)) return denied;
  const auto found = entries_.find(question);
  if (found == entries_.end()) return nullptr;

  Entry &entry = found->second;
  const std::string &address = entry.addresses[entry.next++ % entry.addresses.size()];
  const ORP_DNS_RR_ST record = {"",
                                question.type,
                                question.klass,
                                entry.ttl_s,
                                static_cast<uint32_t>(address.size()),
                                reinterpret_cast<const uint8_t *>(address.data())};
  Packet answer(ORP_DNS_PacketBuildResponse(query.get(), &record, entry.stored_at_s));
  if (!answer) entries_.erase(found);
  return answer;
}

}  // namespace dns_relay
