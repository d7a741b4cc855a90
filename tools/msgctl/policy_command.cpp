// msgctl policy: checks, asks and learns policies without the message server.

#include <fmt/core.h>
#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "common/printable.h"
#include "msgapi/msg.h"
#include "msgctl/context.h"
#include "msgctl/flight_source.h"
#include "msgctl/output.h"
#include "policy/policy.h"

namespace msgctl {
namespace {

using policy::Action;
using policy::Decision;
using policy::Policy;
using policy::Question;
using policy::Service;
using policy::Who;
using servers::printable;
using servers::UsageError;

struct PolicyWords {
  std::string action;
  std::vector<std::string> rest;
  std::string file = policy::kDefaultFile;
  std::string user;
  std::vector<std::string> groups;
  std::string board;
  std::string server_group = "0";
  FlightOptions flight;
};

std::optional<uint32_t> number_of(const std::string &text) {
  uint32_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (text.empty() || error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return number;
}

gid_t group_of(const std::string &text) {
  if (const auto number = number_of(text)) return *number;
  const group *entry = ::getgrnam(text.c_str());
  if (entry == nullptr) throw UsageError("there is no group '" + text + "'");
  return entry->gr_gid;
}

void add_groups_of(const passwd &user, std::vector<gid_t> *groups) {
  std::vector<gid_t> found(64);
  int count = static_cast<int>(found.size());
  if (::getgrouplist(user.pw_name, user.pw_gid, found.data(), &count) < 0) {
    found.resize(static_cast<size_t>(count));
    if (::getgrouplist(user.pw_name, user.pw_gid, found.data(), &count) < 0) count = 0;
  }
  groups->insert(groups->end(), found.begin(), found.begin() + count);
}

// The client that the options describe, or else the calling user.
Who who_of(const PolicyWords &words) {
  Who who;
  who.board = words.board;
  if (!words.board.empty()) {
    if (!words.user.empty() || !words.groups.empty()) {
      throw UsageError("of a client on a board no user and no group is known");
    }
    return who;
  }
  if (!words.user.empty()) {
    const auto number = number_of(words.user);
    const passwd *entry = number ? ::getpwuid(*number) : ::getpwnam(words.user.c_str());
    if (entry == nullptr && !number) throw UsageError("there is no user '" + words.user + "'");
    who.user = entry != nullptr ? entry->pw_uid : *number;
    if (entry != nullptr) add_groups_of(*entry, &who.groups);
  } else if (words.groups.empty()) {
    who.user = ::geteuid();
    who.groups.resize(static_cast<size_t>(std::max(0, ::getgroups(0, nullptr))));
    const int count = ::getgroups(static_cast<int>(who.groups.size()), who.groups.data());
    who.groups.resize(static_cast<size_t>(std::max(0, count)));
    who.groups.push_back(::getegid());
  }
  for (const std::string &group : words.groups) who.groups.push_back(group_of(group));
  return who;
}

Policy load(const std::string &file, const PolicyWords &words, const Context &context) {
  const gid_t group = group_of(words.server_group);
  if (file == policy::kDefaultFile && ::access(file.c_str(), F_OK) != 0) return Policy(group);
  try {
    return Policy::load(file, context.catalogue, group);
  } catch (const policy::BadPolicy &bad) {
    const bool unreadable = bad.problem.line == 0;
    throw Failure(unreadable ? ExitStatus::kNoSuch : ExitStatus::kBadBody, bad.what());
  }
}

void check(const PolicyWords &words, const Context &context) {
  if (words.rest.size() > 1) throw UsageError("check takes one file");
  const std::string file = words.rest.empty() ? words.file : words.rest.front();
  const Policy policy = load(file, words, context);
  if (context.json) {
    print_json({{"file", file}, {"rules", policy.size()}, {"built_in", !policy.has_file()}});
  } else if (!policy.has_file()) {
    print_line(file + " is not there: the built-in rules hold");
  } else {
    print_line(fmt::format("{}: {} rules", printable(file), policy.size()));
  }
}

// What each word of a question means. The names are those of the manual page.
enum class Place : uint8_t { kName, kType, kService, kMethod, kPath };
struct Form {
  Action action;
  const char *words;
  std::vector<Place> places;
};
const std::vector<Form> &forms() {
  using enum Place;
  static const std::vector<Form> forms = {
      {Action::kOwn, "own NAME", {kName}},
      {Action::kSend, "send RECEIVER TYPE", {kName, kType}},
      {Action::kReceive, "receive SENDER TYPE", {kName, kType}},
      {Action::kSubscribe, "subscribe TYPE", {kType}},
      {Action::kSubscribeOthers, "subscribe-others NAME TYPE", {kName, kType}},
      {Action::kService, "service SERVICE", {kService}},
      {Action::kHttp, "http METHOD PATH", {kMethod, kPath}},
      {Action::kSpeakFor, "speak-for NAME", {kName}}};
  return forms;
}

// The question refers to `words`.
Question question_of(const std::vector<std::string> &words, const Context &context) {
  const auto action = words.empty() ? std::nullopt : policy::action_of(words.front());
  const auto form = action ? std::ranges::find(forms(), *action, &Form::action) : forms().end();
  if (form == forms().end()) {
    throw UsageError(
        "test own, send, receive, subscribe, subscribe-others, service, http or "
        "speak-for");
  }
  if (words.size() != form->places.size() + 1) {
    throw UsageError(std::string("the form is: ") + form->words);
  }
  Question question{form->action};
  for (size_t i = 0; i < form->places.size(); ++i) {
    const std::string &word = words[i + 1];
    switch (form->places[i]) {
      case Place::kType: {
        const auto type = context.catalogue.number_of(word);
        if (!type) throw Failure(ExitStatus::kNoSuch, "there is no message type '" + word + "'");
        question.type = *type;
        break;
      }
      case Place::kService:
        if (!policy::service_of(word)) {
          throw Failure(ExitStatus::kNoSuch, "there is no service '" + word + "'");
        }
        question.name = word;
        break;
      case Place::kMethod:
        question.method = word;
        break;
      case Place::kName:
      case Place::kPath:
        question.name = word;
        break;
    }
  }
  return question;
}

void test(const PolicyWords &words, Context *context) {
  const Question question = question_of(words.rest, *context);
  const Who who = who_of(words);
  const Policy policy = load(words.file, words, *context);
  const Decision decision = policy.decide(who, question);
  if (context->json) {
    Json json{{"allowed", decision.allowed},
              {"rule", nullptr},
              {"line", nullptr},
              {"source", policy.source_of(decision)}};
    if (decision.line != 0) {
      json["rule"] = decision.rule;
      json["line"] = decision.line;
    }
    print_json(json);
  } else {
    const std::string rule = decision.line == 0 ? "" : fmt::format(" (rule {})", decision.rule);
    print_line(fmt::format("{}: {}{}", decision.allowed ? "yes" : "no",
                           printable(policy.source_of(decision)), rule));
  }
  if (!decision.allowed) context->status = ExitStatus::kNotPermitted;
}

// What the clients of one user have been seen doing, and how often.
struct Seen {
  std::map<std::string, int> own;
  std::map<std::string, int> speak_for;
  std::map<std::string, std::map<uint32_t, int>> send;
  std::map<uint32_t, int> subscribe;
  std::map<std::string, std::map<uint32_t, int>> subscribe_others;
  std::map<std::string, int> services;
};

// A pattern that matches the name. "?" replaces characters that a pattern may not hold, and "*".
std::string pattern_of(std::string_view name) {
  std::string pattern(name);
  std::ranges::replace_if(
      pattern, [](unsigned char c) { return c < 0x20 || c > 0x7e || c == '*'; }, '?');
  return pattern;
}

std::string text_in(const char *field) {
  return std::string(field, ::strnlen(field, ORP_APP_NAME_SIZE));
}

class Lesson {
 public:
  explicit Lesson(const Context &context) : context_(context) {}

  void take(const traffic::Event &event, const traffic::Model &model) {
    switch (event.kind()) {
      case flight::Kind::kNamed:
        if (!event.text.empty()) ++of(event.record.from, model).own[pattern_of(event.text)];
        break;
      case flight::Kind::kAccepted:
        if (event.message != nullptr) note(*event.message, model, 1);
        break;
      case flight::Kind::kLost:
        // A refused attempt is not to be allowed only because it was made: take it back.
        if (event.message != nullptr && event.loss() == flight::Loss::kNotPermitted) {
          note(*event.message, model, -1);
        }
        break;
      case flight::Kind::kDelivered:
        if (event.message != nullptr) note_passed_on(*event.message, event.record.to, model);
        break;
      case flight::Kind::kHttpRequest: {
        constexpr const char *kMethods[] = {"GET", "POST", "PUT", "DELETE", "PATCH"};
        if (event.record.a < std::size(kMethods)) {
          http_[kMethods[event.record.a]].insert(pattern_of(event.text));
        }
        break;
      }
      default:
        break;
    }
  }

  Json policy() const {
    Json rules = Json::array();
    for (const auto &[user, seen] : seen_) add_rules(user, seen, &rules);
    for (const auto &[method, paths] : http_) {
      Json methods = method == "GET" ? Json{"GET", "HEAD"} : Json{method};
      rules.push_back({{"allow", "http"}, {"methods", methods}, {"paths", paths}});
    }
    // The rules above say who may send, so everybody may receive.
    rules.push_back({{"allow", "receive"}});
    return {{"default", "deny"}, {"rules", rules}};
  }

 private:
  using User = std::optional<uid_t>;  // none: a client over TCP

  Seen &of(traffic::ClientId id, const traffic::Model &model) {
    const uid_t user = model.client(id).uid;
    User key;
    if (user != Who::kUnknown) key = user;
    return seen_[key];
  }

  void note(const traffic::Message &message, const traffic::Model &model, int count) {
    if (message.from == 0) return;
    const uint32_t type = message.type();
    const uint32_t data = message.header.ulMsgData;
    Seen &seen = of(message.from, model);
    const std::string receiver = text_in(message.header.aucRecvApp);
    const bool to_server = receiver.empty() || receiver == "mic";
    if (type == ORP_MSG_REGISTER && to_server) return;
    const std::string sender = text_in(message.header.aucSendApp);
    if (sender != model.client(message.from).name) seen.speak_for[pattern_of(sender)] += count;
    if (!to_server) {
      seen.send[pattern_of(receiver)][type] += count;
      return;
    }
    const bool names = message.length > 0;
    if (type == ORP_MSG_SUBSCRIBE || type == ORP_MSG_UNSUBSCRIBE) {
      if (names) {
        const std::string name = message.body.substr(0, message.body.find('\0'));
        seen.subscribe_others[name.empty() ? "*" : pattern_of(name)][data] += count;
      } else if (type == ORP_MSG_SUBSCRIBE) {
        seen.subscribe[data] += count;
      }
      return;
    }
    const std::optional<Service> service =
        type == ORP_MSG_EXIT && !names ? std::nullopt : policy::service_of(type, data);
    if (service) {
      seen.services[std::string(policy::word_of(*service))] += count;
    } else {
      seen.send["mic"][type] += count;
    }
  }

  // A message to the server that it passed on to an application: an event, or a request for a path.
  void note_passed_on(const traffic::Message &message, traffic::ClientId to,
                      const traffic::Model &model) {
    if (message.from == 0 || message.to != 0 || to == 0) return;
    const uint32_t type = message.type();
    if (type == ORP_MSG_RESTFUL_REQUEST || type == ORP_MSG_RESTFUL_REQUEST_A ||
        type == ORP_MSG_RESTFUL_REQUEST_E) {
      ++of(message.from, model).send[pattern_of(model.client(to).name)][type];
    } else {
      ++of(to, model).subscribe[type];
    }
  }

  static std::string user_name(uid_t user) {
    const passwd *entry = ::getpwuid(user);
    return entry == nullptr ? std::to_string(user) : entry->pw_name;
  }

  template <typename Map>
  static std::vector<std::string> keys(const Map &map) {
    std::vector<std::string> keys;
    for (const auto &[key, count] : map) {
      if (count > 0) keys.push_back(key);
    }
    return keys;
  }

  std::vector<std::string> types(const std::map<uint32_t, int> &counts) const {
    std::vector<std::string> types;
    for (const auto &[type, count] : counts) {
      if (count <= 0) continue;
      const catalogue::MessageType *known = context_.catalogue.find(type);
      // The name of a range means all of its types.
      const bool named =
          known != nullptr && (known->number == known->last || type == known->number);
      types.push_back(named ? std::string(known->name) : fmt::format("0x{:x}", type));
    }
    return types;
  }

  void add_rules(const User &user, const Seen &seen, Json *rules) const {
    const auto add = [&](Action action, const Json &members) {
      Json rule{{"allow", policy::word_of(action)}};
      rule.update(members);
      rule[user ? "user" : "board"] = user ? user_name(*user) : "*";
      rules->push_back(std::move(rule));
    };
    const auto add_list = [&](Action action, const char *member, const auto &map) {
      const auto list = keys(map);
      if (!list.empty()) add(action, {{member, list}});
    };
    add_list(Action::kOwn, "names", seen.own);
    add_list(Action::kSpeakFor, "names", seen.speak_for);
    for (const auto &[to, counts] : seen.send) {
      if (const auto list = types(counts); !list.empty()) {
        add(Action::kSend, {{"to", to}, {"types", list}});
      }
    }
    if (const auto list = types(seen.subscribe); !list.empty()) {
      add(Action::kSubscribe, {{"types", list}});
    }
    for (const auto &[name, counts] : seen.subscribe_others) {
      if (const auto list = types(counts); !list.empty()) {
        add(Action::kSubscribeOthers, {{"names", name}, {"types", list}});
      }
    }
    add_list(Action::kService, "services", seen.services);
  }

  const Context &context_;
  std::map<User, Seen> seen_;
  std::map<std::string, std::set<std::string>> http_;
};

void learn(const PolicyWords &words, const Context &context) {
  if (!words.rest.empty()) throw UsageError("learn takes no words; --file names the flight file");
  Source source(words.flight.file);
  Lesson lesson(context);
  source.read([&](const traffic::Event &event) { lesson.take(event, source.model()); });
  const Json policy = lesson.policy();
  if (context.json) {
    print_json(policy);
    return;
  }
  // One rule a line.
  print_line("{\n  \"default\": \"deny\",\n  \"rules\": [");
  for (size_t i = 0; i < policy["rules"].size(); ++i) {
    print_line("    " + json_text(policy["rules"][i]) +
               (i + 1 < policy["rules"].size() ? "," : ""));
  }
  print_line("  ]\n}");
}

void run(const PolicyWords &words, Context *context) {
  if (words.action == "check") return check(words, *context);
  if (words.action == "test") return test(words, context);
  if (words.action == "learn") return learn(words, *context);
  throw UsageError("'" + words.action + "' is not check, test or learn");
}

}  // namespace

void add_policy_command(servers::CommandLine *line, Context *context) {
  static PolicyWords words;
  servers::Command command =
      line->command("policy", "Check, ask or begin a policy of the message server",
                    [context] { run(words, context); });
  command.option("--policy", &words.file, "The policy that test asks");
  command.option("--user", &words.user, "Ask for a process of this user, with its groups");
  command.option("--group", &words.groups, "And of this group; repeatable");
  command.option("--board", &words.board, "Ask for a client that came in at this ADDRESS:PORT");
  command.option("--server-group", &words.server_group, "The group with which the server runs");
  add_flight_options(&command, context, &words.flight);
  command.argument("check|test|learn", &words.action, "What to do", servers::Presence::kRequired);
  command.arguments("WORDS", &words.rest, "The file to check, or the question to test",
                    servers::Presence::kOptional);
}

}  // namespace msgctl
