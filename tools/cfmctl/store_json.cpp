#include "store_json.h"

#include <charconv>
#include <cstring>
#include <iterator>
#include <map>

namespace cfmctl {
namespace {

using nlohmann::json;
using nlohmann::ordered_json;

constexpr char kFormat[] = "cfm-store";
constexpr int kVersion = 1;
constexpr const char *kTypes[] = {"number", "text", "bytes"};

uint32_t type_of(const std::string &name) {
  for (uint32_t type = 0; type < std::size(kTypes); ++type) {
    if (name == kTypes[type]) return type;
  }
  throw Error("unknown type '" + name + "': number, text and bytes are known");
}

std::string number_bytes(uint32_t number) {
  return {reinterpret_cast<const char *>(&number), sizeof number};
}

uint32_t number_of(const Value &value) {
  uint32_t number;
  std::memcpy(&number, value.data.data(), sizeof number);
  return number;
}

bool is_utf8(const std::string &text) {
  try {
    (void)json(text).dump();
    return true;
  } catch (const json::type_error &) {
    return false;
  }
}

ordered_json value_to_json(const Value &value) {
  ordered_json member{{"type", kTypes[value.type]}};
  if (value.type == CFM_TYPE_NUMBER) {
    member["value"] = number_of(value);
    return member;
  }
  member["size"] = value.size;
  if (value.type == CFM_TYPE_TEXT && is_utf8(value.data)) {
    member["value"] = value.data;
  } else {
    member["hex"] = hex(value.data);
  }
  return member;
}

uint32_t unsigned_member(const json &object, const char *name) {
  const json &member = object.at(name);
  if (!member.is_number_unsigned() || member.get<uint64_t>() > UINT32_MAX) {
    throw Error(std::string("'") + name + "' is not a number from 0 to 4294967295");
  }
  return member.get<uint32_t>();
}

Value value_from_json(const Place &place, const json &member) {
  Value value{place, type_of(member.at("type")), 4, {}};
  if (value.type == CFM_TYPE_NUMBER) {
    value.data = number_bytes(unsigned_member(member, "value"));
    return value;
  }
  value.data = member.contains("hex") ? parse_hex(member.at("hex").get<std::string>())
                                      : member.at("value").get<std::string>();
  value.size = unsigned_member(member, "size");
  return value;
}

// Adds the values of `members`, an object of {identifier: value}. Errors name the value's place.
void add_values(const json &members, Place place, const std::string &path, Contents *out) {
  if (!members.is_object()) throw Error(path + ": an object of values is expected here");
  for (const auto &[key, member] : members.items()) {
    try {
      place.id = parse_number(key);
      out->values.push_back(value_from_json(place, member));
    } catch (const std::exception &error) {
      throw Error(path + "/" + key + ": " + error.what());
    }
  }
}

}  // namespace

void check(uint32_t status) {
  static const std::map<uint32_t, const char *> kMeanings = {
      {CFM_ERR_ARGUMENT, "an identifier, type or size is not possible"},
      {CFM_ERR_NOT_FOUND, "there is no such value"},
      {CFM_ERR_TOO_SMALL, "the value is larger than expected"},
      {CFM_ERR_TYPE, "the value is not of its identifier's type"},
      {CFM_ERR_DAMAGED, "the store is damaged"},
      {CFM_ERR_BUSY, "another process keeps the store locked"},
      {CFM_ERR_UNAVAILABLE,
       "there is no store at " CFM_STORE_PATH " that can be opened; 'cfmctl import' makes one"},
      {CFM_ERR_MEMORY, "out of memory"},
      {CFM_ERR_TOO_LONG, "the value is longer than its identifier allows"},
      {CFM_ERR_VERSION, "the store was made by a newer release"},
  };
  if (status == CFM_OK) return;
  const auto meaning = kMeanings.find(status);
  throw Error(meaning == kMeanings.end() ? "status " + hex_id(status) : meaning->second);
}

uint32_t parse_number(std::string_view text) {
  const bool is_hex = text.starts_with("0x") || text.starts_with("0X");
  const std::string_view digits = is_hex ? text.substr(2) : text;
  uint32_t number = 0;
  const auto [end, error] =
      std::from_chars(digits.data(), digits.data() + digits.size(), number, is_hex ? 16 : 10);
  if (error != std::errc() || end != digits.data() + digits.size()) {
    throw Error("'" + std::string(text) + "' is not a 32-bit number");
  }
  return number;
}

std::string parse_hex(std::string_view text) {
  std::string bytes;
  for (size_t i = 0; i < text.size(); i += 2) {
    const char *digits = text.data() + i;
    unsigned byte = 0;
    if (i + 2 > text.size() || std::from_chars(digits, digits + 2, byte, 16).ptr != digits + 2) {
      throw Error("'" + std::string(text) + "' is not a row of bytes in hexadecimal digits");
    }
    bytes += static_cast<char>(byte);
  }
  return bytes;
}

std::string hex(std::string_view bytes) {
  constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  for (const char byte : bytes) {
    text += kDigits[static_cast<unsigned char>(byte) >> 4];
    text += kDigits[byte & 15];
  }
  return text;
}

std::string hex_id(uint32_t id) {
  char text[11];
  std::snprintf(text, sizeof text, "0x%08X", id);
  return text;
}

std::string shown(const Value &value) {
  switch (value.type) {
    case CFM_TYPE_NUMBER:
      return std::to_string(number_of(value));
    case CFM_TYPE_TEXT:
      return value.data;
    default:
      return hex(value.data);
  }
}

ordered_json to_json(const Contents &contents) {
  ordered_json parameters = ordered_json::object();
  ordered_json objects = ordered_json::object();
  ordered_json app_data = ordered_json::object();
  ordered_json equipment = ordered_json::object();

  for (const ORP_DB_KEY_ST &key : contents.instances) {
    objects[hex_id(key.ulObject)][std::to_string(key.ulInstance)] = ordered_json::object();
  }
  for (const Value &value : contents.values) {
    const Place &place = value.place;
    if (place.area == CFM_AREA_APP_DATA) {
      app_data[std::to_string(place.id)] = value_to_json(value);
    } else if (place.area == CFM_AREA_EQUIPMENT) {
      equipment[hex_id(place.id)] = value_to_json(value);
    } else if (place.object == 0) {
      parameters[hex_id(place.id)] = value_to_json(value);
    } else {
      objects[hex_id(place.object)][std::to_string(place.instance)][hex_id(place.id)] =
          value_to_json(value);
    }
  }
  return {{"format", kFormat},  {"version", kVersion},          {"parameters", parameters},
          {"objects", objects}, {"application_data", app_data}, {"equipment", equipment}};
}

Contents from_json(const json &root) {
  if (!root.is_object() || root.value("format", "") != kFormat) {
    throw Error("this is not a file of a configuration store");
  }
  if (root.value("version", 0) != kVersion) throw Error("only version 1 of the format is known");

  Contents contents;
  for (const auto &[section, members] : root.items()) {
    if (section == "format" || section == "version" || section == "comment") continue;
    if (section == "parameters") {
      add_values(members, {CFM_AREA_PARAMETER, 0, 0, 0}, section, &contents);
    } else if (section == "application_data") {
      add_values(members, {CFM_AREA_APP_DATA, 0, 0, 0}, section, &contents);
    } else if (section == "equipment") {
      add_values(members, {CFM_AREA_EQUIPMENT, 0, 0, 0}, section, &contents);
    } else if (section == "objects") {
      for (const auto &[object, instances] : members.items()) {
        for (const auto &[instance, values] : instances.items()) {
          const Place place{CFM_AREA_PARAMETER, parse_number(object), parse_number(instance), 0};
          if (place.object == 0 || place.instance == 0) {
            throw Error("objects/" + object + "/" + instance + ": both are numbered from 1");
          }
          contents.instances.push_back({place.object, place.instance});
          add_values(values, place, section + "/" + object + "/" + instance, &contents);
        }
      }
    } else {
      throw Error("unknown section '" + section + "'");
    }
  }
  return contents;
}

}  // namespace cfmctl
