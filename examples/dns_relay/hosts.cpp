#include "hosts.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cctype>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace dns_relay {
namespace {

// The binary form of an address text, or nothing.
std::string binary_address(const std::string &text) {
  char bytes[sizeof(in6_addr)];
  if (::inet_pton(AF_INET, text.c_str(), bytes) == 1) return {bytes, sizeof(in_addr)};
  if (::inet_pton(AF_INET6, text.c_str(), bytes) == 1) return {bytes, sizeof(in6_addr)};
  return {};
}

}  // namespace

Hosts::Hosts(const std::string &path) {
  std::ifstream file(path);
  if (!file) throw std::runtime_error("cannot read " + path);
  for (std::string line; std::getline(file, line);) {
    std::istringstream words(line.substr(0, line.find('#')));
    std::string address, name;
    words >> address;
    for (bool is_first = true; words >> name; is_first = false) add(address, name, is_first);
  }
}

void Hosts::add(const std::string &address, const std::string &name, bool is_first) {
  const std::string binary = binary_address(address);
  const std::string wire = wire_name(name);
  if (binary.empty() || wire.empty()) return;

  std::string key = name;
  std::transform(key.begin(), key.end(), key.begin(),
                 [](unsigned char letter) { return static_cast<char>(std::tolower(letter)); });
  records_[key].try_emplace(binary.size() == sizeof(in_addr) ? kTypeA : kTypeAaaa, binary);
  if (is_first) names_by_address_.try_emplace(binary, wire);
}

const std::string *Hosts::find(const Question &question) const {
  if (question.klass != kClassInternet) return nullptr;
  if (question.type == kTypePtr) {
    char address[80] = "";
    if (ORP_DNS_PacketPTRName2Addr(question.name.c_str(), address, sizeof address, nullptr) !=
        ORP_DNS_OK) {
      return nullptr;
    }
    const auto found = names_by_address_.find(binary_address(address));
    return found == names_by_address_.end() ? nullptr : &found->second;
  }
  const auto host = records_.find(question.name);
  if (host == records_.end()) return nullptr;
  const auto record = host->second.find(question.type);
  return record == host->second.end() ? nullptr : &record->second;
}

}  // namespace dns_relay
