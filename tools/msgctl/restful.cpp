// msgctl get, post, put, patch, delete: restful requests as messages, without HTTP.

#include <fmt/core.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <optional>

#include "common/printable.h"
#include "msgapi/path.h"
#include "msgapi/restful.h"
#include "msgctl/admin.h"
#include "msgctl/body.h"
#include "msgctl/bus.h"
#include "msgctl/context.h"
#include "msgctl/message_text.h"
#include "msgctl/output.h"
#include "traffic/decode.h"

namespace msgctl {
namespace {

struct Method {
  const char *word;
  uint32_t code;
  const char *help;
};
// The codes that the server writes into requests that come by HTTP.
constexpr Method kMethods[] = {{"get", 0, "Ask for a resource"},
                               {"post", 1, "Post to a resource"},
                               {"put", 2, "Replace a resource"},
                               {"patch", 4, "Change a resource"},
                               {"delete", 3, "Delete a resource"}};

struct RestfulWords {
  std::string path;
  std::string body;
  bool raw = false;
};

struct Target {
  std::string path;
  std::string handler;

  bool fits() const {
    return !handler.empty() && path.size() < ORP_MSG_RESTFUL_FIELD_SIZE &&
           handler.size() < ORP_MSG_RESTFUL_FIELD_SIZE;
  }
};

Target split(const std::string &path) {
  const size_t slash = path.rfind('/');
  if (slash == std::string::npos) return {"", path};
  return {path.substr(0, slash), path.substr(slash + 1)};
}

bool matches(const std::string &pattern, const std::string &path) {
  return ORP_UTIL_MatchPrefixPath(pattern.c_str(), path.c_str()) == 1;
}

// A request must name a registration exactly, and only the server knows which pattern fits a path.
// Users that may not ask it get the path split at its last slash.
Target target_of(const Context &context, const std::string &path) {
  const Target plain = split(path);
  std::vector<Json> entries;
  try {
    entries = Admin(context).list("/v1/paths", "paths");
  } catch (const Failure &) {
    return plain;
  }
  std::optional<Target> best;
  size_t length = 0;
  for (const Json &entry : entries) {
    const std::string text = text_at(entry, "path");
    if (best && text.size() <= length) continue;
    Target target;
    if (matches(text, path)) {
      target = split(text);
    } else if (matches(text, plain.path)) {
      target = {text, plain.handler};
    }
    if (!target.fits() || target.path.empty()) continue;
    best = target;
    length = text.size();
  }
  return best.value_or(plain);
}

std::string request_body(uint32_t code, const Target &target, std::string_view text) {
  ORP_MSG_RESTFUL_REQ_ST head{};
  head.ulCode = code;
  target.path.copy(head.aucPath, sizeof head.aucPath - 1);
  target.handler.copy(head.aucHandler, sizeof head.aucHandler - 1);
  std::string body(reinterpret_cast<const char *>(&head), sizeof head);
  body += text;
  body += '\0';
  return body;
}

void print_text(std::string_view text) {
  while (!text.empty()) {
    const size_t end = std::min(text.find('\n'), text.size());
    print_line(servers::printable(text.substr(0, end)));
    text.remove_prefix(std::min(end + 1, text.size()));
  }
}

void request(const Context &context, const Method &method, RestfulWords words) {
  std::string text = words.body.empty() ? "" : body_text(words.body);
  if (const size_t mark = words.path.find('?'); mark != std::string::npos) {
    if (text.empty()) text = words.path.substr(mark + 1);
    words.path.resize(mark);
  }
  if (!words.path.starts_with('/')) {
    throw servers::UsageError("'" + words.path + "' is no path: it begins with /");
  }
  const Target target = target_of(context, words.path);
  if (!target.fits()) {
    throw servers::UsageError(
        fmt::format("'{}' is no path of a handler: before and after its last / stand up to {} "
                    "characters",
                    words.path, ORP_MSG_RESTFUL_FIELD_SIZE - 1));
  }

  const Deadline deadline = in_ms(context.timeout_ms);
  Bus bus(context, Bus::Purpose::kIsAnswered, deadline);
  const std::string body = request_body(method.code, target, text);
  Message answer;
  try {
    answer = bus.ask("", ORP_MSG_RESTFUL_REQUEST, 0, body, deadline);
  } catch (const Failure &failure) {
    if (failure.status() == ExitStatus::kNoSuch) {
      throw Failure(ExitStatus::kNoSuch,
                    fmt::format("no application serves {}; 'msgctl complete paths' lists what is "
                                "served",
                                words.path));
    }
    if (failure.status() == ExitStatus::kTimeout) {
      throw Failure(ExitStatus::kTimeout,
                    fmt::format("no answer for {} in {} ms (--timeout): the application is busy, "
                                "has no handler '{}', or that failed",
                                words.path, context.timeout_ms, target.handler));
    }
    throw;
  }
  std::string_view said = body_of(*answer);
  said = said.substr(0, said.find('\0'));
  if (words.raw) {
    print_bytes(said);
  } else if (context.json) {
    Json json{{"path", words.path},
              {"from", servers::printable(sender_of(*answer))},
              {"data", answer->ulMsgData},
              {"body", nullptr}};
    if (!said.empty()) {
      Json parsed = traffic::parsed(said);
      json["body"] = parsed.is_discarded() ? Json(servers::printable(said)) : std::move(parsed);
    }
    print_json(json);
  } else {
    print_text(said);
  }
}

}  // namespace

void add_restful_commands(servers::CommandLine *line, Context *context) {
  static RestfulWords words;
  for (const Method &method : kMethods) {
    servers::Command command = line->command(
        method.word, method.help, [context, &method] { request(*context, method, words); });
    add_common_options(&command, context);
    command.flag("--raw", &words.raw, "Print the bytes of the answer, nothing else");
    command.argument("PATH", &words.path, "What an application serves, like /dev/info?QUERY",
                     servers::Presence::kRequired);
    command.argument("BODY", &words.body,
                     "TEXT, @FILE, - (standard input), hex:..., json:... or text:...",
                     servers::Presence::kOptional);
  }
}

}  // namespace msgctl
