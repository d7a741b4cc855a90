#include "msgsvr/gate.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <functional>
#include <utility>

#include "catalogue/message_types.h"
#include "common/listen.h"
#include "common/log_line.h"
#include "msgsvr/client.h"
#include "msgsvr/journal.h"

namespace msgsvr {
namespace {

using policy::Action;
using policy::Decision;
using policy::Question;
using policy::Who;
using servers::log_line;

// Answers that are kept for one client; beyond that they are worked out anew.
constexpr size_t kMostAnswers = 512;
// Rules that the log names for one client.
constexpr size_t kMostTold = 64;

enum class About : uint64_t { kMessage, kEvent };

// Types have 20 bits.
uint64_t key_of(About what, uint32_t client, uint32_t type) {
  return (static_cast<uint64_t>(what) << 52) | (uint64_t{client} << 20) | type;
}

// Whether another action than kSend decides about it.
bool is_judged_elsewhere(uint32_t type) {
  return type == ORP_MSG_REGISTER || type == ORP_MSG_SUBSCRIBE || type == ORP_MSG_UNSUBSCRIBE ||
         policy::service_of(type, 0);
}

// Notes the reason. True if the log has not named it yet.
bool note(std::vector<uint64_t> *told, uint64_t reason) {
  if (told->size() >= kMostTold || std::ranges::count(*told, reason) > 0) return false;
  told->push_back(reason);
  return true;
}

// Notes that this rule refuses. True if the log has not said so yet. When no rule of the file
// refuses, the action that is asked for stands for the rule.
bool note(std::vector<uint64_t> *told, const Decision &decision, const Question &question) {
  uint64_t reason = decision.rule;
  if (decision.line == 0) {
    reason = std::hash<std::string_view>()(question.name) ^ (uint64_t{question.type} << 40) ^
             (static_cast<uint64_t>(question.action) << 60);
  }
  return note(told, reason);
}

// The further groups of the process at the other end, as they were when it connected.
std::vector<gid_t> groups_of(int fd) {
  std::vector<gid_t> groups(32);
  for (;;) {
    auto size = static_cast<socklen_t>(groups.size() * sizeof(gid_t));
    if (::getsockopt(fd, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &size) == 0) {
      groups.resize(size / sizeof(gid_t));
      return groups;
    }
    if (errno != ERANGE || size / sizeof(gid_t) <= groups.size()) return {};
    groups.resize(size / sizeof(gid_t));
  }
}

}  // namespace

Gate::Gate(gid_t own_group, Journal *journal) : journal_(journal), policy_(own_group) {
  note_limits();
}

void Gate::note_limits() {
  judges_messages_ = policy_.limits(Action::kSend) || policy_.limits(Action::kReceive);
  judges_events_ = policy_.limits(Action::kSubscribe) || policy_.limits(Action::kReceive);
}

void Gate::replace(policy::Policy policy) {
  policy_ = std::move(policy);
  note_limits();
  ++epoch_;
  // The rules are new, so the log names them anew.
  ++generation_;
  told_.clear();
}

// Answers that others got about it as a receiver depended on its name.
void Gate::renaming(const Client &client, const AppName &name) {
  if (client.frames_in > 1 && name != client.name) ++epoch_;
}

std::vector<uint64_t> &Gate::told_of(Client &client) const {
  Passport &passport = client.passport;
  if (std::exchange(passport.generation, generation_) != generation_) passport.told.clear();
  return passport.told;
}

void Gate::refuse(Client &client, Fault fault, std::string_view what) {
  journal_->refused();
  // Larger than the number of any rule.
  if (note(&told_of(client), UINT64_MAX - static_cast<uint64_t>(fault))) {
    log_line("{} of {} {}, which nobody may", client.label(), client.account->user->name, what);
  }
}

const Who &Gate::who_is(Client &client) {
  std::optional<Who> &who = client.passport.who;
  if (who) return *who;
  who.emplace();
  if (!client.address.empty()) {
    who->board = servers::local_address(client.fd.get());
    if (who->board.empty()) who->board = "unknown";
    return *who;
  }
  who->user = client.peer.uid;
  // Only tests have connections without a peer; nothing is known about those.
  if (who->user == Who::kUnknown) return *who;
  who->groups = groups_of(client.fd.get());
  who->groups.push_back(client.peer.gid);
  return *who;
}

bool Gate::ask(Client &client, const Question &question) {
  const Decision decision = policy_.decide(who_is(client), question);
  if (decision.allowed) return true;
  journal_->refused();
  if (note(&told_of(client), decision, question)) {
    log_line("{} of {} may not {}: {}", client.label(), client.account->user->name,
             text_of(question), policy_.source_of(decision));
  }
  return false;
}

std::string Gate::text_of(const Question &question) {
  switch (question.action) {
    case Action::kOwn:
      return fmt::format("own \"{}\"", question.name);
    case Action::kSend:
      return fmt::format("send {} to \"{}\"", catalogue::describe(question.type), question.name);
    case Action::kReceive:
      return fmt::format("receive {} from \"{}\"", catalogue::describe(question.type),
                         question.name);
    case Action::kSubscribe:
      return fmt::format("subscribe to {}", catalogue::describe(question.type));
    case Action::kSubscribeOthers:
      return fmt::format("subscribe \"{}\" to {}", question.name,
                         catalogue::describe(question.type));
    case Action::kService:
      return fmt::format("ask for {}", question.name);
    case Action::kHttp:
      return fmt::format("request {} {}", question.method, question.name);
    case Action::kSpeakFor:
      return fmt::format("speak for \"{}\"", question.name);
  }
  return {};
}

// The answer that is kept under the key, if any. First drops answers that are outdated or too many.
std::optional<bool> Gate::kept(Client &client, uint64_t key) const {
  Passport &passport = client.passport;
  if (std::exchange(passport.epoch, epoch_) != epoch_ || passport.answers.size() >= kMostAnswers) {
    passport.answers.clear();
  }
  const auto entry = passport.answers.find(key);
  if (entry == passport.answers.end()) return std::nullopt;
  if (!entry->second) journal_->refused();
  return entry->second;
}

bool Gate::judge(Client &from, Client *to, uint32_t type) {
  if (to == nullptr && is_judged_elsewhere(type)) return true;
  const uint64_t key = key_of(About::kMessage, to == nullptr ? 0 : to->id, type);
  if (const auto known = kept(from, key)) return *known;
  const AppName receiver = to == nullptr ? AppName(kServerName) : to->name;
  const bool allowed = ask(from, {Action::kSend, receiver.text(), type}) &&
                       (to == nullptr || ask(*to, {Action::kReceive, from.name.text(), type}));
  from.passport.answers[key] = allowed;
  return allowed;
}

bool Gate::judge_event(const Client &from, Client &to, uint32_t type) {
  const uint64_t key = key_of(About::kEvent, from.id, type);
  if (const auto known = kept(to, key)) return *known;
  const bool allowed = ask(to, {Action::kSubscribe, {}, type}) &&
                       ask(to, {Action::kReceive, from.name.text(), type});
  to.passport.answers[key] = allowed;
  return allowed;
}

bool Gate::may_own(Client &client, const AppName &name) {
  return name.empty() || ask(client, {Action::kOwn, name.text()});
}

bool Gate::may_subscribe(Client &client, const std::optional<AppName> &name, uint32_t type) {
  const bool others = name && *name != client.name;
  return ask(client, others ? Question{Action::kSubscribeOthers, name->text(), type}
                            : Question{Action::kSubscribe, {}, type});
}

bool Gate::may_use(Client &client, policy::Service service) {
  return ask(client, {Action::kService, policy::word_of(service)});
}

bool Gate::may_ask(Client &client, const Message &message) {
  const uint32_t type = message.type();
  const auto service = policy::service_of(type, message.header.ulMsgData);
  if (!service || type == ORP_MSG_DYNAPP_UPDATE || type == ORP_MSG_DYNAPP_STOP_ALL) return true;
  if (*service == policy::Service::kExitOthers) {
    const auto name = message.name_in_body();
    if (!name || *name == client.name) return true;
  }
  return may_use(client, *service);
}

bool Gate::may_request(const std::string &address, std::string_view method, std::string_view path) {
  const Who who{.board = address};
  const Question question{.action = Action::kHttp, .name = path, .method = method};
  const Decision decision = policy_.decide(who, question);
  if (decision.allowed) return true;
  journal_->refused();
  if (note(&told_, decision, question)) {
    log_line("HTTP clients of {} may not {}: {}", address, text_of(question),
             policy_.source_of(decision));
  }
  return false;
}

bool Gate::may_speak_for(Client &client, const AppName &sender) {
  journal_->foreign_sender();
  if (client.passport.foreign++ == 0) {
    log_line("{} of {} sends as \"{}\"", client.label(), client.account->user->name, sender.text());
  }
  return !policy_.limits(Action::kSpeakFor) || ask(client, {Action::kSpeakFor, sender.text()});
}

}  // namespace msgsvr
