#include "policy/policy.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "msgapi/dynapp.h"
#include "msgapi/messages.h"

namespace policy {
namespace {

constexpr std::string_view kActionWords[] = {
    "own", "send", "receive", "subscribe", "subscribe-others", "service", "http", "speak-for"};
static_assert(std::size(kActionWords) == kActions);

constexpr std::string_view kServiceWords[] = {
    "config-save",    "config-export", "config-import",     "config-check",
    "config-restore", "reboot",        "application-start", "application-stop",
    "login",          "login-limits",  "exit-others",       "sync-points"};
static_assert(std::size(kServiceWords) == kServices);

// Services for root and the server's group alone, unless a rule says otherwise.
constexpr Service kSensitive[] = {Service::kConfigExport,    Service::kConfigImport,
                                  Service::kConfigRestore,   Service::kReboot,
                                  Service::kApplicationStop, Service::kLoginLimits};

template <typename T>
std::optional<T> find_word(std::span<const std::string_view> words, std::string_view word) {
  const auto found = std::ranges::find(words, word);
  if (found == words.end()) return std::nullopt;
  return static_cast<T>(found - words.begin());
}

bool any_matches(const std::vector<std::string> &patterns, std::string_view text) {
  return std::ranges::any_of(patterns,
                             [text](const std::string &each) { return matches(each, text); });
}

}  // namespace

std::string_view word_of(Action action) {
  return kActionWords[static_cast<size_t>(action)];
}

std::optional<Action> action_of(std::string_view word) {
  return find_word<Action>(kActionWords, word);
}

std::string_view word_of(Service service) {
  return kServiceWords[static_cast<size_t>(service)];
}

std::optional<Service> service_of(std::string_view word) {
  return find_word<Service>(kServiceWords, word);
}

std::optional<Service> service_of(uint32_t type, uint32_t data) {
  switch (type) {
    case ORP_MSG_SAVE_CFG:
    case ORP_MSG_SAVE_CFG_SYNC:
    case ORP_MSG_SAVE_CFG_TO_APP:
    case ORP_MSG_SAVE_CFG_TO_APP_SYNC:
    case ORP_MSG_SAVE_APPDATA_SYNC:
      return Service::kConfigSave;
    case ORP_MSG_EXPORT_USER:
    case ORP_MSG_EXPORT_CFG_FILE:
      return Service::kConfigExport;
    case ORP_MSG_IMPORT_CFG_FILE:
      return Service::kConfigImport;
    case ORP_MSG_CHECK_CFG_FILE:
      return Service::kConfigCheck;
    case ORP_MSG_RESTORE_DEFAULTS:
    case ORP_MSG_DELETE_APPDATA:
      return Service::kConfigRestore;
    case ORP_MSG_REBOOT:
      return Service::kReboot;
    case ORP_MSG_DYNAPP_UPDATE:
      return data == ORP_DYNAPP_ON ? Service::kApplicationStart : Service::kApplicationStop;
    case ORP_MSG_DYNAPP_STOP_ALL:
      return Service::kApplicationStop;
    case ORP_LCTRL_MSG_LOGIN:
    case ORP_LCTRL_MSG_CHECK:
    case ORP_LCTRL_MSG_GET_ROUND:
      return Service::kLogin;
    case ORP_LCTRL_MSG_SET_MAX_FAILED:
    case ORP_LCTRL_MSG_CLEAR_FORBIDDEN:
      return Service::kLoginLimits;
    case ORP_MSG_EXIT:
      return Service::kExitOthers;
    case ORP_MSG_SYNC_WAIT:
    case ORP_MSG_SYNC_POST:
      return Service::kSyncPoints;
    default:
      return std::nullopt;
  }
}

bool matches(std::string_view pattern, std::string_view text) noexcept {
  size_t p = 0;
  size_t t = 0;
  size_t star = std::string_view::npos;  // the last one, and where what follows it was tried
  size_t tried = 0;
  while (t < text.size()) {
    if (p < pattern.size() && pattern[p] == '*') {
      star = p++;
      tried = t;
    } else if (p < pattern.size() && (pattern[p] == '?' || pattern[p] == text[t])) {
      ++p;
      ++t;
    } else if (star != std::string_view::npos) {
      p = star + 1;
      t = ++tried;
    } else {
      return false;
    }
  }
  return pattern.find_first_not_of('*', p) == std::string_view::npos;
}

Policy::Policy(gid_t own_group) {
  add_built_in(own_group);
  note_limits();
}

void Policy::add_built_in(gid_t own_group) {
  if (!default_) return;  // the default denies all of it already
  Rule rule;
  rule.number = Decision::kBuiltIn;
  for (const Service service : kSensitive) rule.names.emplace_back(word_of(service));
  std::vector<Rule> &services = rules_[static_cast<size_t>(Action::kService)];
  rule.allows = true;
  rule.users = {0};
  rule.groups = {own_group};
  services.push_back(rule);
  rule.allows = false;
  rule.users.clear();
  rule.groups.clear();
  services.push_back(std::move(rule));
}

void Policy::note_limits() {
  for (size_t i = 0; i < kActions; ++i) {
    limits_[i] =
        !default_ || std::ranges::any_of(rules_[i], [](const Rule &rule) { return !rule.allows; });
  }
  // Nobody speaks for others unless a rule says so, whatever the default.
  if (has_file()) limits_[static_cast<size_t>(Action::kSpeakFor)] = true;
}

bool Policy::fits(const Rule &rule, const Who &who) {
  if (rule.users.empty() && rule.groups.empty() && rule.boards.empty()) return true;
  if (!who.board.empty()) return any_matches(rule.boards, who.board);
  return (who.user != Who::kUnknown && std::ranges::count(rule.users, who.user) > 0) ||
         std::ranges::any_of(rule.groups, [&who](gid_t group) {
           return std::ranges::count(who.groups, group) > 0;
         });
}

bool Policy::fits(const Rule &rule, const Question &question) {
  if (!rule.types.empty() &&
      std::ranges::none_of(rule.types, [type = question.type](const Range &range) {
        return range.first <= type && type <= range.last;
      })) {
    return false;
  }
  if (!rule.names.empty() && !any_matches(rule.names, question.name)) return false;
  return rule.methods.empty() || std::ranges::count(rule.methods, question.method) > 0;
}

Decision Policy::decide(const Who &who, const Question &question) const {
  for (const Rule &rule : rules_[static_cast<size_t>(question.action)]) {
    if (fits(rule, question) && fits(rule, who)) return {rule.allows, rule.number, rule.line};
  }
  const bool needs_a_rule = has_file() && question.action == Action::kSpeakFor;
  return {default_ && !needs_a_rule, Decision::kDefault, 0};
}

std::string Policy::source_of(const Decision &decision) const {
  if (decision.rule == Decision::kBuiltIn || !has_file()) return "the built-in rules";
  if (decision.rule == Decision::kDefault) return "the default of " + file_;
  return file_ + ":" + std::to_string(decision.line);
}

}  // namespace policy
