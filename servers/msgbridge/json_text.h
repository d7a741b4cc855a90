// JSON from outside: parsed within bounds, and without personal data.
#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

namespace msgbridge {

using Json = nlohmann::ordered_json;

// None for a text that is no JSON, has more than 32 levels, or an object of more than 1024 members.
std::optional<Json> parse_json(std::string_view text);

// The JSON on one line, always UTF-8: bytes that are none are replaced.
std::string json_line(const Json &json);

// Masks personal data in all texts, numbers and names of members, by those names and by its form.
void mask_json(Json *json);

}  // namespace msgbridge
