// The admin socket: HTTP on a Unix socket, for those who look after the server. The interface is in
// docs/admin-interface.md.
//
// The loop only copies the facts that an answer needs. A thread makes the text, because it asks the
// kernel for programs and the user database for names, which may take long. One answer is made
// after the other, so there is only one set of facts in memory, however many ask.

#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstring>
#include <deque>
#include <exception>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "common/listen.h"
#include "common/log_line.h"
#include "msgsvr/http_front.h"
#include "msgsvr/report.h"
#include "msgsvr/services.h"
#include "msgsvr/worker.h"

namespace msgsvr {
namespace {

using servers::log_line;

constexpr size_t kMostConnections = 16;
constexpr std::chrono::seconds kPatience{10};
constexpr std::string_view kClientPath = "/v1/clients/";
constexpr const char *kJson = "application/json";
constexpr const char *kOpenMetrics = "application/openmetrics-text; version=1.0.0; charset=utf-8";

constexpr const char *kKept[] = {"connections", "unfinished_bytes", "subscriptions", "sync_points",
                                 "paths",       "descriptors",      "jobs"};
static_assert(std::size(kKept) == kKindsKept);

enum class Question { kClients, kClient, kTotals, kSubscriptions, kPaths, kMetrics };
constexpr std::pair<std::string_view, Question> kQuestions[] = {
    {"/v1/clients", Question::kClients},
    {"/v1/stats", Question::kTotals},
    {"/v1/subscriptions", Question::kSubscriptions},
    {"/v1/paths", Question::kPaths},
    {"/metrics", Question::kMetrics}};

struct Facts {
  Question question;
  std::vector<ClientFacts> clients;
  Details details;
  Inventory inventory;
  Totals totals;
};

double in_seconds(std::chrono::duration<double> time) {
  return time.count();
}

HttpAnswer failure(unsigned status, std::string_view why) {
  return {status, error_json(why), kJson};
}

HttpAnswer answer_of(const Facts &facts) {
  switch (facts.question) {
    case Question::kClients:
      return {200, clients_json(facts.clients), kJson};
    case Question::kClient:
      return {200, client_json(facts.clients.front(), facts.details, facts.inventory), kJson};
    case Question::kTotals:
      return {200, totals_json(facts.totals), kJson};
    case Question::kSubscriptions:
      return {200, subscriptions_json(facts.inventory, facts.clients), kJson};
    case Question::kPaths:
      return {200, paths_json(facts.inventory, facts.clients), kJson};
    case Question::kMetrics:
      return {200, metrics_text(facts.totals, facts.clients), kOpenMetrics};
  }
  return failure(500, "unknown question");
}

// Only for the server's own user and, if there is one, the group.
servers::UniqueFd listen_privately(const std::string &path, const std::string &group) {
  servers::UniqueFd fd = servers::listen_unix(path, 0600);
  if (group.empty()) return fd;
  const struct group *entry = ::getgrnam(group.c_str());
  if (entry == nullptr) {
    log_line("there is no group {}: {} is for the server's own user alone", group, path);
  } else if (::chown(path.c_str(), static_cast<uid_t>(-1), entry->gr_gid) != 0 ||
             ::chmod(path.c_str(), 0660) != 0) {
    log_line("{} cannot be given to the group {}: {}", path, group, std::strerror(errno));
  }
  return fd;
}

class Admin final : public Service {
 public:
  Admin(Server *server, const Services *services)
      : server_(server),
        services_(services),
        path_(server->options().admin),
        front_(
            std::in_place, &server->loop(), listen_privately(path_, server->options().admin_group),
            HttpLimits{0, 0, kPatience, kMostConnections, true},
            [this](uint64_t id, HttpRequest request) { take(id, request); },
            [this](uint64_t id) {
              std::erase_if(waiting_, [id](const Waiting &each) { return each.exchange == id; });
            }),
        worker_(&server->loop()) {}
  ~Admin() override {
    front_.reset();
    servers::remove_unix(path_);
  }

 private:
  struct Waiting {
    uint64_t exchange;
    Question question;
    uint32_t client;
  };

  void take(uint64_t id, const HttpRequest &request) {
    const bool reads = request.method == "GET" || request.method == "HEAD";
    const auto question = std::ranges::find(kQuestions, std::string_view(request.path),
                                            [](const auto &each) { return each.first; });
    if (question != std::end(kQuestions)) {
      if (!reads) return refuse_method(id, "GET, HEAD");
      waiting_.push_back({id, question->second, 0});
      return next();
    }
    if (!request.path.starts_with(kClientPath)) {
      return front_->answer(id, failure(404, "there is no such resource"));
    }
    const std::string_view digits = std::string_view(request.path).substr(kClientPath.size());
    uint32_t client = 0;
    const auto [end, error] = std::from_chars(digits.begin(), digits.end(), client);
    if (error != std::errc() || end != digits.end()) {
      return front_->answer(id, failure(400, "a client is named by its number"));
    }
    if (request.method == "DELETE") return disconnect(id, client);
    if (!reads) return refuse_method(id, "GET, HEAD, DELETE");
    waiting_.push_back({id, Question::kClient, client});
    next();
  }

