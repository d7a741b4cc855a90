// JSON from outside: parsed within bounds, and without personal data.
#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

namespace msgbridge {

using Json = nlohmann::ordered_json;

// None for what is no JSON, goes deeper than 32 levels, or has an object of more than 1024 members.
std::optional<Json> parse_json(std::string_view text);

// UTF-8 on one line, whatever the texts in it hold.
std::string json_line(const Json &json);

// Masks personal data in all texts and numbers: by the name of the member and by how it looks.
// Returns whether there was any.
bool mask_json(Json *json);

}  // namespace msgbridge
