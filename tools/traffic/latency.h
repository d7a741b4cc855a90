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

// The times that one event adds, at most one of each kind.
struct Spans {
  std::optional<uint64_t> queue_ns;
  std::optional<uint64_t> handler_ns;
  std::optional<uint64_t> total_ns;
};

// A request to the server itself counts as delivered when it is accepted.
Spans spans_of(const Event &event);

}  // namespace traffic
