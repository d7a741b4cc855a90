// Restful requests: applications register paths (0x109), and a request for one of them becomes a
// message (0x10D) to the application, whose answer goes back to the requester.
//
// A request for PATH goes to the longest registered text that matches. A text that matches all of
// PATH is a path and a handler's name, divided at the last "/". A text that is alone in its
// registration also matches PATH up to the last "/": the rest of PATH is then the handler's name.
// Texts may be patterns.
//
// An HTTP request that does not fit the application's queue is held until it does, for as long as
// an answer may take. When a request is given up and the application has not taken its hand-over
// file yet, the file is removed, so that an application that reads nothing does not fill the
// device.
//
// Requests come from HTTP clients, or from other applications as messages without a receiver.
// Answers to the latter go to the requester directly.

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "common/listen.h"
#include "common/log_line.h"
#include "msgapi/path.h"
#include "msgapi/restful.h"
#include "msgsvr/hand_over.h"
#include "msgsvr/http_front.h"
#include "msgsvr/report.h"
#include "msgsvr/services.h"

namespace msgsvr {
namespace {

using servers::log_line;

constexpr size_t kBodyHead = sizeof(ORP_MSG_RESTFUL_REQ_ST);
static_assert(kBodyHead == 136);

// The text travels with a NUL, and an application is given nothing longer.
constexpr size_t kLongestText = ORP_MSG_MAX_DISPATCHED_BODY - kBodyHead - 1;

// A path and a handler's name, of 63 characters each.
constexpr size_t kLongestEntry = 127;

// The library makes lists of at most 4096 bytes.
constexpr size_t kLongestList = 4096;

// ulCode of a request that came by HTTP.
constexpr std::pair<std::string_view, uint32_t> kMethods[] = {
    {"GET", 0}, {"HEAD", 0}, {"POST", 1}, {"PUT", 2}, {"DELETE", 3}, {"PATCH", 4}};

struct Registration {
  uint32_t client;
  std::string text;
  bool single;  // the registration has no other text
  Share share;
};

struct Target {
  const Registration *registration;
  std::string path;  // as the application registered it
  std::string handler;
};

// An HTTP request that waits for an application, or for room in its queue.
struct Pending {
  uint64_t exchange = 0;
  uint64_t record = 0;  // the journal's number of the request
  uint32_t client = 0;
  std::string what = {};  // for log lines
  EventLoop::TimerId timer = 0;
  std::optional<SpooledBody> unsent = {};
  uint32_t file = 0;  // number of the hand-over file that was sent; 0: none
};

// For the journal: a method that is not served, and the status of a client that left early.
constexpr uint32_t kOtherMethod = UINT32_MAX;
constexpr unsigned kNobodyWaits = 0;

constexpr std::string_view kAllowed = "GET, HEAD, POST, PUT, DELETE, PATCH";
constexpr std::chrono::milliseconds kRetryPeriod{20};

bool matches(const std::string &pattern, std::string_view path) {
  return ORP_UTIL_MatchPrefixPath(pattern.c_str(), std::string(path).c_str()) == 1;
}

std::pair<std::string, std::string> split(std::string_view text) {
  const size_t slash = text.rfind('/');
  if (slash == std::string_view::npos) return {"", std::string(text)};
  return {std::string(text.substr(0, slash)), std::string(text.substr(slash + 1))};
}

HttpAnswer failure(unsigned status, const char *why) {
  return {status, std::string(why) + '\n'};
}
HttpAnswer try_again(const char *why) {
  return {503, std::string(why) + '\n', "text/plain", true};
}

const char *content_type_of(std::string_view text) {
  const size_t start = text.find_first_not_of(" \t\r\n");
  if (start == std::string_view::npos) return "text/plain; charset=utf-8";
  const bool json = (text[start] == '{' || text[start] == '[') && nlohmann::json::accept(text);
  return json ? "application/json" : "text/plain; charset=utf-8";
}

class Restful final : public Service {
 public:
  explicit Restful(Server *server) : server_(server) {
    server->serve(ORP_MSG_RESTFUL_REGISTER,
                  [this](Client &from, const Message &m) { enter(from, m); });
    for (const uint32_t type :
         {ORP_MSG_RESTFUL_REQUEST_A, ORP_MSG_RESTFUL_REQUEST, ORP_MSG_RESTFUL_REQUEST_E}) {
      server->serve(type, [this](Client &from, const Message &m) { take(from, m); });
    }
    server->on_gone([this](Client &client) { forget(client); });
    server->on_refused([this](Client &from, const Header &header) { refused(from, header); });
    if (!server->options().http.empty()) {
      front_ = std::make_unique<HttpFront>(
          &server->loop(), servers::listen_tcp(server->options().http), limits(),
          [this](uint64_t id, HttpRequest request) { request_by_http(id, std::move(request)); },
          [this](uint64_t id) {
            const auto entry = std::ranges::find(
                pending_, id, [](const auto &each) { return each.second.exchange; });
            if (entry == pending_.end()) return;
            server_->journal().http_answered(entry->second.record, kNobodyWaits, 0);
            give_up(entry);
          });
    }
  }

