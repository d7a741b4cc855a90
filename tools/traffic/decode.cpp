#include "traffic/decode.h"

#include <fmt/core.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <vector>

#include "common/printable.h"
#include "msgapi/dmmsg.h"
#include "msgapi/restful.h"

namespace traffic {
namespace {

uint32_t word_at(std::string_view bytes, size_t at) {
  uint32_t word;
  std::memcpy(&word, bytes.data() + at, sizeof word);
  return word;
}

std::string hex(std::string_view bytes) {
  std::string text;
  for (const char c : bytes) text += fmt::format("{:02x}", static_cast<unsigned char>(c));
  return text;
}

// Whether these are characters, with at most one NUL, at the end.
bool is_text(std::string_view bytes) {
  if (bytes.ends_with('\0')) bytes.remove_suffix(1);
  while (!bytes.empty()) {
    const bool space = std::strchr("\t\r\n", bytes[0]) != nullptr && bytes[0] != '\0';
    const size_t length = space ? 1 : servers::printable_length(bytes);
    if (length == 0) return false;
    bytes.remove_prefix(length);
  }
  return true;
}

std::string_view without_nul(std::string_view bytes) {
  return bytes.substr(0, bytes.find('\0'));
}

Json value_json(std::string_view bytes) {
  if (is_text(bytes)) return std::string(without_nul(bytes));
  return Json{{"hex", hex(bytes)}};
}

// docs/events.md has the layout. Sizes are never believed beyond the bytes that are there.
Json items_json(std::string_view body) {
  constexpr size_t kHead = 24, kItemHead = 12;
  Json items = Json::array();
  size_t at = kHead;
  while (body.size() - at >= kItemHead) {
    const size_t name_size = word_at(body, at + 4);
    const size_t value_size = word_at(body, at + 8);
    if (name_size > body.size() - at - kItemHead) break;
    at += kItemHead;
    const std::string name = servers::printable(without_nul(body.substr(at, name_size)));
    at += name_size;
    const std::string_view value = body.substr(at, value_size);
    items.push_back(Json{{"name", name}, {"value", value_json(value)}});
    at += value.size();
  }
  return Json{{"sub_type", word_at(body, 20)}, {"error", word_at(body, 12)}, {"items", items}};
}

bool is_dm(std::string_view body) {
  return body.size() >= 24 && word_at(body, 0) == ORP_DMMSG_MAGIC;
}

// The text as a value: JSON objects and arrays as such, other texts as a string.
Json text_json(std::string_view body) {
  const std::string_view text = without_nul(body);
  if (text.starts_with('{') || text.starts_with('[')) {
    Json json = parsed(text);
    if (!json.is_discarded()) return json;
  }
  return servers::printable(text);
}

// docs/restful.md has the layout. A body that was not kept whole is shown as far as it goes.
Json restful_json(std::string_view body) {
  const auto field = [body](size_t at, size_t size) {
    return body.substr(std::min(at, body.size()), size);
  };
  const auto name = [&field](size_t at) {
    return servers::printable(without_nul(field(at, ORP_MSG_RESTFUL_FIELD_SIZE)));
  };
  return Json{{"code", word_at(body, offsetof(ORP_MSG_RESTFUL_REQ_ST, ulCode))},
              {"second", word_at(body, offsetof(ORP_MSG_RESTFUL_REQ_ST, ulSecond))},
              {"path", name(offsetof(ORP_MSG_RESTFUL_REQ_ST, aucPath))},
              {"handler", name(offsetof(ORP_MSG_RESTFUL_REQ_ST, aucHandler))},
              {"text", text_json(field(sizeof(ORP_MSG_RESTFUL_REQ_ST), body.size()))}};
}

std::string json_line(const Json &json) {
  return servers::printable(json.dump(-1, ' ', false, Json::error_handler_t::replace));
}

std::string restful_line(const Json &request, bool is_cut) {
  std::string line =
      fmt::format("code={} path={} handler={}", request["code"].get<uint32_t>(),
                  request["path"].get<std::string>(), request["handler"].get<std::string>());
  const Json &text = request["text"];
  if (text != "") {
    line += " text=" + (text.is_string() ? text.get<std::string>() : json_line(text));
  }
  return line + (is_cut ? " ..." : "");
}

std::string items_line(const Json &body, bool is_cut) {
  std::string line;
  for (const Json &item : body["items"]) {
    const Json &value = item["value"];
    line += fmt::format("{}{}={}", line.empty() ? "" : " ", item["name"].get<std::string>(),
                        value.is_string() ? servers::printable(value.get<std::string>())
                                          : value["hex"].get<std::string>());
  }
  if (is_cut) line += line.empty() ? "..." : " ...";
  return line;
}

// Whether the JSON has at most `most` levels, and no object with too many members.
bool is_bounded(std::string_view json, size_t most) {
  std::vector<size_t> members;  // on each level
  bool in_string = false;
  for (size_t at = 0; at < json.size(); ++at) {
    const char c = json[at];
    if (c == '"') {
      in_string = !in_string;
    } else if (in_string) {
      if (c == '\\') ++at;
    } else if (c == '{' || c == '[') {
      if (members.size() == most) return false;
      members.push_back(0);
    } else if (members.empty()) {
      continue;
    } else if (c == '}' || c == ']') {
      members.pop_back();
    } else if (c == ':' && ++members.back() > kMostMembers) {
      return false;
    }
  }
  return true;
}

// What a body was read as. The JSON's members do not tell: foreign JSON may have any members.
enum class Form { kNone, kRestful, kItems, kHex, kText };

struct ReadBody {
  Form form;
  Json json;
  size_t missing;  // bytes that were not kept
};

// Reads the kept bytes as `content` says; without it, or if they do not fit, as what they look
// like.
ReadBody read_kept(const Message &message, const catalogue::Content *content, size_t missing) {
  const std::string_view body = message.body;
  if (content != nullptr && content->body == catalogue::Body::kRestful &&
      body.size() >= offsetof(ORP_MSG_RESTFUL_REQ_ST, aucPath)) {
    return {Form::kRestful, restful_json(body), missing};
  }
  if (is_dm(body)) return {Form::kItems, items_json(body), missing};
  if (content != nullptr && content->body == catalogue::Body::kName) {
    return {Form::kText, servers::printable(without_nul(body.substr(0, ORP_APP_NAME_SIZE))),
            missing};
  }
  // A cut body may end within a character.
  const size_t whole = body.size() - std::min<size_t>(body.size(), 3);
  if (is_text(body) || (missing > 0 && is_text(body.substr(0, whole)))) {
    return {Form::kText, text_json(body), missing};
  }
  return {Form::kHex, Json{{"hex", hex(body)}}, missing};
}

ReadBody read_body(const Message &message, const catalogue::Catalogue &catalogue) {
  if (message.length == 0) return {Form::kNone, nullptr, 0};
  const std::string_view body = message.body;
  const size_t missing = message.length - std::min<size_t>(body.size(), message.length);
  if (body.empty()) return {Form::kNone, Json{{"missing", missing}}, missing};
  if (message.body_in_file) {
    return {Form::kText, Json{{"file", servers::printable(without_nul(body))}}, 0};
  }
  const catalogue::MessageType *type = catalogue.find(message.type());
  const catalogue::Content *content = nullptr;
  if (type != nullptr) {
    content = message.answers != 0 && type->answer ? &*type->answer : &type->request;
  }
  ReadBody read = read_kept(message, content, missing);
  if (missing == 0) return read;
  if (read.json.is_object()) {
    read.json["missing"] = missing;
  } else if (read.json.is_string()) {
    read.json = read.json.get<std::string>() + "...";
  }
  return read;
}

}  // namespace

Json parsed(std::string_view text, size_t most_nested) {
  if (!is_bounded(text, most_nested)) return Json(Json::value_t::discarded);
  return Json::parse(text, nullptr, false);
}

Json body_json(const Message &message, const catalogue::Catalogue &catalogue) {
  return read_body(message, catalogue).json;
}

std::string body_line(const Message &message, const catalogue::Catalogue &catalogue) {
  const auto [form, json, missing] = read_body(message, catalogue);
  switch (form) {
    case Form::kNone:
      return missing == 0 ? "" : fmt::format("({} bytes)", missing);
    case Form::kRestful:
      return restful_line(json, missing > 0);
    case Form::kItems:
      return items_line(json, missing > 0);
    case Form::kHex:
      return "hex " + json["hex"].get<std::string>();
    case Form::kText:
      return json.is_string() ? servers::printable(json.get<std::string>()) : json_line(json);
  }
  return "";
}

}  // namespace traffic
