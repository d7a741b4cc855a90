// The HTTP library runs on a thread of its own, polled by an event loop of its own. Only whole
// requests cross over to the message loop, and only answers come back. So nothing that the library
// does, however long it takes, stops a message. The library aborts the process when the kernel
// refuses it something that it thinks cannot be refused; its thread is parked instead, and
// HttpFront starts another. The two crossings cost a GET some microseconds.
//
// Connections are accepted here and not by the library. When there are too many, the library takes
// its listening socket out of its descriptor set, and from some of these states it has no way back.
//
// Nobody can lock others out. When all places are taken, a new connection replaces one that has no
// whole request yet: of the network with the most connections, the one that has been quiet the
// longest. Longer bodies are received while there is room for them; until there is, their
// connections are not read from, which costs nothing. While some wait, a body that next to nothing
// comes of loses its room.

#include "msgsvr/http_daemon.h"

#include <microhttpd.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <new>
#include <stdexcept>
#include <tuple>
#include <utility>

#include "common/log_line.h"

namespace msgsvr {
namespace {

using servers::log_line;
using servers::UniqueFd;

constexpr unsigned kIdleSeconds = 30;
constexpr std::chrono::milliseconds kSweepPeriod{1000};
constexpr std::chrono::milliseconds kWaitingSweepPeriod{100};

// Bodies of all requests together, received or being received, until they are answered.
constexpr size_t kMostHeld = size_t{32} << 20;
// Shorter ones are not counted: those of all connections together are as much as one long body.
constexpr size_t kShortBody = 16384;
// While others wait for room, as many bytes of a longer body must come within this many sweeps.
// They are counted, not timed: each reads what is there, and this thread may have had to wait
// itself.
constexpr int kSweepsForShortBody = 10;

constexpr int kLostAnswer = 4;
constexpr MHD_UNSIGNED_LONG_LONG kNever_ms = 3600000;

constexpr ptrdiff_t kMostArguments = 100;

// Then the loop's other descriptors have their turn.
constexpr int kMostRounds = 8;
constexpr int kMostAccepted = 32;

thread_local HttpDaemon *t_daemon;

constexpr std::string_view kPlainText = "text/plain";

HttpAnswer busy(const char *why) {
  return {MHD_HTTP_SERVICE_UNAVAILABLE, why, "text/plain", true};
}

// The network of an address: all of an IPv4 address, the first half of an IPv6 address.
std::string network_of(const sockaddr *address) {
  if (address->sa_family == AF_INET) {
    const auto &ip4 = reinterpret_cast<const sockaddr_in *>(address)->sin_addr;
    return std::string(reinterpret_cast<const char *>(&ip4), sizeof ip4);
  }
  if (address->sa_family != AF_INET6) return {};
  const auto &ip6 = reinterpret_cast<const sockaddr_in6 *>(address)->sin6_addr;
  const char *bytes = reinterpret_cast<const char *>(&ip6);
  if (IN6_IS_ADDR_V4MAPPED(&ip6)) return std::string(bytes + 12, 4);
  return std::string(bytes, 8);
}

}  // namespace

struct HttpDaemon::Exchange {
  Exchange(Connection *connection_in, MHD_Connection *library_in, size_t body_head)
      : connection(connection_in),
        library(library_in),
        request{{}, {}, {}, SpooledBody(body_head)} {}

  Connection *connection;
  MHD_Connection *library;
  HttpRequest request;
  uint64_t id = 0;
  size_t reserved = 0;  // of the room for bodies
  size_t wanted = 0;    // room that it waits for
  int sweeps = 0;       // while others waited, since the body had this size:
  size_t size_then = 0;
  bool held = false;      // the next call repeats the one with the headers
  bool refused = false;   // `answer` is its answer; the rest of the body is thrown away
  bool answered = false;  // by the application
  HttpAnswer answer;
};

// The functions that the library calls. No exception may pass through the library: a request for
// which there is no memory ends its connection.
struct HttpCallbacks {
  using Connection = HttpDaemon::Connection;
  using Exchange = HttpDaemon::Exchange;

