#include "msgbridge/json_text.h"

#include <algorithm>
#include <utility>

#include "traffic/decode.h"
#include "traffic/mask.h"

namespace msgbridge {
namespace {

constexpr size_t kMostLevels = 32;

// `care` is what the names of the members around the value say.
void mask_under(traffic::Care care, Json *json) {
  if (json->is_object()) {
    Json masked = Json::object();
    for (auto &[key, value] : json->items()) {
      mask_under(std::max(care, traffic::care_of(key)), &value);
      // Names that look the same when they are masked stay apart.
      const std::string shown = traffic::masked(key);
      std::string name = shown;
      for (size_t n = masked.size(); masked.contains(name); ++n) {
        name = shown + '#' + std::to_string(n);
      }
      masked.emplace(std::move(name), std::move(value));
    }
    *json = std::move(masked);
  } else if (json->is_array()) {
    for (Json &each : *json) mask_under(care, &each);
  } else if (json->is_string()) {
    *json = traffic::masked_value(care, json->get_ref<const std::string &>());
  } else if (json->is_number()) {
    // A number is personal only by the name of its member.
    if (traffic::masked_value(care, json->dump()) != json->dump()) *json = 0;
  }
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

void mask_json(Json *json) {
  mask_under(traffic::Care::kNone, json);
}

}  // namespace msgbridge
