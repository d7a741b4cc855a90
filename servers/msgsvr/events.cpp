// Events: who has subscribed to what (0x702, 0x703), and passing on to them what publishers send to
// the server.
//
// A process subscribes itself, for as long as its connection lives, or it subscribes a name. An
// event then goes to the process that has the name when the event comes. Nobody gets an event
// twice.

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <unordered_map>
#include <vector>

#include "catalogue/message_types.h"
#include "common/log_line.h"
#include "msgsvr/hand_over.h"
#include "msgsvr/report.h"
#include "msgsvr/services.h"

namespace msgsvr {
namespace {

using servers::log_line;

struct Process {
  Client *client;
  Share share;
};

struct Named {
  AppName name;
  uint32_t owner;  // the client that made the subscription, 0 when it has gone
  uint64_t gone;   // when that was: a running number of such ends
  Share share;
};

struct Subscribers {
  std::vector<Process> processes;
  std::vector<Named> names;

  bool empty() const { return processes.empty() && names.empty(); }
};

class Events final : public Service {
 public:
  explicit Events(Server *server) : server_(server) {
    server->serve(ORP_MSG_SUBSCRIBE,
                  [this](Client &from, const Message &m) { subscribe(from, m); });
    server->serve(ORP_MSG_UNSUBSCRIBE, [this](Client &from, const Message &m) {
      const auto other = m.name_in_body();
      if (other && !server_->gate().may_subscribe(from, other, m.header.ulMsgData)) {
        server_->outbox().lose(from, m, Loss::kNotPermitted);
        return;
      }
      const auto entry = by_type_.find(m.header.ulMsgData);
      if (entry == by_type_.end()) return;
      if (const auto name = m.name_in_body()) {
        std::erase_if(entry->second.names, [&](const Named &each) { return each.name == *name; });
      } else {
        std::erase_if(entry->second.processes,
                      [&](const Process &each) { return each.client == &from; });
      }
      if (entry->second.empty()) by_type_.erase(entry);
    });
    server->serve_rest([this](Client &from, const Message &m) { return publish(from, m); });
    server->on_gone([this](Client &client) { forget(client); });
  }

  void list(Inventory *inventory) const override {
    for (const auto &[type, subscribers] : by_type_) {
      for (const Process &each : subscribers.processes) {
        inventory->subscriptions.push_back({type, each.client->id, {}});
      }
      for (const Named &each : subscribers.names) {
        inventory->subscriptions.push_back({type, 0, each.name});
      }
    }
  }

 private:
  static bool is_event(uint32_t type) { return type >> 8 == ORP_MSG_EVENT_PAGE; }

  void subscribe(Client &from, const Message &message) {
    const uint32_t type = message.header.ulMsgData;
    const auto name = message.name_in_body();
    if (!server_->gate().may_subscribe(from, name, type)) {
      server_->outbox().lose(from, message, Loss::kNotPermitted);
      return;
    }
    if (const auto entry = by_type_.find(type); entry != by_type_.end()) {
      Subscribers &known = entry->second;
      const auto same = std::ranges::find_if(
          known.names, [&](const Named &each) { return name && each.name == *name; });
      // A subscription whose maker has gone gets a new owner.
      if (same != known.names.end() && same->owner == 0) {
        known.names.erase(same);
      } else if (same != known.names.end() ||
                 (!name && std::ranges::any_of(known.processes, [&](const Process &each) {
                   return each.client == &from;
                 }))) {
        return;
      }
    }
    Share share =
        server_->accounts().share(from.account, Kept::kSubscriptions,
                                  [this](const Account &user) { return make_room(user); });
    if (!share) {
      server_->refuse(from, message, "event subscriptions");
      return;
    }
    Subscribers &subscribers = by_type_[type];
    if (name) {
      subscribers.names.push_back({*name, from.id, 0, std::move(share)});
    } else {
      subscribers.processes.push_back({&from, std::move(share)});
    }
  }

