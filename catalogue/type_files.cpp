#include "catalogue/type_files.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <iterator>
#include <map>

#include "catalogue/json_reader.h"
#include "msgapi/msg.h"

namespace catalogue {
namespace {

namespace fs = std::filesystem;

constexpr size_t kLongestName = 40;
constexpr uint32_t kLongestTimeoutMs = 24 * 60 * 60 * 1000;

std::string hex(uint64_t number) {
  char text[24];
  std::snprintf(text, sizeof text, "0x%llx", static_cast<unsigned long long>(number));
  return text;
}

// Lower-case words and numbers joined by "-", the first character a letter.
bool is_name(std::string_view text) {
  const auto is_letter = [](char c) { return c >= 'a' && c <= 'z'; };
  if (text.empty() || text.size() > kLongestName || !is_letter(text[0])) return false;
  for (size_t i = 1; i < text.size(); ++i) {
    const bool joins = text[i] == '-' && text[i - 1] != '-' && i + 1 < text.size();
    if (!is_letter(text[i]) && !(text[i] >= '0' && text[i] <= '9') && !joins) return false;
  }
  return true;
}

uint32_t type_number_in(const JsonValue &value) {
  std::optional<uint32_t> number;
  if (value.kind == JsonValue::Kind::kText) number = number_of(value.text, {});
  if (value.kind == JsonValue::Kind::kNumber && value.number <= ORP_MSG_TYPE_MASK) {
    number = static_cast<uint32_t>(value.number);
  }
  if (!number || *number == 0) {
    fail(value, "'type' must be a number from 1 to 0xfffff, such as \"0x1001\" or 4097");
  }
  return *number;
}

uint32_t timeout_in(const JsonValue &message) {
  const JsonValue *value = message.member("timeout_ms");
  if (value == nullptr) return 0;
  if (value->kind != JsonValue::Kind::kNumber || value->number > kLongestTimeoutMs) {
    fail(*value, "'timeout_ms' must be a number of milliseconds, at most a day");
  }
  return static_cast<uint32_t>(value->number);
}

Content content_in(const JsonValue &value, const char *what) {
  expect_object(value, what);
  allow(value, {"data", "body", "record"});
  Content content{.data = optional_text(value, "data"), .record = optional_text(value, "record")};
  if (const JsonValue *body = value.member("body")) {
    const auto known = body_of(text_in(*body, "body"));
    if (!known) {
      fail(*body, "'body' must be none, name, text, items, event, restful, record or path");
    }
    content.body = *known;
  }
  if ((content.body == Body::kRecord) == content.record.empty()) {
    fail(value, "'record' says what a body of the kind \"record\" is, and only that");
  }
  return content;
}

MessageType type_in(const JsonValue &message, std::span<const MessageType> known) {
  expect_object(message, "a message");
  allow(message, {"type", "name", "from", "to", "request", "answer", "timeout_ms", "meaning"});
  MessageType type{};
  type.group = Group::kOwn;

  const JsonValue &number = required(message, "type");
  type.number = type.last = type_number_in(number);
  const JsonValue &name = required(message, "name");
  type.name = text_in(name, "name");
  if (!is_name(type.name)) {
    fail(name, "'name' must be lower-case words joined by \"-\", at most " +
                   std::to_string(kLongestName) + " characters");
  }
  for (const MessageType &other : known) {
    if (other.number == type.number) {
      fail(number, hex(type.number) + " is described already, as " + std::string(other.name));
    }
    if (other.name == type.name) {
      fail(name, std::string(type.name) + " is the name of " + hex(other.number) + " already");
    }
  }

  type.from = text_in(required(message, "from"), "from");
  type.to = text_in(required(message, "to"), "to");
  type.meaning = text_in(required(message, "meaning"), "meaning");
  if (const JsonValue *request = message.member("request")) {
    type.request = content_in(*request, "'request'");
  }
  if (const JsonValue *answer = message.member("answer")) {
    type.answer = content_in(*answer, "'answer'");
  }
  type.timeout_ms = timeout_in(message);
  if (type.timeout_ms != 0 && !type.answer) {
    fail(*message.member("timeout_ms"), "'timeout_ms' is for messages with an 'answer'");
  }
  return type;
}

// The types of a file; their texts are those of `root`.
std::vector<MessageType> types_in(const JsonValue &root, std::vector<MessageType> known) {
  expect_object(root, "a file of message types");
  allow(root, {"messages"});
  const JsonValue &messages = required(root, "messages");
  if (messages.kind != JsonValue::Kind::kList) fail(messages, "'messages' must be a list");
  std::vector<MessageType> types;
  for (const JsonValue &message : messages.items) {
    types.push_back(type_in(message, known));
    known.push_back(types.back());
  }
  return types;
}

}  // namespace

Catalogue::Catalogue() : types_(message_types().begin(), message_types().end()) {}

std::optional<Problem> Catalogue::add(std::string_view text, std::string_view file) {
  try {
    const JsonValue root = read_json(text);
    const auto keep = [this](std::string_view *view) {
      if (!view->empty()) *view = texts_.emplace_back(*view);
    };
    for (MessageType type : types_in(root, types_)) {
      for (std::string_view *view : {&type.name, &type.from, &type.to, &type.meaning,
                                     &type.request.data, &type.request.record}) {
        keep(view);
      }
      if (type.answer) {
        keep(&type.answer->data);
        keep(&type.answer->record);
      }
      types_.push_back(type);
    }
    return std::nullopt;
  } catch (const JsonError &error) {
    return problem_in(file, error);
  }
}

std::vector<Problem> Catalogue::load(std::span<const std::string_view> directories) {
  std::map<std::string, fs::path> files;
  std::vector<Problem> problems;
  for (const std::string_view directory : directories) {
    std::error_code error;
    for (fs::directory_iterator entry(directory, error), end; !error && entry != end;
         entry.increment(error)) {
      const fs::path &path = entry->path();
      if (path.extension() == ".json") files.insert_or_assign(path.filename().string(), path);
    }
    if (error && error != std::errc::no_such_file_or_directory) {
      problems.push_back({shown(directory), 0, error.message()});
    }
  }
  for (const auto &[name, path] : files) {
    try {
      if (auto problem = add(file_contents(path), path.string())) problems.push_back(*problem);
    } catch (const Unreadable &unreadable) {
      problems.push_back({shown(path.string()), 0, unreadable.what()});
    }
  }
  return problems;
}

}  // namespace catalogue