  void list(Inventory *inventory) const override {
    for (const Registration &each : registrations_) {
      inventory->paths.push_back({each.text, each.client});
    }
  }

 private:
  void enter(Client &from, const Message &message) {
    const std::string body(message.body.begin(), message.body.end());
    const std::string texts = body.substr(0, body.find('\0'));
    std::vector<std::string> list;
    for (size_t at = 0; at <= texts.size() && list.size() <= kLongestList;) {
      const size_t bar = std::min(texts.find('|', at), texts.size());
      if (bar > at) list.push_back(texts.substr(at, bar - at));
      at = bar + 1;
    }
    if (list.size() > kLongestList) {
      server_->refuse(from, message, "restful paths");
      return;
    }
    const bool single = list.size() == 1;
    for (std::string &text : list) {
      if (!enter(from, message, std::move(text), single)) return;
    }
  }

  bool enter(Client &from, const Message &message, std::string text, bool single) {
    const bool known = std::ranges::any_of(registrations_, [&](const Registration &r) {
      return r.client == from.id && r.text == text && r.single == single;
    });
    if (known) return true;
    if (text.size() > kLongestEntry) {
      log_line("{} registers a path of more than {} characters", from.label(), kLongestEntry);
      server_->outbox().lose(from, message, Loss::kNotServed);
      return false;
    }
    Share share = server_->accounts().share(from.account, Kept::kPaths);
    if (!share) {
      server_->refuse(from, message, "restful paths");
      return false;
    }
    registrations_.push_back({from.id, std::move(text), single, std::move(share)});
    return true;
  }

  std::optional<Target> find(const std::string &path) const {
    const auto [directory, name] = split(path);
    std::optional<Target> best;
    for (const Registration &entry : registrations_) {
      if (best && entry.text.size() <= best->registration->text.size()) continue;
      Target target{&entry, "", ""};
      if (matches(entry.text, path)) {
        std::tie(target.path, target.handler) = split(entry.text);
      } else if (entry.single && matches(entry.text, directory)) {
        target.path = entry.text;
        target.handler = name;
      }
      if (target.path.empty() || target.path.size() >= ORP_MSG_RESTFUL_FIELD_SIZE ||
          target.handler.empty() || target.handler.size() >= ORP_MSG_RESTFUL_FIELD_SIZE) {
        continue;
      }
      best = target;
    }
    return best;
  }

  std::chrono::milliseconds time_limit() const {
    return std::chrono::milliseconds(server_->options().http_timeout_ms);
  }

  HttpLimits limits() const {
    HttpLimits limits{kLongestText, kBodyHead, time_limit()};
    limits.guard =
        HttpGuard{server_->options().http_hosts, {}, &server_->journal().http_refusals()};
    const std::string &token = server_->options().http_token;
    if (!token.empty()) limits.guard->token = read_token(token);
    return limits;
  }

