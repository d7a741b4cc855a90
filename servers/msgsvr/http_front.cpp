// The HTTP library is polled: its epoll descriptor is watched by the loop, and a connection whose
// request is on its way to an application is suspended until the answer is there.

#include "msgsvr/http_front.h"

#include <microhttpd.h>
#include <sys/epoll.h>

#include <algorithm>
#include <charconv>
#include <chrono>
#include <stdexcept>
#include <utility>

namespace msgsvr {
namespace {

constexpr unsigned kMostConnections = 64;
constexpr unsigned kIdleSeconds = 30;
constexpr unsigned kTooLarge = 413;

// Then the loop's other descriptors have their turn.
constexpr int kMostRounds = 8;

}  // namespace

struct HttpFront::Exchange {
  HttpRequest request;
  uint64_t id = 0;
  MHD_Connection *connection = nullptr;
  bool started = false;
  bool too_large = false;
  bool answered = false;
  unsigned status = 0;
  std::string text;
  std::string content_type;
};

struct HttpFront::Watch final : servers::EventLoop::Watch {
  explicit Watch(HttpFront *front_in) : front(front_in) {}
  void ready(uint32_t) override { front->run(); }
  HttpFront *front;
};

// What the library calls; `front` and the exchange come back as untyped pointers.
struct HttpCallbacks {
  // The first call for a connection's next request: makes its exchange.
  static void *log_uri(void *, const char *uri, MHD_Connection *) {
    auto *exchange = new HttpFront::Exchange;
    const std::string_view text(uri);
    const size_t question = text.find('?');
    if (question != std::string_view::npos) exchange->request.query = text.substr(question + 1);
    return exchange;
  }

  static MHD_Result access(void *front, MHD_Connection *connection, const char *url,
                           const char *method, const char *, const char *upload,
                           size_t *upload_size, void **exchange) {
    return static_cast<MHD_Result>(
        static_cast<HttpFront *>(front)->receive(connection, method, url, upload, upload_size,
                                                 static_cast<HttpFront::Exchange *>(*exchange)));
  }

