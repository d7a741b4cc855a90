// Message bodies in forms that people and programs can read.
#pragma once

#include <cstddef>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "catalogue/type_files.h"
#include "traffic/model.h"

namespace traffic {

using Json = nlohmann::ordered_json;

// JSON values are copied and written recursively, so nesting is bounded for texts from outside.
constexpr size_t kMostNested = 100;
// Finding a member takes a walk over all members of its object, so their number is bounded, too.
constexpr size_t kMostMembers = 1024;
// The value of a JSON text. A discarded value for a text that is no JSON or exceeds these limits.
Json parsed(std::string_view text, size_t most_nested = kMostNested);

// The body as the catalogue describes its type, or else as what it looks like: the fields of a
// restful request, DM items, JSON, text, or {"hex": "..."}; null without a body. When a body was
// not kept whole, an object has a member "missing", and a text ends with "...". Bytes that are no
// UTF-8 are shown as \x1b.
Json body_json(const Message &message, const catalogue::Catalogue &catalogue);

// The same on one line without control characters, "" without a body.
std::string body_line(const Message &message, const catalogue::Catalogue &catalogue);

}  // namespace traffic
