#include "inspector/recording.h"

#include <algorithm>

#include "traffic/mask.h"

namespace inspector {
namespace {

using flight::Kind;
using traffic::Event;
using traffic::Message;
using traffic::Model;

constexpr size_t kModelBytes = size_t{16} << 20;
constexpr size_t kMessageOverhead = 512;
// A file is shown in at most this many stretches of time.
constexpr uint64_t kPastStretches = 500;
constexpr uint64_t kLeastStretch_ns = 10'000'000;
constexpr size_t kMostServers = 64;

Model make_model(uint32_t body_limit) {
  const size_t most = kModelBytes / (std::min(body_limit, flight::kMostKept) + kMessageOverhead);
  return Model(std::min<size_t>(most, 65536));
}

// A model that knows the clients and nothing else.
Model names_of(const Model &model) {
  Model names(1);
  for (const auto &[id, client] : model.clients()) {
    flight::Entry entry;
    entry.record.kind = static_cast<uint8_t>(Kind::kConnected);
    entry.record.from = id;
    entry.record.a = client.pid;
    entry.record.b = client.uid;
    entry.kept = client.program;
    names.take(entry, 0);
    names.learn_name(id, client.name);
  }
  return names;
}

// These say little that other records do not say.
bool said_elsewhere(Kind kind) {
  return kind == Kind::kDelivered || kind == Kind::kClock;
}

}  // namespace

Recording::Recording(const catalogue::Catalogue &catalogue, bool masked)
    : Recording(catalogue, masked, Limits()) {}

Recording::Recording(const catalogue::Catalogue &catalogue, bool masked, const Limits &limits)
    : masked_(masked),
      limits_(limits),
      text_(catalogue, false, msgctl::EventText::Colours::kNone),
      sampler_(limits.per_second),
      rare_(limits.per_second) {
  models_.emplace(server_, Model(1));
}

void Recording::begin_server(uint32_t body_limit) {
  models_.at(server_) = names_of(models_.at(server_));
  ++server_;
  models_.emplace(server_, make_model(body_limit));
  if (models_.size() > kMostServers) models_.erase(models_.begin());
  text_.forget();
  messages_.clear();
  summary_.begin_server();
  last_number_ = 0;
}

void Recording::begin_past(uint64_t count, uint64_t span_ns) {
  past_ = true;
  summary_ = Summary(std::max(span_ns / kPastStretches + 1, kLeastStretch_ns));
  sampler_.keep_one_in(count / limits_.records + 1);
  rare_.keep_one_in(count / limits_.records + 1);
}

void Recording::name_client(traffic::ClientId id, std::string_view name) {
  models_.at(server_).learn_name(id, name);
}

void Recording::count_missed(const flight::Record &record, uint64_t wall_ns) {
  if (!past_ && last_number_ != 0 && record.number > last_number_ + 1) {
    const uint64_t count = record.number - last_number_ - 1;
    missed_ += count;
    summary_.missed(count, wall_ns);
  }
  last_number_ = std::max(last_number_, record.number);
}

void Recording::take(const flight::Entry &entry, uint64_t wall_ns) {
  ++records_;
  count_missed(entry.record, wall_ns);
  if (first_wall_ns_ == 0) first_wall_ns_ = wall_ns;
  last_wall_ns_ = std::max(last_wall_ns_, wall_ns);
  Model &model = models_.at(server_);
  const Event event = model.take(entry, wall_ns);
  if (event.kind() == Kind::kHttpRequest) {
    Event shown = event;
    shown.text = masked(event.text);
    text_.take(shown);
  }
  summary_.take(event, model);
  update_copies(event);
  if (event.kind() == Kind::kClock) return;
  if (wants(event)) {
    keep(event);
  } else {
    ++left_out_;
  }
}

bool Recording::wants(const Event &event) {
  const flight::Record &record = event.record;
  const auto belongs_to = [&](uint64_t number) {
    if (!messages_.contains(number)) return false;
    sampler_.charge(record.time_ns);
    return true;
  };
  switch (event.kind()) {
    case Kind::kAccepted:
      if (event.message->answers != 0 && belongs_to(event.message->answers)) return true;
      return sampler_.wants(record.number, record.time_ns);
    case Kind::kDelivered:
      if (event.message != nullptr) return belongs_to(record.about);
      return sampler_.wants(record.about, record.time_ns);
    case Kind::kLost:
      return messages_.contains(record.about) || rare_.wants(record.about, record.time_ns);
    default:
      return rare_.wants(record.number, record.time_ns);
  }
}

// Writes what became of messages into the copies that are kept.
void Recording::update_copies(const Event &event) {
  for (const Message *message : {event.message, event.request}) {
    if (message == nullptr) continue;
    const auto copy = messages_.find(message->number);
    if (copy == messages_.end()) continue;
    copy->second->delivered_ns = message->delivered_ns;
    copy->second->loss = message->loss;
    copy->second->answered_by = message->answered_by;
    copy->second->answered_ns = message->answered_ns;
  }
}

std::shared_ptr<Message> Recording::copy_of(const Message &message) {
  if (const auto known = messages_.find(message.number); known != messages_.end()) {
    return known->second;
  }
  auto copy = std::make_unique<Message>(message);
  if (masked_) traffic::mask_body(copy->body, copy->length > copy->body.size());
  const size_t size = sizeof(Message) + copy->body.size();
  *message_bytes_ += size;
  return {copy.release(), [size, bytes = message_bytes_](const Message *last) {
            *bytes -= size;
            delete last;
          }};
}

std::string Recording::masked(const std::string &text) const {
  return masked_ ? traffic::masked(text) : text;
}

std::string Recording::line_of(const Kept &kept) const {
  return text_.line(event_of(kept), model_of(kept));
}

std::string Recording::json_of(const Kept &kept) const {
  const Event event = event_of(kept);
  Json json{{"seq", kept.sequence}, {"server", kept.server}, {"at_us", kept.wall_ns / 1000}};
  json.update(text_.json(event, models_.at(server_)));
  if (event.kind() == Kind::kAccepted) {
    json["line"] = text_.body(*event.message);
  } else if (event.message == nullptr) {
    json["line"] = text_.line(event, models_.at(server_));
  }
  if (const std::string name = wanted_name(event); !name.empty()) json["to"] = name;
  if (json.contains("type")) json["type_text"] = text_.type(event.message->type());
  return msgctl::json_text(json);
}

size_t Recording::size_of(const Kept &kept) {
  return sizeof kept + kept.text.size() + kept.json.size();
}

void Recording::keep(const Event &event) {
  Kept kept{end_, server_, event.record, event.wall_ns, masked(event.text), nullptr, nullptr, {}};
  if (event.request != nullptr) kept.request = copy_of(*event.request);
  if (event.message != nullptr) {
    // A damaged file may repeat a number: from now on it means this message.
    if (event.kind() == Kind::kAccepted) messages_.erase(event.record.number);
    kept.message = copy_of(*event.message);
    if (event.kind() == Kind::kAccepted) messages_[event.record.number] = kept.message;
  }
  kept.json = json_of(kept);
  bytes_ += size_of(kept);
  ++end_;
  kept_.push_back(std::move(kept));
  while (kept_.size() > limits_.records || (bytes() > limits_.bytes && kept_.size() > 1)) {
    forget_oldest();
  }
}

void Recording::forget_oldest() {
  const Kept &oldest = kept_.front();
  bytes_ -= size_of(oldest);
  if (oldest.server == server_ && oldest.record.kind == static_cast<uint8_t>(Kind::kAccepted)) {
    const auto copy = messages_.find(oldest.record.number);
    if (copy != messages_.end() && copy->second == oldest.message) messages_.erase(copy);
  }
  kept_.pop_front();
}

bool Recording::matches(const Kept &kept, const Selection &selection) const {
  if (kept.wall_ns < selection.range.from_ns || kept.wall_ns > selection.range.to_ns) return false;
  if (!selection.all && said_elsewhere(static_cast<Kind>(kept.record.kind))) return false;
  return selection.filter.matches(event_of(kept), model_of(kept));
}

Event Recording::event_of(const Kept &kept) {
  Event event;
  event.record = kept.record;
  event.wall_ns = kept.wall_ns;
  event.text = kept.text;
  event.message = kept.message.get();
  event.request = kept.request.get();
  return event;
}

const Model &Recording::model_of(const Kept &kept) const {
  const auto known = models_.find(kept.server);
  return known == models_.end() ? models_.begin()->second : known->second;
}

}  // namespace inspector
