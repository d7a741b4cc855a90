// Which client has which name.
//
// Several clients may have one name. The one that has had it the longest gets the messages for it;
// when that one goes, the next does.
#pragma once

#include <cstdint>
#include <span>
#include <unordered_map>
#include <vector>

#include "msgsvr/wire.h"

namespace msgsvr {

struct Client;

class Names {
 public:
  // The clients of that name, oldest first.
  std::span<Client *const> bearers(const AppName &name) const;
  // The one that gets the messages for that name; null when nobody has it.
  Client *receiver(const AppName &name) const;

  // Gives `client` that name in place of the one it had; an empty one leaves it without. False if
  // it has that name already.
  bool take(Client &client, const AppName &name);
  // Nothing reaches `client` by its name any more; log lines still show it.
  void release(const Client &client) noexcept;
  void clear() noexcept { clients_.clear(); }

  // Results of look-ups are valid as long as this stays the same. Never 0.
  uint64_t epoch() const { return epoch_; }

 private:
  std::unordered_map<AppName, std::vector<Client *>> clients_;  // no entry is empty
  uint64_t epoch_ = 1;
};

}  // namespace msgsvr
