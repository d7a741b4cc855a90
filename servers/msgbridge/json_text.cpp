#include "msgbridge/json_text.h"

#include <algorithm>

#include "traffic/decode.h"
#include "traffic/mask.h"

namespace msgbridge {
namespace {

constexpr size_t kMostLevels = 32;

// `care` is what the names of the members around the value say.
bool mask_under(traffic::Care care, Json *json) {
  bool some = false;
  if (json->is_object()) {
    for (auto &[key, value] : json->items()) {
      some |= mask_under(std::max(care, traffic::care_of(key)), &value);
    }
  } else if (json->is_array()) {
    for (Json &each : *json) some |= mask_under(care, &each);
  } else if (json->is_string()) {
    const auto &text = json->get_ref<const std::string &>();
    std::string masked = traffic::masked_value(care, text);
    if (masked == text) return false;
    *json = std::move(masked);
    some = true;
  } else if (json->is_number()) {
    // A number is personal only by the name of its member.
    if (traffic::masked_value(care, json->dump()) == json->dump()) return false;
    *json = 0;
    some = true;
  }
  return some;
}

}  // namespace

std::optional<Json> parse_json(std::string_view text) {
  Json json = traffic::parsed(text, kMostLevels);
  if (json.is_discarded()) return std::nullopt;
  return json;
}

std::string json_line(const Json &json) {
  return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

bool mask_json(Json *json) {
  return mask_under(traffic::Care::kNone, json);
}

}  // namespace msgbridge
