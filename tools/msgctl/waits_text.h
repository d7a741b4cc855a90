// Who waits for whom.
#pragma once

#include <string>
#include <vector>

#include "msgctl/event_text.h"
#include "msgctl/flight_source.h"

namespace msgctl {

// Clients that wait for each other in a circle. None has sent anything since its request.
struct Deadlock {
  std::vector<traffic::ClientId> clients;
  std::vector<uint64_t> requests;  // the number of each one's request
  uint64_t since_ns = 0;           // when the last of them was sent
  bool certain = true;             // all requests are of types that are known to be answered
};

std::vector<Deadlock> deadlocks(const std::vector<traffic::Wait> &waits);

// The unanswered requests that the filter wants, and the circles with such a request.
struct Waiting {
  std::vector<traffic::Wait> waits;
  std::vector<Deadlock> deadlocks;
};
Waiting waiting(const Source &source, const traffic::Model::Known &answered,
                const traffic::Filter &filter);

// "panel -> station -> panel: a probable deadlock for 2.30 s"
std::string deadlock_line(const Deadlock &deadlock, const Source &source);
Json deadlock_json(const Deadlock &deadlock, const Source &source);

// A tree: below each request are those for which its receiver waits in turn.
std::vector<std::string> waits_lines(const std::vector<traffic::Wait> &waits, const Source &source,
                                     const EventText &text);
Json wait_json(const traffic::Wait &wait, const Source &source, const EventText &text);

}  // namespace msgctl