  static void connection_changed(void *daemon_pointer, MHD_Connection *library, void **context,
                                 MHD_ConnectionNotificationCode change) {
    auto *daemon = static_cast<HttpDaemon *>(daemon_pointer);
    if (change == MHD_CONNECTION_NOTIFY_CLOSED) {
      const auto entry = daemon->connections_.find(library);
      if (entry == daemon->connections_.end()) return;
      if (entry->second.condemned) --daemon->condemned_;
      daemon->connections_.erase(entry);
      return;
    }
    try {
      Connection &connection = daemon->connections_[library];
      *context = &connection;
      connection.fd =
          ::MHD_get_connection_info(library, MHD_CONNECTION_INFO_CONNECTION_FD)->connect_fd;
      connection.network = network_of(
          ::MHD_get_connection_info(library, MHD_CONNECTION_INFO_CLIENT_ADDRESS)->client_addr);
      connection.since = HttpDaemon::Clock::now();
    } catch (const std::bad_alloc &) {
      // Its first request will find no context.
    }
  }

  static Connection *context_of(MHD_Connection *library) {
    return static_cast<Connection *>(
        ::MHD_get_connection_info(library, MHD_CONNECTION_INFO_SOCKET_CONTEXT)->socket_context);
  }

  // The first call for a connection's next request. It returns nothing to the library, which would
  // lose it when it refuses the request.
  static void *log_uri(void *daemon, const char *uri, MHD_Connection *library) {
    Connection *connection = context_of(library);
    if (connection == nullptr) return nullptr;
    connection->stage = HttpDaemon::Stage::kReceiving;
    connection->since = HttpDaemon::Clock::now();
    connection->query.clear();
    const std::string_view text(uri);
    const size_t question = text.find('?');
    try {
      if (question != std::string_view::npos) connection->query = text.substr(question + 1);
    } catch (const std::bad_alloc &) {
      connection->out_of_memory = true;
    }
    if (std::ranges::count(connection->query, '&') > kMostArguments) {
      static_cast<HttpDaemon *>(daemon)->refuse_uri(*connection);
    }
    return nullptr;
  }

  static MHD_Result access(void *daemon, MHD_Connection *library, const char *url,
                           const char *method, const char *, const char *upload,
                           size_t *upload_size, void **state) {
    Connection *connection = context_of(library);
    if (connection == nullptr || connection->out_of_memory) return MHD_NO;
    try {
      auto *self = static_cast<HttpDaemon *>(daemon);
      if (*state == nullptr) {
        auto fresh = std::make_unique<Exchange>(connection, library, self->limits_.body_head);
        connection->exchange = fresh.get();
        *state = fresh.release();
        return static_cast<MHD_Result>(
            self->begin(*connection, *connection->exchange, method, url));
      }
      return static_cast<MHD_Result>(
          self->receive(*static_cast<Exchange *>(*state), upload, upload_size));
    } catch (const std::exception &error) {
      log_line("an HTTP request is dropped: {}", error.what());
      return MHD_NO;
    }
  }

  static void completed(void *daemon, MHD_Connection *, void **state, MHD_RequestTerminationCode) {
    const std::unique_ptr<Exchange> exchange(
        static_cast<Exchange *>(std::exchange(*state, nullptr)));
    if (exchange != nullptr) static_cast<HttpDaemon *>(daemon)->complete(*exchange);
  }

