// Shared by readers of JSON files: the file's bytes, members by their name and kind, and problems
// that name their line in the file.
#pragma once

#include <cstddef>
#include <initializer_list>
#include <stdexcept>
#include <string>
#include <string_view>

#include "catalogue/json_reader.h"

namespace catalogue {

// What is wrong with a file. No text in it has control characters.
struct Problem {
  std::string file;
  size_t line;  // 0: the file as a whole
  std::string what;

  std::string text() const;  // "FILE:LINE: WHAT"
};
Problem problem_in(std::string_view file, const JsonError &error);

// A file's bytes. Throws Unreadable, also if it is no regular file or larger than `most`.
struct Unreadable : std::runtime_error {
  using std::runtime_error::runtime_error;
};
std::string file_contents(const std::string &path, size_t most = 256 << 10);

// Foreign text in a form that can be shown in a problem.
std::string shown(std::string_view text);

// All of these throw a JsonError with the line of the value.
[[noreturn]] void fail(const JsonValue &where, const std::string &what);
void expect_object(const JsonValue &value, const char *what);
// Fails for a member that is not one of these, nor a "comment".
void allow(const JsonValue &object, std::initializer_list<std::string_view> names);
const JsonValue &required(const JsonValue &object, std::string_view name);
// A text of 1 to 400 bytes without control characters.
std::string_view text_in(const JsonValue &value, std::string_view name);
std::string_view optional_text(const JsonValue &object, std::string_view name);
uint64_t number_in(const JsonValue &value, std::string_view name, uint64_t least, uint64_t most);
bool truth_in(const JsonValue &value, std::string_view name);

}  // namespace catalogue
