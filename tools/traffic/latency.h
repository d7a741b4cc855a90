// How long messages and their answers take.
#pragma once

#include <cstdint>
#include <optional>

#include "traffic/histogram.h"
#include "traffic/model.h"

namespace traffic {

struct Times {
  Histogram queue;    // accepted until delivered, of every delivery
  Histogram handler;  // a request delivered until its answer was accepted
  Histogram total;    // a request accepted until its answer was delivered
};

// What one event adds: at most one of each.
struct Spans {
  std::optional<uint64_t> queue_ns;
  std::optional<uint64_t> handler_ns;
  std::optional<uint64_t> total_ns;
};

// A request that the server itself answers counts as delivered when it was accepted.
Spans spans_of(const Event &event);

}  // namespace traffic