  // The library's last call before it aborts.
  static void panic(void *, const char *, unsigned, const char *reason) {
    if (t_daemon == nullptr) std::abort();
    t_daemon->park(reason == nullptr ? "the HTTP library gave up" : reason);
  }
};

HttpDaemon::HttpDaemon(UniqueFd listener, const HttpLimits &limits, uint64_t first_id)
    : acceptor_(std::move(listener)), limits_(limits), next_id_(first_id) {
  ::MHD_set_panic_func(&HttpCallbacks::panic, nullptr);
  daemon_ = ::MHD_start_daemon(
      MHD_USE_EPOLL | MHD_ALLOW_SUSPEND_RESUME | MHD_USE_NO_LISTEN_SOCKET, 0, nullptr, nullptr,
      &HttpCallbacks::access, this, MHD_OPTION_CONNECTION_LIMIT,
      static_cast<unsigned>(2 * limits_.connections), MHD_OPTION_CONNECTION_TIMEOUT, kIdleSeconds,
      MHD_OPTION_URI_LOG_CALLBACK, &HttpCallbacks::log_uri, this, MHD_OPTION_NOTIFY_COMPLETED,
      &HttpCallbacks::completed, this, MHD_OPTION_NOTIFY_CONNECTION,
      &HttpCallbacks::connection_changed, this, MHD_OPTION_END);
  if (daemon_ == nullptr) throw std::runtime_error("cannot start the HTTP server");
  try {
    loop_.add(::MHD_get_daemon_info(daemon_, MHD_DAEMON_INFO_EPOLL_FD)->epoll_fd, EPOLLIN,
              &run_watch_);
    loop_.add(replies.fd(), EPOLLIN, &reply_watch_);
    loop_.add(acceptor_.fd(), EPOLLIN, &accept_watch_);
    // Signals are the message loop's.
    sigset_t all, before;
    ::sigfillset(&all);
    ::pthread_sigmask(SIG_BLOCK, &all, &before);
    try {
      thread_ = std::thread([this] { work(); });
    } catch (...) {
      ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
      throw;
    }
    ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
  } catch (...) {
    ::MHD_stop_daemon(daemon_);
    throw;
  }
}

bool HttpDaemon::stop() {
  ends_ = true;
  replies.ring();
  state_.wait(State::kRunning);
  if (broken()) return false;
  thread_.join();
  return true;
}

void HttpDaemon::work() {
  t_daemon = this;
  try {
    loop_.run();
    stop_daemon();
  } catch (const std::exception &error) {
    park(error.what());
  }
  state_ = State::kEnded;
  state_.notify_all();
}

void HttpDaemon::stop_daemon() {
  // Suspended connections must be resumed before the end.
  for (Exchange *exchange : std::exchange(waiting_, {})) refuse_waiting(*exchange);
  for (const auto &[id, exchange] : std::exchange(answering_, {})) {
    exchange->answered = true;
    exchange->answer = busy("the server ends\n");
    ::MHD_resume_connection(exchange->library);
  }
  ::MHD_run(daemon_);
  ::MHD_stop_daemon(daemon_);
}

// From now on nothing of the library may be touched, and nothing that it points to may be freed.
void HttpDaemon::park(std::string_view reason) {
  for (const auto &[library, connection] : connections_) {
    ::close(connection.fd);
    if (connection.exchange != nullptr) connection.exchange->request.body.discard();
  }
  try {
    reason_ = reason;
  } catch (const std::bad_alloc &) {
  }
  state_ = State::kBroken;
  state_.notify_all();
  events.ring();
  for (;;) ::pause();
}

void HttpDaemon::accept() {
  for (int i = 0; i < kMostAccepted; ++i) {
    UniqueFd fd = acceptor_.accept();
    if (!fd) break;
    sockaddr_storage address{};
    socklen_t size = sizeof address;
    auto *generic = reinterpret_cast<sockaddr *>(&address);
    if (::getpeername(fd.get(), generic, &size) != 0) continue;  // it has gone again
    if (!make_room()) {
      constexpr std::string_view kBusy =
          "HTTP/1.1 503 Service Unavailable\r\nRetry-After: 1\r\nConnection: close\r\n"
          "Content-Length: 0\r\n\r\n";
      [[maybe_unused]] const ssize_t sent =
          ::send(fd.get(), kBusy.data(), kBusy.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
      continue;
    }
    ::MHD_add_connection(daemon_, fd.release(), generic, size);  // closes it if it fails
  }
  if (sweep_timer_ == 0) plan_sweep();
  run();
}

// False when every place is taken by a request that is being answered.
bool HttpDaemon::make_room() {
  if (connections_.size() - condemned_ < limits_.connections) return true;
  std::unordered_map<std::string_view, size_t> counts;
  for (const auto &[library, connection] : connections_) {
    if (!connection.condemned) ++counts[connection.network];
  }
  const auto priority = [&counts](const Connection &c) {
    return std::tuple(counts[c.network], c.stage == Stage::kIdle, Clock::now() - c.since);
  };
  Connection *found = nullptr;
  for (auto &[library, connection] : connections_) {
    if (connection.condemned || connection.stage == Stage::kAnswering) continue;
    if (found == nullptr || priority(connection) > priority(*found)) found = &connection;
  }
  if (found == nullptr) return false;
  condemn(*found);
  return true;
}

// The library notices the end of the stream and closes it.
void HttpDaemon::condemn(Connection &connection) {
  if (connection.condemned) return;
  connection.condemned = true;
  ++condemned_;
  ::shutdown(connection.fd, SHUT_RDWR);
  if (connection.exchange != nullptr && std::erase(waiting_, connection.exchange) > 0) {
    refuse_waiting(*connection.exchange);
  }
}

// The library splits a query, though nobody asks for the parts, and does not answer when they do
// not fit its memory. So this answers. Nothing else has been sent for this request yet.
void HttpDaemon::refuse_uri(Connection &connection) {
  constexpr std::string_view kTooLong =
      "HTTP/1.1 414 URI Too Long\r\nConnection: close\r\nContent-Length: 0\r\n\r\n";
  [[maybe_unused]] const ssize_t sent =
      ::send(connection.fd, kTooLong.data(), kTooLong.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
  condemn(connection);
}

void HttpDaemon::run() {
  // The library often has more to do right away.
  MHD_UNSIGNED_LONG_LONG timeout_ms = 0;
  bool waits = true;
  for (int round = 0; round < kMostRounds && waits && timeout_ms == 0; ++round) {
    ::MHD_run(daemon_);
    grant();
    waits = ::MHD_get_timeout(daemon_, &timeout_ms) == MHD_YES;
  }
  loop_.cancel(std::exchange(run_timer_, 0));
  // A later time is a sweep's.
  const std::chrono::milliseconds delay(waits ? std::min(timeout_ms, kNever_ms) : kNever_ms);
  if (delay < kSweepPeriod) run_timer_ = loop_.after(delay, [this] { run(); });
}

void HttpDaemon::plan_sweep() {
  loop_.cancel(std::exchange(sweep_timer_, 0));
  sweeps_soon_ = !waiting_.empty();
  sweep_timer_ = loop_.after(sweeps_soon_ ? kWaitingSweepPeriod : kSweepPeriod, [this] {
    sweep_timer_ = 0;
    sweep();
    if (sweep_timer_ == 0 && !connections_.empty()) plan_sweep();
  });
}

// Ends requests and connections that take too long.
void HttpDaemon::sweep() {
  const Clock::time_point now = Clock::now();
  for (auto &[library, connection] : connections_) {
    if (connection.stage == Stage::kIdle) continue;
    const auto age = now - connection.since;
    const uint64_t id = connection.exchange == nullptr ? 0 : connection.exchange->id;
    if (!answering_.contains(id)) {
      if (age > limits_.longest_transfer) {
        condemn(connection);
      } else if (connection.exchange != nullptr && connection.stage == Stage::kReceiving &&
                 !keeps_coming(*connection.exchange)) {
        refuse(*connection.exchange, busy("no room for the body\n"));
      }
    } else if (age > kLostAnswer * limits_.patience) {
      // The message loop answers in time, unless it had no memory for it.
      answer(id, {MHD_HTTP_GATEWAY_TIMEOUT, "no answer\n"});
    }
  }
  while (!waiting_.empty() && now - waiting_.front()->connection->since > limits_.patience) {
    Exchange *exchange = waiting_.front();
    waiting_.pop_front();
    refuse_waiting(*exchange);
  }
  run();
}

// False when others wait for room and this body does not use its own.
bool HttpDaemon::keeps_coming(Exchange &exchange) {
  const size_t size = exchange.request.body.text_size();
  if (waiting_.empty() || exchange.reserved == 0 || size - exchange.size_then >= kShortBody) {
    exchange.sweeps = 0;
    exchange.size_then = size;
    return true;
  }
  return ++exchange.sweeps < kSweepsForShortBody;
}

// The headers are there.
int HttpDaemon::begin(Connection &connection, Exchange &exchange, const char *method,
                      const char *path) {
  connection.stage = Stage::kReceiving;
  exchange.request.method = method;
  exchange.request.path = path;
  exchange.request.query = std::move(connection.query);

  // A client that waits for "100 Continue" (RFC 9110, section 10.1.1) need not send a body that is
  // too large. Any other client is already sending it, and would see a broken connection instead of
  // an early answer.
  const auto header = [&exchange](const char *name) {
    const char *value = ::MHD_lookup_connection_value(exchange.library, MHD_HEADER_KIND, name);
    return std::string_view(value == nullptr ? "" : value);
  };
  if (limits_.guard) {
    const auto refusal = refusal_of(
        *limits_.guard, {header(MHD_HTTP_HEADER_HOST), header(MHD_HTTP_HEADER_ORIGIN),
                         header("Sec-Fetch-Site"), header(MHD_HTTP_HEADER_AUTHORIZATION)});
    if (refusal) {
      if (limits_.guard->refusals != nullptr) ++*limits_.guard->refusals;
      exchange.refused = true;
      exchange.answer = {refusal->status, refusal->why};
      exchange.answer.challenge = refusal->status == MHD_HTTP_UNAUTHORIZED;
      return header(MHD_HTTP_HEADER_EXPECT).empty() ? MHD_YES : respond(exchange);
    }
  }
  const std::string_view digits = header(MHD_HTTP_HEADER_CONTENT_LENGTH);
  uint64_t announced = 0;
  std::from_chars(digits.data(), digits.data() + digits.size(), announced);
  if (!header(MHD_HTTP_HEADER_TRANSFER_ENCODING).empty()) announced = limits_.longest_body;
  if (announced > limits_.longest_body) {
    exchange.refused = true;
    exchange.answer = {MHD_HTTP_CONTENT_TOO_LARGE, "the body is too long\n"};
    return header(MHD_HTTP_HEADER_EXPECT).empty() ? MHD_YES : respond(exchange);
  }
  if (announced <= kShortBody) return MHD_YES;

  exchange.wanted = static_cast<size_t>(announced);
  if (waiting_.empty() && reserve(exchange)) return MHD_YES;
  waiting_.push_back(&exchange);
  exchange.held = true;
  if (!sweeps_soon_) plan_sweep();
  ::MHD_suspend_connection(exchange.library);
  return MHD_YES;
}

bool HttpDaemon::reserve(Exchange &exchange) {
  if (held_ + exchange.wanted > kMostHeld) return false;
  exchange.reserved = exchange.wanted;
  held_ += exchange.reserved;
  return true;
}

// Lets requests go on for which there is room now.
void HttpDaemon::grant() {
  while (!waiting_.empty() && reserve(*waiting_.front())) {
    ::MHD_resume_connection(waiting_.front()->library);
    waiting_.pop_front();
  }
}

void HttpDaemon::release(Exchange &exchange) {
  held_ -= std::exchange(exchange.reserved, 0);
}

// That will be the answer. The rest of the body is thrown away, and its room is others'.
void HttpDaemon::refuse(Exchange &exchange, HttpAnswer answer) {
  exchange.refused = true;
  exchange.answer = std::move(answer);
  exchange.request.body.discard();
  release(exchange);
}

void HttpDaemon::refuse_waiting(Exchange &exchange) {
  refuse(exchange, busy("no room for the body\n"));
  ::MHD_resume_connection(exchange.library);
}

int HttpDaemon::receive(Exchange &exchange, const char *upload, size_t *upload_size) {
  if (exchange.answered) return respond(exchange);
  if (std::exchange(exchange.held, false) && *upload_size == 0) return MHD_YES;
  HttpRequest &request = exchange.request;
  if (*upload_size > 0) {
    const size_t size = std::exchange(*upload_size, 0);
    if (exchange.refused) return MHD_YES;
    if (size > limits_.longest_body - request.body.text_size()) {
      refuse(exchange, {MHD_HTTP_CONTENT_TOO_LARGE, "the body is too long\n"});
    } else if (!request.body.append({upload, size})) {
      log_line("the body of a request {} {} cannot be kept: {}", request.method, request.path,
               std::strerror(errno));
      refuse(exchange, busy("no room for the body\n"));
    }
    return MHD_YES;
  }
  exchange.connection->stage = Stage::kAnswering;
  exchange.connection->since = Clock::now();
  if (exchange.refused) return respond(exchange);

  const uint64_t id = next_id_++;
  answering_.emplace(id, &exchange);
  exchange.id = id;
  events.post({id, std::move(request)});
  ::MHD_suspend_connection(exchange.library);
  return MHD_YES;
}

int HttpDaemon::respond(Exchange &exchange) {
  HttpAnswer &answer = exchange.answer;
  if (limits_.json && answer.content_type == kPlainText) {
    // All of these texts are ours and end with a line feed.
    answer.text = "{\"error\":\"" + answer.text.substr(0, answer.text.size() - 1) + "\"}\n";
    answer.content_type = "application/json";
  }
  MHD_Response *response = ::MHD_create_response_from_buffer(
      answer.text.size(), const_cast<char *>(answer.text.data()), MHD_RESPMEM_MUST_COPY);
  if (response == nullptr) return MHD_NO;
  const auto add = [response](const char *name, const std::string &value) {
    if (!value.empty()) ::MHD_add_response_header(response, name, value.c_str());
  };
  add(MHD_HTTP_HEADER_CONTENT_TYPE, answer.content_type);
  add(MHD_HTTP_HEADER_ALLOW, answer.allow);
  if (answer.retry) add(MHD_HTTP_HEADER_RETRY_AFTER, "1");
  if (answer.challenge) add(MHD_HTTP_HEADER_WWW_AUTHENTICATE, "Bearer");
  // No other site's page gets it, as a script or a picture, either (Fetch, 3.7).
  add("Cross-Origin-Resource-Policy", "same-origin");
  add("X-Content-Type-Options", "nosniff");
  const int queued = ::MHD_queue_response(exchange.library, answer.status, response);
  ::MHD_destroy_response(response);
  return queued;
}

// The request is over, one way or another, and its exchange with it.
void HttpDaemon::complete(Exchange &exchange) {
  Connection &connection = *exchange.connection;
  connection.stage = Stage::kIdle;
  connection.since = Clock::now();
  connection.exchange = nullptr;
  release(exchange);
  std::erase(waiting_, &exchange);
  answering_.erase(exchange.id);  // still there if the request could not be posted
}

void HttpDaemon::take_replies() {
  for (Reply &reply : replies.take()) answer(reply.id, std::move(reply.answer));
  if (ends_) {
    loop_.stop();
    return;
  }
  run();
}

void HttpDaemon::answer(uint64_t id, HttpAnswer answer) {
  const auto entry = answering_.find(id);
  if (entry == answering_.end()) return;
  Exchange *exchange = entry->second;
  answering_.erase(entry);
  release(*exchange);
  exchange->connection->since = Clock::now();
  exchange->answered = true;
  exchange->answer = std::move(answer);
  ::MHD_resume_connection(exchange->library);
}

}  // namespace msgsvr
