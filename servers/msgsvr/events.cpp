// Events: who has subscribed to what (0x702, 0x703), and passing what is published for the server
// on to everyone who has.
//
// A process subscribes itself, for as long as its connection lives, or an application by name:
// then whichever process bears that name when an event comes gets it. Nobody gets an event twice.

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <unordered_map>
#include <vector>

#include "common/log_line.h"
#include "msgsvr/hand_over.h"
#include "msgsvr/services.h"

namespace msgsvr {
namespace {

using servers::log_line;

struct Subscribers {
  std::vector<Client *> processes;
  std::vector<AppName> names;

  bool empty() const { return processes.empty() && names.empty(); }
};

template <typename T>
void add_once(std::vector<T> *all, const T &one) {
  if (std::find(all->begin(), all->end(), one) == all->end()) all->push_back(one);
}

class Events final : public Service {
 public:
  explicit Events(Server *server) : server_(server) {
    server->serve(ORP_MSG_SUBSCRIBE, [this](Client &from, const Message &m) {
      Subscribers &subscribers = by_type_[m.header.ulMsgData];
      if (const auto name = m.name_in_body()) {
        add_once(&subscribers.names, *name);
      } else {
        add_once(&subscribers.processes, &from);
      }
    });
    server->serve(ORP_MSG_UNSUBSCRIBE, [this](Client &from, const Message &m) {
      const auto entry = by_type_.find(m.header.ulMsgData);
      if (entry == by_type_.end()) return;
      if (const auto name = m.name_in_body()) {
        std::erase(entry->second.names, *name);
      } else {
        std::erase(entry->second.processes, &from);
      }
      if (entry->second.empty()) by_type_.erase(entry);
    });
    server->serve_rest([this](Client &from, const Message &m) { return publish(from, m); });
    server->on_gone([this](Client &client) {
      for (auto &[type, subscribers] : by_type_) std::erase(subscribers.processes, &client);
      std::erase_if(by_type_, [](const auto &entry) { return entry.second.empty(); });
    });
  }

 private:
  static bool is_event(uint32_t type) { return type >> 8 == ORP_MSG_EVENT_PAGE; }

  // Types outside the events' range are passed on if somebody has subscribed to them.
  bool publish(Client &from, const Message &message) {
    receivers_.clear();
    ++mark_;
    add_receivers(message.type());
    if (is_event(message.type()) && message.type() != ORP_MSG_ALL_EVENTS) {
      add_receivers(ORP_MSG_ALL_EVENTS);
    }
    if (receivers_.empty() && !is_event(message.type())) return false;

    if ((message.header.ulMsgType & ORP_MSG_TYPE_BODY_IN_FILE) != 0) {
      publish_file(from, message);
      return true;
    }
    // A publisher has no use for news of each subscriber that is too slow: nobody is told.
    const OutputQueue::Tag tag{0, message.type(), 0};
    for (Client *to : receivers_) server_->pass(*to, message.frame, from.swapped, tag);
    return true;
  }

  // The file that carries the body has one reader, so every subscriber gets a name of its own for
  // it, and the publisher's name goes.
  void publish_file(Client &from, const Message &message) {
    const auto original = hand_over_path(message.body);
    if (!original) {
      log_line("{} published an event 0x{:x} whose body is no hand-over file", from.label(),
               message.type());
      return;
    }
    for (Client *to : receivers_) {
      const uint32_t number = link_hand_over(*original);
      if (number == 0) {
        log_line("an event 0x{:x} of {} does not reach {}: {}: {}", message.type(), from.label(),
                 to->label(), *original, std::strerror(errno));
        server_->lost_event(*to);
        continue;
      }
      Header header = message.header;
      header.ulDataLen = ORP_MSG_HAND_OVER_PATH_SIZE;
      server_->send(*to, header, hand_over_body(number), number);
    }
    ::unlink(original->c_str());
  }

  void add_receivers(uint32_t type) {
    const auto entry = by_type_.find(type);
    if (entry == by_type_.end()) return;
    for (Client *client : entry->second.processes) add_receiver(client);
    for (const AppName &name : entry->second.names) add_receiver(server_->find(name));
  }

  void add_receiver(Client *client) {
    if (client == nullptr || client->event_mark == mark_) return;
    client->event_mark = mark_;
    receivers_.push_back(client);
  }

  Server *server_;
  std::unordered_map<uint32_t, Subscribers> by_type_;
  std::vector<Client *> receivers_;
  uint64_t mark_ = 0;
};

}  // namespace

std::unique_ptr<Service> make_events(Server *server) {
  return std::make_unique<Events>(server);
}

}  // namespace msgsvr
