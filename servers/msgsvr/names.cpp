#include "msgsvr/names.h"

#include <cassert>

#include "msgsvr/client.h"

namespace msgsvr {

std::span<Client *const> Names::bearers(const AppName &name) const {
  const auto entry = clients_.find(name);
  if (entry == clients_.end()) return {};
  assert(!entry->second.empty());
  return entry->second;
}

Client *Names::receiver(const AppName &name) const {
  const std::span<Client *const> all = bearers(name);
  return all.empty() ? nullptr : all.front();
}

bool Names::take(Client &client, const AppName &name) {
  if (client.name == name) return false;
  release(client);
  client.name = name;
  ++epoch_;
  if (!name.empty()) clients_[name].push_back(&client);
  return true;
}

void Names::release(const Client &client) noexcept {
  const auto entry = clients_.find(client.name);
  if (entry == clients_.end()) return;
  ++epoch_;
  std::erase(entry->second, &client);
  if (entry->second.empty()) clients_.erase(entry);
}

}  // namespace msgsvr
