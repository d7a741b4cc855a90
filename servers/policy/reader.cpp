// The policy's file.

#include <grp.h>
#include <pwd.h>

#include <algorithm>
#include <charconv>
#include <functional>
#include <initializer_list>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "msgapi/msg.h"
#include "policy/policy.h"

namespace policy {
namespace {

using catalogue::JsonValue;

// Room for 10 000 rules and more.
constexpr size_t kLargestFile = 8 << 20;
constexpr size_t kMostRules = 100000;

constexpr std::string_view kMethods[] = {"GET", "HEAD", "POST", "PUT", "DELETE", "PATCH"};

// The number of a decimal text, none for other texts.
std::optional<uint32_t> decimal(std::string_view text) {
  uint32_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return number;
}

// Calls `take` for each value of a list, which must not be empty, or for a single value.
template <typename Take>
void each(const JsonValue &value, std::string_view name, Take take) {
  if (value.kind != JsonValue::Kind::kList) return take(value);
  if (value.items.empty()) catalogue::fail(value, "'" + std::string(name) + "' is an empty list");
  for (const JsonValue &item : value.items) take(item);
}

std::vector<std::string> patterns_in(const JsonValue &rule, std::string_view name) {
  std::vector<std::string> patterns;
  if (const JsonValue *value = rule.member(name)) {
    each(*value, name,
         [&](const JsonValue &item) { patterns.emplace_back(catalogue::text_in(item, name)); });
  }
  return patterns;
}

std::vector<std::string> names_in(const JsonValue &rule, std::string_view name) {
  std::vector<std::string> patterns = patterns_in(rule, name);
  for (const std::string &pattern : patterns) {
    const bool wild = pattern.find_first_of("*?") != std::string::npos;
    if (!wild && pattern.size() >= ORP_APP_NAME_SIZE) {
      catalogue::fail(*rule.member(name), "'" + pattern + "' is longer than a name can be");
    }
  }
  return patterns;
}

// A user or group: a number, or what `find` knows by its name.
template <typename Find>
uint32_t id_in(const JsonValue &value, std::string_view name, const char *kind, Find find) {
  std::optional<uint32_t> number;
  if (value.kind == JsonValue::Kind::kNumber) {
    if (value.number < UINT32_MAX) number = static_cast<uint32_t>(value.number);
  } else {
    const std::string text(catalogue::text_in(value, name));
    number = decimal(text);
    if (!number) number = find(text.c_str());
    if (!number) {
      catalogue::fail(value, "there is no " + std::string(kind) + " " + catalogue::shown(text));
    }
  }
  if (!number || *number == UINT32_MAX) {
    catalogue::fail(value, "that is no number of a " + std::string(kind));
  }
  return *number;
}

// Numbers by name. Each name is looked up once: a file may use it in every rule, and the server
// routes nothing while it reads the file.
class Ids {
 public:
  using Find = std::optional<uint32_t> (*)(const char *name);
  explicit Ids(Find find) : find_(find) {}

  std::optional<uint32_t> operator()(const char *name) {
    const auto [entry, added] = known_.try_emplace(name);
    if (added) entry->second = find_(name);
    return entry->second;
  }

 private:
  Find find_;
  std::map<std::string, std::optional<uint32_t>> known_;
};

std::optional<uint32_t> user_named(const char *name) {
  const passwd *entry = ::getpwnam(name);
  return entry == nullptr ? std::nullopt : std::optional<uint32_t>(entry->pw_uid);
}

std::optional<uint32_t> group_named(const char *name) {
  const group *entry = ::getgrnam(name);
  return entry == nullptr ? std::nullopt : std::optional<uint32_t>(entry->gr_gid);
}

}  // namespace

struct Policy::Reader {
  const catalogue::Catalogue &types;
  Policy *policy;
  Ids known_users{user_named};
  Ids known_groups{group_named};

  Range range_in(const JsonValue &value) const {
    if (value.kind == JsonValue::Kind::kNumber && value.number <= ORP_MSG_TYPE_MASK) {
      const auto number = static_cast<uint32_t>(value.number);
      return {number, number};
    }
    const std::string_view text = catalogue::text_in(value, "types");
    if (const auto number = types.number_of(text)) {
      const catalogue::MessageType *known = types.find(*number);
      const bool by_name = known != nullptr && (text == known->name || text == known->constant);
      return {*number, by_name ? known->last : *number};
    }
    if (const size_t dash = text.find('-'); dash != text.npos) {
      const auto first = types.number_of(text.substr(0, dash));
      const auto last = types.number_of(text.substr(dash + 1));
      if (first && last && *first <= *last) return {*first, *last};
    }
    catalogue::fail(value, "'" + catalogue::shown(text) +
                               "' is no message type: give a name that `msgctl types` knows, a "
                               "number, or a range such as 0x1000-0x10ff");
  }

  std::vector<Range> types_in(const JsonValue &rule) const {
    std::vector<Range> ranges;
    if (const JsonValue *value = rule.member("types")) {
      each(*value, "types", [&](const JsonValue &item) { ranges.push_back(range_in(item)); });
    }
    return ranges;
  }

