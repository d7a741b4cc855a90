#include "catalogue/json_file.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>

namespace catalogue {
namespace {

namespace fs = std::filesystem;

constexpr size_t kLongestText = 400;

// Control characters are C0, DEL and C1, which UTF-8 writes as C2 80 to C2 9F.
bool has_control_characters(std::string_view text) {
  for (size_t i = 0; i < text.size(); ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    if (byte < 0x20 || byte == 0x7f) return true;
    if (byte != 0xc2 || i + 1 == text.size()) continue;
    if (static_cast<unsigned char>(text[i + 1]) < 0xa0) return true;
  }
  return false;
}

std::string quoted(std::string_view name) {
  return "'" + std::string(name) + "'";
}

}  // namespace

std::string Problem::text() const {
  return file + (line == 0 ? "" : ":" + std::to_string(line)) + ": " + what;
}

Problem problem_in(std::string_view file, const JsonError &error) {
  return {shown(file), error.line, shown(error.what())};
}

std::string file_contents(const std::string &path, size_t most) {
  std::error_code error;
  const fs::file_status status = fs::status(path, error);
  if (error) throw Unreadable{error.message()};
  if (!fs::is_regular_file(status)) throw Unreadable{"is no regular file"};
  std::ifstream file(path, std::ios::binary);
  if (!file) throw Unreadable{std::strerror(errno)};
  std::string text(most + 1, '\0');
  file.read(text.data(), static_cast<std::streamsize>(text.size()));
  if (file.bad()) throw Unreadable{std::strerror(errno)};
  text.resize(static_cast<size_t>(file.gcount()));
  if (text.size() > most) {
    throw Unreadable{"is larger than " + std::to_string(most >> 10) + " KiB"};
  }
  return text;
}

std::string shown(std::string_view text) {
  constexpr size_t kLongestShown = 200;
  std::string out(text.substr(0, kLongestShown));
  std::ranges::replace_if(
      out, [](unsigned char c) { return c < 0x20 || c > 0x7e; }, '?');
  return out;
}

void fail(const JsonValue &where, const std::string &what) {
  throw JsonError(where.line, what);
}

void expect_object(const JsonValue &value, const char *what) {
  if (value.kind != JsonValue::Kind::kObject) fail(value, std::string(what) + " must be an object");
}

void allow(const JsonValue &object, std::initializer_list<std::string_view> names) {
  for (const std::string &name : object.names) {
    if (name == "comment" || std::ranges::count(names, std::string_view(name)) > 0) continue;
    fail(*object.member(name), "'" + shown(name) + "' is not known here");
  }
}

const JsonValue &required(const JsonValue &object, std::string_view name) {
  const JsonValue *value = object.member(name);
  if (value == nullptr) fail(object, quoted(name) + " is missing");
  return *value;
}

std::string_view text_in(const JsonValue &value, std::string_view name) {
  if (value.kind != JsonValue::Kind::kText || value.text.empty()) {
    fail(value, quoted(name) + " must be a text that is not empty");
  }
  if (value.text.size() > kLongestText) {
    fail(value, quoted(name) + " is longer than " + std::to_string(kLongestText) + " bytes");
  }
  if (has_control_characters(value.text)) fail(value, quoted(name) + " holds control characters");
  return value.text;
}

std::string_view optional_text(const JsonValue &object, std::string_view name) {
  const JsonValue *value = object.member(name);
  return value == nullptr ? std::string_view() : text_in(*value, name);
}

uint64_t number_in(const JsonValue &value, std::string_view name, uint64_t least, uint64_t most) {
  if (value.kind != JsonValue::Kind::kNumber || value.number < least || value.number > most) {
    fail(value, quoted(name) + " must be a number from " + std::to_string(least) + " to " +
                    std::to_string(most));
  }
  return value.number;
}

bool truth_in(const JsonValue &value, std::string_view name) {
  if (value.kind != JsonValue::Kind::kTruth) fail(value, quoted(name) + " must be true or false");
  return value.truth;
}

}  // namespace catalogue
