// Named synchronisation points: a process waits at one (0x5018) until another releases it (0x5019).
//
// A release lets every process that waits there go on. If none waits, the release is remembered and
// lets the next process that comes go on.

#include <algorithm>
#include <string>
#include <unordered_map>
#include <vector>

#include "common/log_line.h"
#include "msgsvr/report.h"
#include "msgsvr/services.h"

namespace msgsvr {
namespace {

using servers::log_line;

// Bounded, because names come from clients.
constexpr size_t kLongestName = 255;

class SyncPoints final : public Service {
 public:
  explicit SyncPoints(Server *server) : server_(server) {
    server->serve(ORP_MSG_SYNC_WAIT, [this](Client &from, const Message &m) { wait(from, m); });
    server->serve(ORP_MSG_SYNC_POST, [this](Client &from, const Message &m) { release(from, m); });
    server->on_gone([this](Client &client) { forget(client); });
  }

  void list(Inventory *inventory) const override {
    for (const auto &[name, point] : points_) {
      for (const Waiter &each : point.waiting) inventory->waits.push_back({name, each.client});
    }
  }

 private:
  struct Waiter {
    uint32_t client;
    Header request;
    Share share;
  };
  struct Point {
    std::vector<Waiter> waiting;
    Share released;      // none: it is not released
    uint32_t owner = 0;  // who released it, 0 when it has gone
    uint64_t gone = 0;   // when that was: a running number of such ends
    bool idle() const { return waiting.empty() && !released; }
  };

  void forget(const Client &client) {
    if (client.account->of(Kept::kPoints) == 0) return;
    ++ends_;
    for (auto &[name, point] : points_) {
      std::erase_if(point.waiting, [&](const Waiter &w) { return w.client == client.id; });
      if (point.owner != client.id) continue;
      point.owner = 0;
      point.gone = ends_;
    }
    std::erase_if(points_, [](const auto &entry) { return entry.second.idle(); });
  }

  // Gives up the release whose client went first.
  bool make_room(const Account &user) {
    auto oldest = points_.end();
    for (auto entry = points_.begin(); entry != points_.end(); ++entry) {
      const Point &point = entry->second;
      if (!point.released || point.owner != 0 || point.released.user() != &user) continue;
      if (oldest == points_.end() || point.gone < oldest->second.gone) oldest = entry;
    }
    if (oldest == points_.end()) return false;
    points_.erase(oldest);
    return true;
  }

  Share share(const Client &client) {
    return server_->accounts().share(client.account, Kept::kPoints,
                                     [this](const Account &user) { return make_room(user); });
  }

  static std::string name_of(const Message &message) {
    const std::string text(message.body.begin(), message.body.end());
    return text.substr(0, text.find('\0'));
  }

  bool usable(Client &from, const Message &message, const std::string &name) {
    if (!name.empty() && name.size() <= kLongestName) return true;
    log_line("{} names no synchronisation point of 1 to {} characters", from.label(), kLongestName);
    server_->outbox().lose(from, message, Loss::kNotServed);
    return false;
  }

  void wait(Client &from, const Message &message) {
    const std::string name = name_of(message);
    if (!usable(from, message, name)) return;
    auto entry = points_.find(name);
    if (entry != points_.end() && entry->second.released) {
      points_.erase(entry);
      server_->outbox().reply(from, message, 0);
      return;
    }
    // A process waits only once: another request replaces its first.
    if (entry != points_.end()) {
      for (Waiter &waiter : entry->second.waiting) {
        if (waiter.client != from.id) continue;
        waiter.request = message.header;
        return;
      }
    }
    Share place = share(from);
    if (!place) {
      server_->refuse(from, message, "synchronisation points");
      return;
    }
    points_[name].waiting.push_back({from.id, message.header, std::move(place)});
  }

  void release(Client &from, const Message &message) {
    const std::string name = name_of(message);
    if (!usable(from, message, name)) return;
    const auto entry = points_.find(name);
    if (entry != points_.end() && !entry->second.released) {
      for (const Waiter &waiter : entry->second.waiting) {
        if (Client *client = server_->by_id(waiter.client)) {
          server_->outbox().reply(*client, Message{waiter.request, {}, {}}, 0);
        }
      }
      points_.erase(entry);
      return;
    }
    if (entry != points_.end() && entry->second.owner != 0) return;
    // A release whose client has gone now belongs to this client.
    if (entry != points_.end()) points_.erase(entry);
    Share place = share(from);
    if (!place) {
      server_->refuse(from, message, "synchronisation points");
      return;
    }
    Point &point = points_[name];
    point.released = std::move(place);
    point.owner = from.id;
  }

  Server *server_;
  std::unordered_map<std::string, Point> points_;
  uint64_t ends_ = 0;
};

}  // namespace

std::unique_ptr<Service> make_sync_points(Server *server) {
  return std::make_unique<SyncPoints>(server);
}

}  // namespace msgsvr
