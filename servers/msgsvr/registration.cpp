// Names of processes (0x701), how many have a name (0x705), asking them to end (0x706), and whether
// they are alive (0x708, 0x709).

#include <algorithm>
#include <chrono>
#include <cstring>
#include <unordered_map>
#include <utility>

#include "common/log_line.h"
#include "msgsvr/report.h"
#include "msgsvr/services.h"

namespace msgsvr {
namespace {

using servers::log_line;

constexpr int kMissedPeriods = 3;

class Registration final : public Service {
 public:
  explicit Registration(Server *server) : server_(server), period_(server->options().keep_alive_s) {
    server->serve(ORP_MSG_REGISTER, [this](Client &from, const Message &m) { enter(from, m); });
    server->serve(ORP_MSG_COUNT_PROCESSES,
                  [this](Client &from, const Message &m) { count(from, m); });
    server->serve(ORP_MSG_EXIT, [this](Client &, const Message &m) { ask_to_exit(m); });
    server->serve(ORP_MSG_KEEP_ALIVE, [this](Client &from, const Message &) { note_alive(from); });
    server->serve(ORP_MSG_STOP_WATCHDOG, [this](Client &from, const Message &) {
      if (const auto known = lives_.find(from.id); known != lives_.end()) {
        known->second.watched = false;
      }
    });
    server->on_gone([this](Client &client) { lives_.erase(client.id); });
    if (period_.count() > 0) look_for_the_missing();
  }

  void list(Inventory *inventory) const override {
    const auto now = EventLoop::Clock::now();
    for (const auto &[id, life] : lives_) {
      const std::chrono::duration<double> ago = now - life.last_sign;
      inventory->keep_alives.push_back({id, life.watched, life.missing, ago.count()});
    }
  }

 private:
  struct Life {
    EventLoop::Clock::time_point last_sign{};
    bool watched = false;  // keep-alives are expected
    bool missing = false;  // and have not come
  };

  // Whether `client` may have that name. Logs why not.
  bool may_bear(Client &client, const AppName &name) {
    if (name.text() != kServerName) return server_->gate().may_own(client, name);
    server_->gate().refuse(client, Gate::Fault::kServersName, "wants the server's own name");
    return false;
  }

  void enter(Client &from, const Message &request) {
    AppName name(std::string_view(request.header.aucSendApp));
    if (!may_bear(from, name)) {
      server_->journal().refused_name(from, request.record, request.header.ulSeqNum);
      name = {};
    }
    server_->gate().renaming(from, name);
    if (server_->names().take(from, name)) server_->journal().named(from);
    const bool swap = server_->options().swap_all ||
                      std::ranges::count(server_->options().swap_names, name.text()) > 0;
    // The client reads these words as they are, because bodies are never converted.
    const uint32_t keep_alive[] = {period_.count() > 0 ? 1u : 0u,
                                   static_cast<uint32_t>(period_.count())};
    char body[sizeof keep_alive];
    std::memcpy(body, keep_alive, sizeof body);
    server_->outbox().reply(from, request, swap ? 1 : 0, body);
    // The reply itself still travels as the request did.
    from.swapped = swap;
    Life &life = lives_[from.id];
    life.last_sign = EventLoop::Clock::now();
    life.watched = period_.count() > 0;
  }

  void count(Client &from, const Message &request) {
    const auto name = request.name_in_body();
    const size_t found = name ? server_->names().bearers(*name).size() : 0;
    server_->outbox().reply(from, request, static_cast<uint32_t>(found));
  }

  void ask_to_exit(const Message &request) {
    const auto name = request.name_in_body();
    if (!name) return;  // without a name it is an application's acknowledgement
    Header ask{};
    ask.ulMsgType = ORP_MSG_EXIT;
    AppName(kServerName).store(ask.aucSendApp);
    name->store(ask.aucRecvApp);
    for (Client *client : server_->names().bearers(*name)) server_->outbox().send(*client, ask);
  }

  void note_alive(const Client &client) {
    Life &life = lives_[client.id];
    if (std::exchange(life.missing, false)) log_line("{} is alive again", client.label());
    life.last_sign = EventLoop::Clock::now();
    life.watched = period_.count() > 0;
  }

  void look_for_the_missing() {
    server_->loop().after(period_, [this] {
      const auto limit = EventLoop::Clock::now() - kMissedPeriods * period_;
      for (auto &[id, life] : lives_) {
        if (!life.watched || life.missing || life.last_sign > limit) continue;
        const Client *client = server_->by_id(id);
        if (client == nullptr) continue;
        life.missing = true;
        log_line("{} has sent no keep-alive for {} periods of {} s", client->label(),
                 kMissedPeriods, period_.count());
      }
      look_for_the_missing();
    });
  }

  Server *server_;
  std::chrono::seconds period_;
  std::unordered_map<uint32_t, Life> lives_;  // of those who have registered or said they live
};

}  // namespace

std::unique_ptr<Service> make_registration(Server *server) {
  return std::make_unique<Registration>(server);
}

}  // namespace msgsvr