  void refuse_method(uint64_t id, const char *allowed) {
    HttpAnswer answer = failure(405, "method not allowed");
    answer.allow = allowed;
    front_->answer(id, std::move(answer));
  }

  void disconnect(uint64_t id, uint32_t client) {
    if (!server_->disconnect(client, "by the admin interface")) {
      return front_->answer(id, failure(404, "there is no such client"));
    }
    front_->answer(id, {204, "", ""});
  }

  void next() {
    while (!busy_ && !waiting_.empty()) {
      const Waiting waiting = waiting_.front();
      waiting_.pop_front();
      const auto facts = std::make_shared<Facts>();
      if (!gather(waiting, facts.get())) {
        front_->answer(waiting.exchange, failure(404, "there is no such client"));
        continue;
      }
      const auto answer = std::make_shared<HttpAnswer>();
      worker_.run(
          [facts, answer] {
            try {
              *answer = answer_of(*facts);
            } catch (const std::exception &error) {
              log_line("an answer of the admin interface cannot be made: {}", error.what());
              *answer = {500, "{\"error\":\"the answer cannot be made\"}\n", kJson};
            }
          },
          [this, exchange = waiting.exchange, answer] {
            busy_ = false;
            front_->answer(exchange, std::move(*answer));
            next();
          });
      busy_ = true;
    }
  }

  // False when there is no such client.
  bool gather(const Waiting &waiting, Facts *facts) const {
    facts->question = waiting.question;
    if (waiting.question == Question::kClient) {
      const Client *client = server_->by_id(waiting.client);
      if (client == nullptr) return false;
      facts->clients.push_back(facts_of(*client));
      facts->details = details_of(*client);
    } else if (waiting.question != Question::kTotals) {
      facts->clients.reserve(server_->clients().size());
      for (const auto &[id, client] : server_->clients()) {
        facts->clients.push_back(facts_of(*client));
      }
      std::ranges::sort(facts->clients, {}, &ClientFacts::id);
    }
    if (waiting.question == Question::kTotals || waiting.question == Question::kMetrics) {
      facts->totals = totals();
    } else if (waiting.question != Question::kClients) {
      for (const auto &service : *services_) service->list(&facts->inventory);
    }
    return true;
  }

  static ClientFacts facts_of(const Client &client) {
    return {client.id,
            client.name,
            client.peer,
            client.address,
            in_seconds(client.connected_at.time_since_epoch()),
            in_seconds(EventLoop::Clock::now() - client.connected),
            client.swapped,
            client.backlog.slow,
            client.holds > 0,
            client.frames_in,
            client.bytes_in,
            client.out.frames_written(),
            client.out.bytes_written(),
            client.out.weight(),
            client.out.limit(),
            client.lost};
  }

  Details details_of(const Client &client) const {
    Details details{!client.in.between_frames(), {}};
    for (size_t i = 0; i < kKindsKept; ++i) {
      details.limits.push_back({kKept[i], client.account->kept[i], client.account->user->kept[i],
                                server_->options().limits[i]});
    }
    return details;
  }

  Totals totals() const {
    const Journal &journal = server_->journal();
    Totals totals{};
    totals.started_at = in_seconds(started_at_.time_since_epoch());
    totals.uptime_s = in_seconds(EventLoop::Clock::now() - started_);
    totals.clients = server_->clients().size();
    totals.statistics = journal.statistics();
    for (const auto &[id, client] : server_->clients()) {
      totals.statistics.frames_out += client->out.frames_written();
      totals.statistics.bytes_out += client->out.bytes_written();
    }
    totals.http_refused = journal.http_refused();
    totals.failed_callbacks = server_->loop().failures();
    for (const Culprit &each : journal.culprits()) {
      if (each.count > 0) totals.culprits.push_back(each);
    }
    std::ranges::sort(totals.culprits, std::ranges::greater{}, &Culprit::count);
    totals.flight_size = journal.recorder().ring_size();
    totals.flight_records = journal.recorder().count();
    return totals;
  }

  Server *server_;
  const Services *services_;
  const std::string path_;
  const std::chrono::system_clock::time_point started_at_ = std::chrono::system_clock::now();
  const EventLoop::Clock::time_point started_ = EventLoop::Clock::now();
  std::deque<Waiting> waiting_;
  bool busy_ = false;  // an answer is being made
  std::optional<HttpFront> front_;
  Worker worker_;  // last: its jobs' results use the above
};

}  // namespace

std::unique_ptr<Service> make_admin(Server *server, const Services *services) {
  return std::make_unique<Admin>(server, services);
}

}  // namespace msgsvr
