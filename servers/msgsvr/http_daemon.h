// The thread that speaks HTTP: connections, whole requests, answers.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <unordered_map>

#include "common/event_loop.h"
#include "common/listen.h"
#include "common/unique_fd.h"
#include "msgsvr/http_guard.h"
#include "msgsvr/mailbox.h"
#include "msgsvr/spooled_body.h"

struct MHD_Connection;
struct MHD_Daemon;

namespace msgsvr {

struct HttpRequest {
  std::string method;
  std::string path;   // decoded
  std::string query;  // as it was sent, without the "?"
  SpooledBody body;
};

struct HttpAnswer {
  unsigned status = 0;
  std::string text = {};
  std::string content_type = "text/plain";
  bool retry = false;      // it may be tried again in a second
  std::string allow = {};  // the methods that are served
  bool challenge = false;  // a token would be accepted
};

struct HttpLimits {
  size_t longest_body = 0;               // a longer one is answered with 413
  size_t body_head = 0;                  // bytes to leave free in front of every body
  std::chrono::milliseconds patience{};  // how long a request may wait for room
  size_t connections = 128;              // at a time
  bool json = false;                     // the daemon's own refusals are {"error": …}
  std::optional<HttpGuard> guard = {};   // none: everybody who may connect is served
  // A request must be whole, and an answer taken, within this time.
  std::chrono::milliseconds longest_transfer = std::chrono::seconds(60);
};

class HttpDaemon {
 public:
  // A whole request. Until it is answered its connection is not looked at, so that a client that
  // leaves is noticed only then.
  struct Event {
    uint64_t id;
    HttpRequest request;
  };
  struct Reply {
    uint64_t id;  // an unknown one is ignored
    HttpAnswer answer;
  };

  // Starts the thread. Requests are numbered from `first_id`. Throws std::runtime_error.
  HttpDaemon(servers::UniqueFd listener, const HttpLimits &limits, uint64_t first_id);
  // Only after stop() has returned true.
  ~HttpDaemon() = default;

  // Answers open requests with 503, and ends the thread. False if the thread has broken down: then
  // it never ends, and this object must never be destroyed.
  bool stop();

  Mailbox<Event> events;  // also rings when the thread has broken down
  Mailbox<Reply> replies;

  // The thread has stopped for good, with this reason, and has closed its connections.
  bool broken() const { return state_ == State::kBroken; }
  std::string_view reason() const { return reason_; }
  uint64_t next_id() const { return next_id_; }

 private:
  using Clock = std::chrono::steady_clock;
  using EventLoop = servers::EventLoop;
  enum class State { kRunning, kEnded, kBroken };
  enum class Stage { kIdle, kReceiving, kAnswering };
  struct Exchange;
  struct Connection {
    int fd = -1;
    std::string network;  // addresses of one network are treated as one
    Stage stage = Stage::kIdle;
    Clock::time_point since{};  // it has been in this stage
    bool condemned = false;     // shut down, and soon closed
    bool out_of_memory = false;
    std::string query;
    Exchange *exchange = nullptr;
  };
  template <void (HttpDaemon::*kProcedure)()>
  struct Watch final : EventLoop::Watch {
    explicit Watch(HttpDaemon *daemon_in) : daemon(daemon_in) {}
    void ready(uint32_t) override { (daemon->*kProcedure)(); }
    HttpDaemon *daemon;
  };
  friend struct HttpCallbacks;

  void work();
  void stop_daemon();
  [[noreturn]] void park(std::string_view reason);

  void accept();
  void take_replies();
  void run();
  void plan_sweep();
  void sweep();
  bool make_room();
  void condemn(Connection &connection);
  void refuse_uri(Connection &connection);

  int begin(Connection &connection, Exchange &exchange, const char *method, const char *path);
  int receive(Exchange &exchange, const char *upload, size_t *upload_size);
  void complete(Exchange &exchange);
  bool reserve(Exchange &exchange);
  void grant();
  bool keeps_coming(Exchange &exchange);
  void release(Exchange &exchange);
  void refuse(Exchange &exchange, HttpAnswer answer);
  void refuse_waiting(Exchange &exchange);
  int respond(Exchange &exchange);
  void answer(uint64_t id, HttpAnswer answer);

  EventLoop loop_;
  servers::Acceptor acceptor_;
  const HttpLimits limits_;
  Watch<&HttpDaemon::accept> accept_watch_{this};
  Watch<&HttpDaemon::take_replies> reply_watch_{this};
  Watch<&HttpDaemon::run> run_watch_{this};
  MHD_Daemon *daemon_ = nullptr;
  EventLoop::TimerId run_timer_ = 0;
  EventLoop::TimerId sweep_timer_ = 0;  // while there are connections
  bool sweeps_soon_ = false;
  std::unordered_map<MHD_Connection *, Connection> connections_;
  size_t condemned_ = 0;
  std::unordered_map<uint64_t, Exchange *> answering_;
  std::deque<Exchange *> waiting_;  // for room, in the order of their coming
  size_t held_ = 0;                 // bytes of bodies, with those that are still to come
  std::atomic<uint64_t> next_id_;
  std::atomic<bool> ends_ = false;
  std::atomic<State> state_ = State::kRunning;
  std::string reason_;
  std::thread thread_;  // last: it uses all of the above
};

}  // namespace msgsvr
