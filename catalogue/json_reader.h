// JSON values with their line in the file, so that problems can name it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace catalogue {

// What is wrong, and on which line (from 1).
struct JsonError : std::runtime_error {
  JsonError(size_t where, const std::string &what) : std::runtime_error(what), line(where) {}
  size_t line;
};

struct JsonValue {
  enum class Kind : uint8_t { kOther, kTruth, kNumber, kText, kList, kObject };

  Kind kind = Kind::kOther;  // kOther: null, fractions, negative numbers
  bool truth = false;
  size_t line = 1;
  uint64_t number = 0;
  std::string text;
  std::vector<JsonValue> items;    // of a list, or the values of an object's members
  std::vector<std::string> names;  // of an object's members

  // The member of an object; null when there is none.
  const JsonValue *member(std::string_view name) const;
};

// Throws a JsonError, also for a name that comes twice in an object, for more than 16 levels, and
// for more than 64 members of one object.
JsonValue read_json(std::string_view text);

}  // namespace catalogue