  static void completed(void *front_pointer, MHD_Connection *, void **exchange_pointer,
                        MHD_RequestTerminationCode) {
    auto *front = static_cast<HttpFront *>(front_pointer);
    const std::unique_ptr<HttpFront::Exchange> exchange(
        static_cast<HttpFront::Exchange *>(*exchange_pointer));
    *exchange_pointer = nullptr;
    if (exchange != nullptr && front->waiting_.erase(exchange->id) > 0) {
      front->abandoned_(exchange->id);
    }
  }
};

HttpFront::HttpFront(servers::EventLoop *loop, servers::UniqueFd listener, size_t longest_body,
                     Handler handler, Abandoned abandoned)
    : loop_(loop),
      longest_body_(longest_body),
      handler_(std::move(handler)),
      abandoned_(std::move(abandoned)),
      watch_(std::make_unique<Watch>(this)) {
  daemon_ = ::MHD_start_daemon(
      MHD_USE_EPOLL | MHD_ALLOW_SUSPEND_RESUME, 0, nullptr, nullptr, &HttpCallbacks::access, this,
      MHD_OPTION_LISTEN_SOCKET, listener.get(), MHD_OPTION_CONNECTION_LIMIT, kMostConnections,
      MHD_OPTION_CONNECTION_TIMEOUT, kIdleSeconds, MHD_OPTION_URI_LOG_CALLBACK,
      &HttpCallbacks::log_uri, this, MHD_OPTION_NOTIFY_COMPLETED, &HttpCallbacks::completed, this,
      MHD_OPTION_END);
  if (daemon_ == nullptr) throw std::runtime_error("cannot start the HTTP server");
  static_cast<void>(listener.release());  // the library closes it
  loop_->add(::MHD_get_daemon_info(daemon_, MHD_DAEMON_INFO_EPOLL_FD)->epoll_fd, EPOLLIN,
             watch_.get());
  run();
}

HttpFront::~HttpFront() {
  loop_->cancel(timer_);
  loop_->remove(::MHD_get_daemon_info(daemon_, MHD_DAEMON_INFO_EPOLL_FD)->epoll_fd, watch_.get());
  // Suspended connections must be resumed before the end.
  for (const auto &[id, exchange] : std::exchange(waiting_, {})) {
    exchange->answered = true;
    exchange->status = MHD_HTTP_SERVICE_UNAVAILABLE;
    ::MHD_resume_connection(exchange->connection);
  }
  ::MHD_run(daemon_);
  ::MHD_stop_daemon(daemon_);
}

void HttpFront::run() {
  // The library often has more to do right away.
  MHD_UNSIGNED_LONG_LONG timeout_ms = 0;
  bool waits = true;
  for (int round = 0; round < kMostRounds && waits && timeout_ms == 0; ++round) {
    resumed_ = false;
    ::MHD_run(daemon_);
    waits = ::MHD_get_timeout(daemon_, &timeout_ms) == MHD_YES;
  }
  if (resumed_) return;
  loop_->cancel(timer_);
  if (waits) timer_ = loop_->after(std::chrono::milliseconds(timeout_ms), [this] { run(); });
}

int HttpFront::receive(MHD_Connection *connection, const char *method, const char *path,
                       const char *upload, size_t *upload_size, Exchange *exchange) {
  if (exchange->answered) return respond(connection, *exchange);
  if (!exchange->started) {
    exchange->started = true;
    exchange->connection = connection;
    exchange->request.method = method;
    exchange->request.path = path;
    // What is announced to be too large need not be sent by a client that waits to be told. Another
    // is already sending it, and would see a broken connection instead of an early answer.
    const auto header = [connection](const char *name) {
      return ::MHD_lookup_connection_value(connection, MHD_HEADER_KIND, name);
    };
    const char *length = header(MHD_HTTP_HEADER_CONTENT_LENGTH);
    const std::string_view digits(length == nullptr ? "" : length);
    uint64_t announced = 0;
    std::from_chars(digits.data(), digits.data() + digits.size(), announced);
    exchange->too_large = announced > longest_body_;
    if (exchange->too_large && header(MHD_HTTP_HEADER_EXPECT) != nullptr) {
      exchange->status = kTooLarge;
      return respond(connection, *exchange);
    }
    return MHD_YES;
  }

  std::string &body = exchange->request.body;
  if (*upload_size > 0) {
    exchange->too_large = exchange->too_large || *upload_size > longest_body_ - body.size();
    if (exchange->too_large) {
      body.clear();
    } else {
      body.append(upload, *upload_size);
    }
    *upload_size = 0;
    return MHD_YES;
  }
  if (exchange->too_large) {
    exchange->status = kTooLarge;
    return respond(connection, *exchange);
  }

  exchange->id = ++last_id_;
  waiting_.emplace(exchange->id, exchange);
  ::MHD_suspend_connection(connection);
  handler_(exchange->id, exchange->request);
  return MHD_YES;
}

int HttpFront::respond(MHD_Connection *connection, const Exchange &exchange) {
  MHD_Response *response = ::MHD_create_response_from_buffer(
      exchange.text.size(), const_cast<char *>(exchange.text.data()), MHD_RESPMEM_MUST_COPY);
  if (response == nullptr) return MHD_NO;
  if (!exchange.content_type.empty()) {
    ::MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE,
                              exchange.content_type.c_str());
  }
  const int queued = ::MHD_queue_response(connection, exchange.status, response);
  ::MHD_destroy_response(response);
  return queued;
}

void HttpFront::answer(uint64_t id, unsigned status, std::string_view text,
                       const char *content_type) {
  const auto entry = waiting_.find(id);
  if (entry == waiting_.end()) return;
  Exchange *exchange = entry->second;
  waiting_.erase(entry);
  exchange->answered = true;
  exchange->status = status;
  exchange->text = text;
  exchange->content_type = content_type;
  ::MHD_resume_connection(exchange->connection);
  // The library goes on when it is run again: not from here, which it may have called itself.
  loop_->cancel(timer_);
  timer_ = loop_->after(std::chrono::milliseconds(0), [this] { run(); });
  resumed_ = true;
}

}  // namespace msgsvr
