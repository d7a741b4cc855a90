#include "msgbridge/downward.h"

#include <algorithm>
#include <optional>

#include "common/printable.h"
#include "mqtt/address.h"
#include "msgapi/restful.h"
#include "msgbridge/json_text.h"

namespace msgbridge {
namespace {

constexpr size_t kLongestShown = 100;

std::string excerpt(std::string_view text) {
  return servers::printable(text.substr(0, kLongestShown));
}

Refusal refuse(AnswerStatus status, std::string why) {
  return {status, std::move(why)};
}

// Cuts the level in front of the next "/" off `*rest`, and the "/" with it.
std::string_view cut_level(std::string_view *rest) {
  const size_t slash = std::min(rest->find('/'), rest->size());
  const std::string_view level = rest->substr(0, slash);
  rest->remove_prefix(std::min(slash + 1, rest->size()));
  return level;
}

bool is_utf8_text(std::string_view text) {
  if (text.find('\0') != text.npos) return false;
  // The JSON library throws for text that is no UTF-8.
  Json json = text;
  try {
    (void)json.dump();
    return true;
  } catch (const Json::exception &) {
    return false;
  }
}

Request read_rest(std::string_view rest, std::string_view payload, const DownRules &rules) {
  const std::string_view word = cut_level(&rest);
  const auto *method = std::ranges::find(kMethods, word, &Method::word);
  if (method == std::end(kMethods)) {
    return refuse(AnswerStatus::kBadRequest, "'" + excerpt(word) + "' is no method");
  }
  const std::string path = "/" + std::string(rest);
  if (!mqtt::is_topic(path)) return refuse(AnswerStatus::kBadRequest, "the path is none");
  const auto rule = std::ranges::find_if(rules.rest, [&](const RestRule &each) {
    return each.code == method->code && matches(each.path, path);
  });
  if (rule == rules.rest.end()) {
    return refuse(AnswerStatus::kForbidden, "the gateway's configuration does not allow " +
                                                excerpt(word) + " " + excerpt(path));
  }
  const size_t slash = path.rfind('/');
  RestRequest request{method->code, path.substr(0, slash), path.substr(slash + 1),
                      std::string(payload), rule->mask};
  if (request.path.empty() || request.handler.empty() ||
      request.path.size() >= ORP_MSG_RESTFUL_FIELD_SIZE ||
      request.handler.size() >= ORP_MSG_RESTFUL_FIELD_SIZE) {
    return refuse(AnswerStatus::kNotFound, "nobody can serve " + excerpt(path));
  }
  if (!is_utf8_text(payload)) {
    return refuse(AnswerStatus::kBadRequest, "the body is not UTF-8, or holds a NUL");
  }
  const bool is_query = method->word == "get" || method->word == "delete";
  if (!is_query && !parse_json(payload)) {
    return refuse(AnswerStatus::kBadRequest,
                  "the body is no JSON, or goes too deep, or has too many members");
  }
  return request;
}

// Reads the payload of a call into `*request`. Returns what is wrong with it, if anything.
std::optional<std::string> read_call_payload(std::string_view payload, CallRequest *request) {
  if (payload.empty()) return std::nullopt;
  const std::optional<Json> json = parse_json(payload);
  if (!json) return "the payload is no JSON, or goes too deep, or has too many members";
  if (!json->is_object()) return "the payload is no JSON object";
  for (const auto &[name, value] : json->items()) {
    if (name == "data") {
      if (!value.is_number_unsigned() || value.get<uint64_t>() > UINT32_MAX) {
        return "'data' is no number from 0 to 4294967295";
      }
      request->data = value.get<uint32_t>();
    } else if (name == "body") {
      std::string text = value.is_string() ? value.get<std::string>() : json_line(value);
      if (text.find('\0') != std::string::npos) return "'body' holds a NUL";
      if (!value.is_null()) request->body = std::move(text) + '\0';
    } else {
      return "'" + excerpt(name) + "' is not known; a call has 'data' and 'body'";
    }
  }
  return std::nullopt;
}

Request read_call(std::string_view rest, std::string_view payload, const DownRules &rules,
                  const catalogue::Catalogue &types) {
  const std::string_view app = cut_level(&rest);
  const std::optional<uint32_t> type = types.number_of(rest);
  const auto rule = std::ranges::find_if(
      rules.calls, [&](const CallRule &each) { return each.app == app && each.type == type; });
  if (rule == rules.calls.end() || is_reserved_type(rule->type)) {
    return refuse(AnswerStatus::kForbidden, "the gateway's configuration does not allow " +
                                                excerpt(rest) + " to " + excerpt(app));
  }
  CallRequest request{rule->app, rule->type, 0, {}, rule->timeout_ms, rule->mask};
  if (const auto wrong = read_call_payload(payload, &request)) {
    return refuse(AnswerStatus::kBadRequest, *wrong);
  }
  return request;
}

// Adds the body of an answer: JSON as it is, text as a string, other bytes as hexadecimal digits.
void add_body(Json *answer, std::string_view body, bool mask) {
  const std::string_view text = body.ends_with('\0') ? body.substr(0, body.size() - 1) : body;
  if (text.empty()) return;
  Json value;
  if (std::optional<Json> json = parse_json(text)) {
    value = std::move(*json);
  } else if (is_utf8_text(text)) {
    value = text;
  } else if (!mask) {
    constexpr char kDigits[] = "0123456789abcdef";
    std::string digits;
    for (const char c : body) {
      digits += kDigits[static_cast<unsigned char>(c) >> 4];
      digits += kDigits[static_cast<unsigned char>(c) & 15];
    }
    (*answer)["hex"] = std::move(digits);
    return;
  } else {
    // Nobody can tell what is personal in these bytes.
    (*answer)["masked_bytes"] = body.size();
    return;
  }
  if (mask) mask_json(&value);
  (*answer)["body"] = std::move(value);
}

}  // namespace

Request read_request(const Publication &publication, std::string_view base, const DownRules &rules,
                     const catalogue::Catalogue &types) {
  std::string_view rest = publication.topic;
  if (!rest.starts_with(base) || !rest.substr(base.size()).starts_with('/')) {
    return refuse(AnswerStatus::kBadRequest, "not a topic of this gateway");
  }
  rest.remove_prefix(base.size() + 1);
  if (publication.payload.size() > rules.largest) {
    return refuse(AnswerStatus::kTooLarge,
                  "the body has " + std::to_string(publication.payload.size()) + " bytes, " +
                      std::to_string(rules.largest) + " is the most");
  }
  const std::string_view kind = cut_level(&rest);
  if (kind == "rest") return read_rest(rest, publication.payload, rules);
  if (kind == "call") return read_call(rest, publication.payload, rules, types);
  return refuse(AnswerStatus::kBadRequest, "requests are 'rest' or 'call'");
}

bool may_answer_to(std::string_view topic, std::string_view base) {
  if (!mqtt::is_topic(topic)) return false;
  return topic != base && !(topic.starts_with(base) && topic.substr(base.size()).starts_with('/'));
}

std::string refusal_text(AnswerStatus status, std::string_view why) {
  return json_line({{"status", static_cast<int>(status)}, {"error", why}});
}

std::string rest_answer_text(std::string_view body, bool mask) {
  Json answer{{"status", static_cast<int>(AnswerStatus::kDone)}};
  add_body(&answer, body.substr(0, body.find('\0')), mask);
  return json_line(answer);
}

std::string call_answer_text(uint32_t data, std::string_view body, bool mask) {
  Json answer{{"status", static_cast<int>(AnswerStatus::kDone)}, {"data", data}};
  add_body(&answer, body, mask);
  return json_line(answer);
}

}  // namespace msgbridge
