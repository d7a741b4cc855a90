#include "traffic/model.h"

#include <fmt/core.h>

#include <algorithm>
#include <cstring>
#include <set>

namespace traffic {
namespace {

using flight::Kind;

std::string name_of(const char *field) {
  return std::string(field, ::strnlen(field, ORP_APP_NAME_SIZE));
}

}  // namespace

Event Model::take(const flight::Entry &entry, uint64_t wall_ns) {
  const flight::Record &record = entry.record;
  Event event;
  event.record = record;
  event.wall_ns = wall_ns;
  switch (entry.kind()) {
    case Kind::kAccepted:
      accept(entry);
      event.message = find(record.number);
      break;
    case Kind::kDelivered:
      if (Message *message = find(record.about)) {
        if (message->delivered_ns == 0) message->delivered_ns = record.time_ns;
        event.message = message;
      }
      break;
    case Kind::kLost:
      if (Message *message = find(record.about)) {
        message->loss = entry.loss();
        open_.erase({message->from, message->to, message->type(), message->header.ulSeqNum});
        event.message = message;
      }
      break;
    case Kind::kConnected:
      event.text = entry.text();
      clients_[record.from] = {"", record.a, record.b, event.text, false, ""};
      break;
    case Kind::kNamed:
      event.text = entry.text();
      clients_[record.from].name = event.text;
      break;
    case Kind::kEnded:
      event.text = entry.text();
      end(record, event.text);
      break;
    case Kind::kDescriptor:
      event.message = find(record.about);
      break;
    case Kind::kHttpRequest:
      event.text = entry.text();
      break;
    case Kind::kFiller:
    case Kind::kClock:
    case Kind::kBacklog:
    case Kind::kRelieved:
    case Kind::kHttpAnswer:
      break;
  }
  if (event.message != nullptr && event.message->answers != 0) {
    event.request = find(event.message->answers);
  }
  return event;
}

void Model::end(const flight::Record &record, std::string_view reason) {
  Client &client = clients_[record.from];
  if (!client.ended) ended_.push_back(record.from);
  client.ended = true;
  client.last_words = reason;
  // Nobody waits for this client any more, and it waits for nobody.
  std::erase_if(open_, [&record](const auto &each) {
    return std::get<0>(each.first) == record.from || std::get<1>(each.first) == record.from;
  });
  if (ended_.size() <= kMostEnded) return;
  // A server never uses a number again, but a damaged file may say anything.
  const auto oldest = clients_.find(ended_.front());
  ended_.pop_front();
  if (oldest == clients_.end() || !oldest->second.ended) return;
  last_sent_.erase(oldest->first);
  clients_.erase(oldest);
}

void Model::accept(const flight::Entry &entry) {
  const flight::Record &record = entry.record;
  Message message;
  message.number = record.number;
  message.from = record.from;
  message.to = record.to;
  std::memcpy(&message.header, entry.header.data(), sizeof message.header);
  ORP_MSG_HEADER_ST &header = message.header;
  for (uint32_t *word :
       {&header.ulMsgType, &header.ulSeqNum, &header.ulMsgData, &header.ulDataLen}) {
    *word = flight::little(*word);
  }
  message.body_in_file = (header.ulMsgType & ORP_MSG_TYPE_BODY_IN_FILE) != 0;
  message.board = header.ulMsgType >> 29;
  header.ulMsgType &= ORP_MSG_TYPE_MASK;
  message.length = record.a;
  message.body = entry.text();
  message.accepted_ns = record.time_ns;

  // The record of the sender's name may be overwritten already.
  Client &sender = clients_[message.from];
  if (message.from != 0 && sender.name.empty()) sender.name = name_of(header.aucSendApp);
  if (message.to != 0 && clients_[message.to].name.empty()) {
    clients_[message.to].name = name_of(header.aucRecvApp);
  }

  // A damaged file may repeat a number. The later message replaces the earlier one.
  if (const auto earlier = messages_.find(message.number); earlier != messages_.end()) {
    close(earlier->second);
    messages_.erase(earlier);
  } else {
    order_.push_back(message.number);
  }
  link(&message);
  last_sent_[message.from] = message.number;
  messages_.emplace(message.number, std::move(message));
  if (order_.size() > most_messages_) forget_oldest();
}

void Model::link(Message *message) {
  const uint32_t type = message->type();
  const uint32_t sequence = message->header.ulSeqNum;
  if (const auto open = open_.find({message->to, message->from, type, sequence});
      open != open_.end()) {
    if (Message *request = find(open->second)) {
      message->answers = request->number;
      request->answered_by = message->number;
      request->answered_ns = message->accepted_ns;
      ++answers_by_type_[type];
    }
    open_.erase(open);
    return;
  }
  open_[{message->from, message->to, type, sequence}] = message->number;
}

void Model::close(const Message &message) {
  const auto open = open_.find({message.from, message.to, message.type(), message.header.ulSeqNum});
  if (open != open_.end() && open->second == message.number) open_.erase(open);
}

void Model::forget_oldest() {
  const auto oldest = messages_.find(order_.front());
  order_.pop_front();
  close(oldest->second);
  messages_.erase(oldest);
}

Message *Model::find(uint64_t number) {
  const auto entry = messages_.find(number);
  return entry == messages_.end() ? nullptr : &entry->second;
}

const Message *Model::message(uint64_t number) const {
  const auto entry = messages_.find(number);
  return entry == messages_.end() ? nullptr : &entry->second;
}

const Client &Model::client(ClientId id) const {
  static const Client kUnknown;
  const auto entry = clients_.find(id);
  return entry == clients_.end() ? kUnknown : entry->second;
}

void Model::learn_name(ClientId id, std::string_view name) {
  if (id == 0 || name.empty()) return;
  if (Client &client = clients_[id]; client.name.empty()) client.name = name;
}

std::string Model::label(ClientId id) const {
  if (id == 0) return "server";
  const Client &known = client(id);
  if (known.name.empty()) return fmt::format("#{}", id);
  const auto others = std::count_if(clients_.begin(), clients_.end(), [&known](const auto &each) {
    return !each.second.ended && each.second.name == known.name;
  });
  return others < 2 ? known.name : fmt::format("{}[{}]", known.name, known.pid);
}

std::vector<Wait> Model::waits(const Known &answered) const {
  std::vector<Wait> found;
  for (const auto &[key, number] : open_) {
    const Message *request = message(number);
    if (request == nullptr || request->from == 0 || request->loss != flight::Loss::kNone) continue;
    const std::optional<bool> known = answered(request->type());
    if (known == false) continue;
    const bool by_type = known == true || answers_by_type_.contains(request->type());
    // A client that waits synchronously sends nothing meanwhile.
    const auto last = last_sent_.find(request->from);
    const bool silent = last != last_sent_.end() && last->second == number;
    if (by_type || silent) found.push_back({request, by_type && silent, silent});
  }
  std::sort(found.begin(), found.end(),
            [](const Wait &a, const Wait &b) { return a.request->number < b.request->number; });
  return found;
}

std::vector<std::vector<ClientId>> Model::circles(const std::vector<Wait> &waits) {
  std::map<ClientId, std::set<ClientId>> next;
  for (const Wait &wait : waits) next[wait.request->from].insert(wait.request->to);

  std::vector<std::vector<ClientId>> circles;
  std::set<ClientId> done;
  std::vector<ClientId> path;
  // Follows every path from `at`. A client that is met again on the path closes a circle.
  const auto walk = [&](const auto &self, ClientId at) -> void {
    if (const auto met = std::find(path.begin(), path.end(), at); met != path.end()) {
      circles.emplace_back(met, path.end());
      return;
    }
    if (!done.insert(at).second) return;
    path.push_back(at);
    if (const auto ways = next.find(at); ways != next.end()) {
      for (const ClientId to : ways->second) self(self, to);
    }
    path.pop_back();
  };
  for (const auto &[from, ways] : next) walk(walk, from);
  return circles;
}

}  // namespace traffic