  void request_by_http(uint64_t id, HttpRequest request) {
    const auto method = std::ranges::find(kMethods, std::string_view(request.method),
                                          [](const auto &entry) { return entry.first; });
    const bool served = method != std::end(kMethods);
    const uint64_t record = server_->journal().http_requested(
        served ? method->second : kOtherMethod, request.body.text_size(), request.path);
    if (!served) {
      HttpAnswer refusal = failure(405, "method not allowed");
      refusal.allow = kAllowed;
      answer(id, record, std::move(refusal));
      return;
    }
    if (!server_->gate().may_request(server_->options().http, request.method, request.path)) {
      answer(id, record, failure(403, "not permitted"));
      return;
    }
    const std::optional<Target> target = find(request.path);
    Client *client = target ? server_->by_id(target->registration->client) : nullptr;
    if (client == nullptr) {
      answer(id, record, failure(404, "no application serves this"));
      return;
    }

    ORP_MSG_RESTFUL_REQ_ST head{};
    head.ulCode = method->second;
    target->path.copy(head.aucPath, sizeof head.aucPath - 1);
    target->handler.copy(head.aucHandler, sizeof head.aucHandler - 1);
    SpooledBody &body = request.body;
    if ((body.text_size() == 0 && !body.append(request.query)) ||
        !body.finish({reinterpret_cast<const char *>(&head), sizeof head})) {
      log_line("the body of {} {} cannot be kept: {}", request.method, request.path,
               std::strerror(errno));
      answer(id, record, try_again("no room for the body"));
      return;
    }

    const uint32_t sequence = ++last_sequence_;
    Pending &pending = pending_[sequence];
    pending.exchange = id;
    pending.record = record;
    pending.client = client->id;
    pending.what = request.method + ' ' + request.path;
    pending.unsent.emplace(std::move(body));
    pending.timer = server_->loop().after(time_limit(), [this, sequence] { time_out(sequence); });
    if (try_to_send(sequence)) return;
    if (client->backlog.slow) {
      log_line("{} does not read: {} is refused", client->label(), pending.what);
      finish(sequence, try_again("the application is busy"));
    } else if (retry_timer_ == 0) {
      plan_retry();
    }
  }

  // False while there is no room for that request in the application's queue. Otherwise it is on
  // its way, or its client has been told to try again.
  bool try_to_send(uint32_t sequence) {
    const auto entry = pending_.find(sequence);
    if (entry == pending_.end()) return true;
    Pending &pending = entry->second;
    Client *client = server_->by_id(pending.client);
    if (client == nullptr) return false;
    const bool here = client->address.empty();  // and shares our files
    SpooledBody &body = *pending.unsent;
    const size_t size = kHeaderSize + (body.file() == 0 ? body.memory().size()
                                       : here           ? size_t{ORP_MSG_HAND_OVER_PATH_SIZE}
                                                        : kBodyHead + body.text_size() + 1);
    // A message of any size finds room in an empty queue.
    if (!client->out.empty() && client->out.weight() + size > client->out.limit()) return false;

    Header header{};
    header.ulMsgType = ORP_MSG_RESTFUL_REQUEST;
    header.ulSeqNum = sequence;
    AppName(kServerName).store(header.aucSendApp);
    client->name.store(header.aucRecvApp);
    if (body.file() == 0) {
      server_->outbox().send(*client, header, body.memory());
    } else if (here) {
      header.ulMsgType |= ORP_MSG_TYPE_BODY_IN_FILE;
      pending.file = body.give_away();
      give_hand_over(pending.file, client->peer.uid);
      server_->outbox().send(*client, header, hand_over_body(pending.file), pending.file);
    } else {
      std::string bytes;
      if (!body.read(&bytes)) {
        log_line("the body of {} is lost: {}", pending.what, std::strerror(errno));
        finish(sequence, try_again("the body is lost"));
        return true;
      }
      server_->outbox().send(*client, header, bytes);
    }
    pending.unsent.reset();
    const uint64_t lost = client->lost;
    server_->outbox().flush();
    if (client->lost != lost) finish(sequence, try_again("the application is busy"));
    return true;
  }

  // Tries again to send the requests that are held, oldest first.
  void plan_retry() {
    retry_timer_ = server_->loop().after(kRetryPeriod, [this] {
      retry_timer_ = 0;
      // Sending one may end its application, and with that any of these.
      std::vector<uint32_t> held;
      for (const auto &[sequence, pending] : pending_) {
        if (pending.unsent) held.push_back(sequence);
      }
      bool some_stay = false;
      for (const uint32_t sequence : held) some_stay |= !try_to_send(sequence);
      if (some_stay) plan_retry();
    });
  }

  void time_out(uint32_t sequence) {
    const auto entry = pending_.find(sequence);
    if (entry == pending_.end()) return;
    const Pending &pending = entry->second;
    Client *client = server_->by_id(pending.client);
    const std::string label = client == nullptr ? "" : client->label();
    if (pending.unsent) {
      log_line("{} has no room in {}'s queue and is refused", pending.what, label);
      finish(sequence, try_again("the application is busy"));
      return;
    }
    log_line("{} has not answered {}: it is busy, or has no such handler, or that has failed",
             label, pending.what);
    finish(sequence, failure(504, "the application does not answer"));
  }

