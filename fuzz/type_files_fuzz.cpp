// Files in which applications describe their message types: a problem names a line of the file and
// can be printed, and the types that are added are those of the file.

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "catalogue/type_files.h"
#include "common/printable.h"

namespace {

using catalogue::Content;
using catalogue::MessageType;
using nlohmann::json;

void check(bool holds) {
  if (!holds) std::abort();
}

bool is_printable(std::string_view text) {
  return servers::printable(text) == text;
}

// The text of member `what`, as another reader sees it.
std::string text_of(const json &object, const char *what) {
  return object.value(what, std::string());
}

void check_content(const json &object, const Content &content) {
  check(content.data == text_of(object, "data"));
  check(content.record == text_of(object, "record"));
  check(object.value("body", "none") == catalogue::body_word(content.body));
  check(is_printable(content.data) && is_printable(content.record));
}

void check_type(const json &message, const MessageType &type) {
  const json &number = message["type"];
  check(type.number == (number.is_string() ? *catalogue::number_of(number.get<std::string>(), {})
                                           : number.get<uint32_t>()));
  check(type.last == type.number && type.constant.empty());
  check(type.name == text_of(message, "name"));
  check(type.from == text_of(message, "from"));
  check(type.to == text_of(message, "to"));
  check(type.meaning == text_of(message, "meaning"));
  check(is_printable(type.meaning) && is_printable(type.from) && is_printable(type.to));
  check(type.timeout_ms == message.value("timeout_ms", 0u));
  check_content(message.value("request", json::object()), type.request);
  check(type.answer.has_value() == message.contains("answer"));
  if (type.answer) check_content(message["answer"], *type.answer);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const std::string text(reinterpret_cast<const char *>(data), size);
  catalogue::Catalogue types;
  const size_t before = types.types().size();

  if (const auto problem = types.add(text, "file.json")) {
    check(types.types().size() == before);
    const auto lines = static_cast<size_t>(std::ranges::count(text, '\n')) + 1;
    check(problem->line >= 1 && problem->line <= lines);
    check(!problem->what.empty() && is_printable(problem->what));
    return 0;
  }
  const json messages = json::parse(text).at("messages");
  const auto added = types.types().subspan(before);
  check(messages.size() == added.size());
  for (size_t i = 0; i < added.size(); ++i) {
    check_type(messages[i], added[i]);
    check(types.find(added[i].number)->name == added[i].name);
    check(types.number_of(added[i].name) == added[i].number);
  }
  // The same types cannot be added twice.
  check(added.empty() || types.add(text, "file.json"));
  return 0;
}
