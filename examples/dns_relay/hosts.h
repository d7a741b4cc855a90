// Names and addresses from a file in the format of hosts(5).
#pragma once

#include <map>
#include <string>

#include "message.h"

namespace dns_relay {

class Hosts {
 public:
  Hosts() = default;
  // Throws when the file cannot be read; skips lines that make no sense.
  explicit Hosts(const std::string &path);

  bool knows(const std::string &name) const { return records_.contains(name); }

  // The data of the record that answers `question`, or null.
  const std::string *find(const Question &question) const;

 private:
  void add(const std::string &address, const std::string &name, bool is_first);

  // Data of records by lower-case name and type.
  std::map<std::string, std::map<uint32_t, std::string>> records_;
  std::map<std::string, std::string> names_by_address_;  // wire names by binary address
};

}  // namespace dns_relay
