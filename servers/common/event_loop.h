// The servers' event loop: descriptors through epoll, signals through a signalfd, timers through
// one timerfd. One thread; every callback may add and remove anything, itself included.
//
// An exception of a callback never leaves the loop. It is counted, and failed() of the watch whose
// ready() threw is called. So one client's trouble ends that client and not the server.
#pragma once

#include <signal.h>
#include <sys/epoll.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <exception>
#include <functional>
#include <map>
#include <memory>
#include <utility>

#include "common/unique_fd.h"

namespace servers {

class EventLoop {
 public:
  // Is told when a descriptor is ready.
  class Watch {
   public:
    virtual ~Watch() = default;
    // `events` are those of epoll: EPOLLIN, EPOLLOUT, EPOLLHUP, EPOLLERR.
    virtual void ready(uint32_t events) = 0;
    // ready() has thrown, perhaps half-way, and the watch is still registered. Should end what the
    // watch serves; may remove and retire the watch. Unless overridden, it only logs.
    virtual void failed(const char *why) noexcept;

   private:
    friend EventLoop;
    Watch *next_retired_ = nullptr;
  };
  using Clock = std::chrono::steady_clock;
  using Procedure = std::function<void()>;
  // Names a timer; never 0 and never used twice.
  using TimerId = uint64_t;

  EventLoop();  // throws std::system_error
  ~EventLoop();
  EventLoop(const EventLoop &) = delete;
  EventLoop &operator=(const EventLoop &) = delete;

  // `watch` must outlive its registration. Level-triggered. Throws std::system_error, and has then
  // changed nothing.
  void add(int fd, uint32_t events, Watch *watch);
  void change(int fd, uint32_t events, Watch *watch);
  // After this `watch` is not called again, not even for events of the running turn.
  void remove(int fd, Watch *watch) noexcept;

  // Keeps `watch` until the callbacks of the running turn have returned.
  void retire(std::unique_ptr<Watch> watch) noexcept;

  // Calls `procedure`. False if it threw: the exception is counted and logged, with the words
  // `what` for what has failed.
  template <typename Function>
  bool attempt(const char *what, Function procedure) noexcept {
    try {
      procedure();
      return true;
    } catch (const std::exception &error) {
      report(what, error.what());
      return false;
    }
  }
  // Counts and logs that something has failed.
  void report(const char *what, const char *why) noexcept;
  // How often something has been thrown.
  uint64_t failures() const { return failures_; }

  // Calls `procedure` once, `delay` from now; without a delay at the end of the running turn, or of
  // the next. Cancelling a timer that has run does nothing.
  TimerId after(std::chrono::milliseconds delay, Procedure procedure);
  void cancel(TimerId timer);

  // Blocks `signal` for the process and calls `procedure` from the loop when it arrives. Children
  // inherit the blocked signals and must unblock them.
  void on_signal(int signal, Procedure procedure);

  // Turns until stop() is called.
  void run();
  void stop() { stopped_ = true; }
  // Waits up to `timeout_ms` (-1: for ever) for events and handles what is there.
  void turn(int timeout_ms);

 private:
  struct SignalWatch final : Watch {
    EventLoop *loop = nullptr;
    void ready(uint32_t events) override;
  };
  struct TimerWatch final : Watch {
    EventLoop *loop = nullptr;
    void ready(uint32_t events) override;
  };

  void call(int event) noexcept;
  void free_retired() noexcept;
  void arm_timer();
  void run_due_timers();

  UniqueFd epoll_;
  UniqueFd timer_fd_;
  UniqueFd signal_fd_;
  SignalWatch signal_watch_;
  TimerWatch timer_watch_;
  sigset_t signals_{};
  std::map<int, Procedure> signal_procedures_;
  std::map<std::pair<Clock::time_point, TimerId>, Procedure> timers_;
  std::map<TimerId, Clock::time_point> due_;
  TimerId last_timer_ = 0;
  bool due_now_ = false;  // timers without a delay wait for the end of the turn
  std::array<epoll_event, 64> events_{};
  int event_count_ = 0;
  Watch *retired_ = nullptr;
  uint64_t failures_ = 0;
  bool stopped_ = false;
};

}  // namespace servers
