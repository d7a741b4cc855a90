// The configuration store as readable JSON; docs/configuration-store.md describes the format.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "cfmstore.h"

namespace cfmctl {

struct Error : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// Throws an Error that names the status, unless it is CFM_OK.
void check(uint32_t status);

// Where a value is in the store.
struct Place {
  uint32_t area = CFM_AREA_PARAMETER;
  uint32_t object = 0;
  uint32_t instance = 0;
  uint32_t id = 0;

  bool operator==(const Place &) const = default;
};

struct Value {
  Place place;
  uint32_t type = CFM_TYPE_NUMBER;
  uint32_t size = 4;
  std::string data;  // a number as its four bytes
};

// Everything a store or a file holds.
struct Contents {
  std::vector<Value> values;
  std::vector<ORP_DB_KEY_ST> instances;
};

uint32_t parse_number(std::string_view text);
std::string parse_hex(std::string_view text);
std::string hex(std::string_view bytes);
std::string hex_id(uint32_t id);

// A value as people read it: a number, a text, or bytes in hexadecimal digits.
std::string shown(const Value &value);

nlohmann::ordered_json to_json(const Contents &contents);
Contents from_json(const nlohmann::json &root);

}  // namespace cfmctl
