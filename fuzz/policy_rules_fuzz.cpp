// Policies of many rules made from the input, and questions to them. The answer must be that of the
// first rule that fits, worked out here rule by rule as the documentation says.

#include <algorithm>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "decisions.h"
#include "policy/policy.h"

namespace {

using fuzz::check;
using fuzz::Decisions;
using policy::Action;
using policy::Decision;
using policy::Question;
using policy::Service;
using policy::Who;

constexpr gid_t kOwnGroup = 7;
constexpr std::string_view kMethods[] = {"GET", "HEAD", "POST", "PUT", "DELETE", "PATCH"};
constexpr Service kSensitive[] = {Service::kConfigExport,    Service::kConfigImport,
                                  Service::kConfigRestore,   Service::kReboot,
                                  Service::kApplicationStop, Service::kLoginLimits};

struct Range {
  uint32_t first, last;
};

struct Rule {
  Action action{};
  bool allows = false;
  size_t line = 0;
  std::vector<std::string> names, methods, boards;
  std::vector<uint32_t> users, groups;
  std::vector<Range> types;
};

bool fits_pattern(std::string_view pattern, std::string_view text) {
  if (pattern.empty()) return text.empty();
  if (pattern[0] == '*') {
    return fits_pattern(pattern.substr(1), text) ||
           (!text.empty() && fits_pattern(pattern, text.substr(1)));
  }
  return !text.empty() && (pattern[0] == '?' || pattern[0] == text[0]) &&
         fits_pattern(pattern.substr(1), text.substr(1));
}

template <typename List, typename Value>
bool holds(const List &list, const Value &value) {
  return std::ranges::find(list, value) != std::end(list);
}

bool any_fits(const std::vector<std::string> &patterns, std::string_view text) {
  return std::ranges::any_of(patterns,
                             [&](const std::string &each) { return fits_pattern(each, text); });
}

bool fits(const Rule &rule, const Who &who, const Question &question) {
  if (rule.action != question.action) return false;
  if (!rule.names.empty() && !any_fits(rule.names, question.name)) return false;
  if (!rule.methods.empty() && !holds(rule.methods, question.method)) return false;
  if (!rule.types.empty() && std::ranges::none_of(rule.types, [&](const Range &range) {
        return range.first <= question.type && question.type <= range.last;
      })) {
    return false;
  }
  if (rule.users.empty() && rule.groups.empty() && rule.boards.empty()) return true;
  if (!who.board.empty()) return any_fits(rule.boards, who.board);
  return (who.user != Who::kUnknown && holds(rule.users, who.user)) ||
         std::ranges::any_of(who.groups, [&](gid_t group) { return holds(rule.groups, group); });
}

// The member of a rule that names the object of the action; none for the other actions.
std::string_view names_member(Action action) {
  switch (action) {
    case Action::kSend:
      return "to";
    case Action::kReceive:
      return "from";
    case Action::kService:
      return "services";
    case Action::kHttp:
      return "paths";
    case Action::kSubscribe:
      return "";
    default:
      return "names";
  }
}
bool has_types(Action action) {
  return action == Action::kSend || action == Action::kReceive || action == Action::kSubscribe ||
         action == Action::kSubscribeOthers;
}

class Maker {
 public:
  explicit Maker(Decisions *decisions) : decisions_(*decisions) {}

  std::string text;
  std::vector<Rule> rules;
  bool allows_otherwise = false;

  void make() {
    allows_otherwise = decisions_.one_in(2);
    text = std::string("{\"default\": \"") + (allows_otherwise ? "allow" : "deny") +
           "\", \"rules\": [";
    for (size_t count = decisions_.below(24); count > 0; --count) {
      text += rules.empty() ? "\n" : ",\n";
      add_rule();
    }
    text += "\n]}\n";
  }

  std::string name(Action action) {
    if (action == Action::kService) {
      return std::string(word_of(static_cast<Service>(decisions_.below(policy::kServices))));
    }
    return decisions_.text("ab", 4);
  }
  uint32_t type() { return 0x1000 + static_cast<uint32_t>(decisions_.below(8)); }
  std::string board() { return "10.0.0." + decisions_.text("12", 2) + ":5050"; }

