// What upstream servers have answered, until its time runs out: addresses, and that there is no
// such name or no such record (RFC 2308).
#pragma once

#include <map>
#include <string>
#include <vector>

#include "message.h"

namespace dns_relay {

class Cache {
 public:
  explicit Cache(size_t max_entries) : max_entries_(max_entries) {}

  // Keeps what `reply`, which has a whole header, says about `question`, if it may be kept.
  void store(const Question &question, const Packet &reply);

  // The answer to `query` (its question only) with its TTL aged, or null. One of several addresses
  // is given at a time, in turn.
  Packet answer(const Question &question, const Packet &query);

 private:
  struct Entry {
    std::vector<std::string> addresses;
    Packet denial;             // instead: header, question and the zone's SOA record
    size_t denial_ttl_at = 0;  // where the TTL of that record stands
    size_t next = 0;
    uint32_t ttl_s = 0;
    uint32_t stored_at_s = 0;  // uptime
  };

  void store_addresses(const Question &question, const Packet &reply);
  void store_denial(const Question &question, const Packet &reply);
  void add(const Question &question, Entry entry);
  Packet denial(const Question &question, const Packet &query);

  const size_t max_entries_;
  // That there is no such name stands under the type 0.
  std::map<Question, Entry> entries_;
};

}  // namespace dns_relay
