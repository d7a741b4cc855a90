// The traffic in numbers, by stretches of time: who talks to whom, how much of it is lost, how long
// it takes. Every record that was read counts, kept or not.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "catalogue/type_files.h"
#include "traffic/latency.h"
#include "traffic/model.h"

namespace inspector {

using Json = nlohmann::ordered_json;

// A stretch of time, ns since 1970; both ends belong to it.
struct Range {
  uint64_t from_ns = 0;
  uint64_t to_ns = ~uint64_t{0};
};

// The receiver's name if the event is the loss of a message because nobody had that name; else "".
std::string wanted_name(const traffic::Event &event);

// Times, counted in eight classes for each power of two. Only classes in use take memory, and they
// are few.
class Spread {
 public:
  void add(uint64_t ns, uint32_t count = 1);
  void add(const Spread &other);

  uint64_t count() const { return count_; }
  uint64_t max() const { return max_; }
  // The upper end of the quantile's class, but no more than the maximum.
  uint64_t quantile(double fraction) const;
  // Counts by the power of two at or below the times.
  std::map<unsigned, uint64_t> octaves() const;

 private:
  static uint16_t class_of(uint64_t ns);
  static uint64_t end_of(uint16_t index);

  std::vector<std::pair<uint16_t, uint32_t>> counts_;  // in order
  uint64_t count_ = 0;
  uint64_t max_ = 0;
};

class Summary {
 public:
  // Time is divided into stretches of `width_ns`; the last 600 of them are remembered.
  explicit Summary(uint64_t width_ns = 1'000'000'000) : width_ns_(width_ns) {}

  void take(const traffic::Event &event, const traffic::Model &model);
  // `count` records before `wall_ns` could not be read.
  void missed(uint64_t count, uint64_t wall_ns) { stretch_at(wall_ns).missed += count; }
  // Another server has begun: numbers of clients now mean other ones.
  void begin_server() { nodes_by_client_.clear(); }

  // Everything of a range, and all stretches that are remembered. With the full distribution of the
  // times of `type`, or without one of all types together.
  Json json(const Range &range, std::optional<uint32_t> type,
            const catalogue::Catalogue &catalogue) const;

 private:
  static constexpr size_t kMostStretches = 600;
  static constexpr size_t kMostEdges = 256;  // in a stretch
  static constexpr size_t kMostTypes = 64;
  static constexpr size_t kMostNodes = 4096;

  using Node = uint16_t;  // an index of names_; 0 stands for all names without room

  struct Edge {
    uint64_t messages = 0;
    uint64_t bytes = 0;
    uint64_t lost = 0;
    uint64_t queue_max_ns = 0;
  };
  struct Times {
    Spread queue;
    Spread handler;
    Spread total;
    void add(const traffic::Spans &spans);
    void add(const Times &other);
  };
  struct Stretch {
    uint64_t begin_ns = 0;
    uint64_t messages = 0;
    uint64_t lost = 0;
    uint64_t missed = 0;
    std::map<std::pair<Node, Node>, Edge> edges;
    std::map<uint32_t, Times> types;
  };
  static constexpr uint32_t kOtherTypes = ~uint32_t{0};

  Stretch &stretch_at(uint64_t wall_ns);
  Edge &edge_of(Stretch &stretch, const traffic::Event &event, const traffic::Model &model);
  Node node_of(traffic::ClientId id, const traffic::Model &model);
  Node intern(const std::string &name);
  void forget_unused_names();
  bool in_range(const Stretch &stretch, const Range &range) const;
  Json map_json(const Range &range) const;
  Json types_json(const Range &range, const catalogue::Catalogue &catalogue) const;
  Json times_json(const Range &range, std::optional<uint32_t> type) const;
  Json timeline_json() const;

  uint64_t width_ns_;
  std::deque<Stretch> stretches_;
  std::vector<std::string> names_{"(others)"};
  std::vector<Node> free_names_;
  std::unordered_map<std::string, Node> nodes_by_name_;
  std::unordered_map<traffic::ClientId, Node> nodes_by_client_;
};

}  // namespace inspector