  static std::vector<std::string> words_in(const JsonValue &rule, std::string_view name,
                                           std::span<const std::string_view> words) {
    std::vector<std::string> found = patterns_in(rule, name);
    for (const std::string &word : found) {
      if (std::ranges::count(words, std::string_view(word)) > 0) continue;
      std::string known;
      for (const std::string_view each : words) {
        known += (known.empty() ? "" : ", ") + std::string(each);
      }
      catalogue::fail(*rule.member(name),
                      "'" + catalogue::shown(word) + "' is not one of " + known);
    }
    return found;
  }

  static void allow(const JsonValue &object, std::initializer_list<std::string_view> names) {
    std::vector<std::string_view> all = {"comment", "allow", "deny", "user", "group", "board"};
    all.insert(all.end(), names);
    for (const std::string &name : object.names) {
      if (std::ranges::count(all, std::string_view(name)) > 0) continue;
      catalogue::fail(*object.member(name),
                      "'" + catalogue::shown(name) + "' is not known in such a rule");
    }
  }

  void add(const JsonValue &value) {
    catalogue::expect_object(value, "a rule");
    const JsonValue *allowed = value.member("allow");
    const JsonValue *denied = value.member("deny");
    if ((allowed == nullptr) == (denied == nullptr)) {
      catalogue::fail(value, "a rule has either 'allow' or 'deny'");
    }
    const JsonValue &what = allowed != nullptr ? *allowed : *denied;
    const auto action = action_of(catalogue::text_in(what, allowed != nullptr ? "allow" : "deny"));
    if (!action) {
      catalogue::fail(what, "'" + catalogue::shown(what.text) +
                                "' is not one of own, send, receive, subscribe, subscribe-others, "
                                "service, http, speak-for");
    }

    Rule rule;
    rule.allows = allowed != nullptr;
    rule.number = static_cast<uint32_t>(++policy->count_);
    rule.line = value.line;
    if (const JsonValue *users = value.member("user")) {
      each(*users, "user", [&](const JsonValue &item) {
        rule.users.push_back(id_in(item, "user", "user", std::ref(known_users)));
      });
    }
    if (const JsonValue *groups = value.member("group")) {
      each(*groups, "group", [&](const JsonValue &item) {
        rule.groups.push_back(id_in(item, "group", "group", std::ref(known_groups)));
      });
    }
    rule.boards = patterns_in(value, "board");
    fill(value, *action, &rule);
    policy->rules_[static_cast<size_t>(*action)].push_back(std::move(rule));
  }

  void fill(const JsonValue &value, Action action, Rule *rule) {
    switch (action) {
      case Action::kOwn:
      case Action::kSpeakFor:
        allow(value, {"names"});
        rule->names = names_in(value, "names");
        break;
      case Action::kSend:
        allow(value, {"to", "types"});
        rule->names = names_in(value, "to");
        rule->types = types_in(value);
        break;
      case Action::kReceive:
        allow(value, {"from", "types"});
        rule->names = names_in(value, "from");
        rule->types = types_in(value);
        break;
      case Action::kSubscribe:
        allow(value, {"types"});
        rule->types = types_in(value);
        break;
      case Action::kSubscribeOthers:
        allow(value, {"names", "types"});
        rule->names = names_in(value, "names");
        rule->types = types_in(value);
        break;
      case Action::kService: {
        allow(value, {"services"});
        std::vector<std::string_view> words;
        for (size_t i = 0; i < kServices; ++i) words.push_back(word_of(static_cast<Service>(i)));
        rule->names = words_in(value, "services", words);
        break;
      }
      case Action::kHttp:
        allow(value, {"methods", "paths"});
        rule->names = patterns_in(value, "paths");
        rule->methods = words_in(value, "methods", kMethods);
        break;
    }
  }
};

Policy::Policy(std::string_view text, std::string_view file, const catalogue::Catalogue &types,
               gid_t own_group)
    : file_(file) {
  try {
    const JsonValue root = catalogue::read_json(text);
    catalogue::expect_object(root, "a policy");
    catalogue::allow(root, {"default", "rules"});
    const JsonValue &otherwise = catalogue::required(root, "default");
    const std::string_view word = catalogue::text_in(otherwise, "default");
    if (word != "allow" && word != "deny") {
      catalogue::fail(otherwise, "'default' must be allow or deny");
    }
    default_ = word == "allow";
    const JsonValue &rules = catalogue::required(root, "rules");
    if (rules.kind != JsonValue::Kind::kList) catalogue::fail(rules, "'rules' must be a list");
    if (rules.items.size() > kMostRules) {
      catalogue::fail(rules, "there are more than " + std::to_string(kMostRules) + " rules");
    }
    Reader reader{types, this};
    for (const JsonValue &rule : rules.items) reader.add(rule);
  } catch (const catalogue::JsonError &error) {
    throw BadPolicy(catalogue::problem_in(file, error));
  }
  add_built_in(own_group);
  note_limits();
}

Policy Policy::load(const std::string &path, const catalogue::Catalogue &types, gid_t own_group) {
  std::string text;
  try {
    text = catalogue::file_contents(path, kLargestFile);
  } catch (const catalogue::Unreadable &unreadable) {
    throw BadPolicy({catalogue::shown(path), 0, unreadable.what()});
  }
  return Policy(text, path, types, own_group);
}

}  // namespace policy
