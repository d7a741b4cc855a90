// Asks the policy about clients, keeps its answers, counts refusals, and logs each client and rule
// once.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "msgsvr/wire.h"
#include "policy/policy.h"

namespace msgsvr {

struct Client;
class Journal;

class Gate {
 public:
  // With the built-in rules.
  Gate(gid_t own_group, Journal *journal);

  const policy::Policy &policy() const { return policy_; }
  void replace(policy::Policy policy);
  // Call before `client`, which has sent something already, gets the name `name`.
  void renaming(const Client &client, const AppName &name);

  // Each of the following counts and logs what it refuses.

  // May `from` send a message to `to`, or to the server (null)? Other functions decide about
  // registrations, subscriptions and requests for services.
  bool passes(Client &from, Client *to, uint32_t type) {
    return !judges_messages_ || judge(from, to, type);
  }
  // May an event of `from` reach `to`, which has subscribed?
  bool passes_event(const Client &from, Client &to, uint32_t type) {
    return !judges_events_ || judge_event(from, to, type);
  }
  // Changes whenever passes() may answer something else. Never 0.
  uint64_t epoch() const { return epoch_; }
  bool judges_messages() const { return judges_messages_; }

  // What is refused whatever the policy says.
  enum class Fault : uint8_t { kForged, kForeignFile, kServersName };
  void refuse(Client &client, Fault fault, std::string_view what);

  bool may_own(Client &client, const AppName &name);
  // Subscribing to events of that type; for another application if `name` is not the client's own.
  bool may_subscribe(Client &client, const std::optional<AppName> &name, uint32_t type);
  bool may_use(Client &client, policy::Service service);
  // The service that a message to the server asks for, if any. The service of dynamic applications
  // decides about its own.
  bool may_ask(Client &client, const Message &message);
  // A request by HTTP that came in at `address`.
  bool may_request(const std::string &address, std::string_view method, std::string_view path);
  // `client` has sent a message under the name `sender`, which is not its own. False if the server
  // must put the client's own name there.
  bool may_speak_for(Client &client, const AppName &sender);

 private:
  void note_limits();
  bool judge(Client &from, Client *to, uint32_t type);
  bool judge_event(const Client &from, Client &to, uint32_t type);
  bool ask(Client &client, const policy::Question &question);
  std::optional<bool> kept(Client &client, uint64_t key) const;
  // The rules that the log has named since the policy was read.
  std::vector<uint64_t> &told_of(Client &client) const;
  static const policy::Who &who_is(Client &client);
  static std::string text_of(const policy::Question &question);

  Journal *journal_;
  policy::Policy policy_;
  uint64_t epoch_ = 1;
  uint64_t generation_ = 0;  // how often the policy has been replaced
  bool judges_messages_ = false;
  bool judges_events_ = false;
  std::vector<uint64_t> told_;  // the rules against HTTP requests that the log has named
};

}  // namespace msgsvr
