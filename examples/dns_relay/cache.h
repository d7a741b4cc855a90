// Addresses that upstream servers have answered, until their time runs out.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "message.h"

namespace dns_relay {

class Cache {
 public:
  explicit Cache(size_t max_entries) : max_entries_(max_entries) {}

  // Keeps the addresses that `reply` gives for `question`, if there are any.
  void store(const Question &question, const Packet &reply);

  // The answer to `query` (its question only) with its TTL aged, or null. One of several addresses
  // is given at a time, in turn.
  Packet answer(const Question &question, const Packet &query);

 private:
  struct Entry {
    std::vector<std::string> addresses;
    size_t next = 0;
    uint32_t ttl_s = 0;
    uint32_t stored_at_s = 0;  // uptime
  };

  const size_t max_entries_;
  std::map<Question, Entry> entries_;
};

}  // namespace dns_relay
