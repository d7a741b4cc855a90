// Bodies of messages as people and programs read them.
#pragma once

#include <cstddef>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "catalogue/type_files.h"
#include "traffic/model.h"

namespace traffic {

using Json = nlohmann::ordered_json;

// Values are copied and written recursively, so text from outside may not nest at will.
constexpr size_t kMostNested = 100;
// Each member of an object is looked for among all of them.
constexpr size_t kMostMembers = 1024;
// The value of a JSON text; a discarded one for what is none, nests deeper, or has an object with
// more members.
Json parsed(std::string_view text, size_t most_nested = kMostNested);

// The body by what the catalogue says of its type, or by what it looks like: the fields of a
// restful request, DM items, JSON, text, or {"hex": "..."}; null without one. What was not kept is
// named in the member "missing" of objects, and is "..." at the end of texts. Texts that are no
// UTF-8 have their bad bytes as \x1b.
Json body_json(const Message &message, const catalogue::Catalogue &catalogue);

// The same on one line without control characters, "" without a body.
std::string body_line(const Message &message, const catalogue::Catalogue &catalogue);

}  // namespace traffic
