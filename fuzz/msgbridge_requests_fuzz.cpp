// Configurations of the bridge and requests that nearly fit them, both made from the input.
// Requests are accepted exactly when the documentation says so, and become what it says.

#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "decisions.h"
#include "msgapi/restful.h"
#include "msgbridge/downward.h"
#include "msgbridge/json_text.h"

namespace {

using namespace msgbridge;
using fuzz::check;
using fuzz::Decisions;

constexpr std::string_view kBase = "gw/me";
constexpr uint32_t kTypes[] = {0x4242, 0x4243, 0x4344};
constexpr std::string_view kApps[] = {"cms", "web", "a"};

// "?" matches one character, "*" any without "/", "**" any.
bool fits(std::string_view pattern, std::string_view path) {
  if (pattern.empty()) return path.empty();
  if (pattern[0] == '*') {
    const bool deep = pattern.starts_with("**");
    return fits(pattern.substr(deep ? 2 : 1), path) ||
           (!path.empty() && (deep || path[0] != '/') && fits(pattern, path.substr(1)));
  }
  return !path.empty() && (pattern[0] == '?' || pattern[0] == path[0]) &&
         fits(pattern.substr(1), path.substr(1));
}

struct Rest {
  size_t method;
  std::string path;
  bool mask;
};
struct Call {
  std::string_view app;
  uint32_t type;
  uint32_t timeout_ms;
  bool mask;
};

struct Allowed {
  std::vector<Rest> rest;
  std::vector<Call> calls;
  uint32_t largest = 0;
};

const char *word(bool truth) {
  return truth ? "true" : "false";
}

std::string make_path(Decisions *decisions, bool pattern) {
  std::string path;
  for (size_t levels = 1 + decisions->below(4); levels > 0; --levels) {
    path += "/" + decisions->text(pattern ? "ab*?" : "ab", 3);
  }
  // Three stars and more have a meaning of their own, which fits() does not know.
  for (size_t at; (at = path.find("***")) != path.npos;) path.erase(at, 1);
  return path;
}

std::string make_config(Decisions *decisions, Allowed *allowed) {
  std::string rest, calls;
  for (size_t count = decisions->below(5); count > 0; --count) {
    const Rest rule{decisions->below(std::size(kMethods)), make_path(decisions, true),
                    decisions->one_in(2)};
    rest += std::string(rest.empty() ? "" : ", ") + "{\"method\": \"" +
            std::string(kMethods[rule.method].word) + "\", \"path\": \"" + rule.path +
            "\", \"mask\": " + word(rule.mask) + "}";
    allowed->rest.push_back(rule);
  }
  for (size_t count = decisions->below(4); count > 0; --count) {
    const Call rule{decisions->one_of(kApps), decisions->one_of(kTypes),
                    1 + static_cast<uint32_t>(decisions->byte()), decisions->one_in(2)};
    calls += std::string(calls.empty() ? "" : ", ") + "{\"app\": \"" + std::string(rule.app) +
             "\", \"type\": " + std::to_string(rule.type) +
             ", \"timeout_ms\": " + std::to_string(rule.timeout_ms) +
             ", \"mask\": " + word(rule.mask) + "}";
    allowed->calls.push_back(rule);
  }
  allowed->largest = 1 + decisions->byte() * 4u;
  return R"({"broker": {"addresses": ["mqtt://broker"]}, "gateway": "me", "down": {"largest": )" +
         std::to_string(allowed->largest) + ", \"rest\": [" + rest + "], \"calls\": [" + calls +
         "]}}";
}

// JSON of some depth, which may go beyond what the bridge takes.
std::string make_json(Decisions *decisions, int depth) {
  switch (depth > 5 ? decisions->below(4) : decisions->below(7)) {
    case 0:
      return std::to_string(decisions->byte());
    case 1:
      return "\"" + decisions->text("ab \xc3\xa4", 1) + "x\"";
    case 2:
      return decisions->one_in(2) ? "true" : "null";
    case 3:
      return "-1.5e3";
    case 4:
      return "[" + make_json(decisions, depth + 1) + ", " + make_json(decisions, depth + 1) + "]";
    case 5:
      return "{\"" + decisions->text("abp", 3) + "\": " + make_json(decisions, depth + 1) + "}";
    default: {
      const size_t deep = decisions->byte() % 48;
      return std::string(deep, '[') + "1" + std::string(deep, ']');
    }
  }
}

int depth_of(std::string_view text) {
  int depth = 0, deepest = 0;
  bool in_text = false;
  for (const char c : text) {
    if (c == '"') in_text = !in_text;
    if (in_text) continue;
    if (c == '[' || c == '{') deepest = std::max(deepest, ++depth);
    if (c == ']' || c == '}') --depth;
  }
  return deepest;
}

bool is_good(const std::string &json) {
  return depth_of(json) <= 32 && Json::accept(json);
}

AnswerStatus status_of(const Request &request) {
  const auto *refusal = std::get_if<Refusal>(&request);
  if (refusal == nullptr) return AnswerStatus::kDone;
  const std::string text = refusal_text(refusal->status, refusal->why);
  check(Json::accept(text) && text.find('\n') == std::string::npos);
  return refusal->status;
}

void ask_rest(Decisions *decisions, const Config &config, const Allowed &allowed,
              const catalogue::Catalogue &types) {
  const size_t method = decisions->below(std::size(kMethods));
  // Some paths are made of a rule's pattern, so that some fit.
  std::string path = make_path(decisions, false);
  if (!allowed.rest.empty() && decisions->one_in(2)) {
    path = decisions->one_of(allowed.rest).path;
    for (char &c : path) {
      if (c == '*' || c == '?') c = 'a';
    }
  }
  const bool is_query = method == 0 || method == 3;
  const std::string payload = is_query ? decisions->text("ab=&", 8) : make_json(decisions, 0);
  const std::string topic =
      std::string(kBase) + "/rest/" + std::string(kMethods[method].word) + path;
  const Request request = read_request({topic, payload}, kBase, config.down, types);
  const AnswerStatus status = status_of(request);

  const auto rule = std::ranges::find_if(allowed.rest, [&](const Rest &each) {
    return each.method == method && fits(each.path, path);
  });
  const size_t slash = path.rfind('/');
  if (payload.size() > allowed.largest) return check(status == AnswerStatus::kTooLarge);
  if (rule == allowed.rest.end()) return check(status == AnswerStatus::kForbidden);
  if (slash == 0 || slash + 1 == path.size()) return check(status == AnswerStatus::kNotFound);
  if (!is_query && !is_good(payload)) return check(status == AnswerStatus::kBadRequest);
  const auto *rest = std::get_if<RestRequest>(&request);
  check(rest != nullptr && rest->path == path.substr(0, slash));
  check(rest->handler == path.substr(slash + 1) && rest->text == payload);
  check(rest->code == kMethods[method].code && rest->mask == rule->mask);
}

void ask_call(Decisions *decisions, const Config &config, const Allowed &allowed,
              const catalogue::Catalogue &types) {
  const std::string_view app = decisions->one_of(kApps);
  const uint32_t type = decisions->one_of(kTypes);
  std::string payload;
  const bool has_payload = !decisions->one_in(4);
  const uint32_t word = decisions->byte();
  const std::string body = make_json(decisions, 0);
  if (has_payload) {
    payload = "{\"data\": " + std::to_string(word) + ", \"body\": " + body + "}";
    if (decisions->one_in(8)) payload.insert(1, "\"other\": 1, ");
  }
  const std::string topic =
      std::string(kBase) + "/call/" + std::string(app) + "/" + std::to_string(type);
  const Request request = read_request({topic, payload}, kBase, config.down, types);
  const AnswerStatus status = status_of(request);

  const auto rule = std::ranges::find_if(
      allowed.calls, [&](const Call &each) { return each.app == app && each.type == type; });
  if (payload.size() > allowed.largest) return check(status == AnswerStatus::kTooLarge);
  if (rule == allowed.calls.end()) return check(status == AnswerStatus::kForbidden);
  if (has_payload && (!is_good(payload) || payload.starts_with("{\"other"))) {
    return check(status == AnswerStatus::kBadRequest);
  }
  const auto *call = std::get_if<CallRequest>(&request);
  check(call != nullptr && call->app == app && call->type == type);
  check(call->data == (has_payload ? word : 0));
  check(call->timeout_ms == rule->timeout_ms && call->mask == rule->mask);
  if (!has_payload || body == "null") return check(call->body.empty());
  const Json right = Json::parse(body);
  const std::string text = right.is_string() ? right.get<std::string>() : right.dump();
  check(call->body == text + '\0');
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static const catalogue::Catalogue types;
  Decisions decisions(data, size);
  Allowed allowed;
  const Config config = read_config(make_config(&decisions, &allowed), types);
  while (!decisions.at_end()) {
    if (decisions.one_in(2)) {
      ask_rest(&decisions, config, allowed, types);
    } else {
      ask_call(&decisions, config, allowed, types);
    }
  }
  return 0;
}