  // Gives up one of the user's subscriptions by name whose makers have gone: the one whose maker
  // went first.
  bool make_room(const Account &user) {
    std::vector<Named> *oldest_in = nullptr;
    size_t oldest = 0;
    for (auto &[type, subscribers] : by_type_) {
      std::vector<Named> &names = subscribers.names;
      for (size_t i = 0; i < names.size(); ++i) {
        if (names[i].owner != 0 || names[i].share.user() != &user) continue;
        if (oldest_in != nullptr && names[i].gone > (*oldest_in)[oldest].gone) continue;
        oldest_in = &names;
        oldest = i;
      }
    }
    if (oldest_in == nullptr) return false;
    oldest_in->erase(oldest_in->begin() + static_cast<ptrdiff_t>(oldest));
    return true;
  }

  void forget(const Client &client) {
    if (client.account->of(Kept::kSubscriptions) == 0) return;
    ++ends_;
    for (auto &[type, subscribers] : by_type_) {
      std::erase_if(subscribers.processes,
                    [&](const Process &each) { return each.client == &client; });
      for (Named &each : subscribers.names) {
        if (each.owner != client.id) continue;
        each.owner = 0;
        each.gone = ends_;
      }
    }
    std::erase_if(by_type_, [](const auto &entry) { return entry.second.empty(); });
  }

  // Types outside the events' range are passed on if somebody has subscribed to them.
  bool publish(Client &from, const Message &message) {
    receivers_.clear();
    add_receivers(message.type());
    if (is_event(message.type()) && message.type() != ORP_MSG_ALL_EVENTS) {
      add_receivers(ORP_MSG_ALL_EVENTS);
    }
    if (receivers_.empty() && !is_event(message.type())) return false;
    // A client may be subscribed by itself, by its name, and to all events.
    std::ranges::sort(receivers_, {}, &Client::id);
    receivers_.erase(std::unique(receivers_.begin(), receivers_.end()), receivers_.end());
    std::erase_if(receivers_, [&](Client *to) {
      // A message of another type that was subscribed to is judged as a message.
      if (server_->gate().passes_event(from, *to, message.type()) &&
          (is_event(message.type()) || server_->gate().passes(from, to, message.type()))) {
        return false;
      }
      server_->outbox().lose_silently(from, message, Loss::kNotPermitted, to);
      return true;
    });

    if ((message.header.ulMsgType & ORP_MSG_TYPE_BODY_IN_FILE) != 0) {
      publish_file(from, message);
      return true;
    }
    // Nobody is told of losses: a publisher cannot do anything about slow subscribers.
    for (Client *to : receivers_) server_->outbox().pass(*to, from, message);
    return true;
  }

  // A hand-over file has one reader, who removes it. So every subscriber gets a name of its own for
  // the file, and the publisher's name is removed.
  void publish_file(Client &from, const Message &message) {
    const auto original = hand_over_path(message.body);
    const UniqueFd file = original ? open_hand_over(*original, from.peer.uid) : UniqueFd();
    if (!file) {
      log_line("{} published an event {} whose body is no hand-over file of its own", from.label(),
               catalogue::describe(message.type()));
      server_->outbox().lose_silently(from, message, Loss::kNotPermitted);
      return;
    }
    for (Client *to : receivers_) {
      const uint32_t number = share_hand_over(file, to->peer.uid);
      if (number == 0) {
        log_line("an event {} of {} does not reach {}: {}: {}", catalogue::describe(message.type()),
                 from.label(), to->label(), *original, std::strerror(errno));
        server_->outbox().lose_silently(from, message, Loss::kNotServed, to);
        continue;
      }
      Header header = message.header;
      header.ulDataLen = ORP_MSG_HAND_OVER_PATH_SIZE;
      server_->outbox().send_on_silently(*to, header, hand_over_body(number), from, message,
                                         number);
    }
    ::unlink(original->c_str());
  }

  void add_receivers(uint32_t type) {
    const auto entry = by_type_.find(type);
    if (entry == by_type_.end()) return;
    for (const Process &each : entry->second.processes) receivers_.push_back(each.client);
    for (const Named &each : entry->second.names) {
      if (Client *client = server_->names().receiver(each.name)) receivers_.push_back(client);
    }
  }

  Server *server_;
  std::unordered_map<uint32_t, Subscribers> by_type_;
  std::vector<Client *> receivers_;  // of the event that is being published
  uint64_t ends_ = 0;
};

}  // namespace

std::unique_ptr<Service> make_events(Server *server) {
  return std::make_unique<Events>(server);
}

}  // namespace msgsvr
