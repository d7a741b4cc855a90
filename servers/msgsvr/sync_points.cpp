// Named synchronisation points: a process waits at one (0x5018) until another releases it (0x5019).
//
// A release lets everybody go who waits there. One that finds nobody waiting is remembered, and
// uses itself up on the next process that comes.

#include <algorithm>
#include <string>
#include <unordered_map>
#include <vector>

#include "common/log_line.h"
#include "msgsvr/services.h"

namespace msgsvr {
namespace {

using servers::log_line;

constexpr uint32_t kWait = 0x5018;
constexpr uint32_t kRelease = 0x5019;

// Names come from clients; more points at a time are nobody's intention.
constexpr size_t kMostPoints = 1024;

class SyncPoints final : public Service {
 public:
  explicit SyncPoints(Server *server) : server_(server) {
    server->serve(kWait, [this](Client &from, const Message &m) { wait(from, m); });
    server->serve(kRelease, [this](Client &from, const Message &m) { release(from, m); });
    server->on_gone([this](Client &client) {
      for (auto &[name, point] : points_) {
        std::erase_if(point.waiting, [&](const Waiter &w) { return w.client == client.id; });
      }
      std::erase_if(points_, [](const auto &entry) { return entry.second.idle(); });
    });
  }

 private:
  struct Waiter {
    uint32_t client;
    Header request;
  };
  struct Point {
    std::vector<Waiter> waiting;
    bool released = false;
    bool idle() const { return waiting.empty() && !released; }
  };

  static std::string name_of(const Message &message) {
    const std::string text(message.body.begin(), message.body.end());
    return text.substr(0, text.find('\0'));
  }

  bool usable(const Client &from, const std::string &name) const {
    if (!name.empty() && (points_.contains(name) || points_.size() < kMostPoints)) return true;
    log_line("{} names no synchronisation point, or one too many", from.label());
    return false;
  }

  void wait(Client &from, const Message &message) {
    const std::string name = name_of(message);
    if (!usable(from, name)) {
      server_->notify_undeliverable(from, kWait, message.header.ulSeqNum);
      return;
    }
    Point &point = points_[name];
    if (!point.released) {
      // A process waits once: another request of it takes the first one's place.
      std::erase_if(point.waiting, [&](const Waiter &w) { return w.client == from.id; });
      point.waiting.push_back({from.id, message.header});
      return;
    }
    points_.erase(name);
    server_->reply(from, message, 0);
  }

  void release(Client &from, const Message &message) {
    const std::string name = name_of(message);
    if (!usable(from, name)) return;
    Point &point = points_[name];
    if (point.waiting.empty()) {
      point.released = true;
      return;
    }
    for (const Waiter &waiter : point.waiting) {
      if (Client *client = server_->by_id(waiter.client)) {
        server_->reply(*client, Message{waiter.request, {}, {}}, 0);
      }
    }
    points_.erase(name);
  }

  Server *server_;
  std::unordered_map<std::string, Point> points_;
};

}  // namespace

std::unique_ptr<Service> make_sync_points(Server *server) {
  return std::make_unique<SyncPoints>(server);
}

}  // namespace msgsvr