  // An answer to one of ours, or a request of another application.
  void take(Client &from, const Message &message) {
    if (AppName(std::string_view(message.header.aucRecvApp)).empty()) {
      pass_on(from, message);
      return;
    }
    const auto entry = pending_.find(message.header.ulSeqNum);
    if (entry == pending_.end() || entry->second.client != from.id) return;  // too late
    const std::string body(message.body.begin(), message.body.end());
    const std::string text = body.substr(0, body.find('\0'));
    finish(entry->first, {200, text, content_type_of(text)});
  }

  void pass_on(Client &from, const Message &message) {
    ORP_MSG_RESTFUL_REQ_ST head{};
    std::memcpy(&head, message.body.data(), std::min(message.body.size(), sizeof head));
    const std::string path(head.aucPath, ::strnlen(head.aucPath, sizeof head.aucPath));
    const std::string name(head.aucHandler, ::strnlen(head.aucHandler, sizeof head.aucHandler));
    // The requester gives the registration's own text.
    const auto entry = std::ranges::find_if(registrations_, [&](const Registration &r) {
      return (r.single && r.text == path) || r.text == path + "/" + name;
    });
    Client *to = entry == registrations_.end() ? nullptr : server_->by_id(entry->client);
    if (to == nullptr) {
      server_->outbox().lose(from, message, Loss::kNoSuchName);
      return;
    }
    if (!server_->gate().passes(from, to, message.type())) {
      server_->outbox().lose(from, message, Loss::kNotPermitted);
      return;
    }
    // The sender's name stays, so that the answer finds its way.
    Header header = message.header;
    header.ulMsgType = message.type();
    to->name.store(header.aucRecvApp);
    server_->outbox().send_on(*to, header, message.body, from, message);
  }

  // A message of `from` for the server that could not be taken.
  void refused(Client &from, const Header &header) {
    const uint32_t type = header.ulMsgType & ORP_MSG_TYPE_MASK;
    if (type != ORP_MSG_RESTFUL_REQUEST || AppName(std::string_view(header.aucRecvApp)).empty()) {
      return;
    }
    const auto entry = pending_.find(header.ulSeqNum);
    if (entry == pending_.end() || entry->second.client != from.id) return;
    log_line("the answer of {} to {} cannot be passed on: too long, or its file cannot be read",
             from.label(), entry->second.what);
    finish(entry->first, failure(502, "the application's answer is too long or cannot be read"));
  }

  void finish(uint32_t sequence, HttpAnswer answer) {
    const auto entry = pending_.find(sequence);
    if (entry == pending_.end()) return;
    const uint64_t exchange = entry->second.exchange;
    const uint64_t record = entry->second.record;
    give_up(entry);
    this->answer(exchange, record, std::move(answer));
  }

  void answer(uint64_t exchange, uint64_t record, HttpAnswer answer) {
    server_->journal().http_answered(record, answer.status, answer.text.size());
    front_->answer(exchange, std::move(answer));
  }

  void give_up(std::map<uint32_t, Pending>::iterator entry) {
    server_->loop().cancel(entry->second.timer);
    if (entry->second.file != 0) remove_hand_over(entry->second.file);
    pending_.erase(entry);
  }

  void forget(const Client &client) {
    std::erase_if(registrations_, [&](const Registration &r) { return r.client == client.id; });
    std::vector<uint32_t> lost;
    for (const auto &[sequence, pending] : pending_) {
      if (pending.client == client.id) lost.push_back(sequence);
    }
    for (uint32_t sequence : lost) {
      log_line("{} left without an answer to {}", client.label(), pending_[sequence].what);
      finish(sequence, failure(502, "the application has gone"));
    }
  }

  Server *server_;
  std::vector<Registration> registrations_;  // oldest first
  std::map<uint32_t, Pending> pending_;      // by our sequence number
  uint32_t last_sequence_ = 0;
  EventLoop::TimerId retry_timer_ = 0;
  std::unique_ptr<HttpFront> front_;
};

}  // namespace

std::unique_ptr<Service> make_restful(Server *server) {
  return std::make_unique<Restful>(server);
}

}  // namespace msgsvr
