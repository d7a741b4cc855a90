#include "inspector/summary.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>
#include <set>

#include "common/printable.h"

namespace inspector {
namespace {

using flight::Kind;
using traffic::Event;
using traffic::Model;

constexpr unsigned kClassBits = 3;
// The receiver of a message that waits longer does not keep up.
constexpr uint64_t kSlow_ns = 100'000'000;

Json spread_json(const Spread &spread) {
  return {{"count", spread.count()},
          {"p50_ns", spread.quantile(0.5)},
          {"p90_ns", spread.quantile(0.9)},
          {"p99_ns", spread.quantile(0.99)},
          {"max_ns", spread.max()}};
}

Json octaves_json(const Spread &spread) {
  Json list = Json::array();
  for (const auto &[power, count] : spread.octaves()) {
    list.push_back({uint64_t{1} << power, count});
  }
  return list;
}

}  // namespace

std::string wanted_name(const Event &event) {
  if (event.message == nullptr || event.loss() != flight::Loss::kNoSuchName) return {};
  const char *field = event.message->header.aucRecvApp;
  return servers::printable({field, ::strnlen(field, ORP_APP_NAME_SIZE)});
}

uint16_t Spread::class_of(uint64_t ns) {
  if (ns < (uint64_t{1} << kClassBits)) return static_cast<uint16_t>(ns);
  const unsigned shift = static_cast<unsigned>(std::bit_width(ns)) - kClassBits - 1;
  return static_cast<uint16_t>((shift << kClassBits) + static_cast<unsigned>(ns >> shift));
}

uint64_t Spread::end_of(uint16_t index) {
  if (index < (2u << kClassBits)) return index;
  const unsigned shift = (static_cast<unsigned>(index) >> kClassBits) - 1;
  const uint64_t first = static_cast<uint64_t>(index - (shift << kClassBits)) << shift;
  return first + (uint64_t{1} << shift) - 1;
}

void Spread::add(uint64_t ns, uint32_t count) {
  const uint16_t index = class_of(ns);
  auto at = std::lower_bound(counts_.begin(), counts_.end(), std::pair{index, uint32_t{0}});
  if (at == counts_.end() || at->first != index) at = counts_.insert(at, {index, 0});
  at->second += count;
  count_ += count;
  max_ = std::max(max_, ns);
}

void Spread::add(const Spread &other) {
  const uint64_t most = std::max(max_, other.max_);
  for (const auto &[index, count] : other.counts_) add(end_of(index), count);
  max_ = most;
}

uint64_t Spread::quantile(double fraction) const {
  const double wanted = std::ceil(static_cast<double>(count_) * fraction);
  uint64_t passed = 0;
  for (const auto &[index, count] : counts_) {
    passed += count;
    if (static_cast<double>(passed) >= wanted) return std::min(end_of(index), max_);
  }
  return max_;
}

std::map<unsigned, uint64_t> Spread::octaves() const {
  std::map<unsigned, uint64_t> found;
  for (const auto &[index, count] : counts_) {
    found[static_cast<unsigned>(std::bit_width(end_of(index) | 1)) - 1] += count;
  }
  return found;
}

void Summary::Times::add(const traffic::Spans &spans) {
  if (spans.queue_ns) queue.add(*spans.queue_ns);
  if (spans.handler_ns) handler.add(*spans.handler_ns);
  if (spans.total_ns) total.add(*spans.total_ns);
}

void Summary::Times::add(const Times &other) {
  queue.add(other.queue);
  handler.add(other.handler);
  total.add(other.total);
}

Summary::Stretch &Summary::stretch_at(uint64_t wall_ns) {
  const uint64_t begin_ns = wall_ns / width_ns_ * width_ns_;
  // When somebody sets the clock back, the last stretch takes everything until the clock has caught
  // up.
  if (stretches_.empty() || begin_ns > stretches_.back().begin_ns) {
    stretches_.emplace_back().begin_ns = begin_ns;
    if (stretches_.size() > kMostStretches) stretches_.pop_front();
  }
  return stretches_.back();
}

void Summary::forget_unused_names() {
  std::set<Node> used{0};
  for (const Stretch &stretch : stretches_) {
    for (const auto &[ends, edge] : stretch.edges) used.insert({ends.first, ends.second});
  }
  nodes_by_client_.clear();
  for (auto at = nodes_by_name_.begin(); at != nodes_by_name_.end();) {
    if (used.contains(at->second)) {
      ++at;
    } else {
      free_names_.push_back(at->second);
      at = nodes_by_name_.erase(at);
    }
  }
}

Summary::Node Summary::intern(const std::string &name) {
  if (const auto known = nodes_by_name_.find(name); known != nodes_by_name_.end()) {
    return known->second;
  }
  if (free_names_.empty() && names_.size() >= kMostNodes) forget_unused_names();
  Node node = 0;
  if (!free_names_.empty()) {
    node = free_names_.back();
    free_names_.pop_back();
    names_[node] = name;
  } else if (names_.size() < kMostNodes) {
    node = static_cast<Node>(names_.size());
    names_.push_back(name);
  } else {
    return 0;
  }
  nodes_by_name_[name] = node;
  return node;
}

Summary::Node Summary::node_of(traffic::ClientId id, const Model &model) {
  const auto known = nodes_by_client_.find(id);
  if (known != nodes_by_client_.end()) return known->second;
  const Node node = intern(servers::printable(model.label(id)));
  if (nodes_by_client_.size() > kMostNodes) nodes_by_client_.clear();
  nodes_by_client_[id] = node;
  return node;
}

Summary::Edge &Summary::edge_of(Stretch &stretch, const Event &event, const Model &model) {
  std::pair ends{node_of(event.record.from, model), node_of(event.record.to, model)};
  // The map also shows receivers that are not there.
  if (const std::string name = wanted_name(event); !name.empty()) ends.second = intern(name);
  if (stretch.edges.size() >= kMostEdges && !stretch.edges.contains(ends)) ends = {0, 0};
  return stretch.edges[ends];
}

void Summary::take(const Event &event, const Model &model) {
  Stretch &stretch = stretch_at(event.wall_ns);
  const traffic::Spans spans = traffic::spans_of(event);
  switch (event.kind()) {
    case Kind::kConnected:
    case Kind::kNamed:
    case Kind::kEnded:
      // A client's label depends on who else has its name.
      nodes_by_client_.clear();
      break;
    case Kind::kAccepted: {
      ++stretch.messages;
      Edge &edge = edge_of(stretch, event, model);
      ++edge.messages;
      edge.bytes += event.record.a;
      break;
    }
    case Kind::kDelivered: {
      // An event was sent to the server; each delivery of it is one more message.
      const bool of_event = event.message != nullptr && event.message->to == 0;
      Edge &edge = edge_of(stretch, event, model);
      if (of_event) {
        ++edge.messages;
        edge.bytes += event.message->length;
      }
      edge.queue_max_ns = std::max(edge.queue_max_ns, spans.queue_ns.value_or(0));
      break;
    }
    case Kind::kLost:
      ++stretch.lost;
      ++edge_of(stretch, event, model).lost;
      break;
    default:
      break;
  }
  if (event.message == nullptr || (!spans.queue_ns && !spans.handler_ns && !spans.total_ns)) return;
  uint32_t type = event.message->type();
  if (stretch.types.size() >= kMostTypes && !stretch.types.contains(type)) type = kOtherTypes;
  stretch.types[type].add(spans);
}

bool Summary::in_range(const Stretch &stretch, const Range &range) const {
  return stretch.begin_ns + width_ns_ > range.from_ns && stretch.begin_ns <= range.to_ns;
}

Json Summary::map_json(const Range &range) const {
  std::map<std::pair<Node, Node>, Edge> edges;
  uint64_t missed = 0;
  for (const Stretch &stretch : stretches_) {
    if (!in_range(stretch, range)) continue;
    missed += stretch.missed;
    for (const auto &[ends, edge] : stretch.edges) {
      Edge &sum = edges[ends];
      sum.messages += edge.messages;
      sum.bytes += edge.bytes;
      sum.lost += edge.lost;
      sum.queue_max_ns = std::max(sum.queue_max_ns, edge.queue_max_ns);
    }
  }
  Json list = Json::array();
  for (const auto &[ends, edge] : edges) {
    list.push_back({{"from", names_[ends.first]},
                    {"to", names_[ends.second]},
                    {"messages", edge.messages},
                    {"bytes", edge.bytes},
                    {"lost", edge.lost},
                    {"queue_max_ns", edge.queue_max_ns},
                    {"slow", edge.queue_max_ns > kSlow_ns}});
  }
  return {{"edges", std::move(list)}, {"missed", missed}};
}

Json Summary::types_json(const Range &range, const catalogue::Catalogue &catalogue) const {
  std::map<uint32_t, Times> types;
  for (const Stretch &stretch : stretches_) {
    if (!in_range(stretch, range)) continue;
    for (const auto &[type, times] : stretch.types) {
      const bool full = types.size() >= kMostTypes && !types.contains(type);
      types[full ? kOtherTypes : type].add(times);
    }
  }
  Json list = Json::array();
  for (const auto &[type, times] : types) {
    const bool others = type == kOtherTypes;
    list.push_back({{"type", others ? Json(nullptr) : Json(type)},
                    {"name", others ? "(others)" : servers::printable(catalogue.describe(type))},
                    {"queue", spread_json(times.queue)},
                    {"handler", spread_json(times.handler)},
                    {"total", spread_json(times.total)}});
  }
  return list;
}

Json Summary::times_json(const Range &range, std::optional<uint32_t> type) const {
  struct Measure {
    const char *word;
    Spread Times::*spread;
  };
  constexpr Measure kMeasures[] = {
      {"queue", &Times::queue}, {"handler", &Times::handler}, {"total", &Times::total}};
  Json measures = Json::object();
  for (const Measure &measure : kMeasures) {
    Spread all;
    Json series = Json::array();
    for (const Stretch &stretch : stretches_) {
      if (!in_range(stretch, range)) continue;
      Spread here;
      for (const auto &[number, times] : stretch.types) {
        if (!type || *type == number) here.add(times.*measure.spread);
      }
      if (here.count() == 0) continue;
      series.push_back({stretch.begin_ns / 1000, here.quantile(0.5), here.quantile(0.99)});
      all.add(here);
    }
    measures[measure.word] = {{"octaves", octaves_json(all)}, {"series", std::move(series)}};
  }
  return measures;
}

Json Summary::timeline_json() const {
  Json list = Json::array();
  for (const Stretch &stretch : stretches_) {
    list.push_back({stretch.begin_ns / 1000, stretch.messages, stretch.lost, stretch.missed});
  }
  return list;
}

Json Summary::json(const Range &range, std::optional<uint32_t> type,
                   const catalogue::Catalogue &catalogue) const {
  Json json = map_json(range);
  json["width_us"] = width_ns_ / 1000;
  json["types"] = types_json(range, catalogue);
  json["times"] = times_json(range, type);
  json["timeline"] = timeline_json();
  return json;
}

}  // namespace inspector