 private:
  void add_rule() {
    Rule rule;
    rule.line = rules.size() + 2;
    rule.action = static_cast<Action>(decisions_.below(policy::kActions));
    rule.allows = decisions_.one_in(2);
    text += std::string("{\"") + (rule.allows ? "allow" : "deny") + "\": \"" +
            std::string(word_of(rule.action)) + "\"";
    if (const std::string_view member = names_member(rule.action); !member.empty()) {
      rule.names = texts(member, [&] {
        return rule.action == Action::kService ? name(rule.action) : decisions_.text("ab*?", 5);
      });
    }
    if (rule.action == Action::kHttp) {
      rule.methods = texts("methods", [&] { return std::string(decisions_.one_of(kMethods)); });
    }
    if (has_types(rule.action)) {
      texts("types", [&] {
        const uint32_t first = type();
        const uint32_t last = decisions_.one_in(2) ? first : std::max(first, type());
        rule.types.push_back({first, last});
        return first == last ? number(first) : number(first) + "-" + number(last);
      });
    }
    texts("user", [&] { return id(&rule.users); });
    texts("group", [&] { return id(&rule.groups); });
    rule.boards = texts("board", [&] {
      return decisions_.one_in(3) ? "*" : "10.0.*" + decisions_.text("12?:", 3) + "*";
    });
    text += "}";
    rules.push_back(rule);
  }

  std::string id(std::vector<uint32_t> *ids) {
    ids->push_back(static_cast<uint32_t>(decisions_.below(4)));
    return std::to_string(ids->back());
  }

  static std::string number(uint32_t type) {
    constexpr std::string_view kDigits = "0123456789abcdef";
    std::string digits = "0x";
    for (int shift = 16; shift >= 0; shift -= 4) digits += kDigits[type >> shift & 15];
    return digits;
  }

  // Writes a member with one text or with a list, or no member. Some texts are empty.
  template <typename Make>
  std::vector<std::string> texts(std::string_view member, Make make) {
    const size_t count = decisions_.below(5) % 4;
    std::vector<std::string> made;
    if (count == 0) return made;
    text += ", \"" + std::string(member) + "\": ";
    const bool alone = count == 1 && decisions_.one_in(2);
    if (!alone) text += "[";
    for (size_t i = 0; i < count; ++i) {
      made.push_back(make());
      text += std::string(i == 0 ? "\"" : ", \"") + made.back() + "\"";
    }
    if (!alone) text += "]";
    return made;
  }

  Decisions &decisions_;
};

Decision expected(const Maker &maker, const Who &who, const Question &question) {
  for (size_t i = 0; i < maker.rules.size(); ++i) {
    const Rule &rule = maker.rules[i];
    if (fits(rule, who, question)) return {rule.allows, static_cast<uint32_t>(i + 1), rule.line};
  }
  if (question.action == Action::kService && maker.allows_otherwise) {
    const auto service = policy::service_of(question.name);
    if (service && holds(kSensitive, *service)) {
      const bool trusted =
          who.board.empty() && (who.user == 0 || holds(who.groups, gid_t{kOwnGroup}));
      return {trusted, Decision::kBuiltIn, 0};
    }
  }
  return {maker.allows_otherwise && question.action != Action::kSpeakFor, Decision::kDefault, 0};
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static const catalogue::Catalogue types;
  Decisions decisions(data, size);
  Maker maker(&decisions);
  maker.make();
  const bool has_empty_text = maker.text.find("\"\"") != std::string::npos;

  std::optional<policy::Policy> made;
  try {
    made.emplace(maker.text, "file.json", types, kOwnGroup);
  } catch (const policy::BadPolicy &) {
    // Texts may not be empty.
    check(has_empty_text);
    return 0;
  }
  check(made->size() == maker.rules.size());
  while (!decisions.at_end()) {
    Who who;
    if (decisions.one_in(3)) {
      who.board = maker.board();
    } else {
      who.user = decisions.one_in(8) ? Who::kUnknown : static_cast<uid_t>(decisions.below(4));
      for (size_t count = decisions.below(3); count > 0; --count) {
        who.groups.push_back(decisions.one_in(4) ? kOwnGroup
                                                 : static_cast<gid_t>(decisions.below(4)));
      }
    }
    const auto action = static_cast<Action>(decisions.below(policy::kActions));
    const std::string name = maker.name(action);
    const Question question{action, name, maker.type(), decisions.one_of(kMethods)};
    const Decision decision = made->decide(who, question);
    const Decision right = expected(maker, who, question);
    check(decision.allowed == right.allowed && decision.rule == right.rule);
    check(decision.line == right.line);
    check(decision.allowed || made->limits(action));
  }
  return 0;
}
