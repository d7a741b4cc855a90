#include "common/event_loop.h"

#include <sys/signalfd.h>
#include <sys/timerfd.h>

#include <cassert>
#include <cerrno>
#include <system_error>

#include "common/log_line.h"

namespace servers {
namespace {

int checked(int result, const char *what) {
  if (result < 0) throw std::system_error(errno, std::generic_category(), what);
  return result;
}

}  // namespace

void EventLoop::Watch::failed(const char *why) noexcept {
  write_log_line("a callback of the event loop has failed; the server goes on");
  write_log_line(why);
}

EventLoop::EventLoop()
    : epoll_(checked(::epoll_create1(EPOLL_CLOEXEC), "epoll_create1")),
      timer_fd_(checked(::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK),
                        "timerfd_create")) {
  ::sigemptyset(&signals_);
  signal_fd_.reset(checked(::signalfd(-1, &signals_, SFD_CLOEXEC | SFD_NONBLOCK), "signalfd"));
  signal_watch_.loop = this;
  timer_watch_.loop = this;
  add(signal_fd_.get(), EPOLLIN, &signal_watch_);
  add(timer_fd_.get(), EPOLLIN, &timer_watch_);
}

EventLoop::~EventLoop() {
  free_retired();
}

void EventLoop::add(int fd, uint32_t events, Watch *watch) {
  epoll_event event{};
  event.events = events;
  event.data.ptr = watch;
  checked(::epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, fd, &event), "epoll_ctl");
}

void EventLoop::change(int fd, uint32_t events, Watch *watch) {
  epoll_event event{};
  event.events = events;
  event.data.ptr = watch;
  checked(::epoll_ctl(epoll_.get(), EPOLL_CTL_MOD, fd, &event), "epoll_ctl");
}

void EventLoop::remove(int fd, Watch *watch) noexcept {
  ::epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, fd, nullptr);
  for (int i = 0; i < event_count_; ++i) {
    if (events_[static_cast<size_t>(i)].data.ptr == watch) {
      events_[static_cast<size_t>(i)].data.ptr = nullptr;
    }
  }
}

void EventLoop::retire(std::unique_ptr<Watch> watch) noexcept {
  assert(watch->next_retired_ == nullptr && watch.get() != retired_);
  watch->next_retired_ = retired_;
  retired_ = watch.release();
}

void EventLoop::free_retired() noexcept {
  while (retired_ != nullptr) {
    const std::unique_ptr<Watch> first(retired_);
    retired_ = first->next_retired_;
  }
}

void EventLoop::report(const char *what, const char *why) noexcept {
  ++failures_;
  try {
    log_line("{}: {}", what, why);
  } catch (const std::exception &) {
    write_log_line(what);
  }
}

EventLoop::TimerId EventLoop::after(std::chrono::milliseconds delay, Procedure procedure) {
  const TimerId id = ++last_timer_;
  const Clock::time_point due = Clock::now() + delay;
  const auto timer = timers_.emplace(std::pair(due, id), std::move(procedure)).first;
  try {
    due_.emplace(id, due);
  } catch (...) {
    timers_.erase(timer);
    throw;
  }
  if (delay.count() <= 0) {
    due_now_ = true;
  } else if (timers_.begin()->first.second == id) {
    arm_timer();
  }
  return id;
}

void EventLoop::cancel(TimerId timer) {
  const auto entry = due_.find(timer);
  if (entry == due_.end()) return;
  timers_.erase({entry->second, timer});
  due_.erase(entry);
  // The timerfd may now fire early for nothing; run_due_timers() then arms it again.
}

void EventLoop::arm_timer() {
  itimerspec setting{};
  if (!timers_.empty()) {
    const auto due = timers_.begin()->first.first.time_since_epoch();
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(due);
    setting.it_value.tv_sec = static_cast<time_t>(seconds.count());
    setting.it_value.tv_nsec = static_cast<long>(std::chrono::nanoseconds(due - seconds).count());
  }
  checked(::timerfd_settime(timer_fd_.get(), TFD_TIMER_ABSTIME, &setting, nullptr),
          "timerfd_settime");
}

void EventLoop::run_due_timers() {
  const Clock::time_point now = Clock::now();
  const TimerId newest = last_timer_;  // timers that a procedure starts wait for the next turn
  while (!timers_.empty()) {
    const auto first = timers_.begin();
    if (first->first.first > now || first->first.second > newest) break;
    const Procedure procedure = std::move(first->second);
    due_.erase(first->first.second);
    timers_.erase(first);
    attempt("something timed has failed", procedure);
  }
  arm_timer();
}

void EventLoop::TimerWatch::ready(uint32_t) {
  uint64_t expirations;
  if (::read(loop->timer_fd_.get(), &expirations, sizeof expirations) > 0) loop->run_due_timers();
}

void EventLoop::SignalWatch::ready(uint32_t) {
  signalfd_siginfo info;
  while (::read(loop->signal_fd_.get(), &info, sizeof info) == sizeof info) {
    const auto entry = loop->signal_procedures_.find(static_cast<int>(info.ssi_signo));
    if (entry == loop->signal_procedures_.end()) continue;
    loop->attempt("what a signal asked for has failed", entry->second);
  }
}

void EventLoop::on_signal(int signal, Procedure procedure) {
  signal_procedures_[signal] = std::move(procedure);
  ::sigaddset(&signals_, signal);
  checked(::sigprocmask(SIG_BLOCK, &signals_, nullptr), "sigprocmask");
  checked(::signalfd(signal_fd_.get(), &signals_, 0), "signalfd");
}

void EventLoop::run() {
  stopped_ = false;
  while (!stopped_) turn(-1);
}

void EventLoop::turn(int timeout_ms) {
  const int count = ::epoll_wait(epoll_.get(), events_.data(), static_cast<int>(events_.size()),
                                 due_now_ ? 0 : timeout_ms);
  if (count < 0) {
    if (errno == EINTR) return;
    checked(count, "epoll_wait");
  }
  event_count_ = count;
  for (int i = 0; i < event_count_; ++i) call(i);
  event_count_ = 0;
  if (std::exchange(due_now_, false)) run_due_timers();
  free_retired();
}

void EventLoop::call(int event) noexcept {
  const epoll_event &entry = events_[static_cast<size_t>(event)];
  auto *watch = static_cast<Watch *>(entry.data.ptr);
  if (watch == nullptr) return;
  try {
    watch->ready(entry.events);
  } catch (const std::exception &error) {
    if (entry.data.ptr == nullptr) {
      // The watch has removed itself, so there is nothing left to end.
      report("what a descriptor brought is not done", error.what());
    } else {
      ++failures_;
      watch->failed(error.what());
    }
  }
}

}  // namespace servers
