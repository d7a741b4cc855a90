// An HTTP server that hands whole requests to the message loop and takes the answers later.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <set>

#include "common/event_loop.h"
#include "common/unique_fd.h"
#include "msgsvr/http_daemon.h"

namespace msgsvr {

class HttpFront final : private servers::EventLoop::Watch {
 public:
  // Called for every whole request; answer(id, ...) ends it, at once or later.
  using Handler = std::function<void(uint64_t id, HttpRequest request)>;
  // Nobody waits for the answer any more: the daemon has broken down, or the handler has thrown.
  using Abandoned = std::function<void(uint64_t id)>;

  // Serves the connections of `listener`. Throws std::runtime_error.
  HttpFront(servers::EventLoop *loop, servers::UniqueFd listener, const HttpLimits &limits,
            Handler handler, Abandoned abandoned);
  ~HttpFront() override;

  // An unknown `id` is ignored.
  void answer(uint64_t id, HttpAnswer answer);

 private:
  void ready(uint32_t events) override;
  void start(uint64_t first_id);
  void start_anew(uint64_t first_id);

  servers::EventLoop *loop_;
  servers::UniqueFd listener_;  // every daemon gets a descriptor of its own for it
  const HttpLimits limits_;
  Handler handler_;
  Abandoned abandoned_;
  std::unique_ptr<HttpDaemon> daemon_;
  std::set<uint64_t> open_;  // requests without an answer
  servers::EventLoop::TimerId timer_ = 0;
};

}  // namespace msgsvr
