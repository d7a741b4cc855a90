#include "msgctl/waits_text.h"

#include <fmt/core.h>

#include <algorithm>
#include <map>
#include <set>

#include "msgctl/output.h"

namespace msgctl {
namespace {

using traffic::ClientId;
using traffic::Wait;

// Deeper trees are cut: they would only take room.
constexpr size_t kMostDepth = 32;

uint64_t age_ns(uint64_t since_ns, const Source &source) {
  const uint64_t now_ns = source.now_ns();
  return now_ns < since_ns ? 0 : now_ns - since_ns;
}

}  // namespace

std::vector<Deadlock> deadlocks(const std::vector<Wait> &waits) {
  // A client that goes on sending is not stuck.
  std::vector<Wait> silent;
  std::map<ClientId, const Wait *> by_client;
  std::copy_if(waits.begin(), waits.end(), std::back_inserter(silent),
               [](const Wait &wait) { return wait.silent; });
  for (const Wait &wait : silent) by_client[wait.request->from] = &wait;

  std::vector<Deadlock> found;
  for (const std::vector<ClientId> &circle : traffic::Model::circles(silent)) {
    Deadlock deadlock;
    deadlock.clients = circle;
    for (const ClientId client : circle) {
      const Wait &wait = *by_client.at(client);
      deadlock.requests.push_back(wait.request->number);
      deadlock.since_ns = std::max(deadlock.since_ns, wait.request->accepted_ns);
      deadlock.certain = deadlock.certain && wait.certain;
    }
    // A client that sends itself a message may well not expect an answer.
    if (circle.size() > 1 || deadlock.certain) found.push_back(std::move(deadlock));
  }
  return found;
}

Waiting waiting(const Source &source, const traffic::Model::Known &answered,
                const traffic::Filter &filter) {
  const std::vector<Wait> all = source.model().waits(answered);
  Waiting wanted;
  std::set<uint64_t> numbers;
  for (const Wait &wait : all) {
    const traffic::Message &request = *wait.request;
    if (!filter.matches(request, source.wall_ns(request.accepted_ns), source.model())) continue;
    wanted.waits.push_back(wait);
    numbers.insert(request.number);
  }
  for (Deadlock &each : deadlocks(all)) {
    const bool has_one = std::any_of(each.requests.begin(), each.requests.end(),
                                     [&](uint64_t number) { return numbers.contains(number); });
    if (has_one) wanted.deadlocks.push_back(std::move(each));
  }
  return wanted;
}

std::string deadlock_line(const Deadlock &deadlock, const Source &source) {
  std::string path;
  for (const ClientId client : deadlock.clients) path += label(source.model(), client) + " -> ";
  path += label(source.model(), deadlock.clients.front());
  std::string text = fmt::format("{}: a probable deadlock for {}", path,
                                 duration_text(age_ns(deadlock.since_ns, source)));
  if (!deadlock.certain) {
    text +=
        " (if such messages are answered: the catalogue does not say so, and no answer was seen)";
  }
  return text;
}

Json deadlock_json(const Deadlock &deadlock, const Source &source) {
  Json clients = Json::array();
  for (const ClientId client : deadlock.clients) clients.push_back(source.model().label(client));
  return {{"deadlock", clients},
          {"requests", deadlock.requests},
          {"since", date_text(source.wall_ns(deadlock.since_ns))},
          {"for_ns", age_ns(deadlock.since_ns, source)},
          {"certain", deadlock.certain}};
}

std::vector<std::string> waits_lines(const std::vector<Wait> &waits, const Source &source,
                                     const EventText &text) {
  std::map<ClientId, std::vector<const Wait *>> by_client;
  std::set<ClientId> awaited;
  for (const Wait &wait : waits) {
    by_client[wait.request->from].push_back(&wait);
    awaited.insert(wait.request->to);
  }

  std::vector<std::string> lines;
  std::set<const Wait *> printed;
  const auto print = [&](const auto &self, ClientId client, size_t depth) -> void {
    const auto own = by_client.find(client);
    if (own == by_client.end() || depth > kMostDepth) return;
    for (const Wait *wait : own->second) {
      if (!printed.insert(wait).second) continue;
      const traffic::Message &request = *wait->request;
      lines.push_back(fmt::format("{}{} waits for {}: {} #{}, since {} ({}){}",
                                  std::string(2 * depth, ' '), label(source.model(), request.from),
                                  label(source.model(), request.to), text.type(request.type()),
                                  request.header.ulSeqNum,
                                  time_text(source.wall_ns(request.accepted_ns)),
                                  duration_text(age_ns(request.accepted_ns, source)),
                                  wait->certain  ? ""
                                  : wait->silent ? ", perhaps: it sent nothing since"
                                                 : ", and goes on meanwhile"));
      self(self, request.to, depth + 1);
    }
  };
  // Clients for whom nobody waits are the roots. A circle has no root and begins anywhere.
  for (const auto &[client, own] : by_client) {
    if (!awaited.contains(client)) print(print, client, 0);
  }
  for (const Wait &wait : waits) print(print, wait.request->from, 0);
  return lines;
}

Json wait_json(const Wait &wait, const Source &source, const EventText &text) {
  const traffic::Message &request = *wait.request;
  return {{"from", source.model().label(request.from)},
          {"to", source.model().label(request.to)},
          {"type", request.type()},
          {"type_name", text.type(request.type())},
          {"sequence", request.header.ulSeqNum},
          {"number", request.number},
          {"since", date_text(source.wall_ns(request.accepted_ns))},
          {"for_ns", age_ns(request.accepted_ns, source)},
          {"certain", wait.certain},
          {"silent", wait.silent}};
}

}  // namespace msgctl
