#include "cache.h"

#include <sys/sysinfo.h>

#include <algorithm>

namespace dns_relay {
namespace {

uint32_t uptime_s() {
  struct sysinfo now {};
  ::sysinfo(&now);
  return static_cast<uint32_t>(now.uptime);
}

}  // namespace

void Cache::store(const Question &question, const Packet &reply) {
  // Records of other types may hold compressed names, which mean something in their packet only.
  if (question.type != kTypeA && question.type != kTypeAaaa) return;

  Entry entry{{}, 0, UINT32_MAX, uptime_s()};
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
  // An uptime of 0 would mean "do not age".
  if (entry.addresses.empty() || entry.ttl_s == 0 || entry.stored_at_s == 0) return;

  if (entries_.size() >= max_entries_) {
    const auto oldest =
        std::min_element(entries_.begin(), entries_.end(), [](const auto &left, const auto &right) {
          return left.second.stored_at_s < right.second.stored_at_s;
        });
    if (oldest != entries_.end()) entries_.erase(oldest);
  }
  if (max_entries_ > 0) entries_.insert_or_assign(question, std::move(entry));
}

Packet Cache::answer(const Question &question, const Packet &query) {
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
