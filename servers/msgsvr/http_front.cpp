// The message loop's side of HTTP: requests come from the daemon's thread and answers go to it, and
// a daemon that has broken down is replaced.

#include "msgsvr/http_front.h"

#include <fcntl.h>
#include <sys/epoll.h>

#include <cerrno>
#include <chrono>
#include <exception>
#include <memory>
#include <new>
#include <system_error>
#include <utility>

#include "common/log_line.h"

namespace msgsvr {
namespace {

using servers::log_line;
using servers::UniqueFd;

constexpr std::chrono::seconds kRestartDelay{1};

void end(std::unique_ptr<HttpDaemon> daemon) {
  if (!daemon->stop()) static_cast<void>(daemon.release());  // its parked thread still uses it
}

}  // namespace

HttpFront::HttpFront(servers::EventLoop *loop, UniqueFd listener, const HttpLimits &limits,
                     Handler handler, Abandoned abandoned)
    : loop_(loop),
      listener_(std::move(listener)),
      limits_(limits),
      handler_(std::move(handler)),
      abandoned_(std::move(abandoned)) {
  start(1);
}

HttpFront::~HttpFront() {
  loop_->cancel(timer_);
  if (!daemon_) return;
  loop_->remove(daemon_->events.fd(), this);
  end(std::move(daemon_));
}

void HttpFront::start(uint64_t first_id) {
  UniqueFd listener(::fcntl(listener_.get(), F_DUPFD_CLOEXEC, 0));
  if (!listener) throw std::system_error(errno, std::generic_category(), "dup");
  auto fresh = std::make_unique<HttpDaemon>(std::move(listener), limits_, first_id);
  try {
    loop_->add(fresh->events.fd(), EPOLLIN, this);
  } catch (...) {
    end(std::move(fresh));
    throw;
  }
  daemon_ = std::move(fresh);
}

void HttpFront::start_anew(uint64_t first_id) {
  timer_ = loop_->after(kRestartDelay, [this, first_id] {
    try {
      start(first_id);
      log_line("HTTP is served again");
    } catch (const std::exception &error) {
      log_line("HTTP cannot be served: {}", error.what());
      start_anew(first_id);
    }
  });
}

void HttpFront::ready(uint32_t) {
  for (HttpDaemon::Event &event : daemon_->events.take()) {
    try {
      open_.insert(event.id);
      handler_(event.id, std::move(event.request));
    } catch (const std::exception &error) {
      log_line("an HTTP request is not served: {}", error.what());
      abandoned_(event.id);
      answer(event.id, {503, "not enough memory\n", "text/plain", true});
    }
  }
  if (!daemon_->broken()) return;

  log_line("HTTP is interrupted, its thread has stopped: {}", daemon_->reason());
  loop_->remove(daemon_->events.fd(), this);
  const uint64_t next_id = daemon_->next_id();
  static_cast<void>(daemon_.release());  // its parked thread still uses it
  for (const uint64_t id : std::exchange(open_, {})) abandoned_(id);
  start_anew(next_id);
}

void HttpFront::answer(uint64_t id, HttpAnswer answer) {
  if (open_.erase(id) == 0 || !daemon_) return;
  try {
    daemon_->replies.post({id, std::move(answer)});
  } catch (const std::bad_alloc &) {
    log_line("no memory for an HTTP answer");  // the daemon gives it up after a while
  }
}

}  // namespace msgsvr
