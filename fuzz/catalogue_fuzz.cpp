// Files of message types like those of applications, made from the input, some with mistakes. Right
// types are found as they were written; a file with a mistake is reported with its line and adds
// nothing.

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "catalogue/type_files.h"
#include "decisions.h"

namespace {

using fuzz::check;
using fuzz::Decisions;

// Names of bodies, by their numbers.
constexpr std::string_view kBodies[] = {"none",  "name",    "text",   "items",
                                        "event", "restful", "record", "path"};

struct Content {
  std::string data, record;
  std::string_view body;
};

struct Type {
  uint32_t number;
  std::string name, meaning, to;
  std::optional<Content> request, answer;
  uint32_t timeout_ms;
};

class File {
 public:
  File(Decisions *decisions, std::set<uint32_t> *numbers, std::set<std::string> *names)
      : decisions_(*decisions), numbers_(*numbers), names_(*names) {}

  std::string text = "{\"messages\": [";
  std::vector<Type> types;
  std::set<size_t> mistakes;  // the lines of mistakes in the first message that has any

  void make() {
    for (size_t count = decisions_.below(8); count > 0 && mistakes.empty(); --count) add();
    text += "\n]}";
  }

 private:
  // Writes a member on a line of its own.
  void line(const std::string &member, bool wrong = false) {
    text += '\n' + member;
    ++line_;
    if (wrong) mistakes.insert(line_);
  }

  static std::string quoted(const std::string &value) { return '"' + value + '"'; }

  // A JSON string with some characters as escapes.
  std::string json(const std::string &value) {
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string written;
    for (const char c : value) {
      if (c == '"' || c == '\\') {
        written += std::string("\\") + c;
      } else if (decisions_.one_in(8)) {
        written += std::string("\\u00") + kDigits[c >> 4] + kDigits[c & 15];
      } else {
        written += c;
      }
    }
    return quoted(written);
  }

  std::string some_text() { return "m" + decisions_.text("ab \"\\/:{}[],#", 12); }

  std::optional<Content> add_content(const char *member) {
    if (decisions_.one_in(2)) return std::nullopt;
    Content content{"", "", decisions_.one_of(kBodies)};
    std::string members = "\"body\": " + quoted(std::string(content.body));
    if (decisions_.one_in(2)) {
      content.data = some_text();
      members += ", \"data\": " + json(content.data);
    }
    if (content.body == "record") {
      content.record = some_text();
      members += ", \"record\": " + json(content.record);
    }
    line(quoted(member) + ": {" + members + "},");
    return content;
  }

  void add() {
    Type type;
    line(types.empty() ? "{" : ",{");
    const size_t kind = decisions_.below(16);
    type.number = 0x1000u + decisions_.byte();
    type.name = "n" + decisions_.text("abc", 4);
    const bool number_taken = !numbers_.insert(type.number).second;
    line("\"type\": " + (decisions_.one_in(2) ? std::to_string(type.number) : hex(type.number)) +
             ",",
         number_taken);
    if (kind == 1) {
      line("\"name\": \"Not-" + type.name + "\",", true);
    } else {
      line("\"name\": " + json(type.name) + ",", !names_.insert(type.name).second);
    }
    line("\"from\": \"web\",");
    type.to = some_text();
    line("\"to\": " + json(type.to) + ",");
    type.meaning = some_text();
    line("\"meaning\": " + json(type.meaning) + ",");
    type.request = add_content("request");
    type.answer = add_content("answer");
    type.timeout_ms = decisions_.byte();
    if (type.timeout_ms != 0) {
      line("\"timeout_ms\": " + std::to_string(type.timeout_ms) + ",", !type.answer);
    }
    line(kind == 2 ? "\"other\": 1" : "\"comment\": \"" + decisions_.text("ab", 20) + "\"",
         kind == 2);
    line("}");
    types.push_back(std::move(type));
  }

  static std::string hex(uint32_t number) {
    constexpr std::string_view kDigits = "0123456789abcdef";
    std::string digits = "\"0x";
    for (int shift = 16; shift >= 0; shift -= 4) digits += kDigits[number >> shift & 15];
    return digits + '"';
  }

  Decisions &decisions_;
  std::set<uint32_t> &numbers_;
  std::set<std::string> &names_;
  size_t line_ = 1;
};

void check_content(const catalogue::Content &got, const Content &right) {
  check(got.data == right.data && got.record == right.record);
  check(got.body == catalogue::body_of(right.body));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  Decisions decisions(data, size);
  catalogue::Catalogue types;
  std::set<uint32_t> numbers;
  std::set<std::string> names;
  for (const catalogue::MessageType &type : types.types()) names.emplace(type.name);

  // Adds several files, one after the other.
  for (size_t count = 1 + decisions.below(3); count > 0; --count) {
    std::set<uint32_t> all_numbers = numbers;
    std::set<std::string> all_names = names;
    File file(&decisions, &all_numbers, &all_names);
    file.make();
    const size_t before = types.types().size();
    const auto problem = types.add(file.text, "file.json");
    if (!file.mistakes.empty()) {
      check(problem.has_value() && file.mistakes.contains(problem->line));
      check(types.types().size() == before);
      continue;
    }
    check(!problem.has_value());
    check(types.types().size() == before + file.types.size());
    for (const Type &right : file.types) {
      const catalogue::MessageType *got = types.find(right.number);
      check(got != nullptr && got->name == right.name && got->meaning == right.meaning);
      check(got->to == right.to && got->timeout_ms == right.timeout_ms);
      check(types.number_of(right.name) == right.number);
      check(got->answer.has_value() == right.answer.has_value());
      if (right.answer) check_content(*got->answer, *right.answer);
      if (right.request) check_content(got->request, *right.request);
    }
    numbers = all_numbers;
    names = all_names;
  }
  return 0;
}
