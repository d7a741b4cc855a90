#include "msgbridge/json_text.h"

#include "traffic/mask.h"

namespace msgbridge {
namespace {

constexpr int kMostLevels = 32;

// The parser itself takes any depth; what works on the result does not.
bool is_shallow(std::string_view text) {
  int level = 0;
  bool quoted = false;
  for (size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (quoted) {
      if (c == '\\') ++i;
      if (c == '"') quoted = false;
      continue;
    }
    if (c == '"') quoted = true;
    if (c == '[' || c == '{') ++level;
    if (c == ']' || c == '}') --level;
    if (level > kMostLevels) return false;
  }
  return true;
}

bool mask_under(std::string_view name, Json *json) {
  bool some = false;
  if (json->is_object()) {
    for (auto &[key, value] : json->items()) some |= mask_under(key, &value);
  } else if (json->is_array()) {
    for (Json &each : *json) some |= mask_under(name, &each);
  } else if (json->is_string()) {
    const auto &text = json->get_ref<const std::string &>();
    std::string masked = traffic::masked_value(name, text);
    if (masked == text) return false;
    *json = std::move(masked);
    some = true;
  } else if (json->is_number()) {
    // Only its name tells.
    const std::string text = json->dump();
    if (traffic::masked_value(name, text) == text) return false;
    *json = 0;
    some = true;
  }
  return some;
}

}  // namespace

std::optional<Json> parse_json(std::string_view text) {
  if (!is_shallow(text)) return std::nullopt;
  Json json = Json::parse(text, nullptr, false);
  if (json.is_discarded()) return std::nullopt;
  return json;
}

std::string json_line(const Json &json) {
  return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

bool mask_json(Json *json) {
  return mask_under("", json);
}

}  // namespace msgbridge
