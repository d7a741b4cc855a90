// One program that is kept running.
#pragma once

#include <chrono>
#include <functional>
#include <string>

#include "msgapi/process.h"

namespace supervisor {

struct Policy {
  uint32_t first_delay_ms = 100;  // before the first restart
  uint32_t max_delay_ms = 10000;  // it doubles up to this while the program keeps ending early
  uint32_t max_restarts = 0;      // 0: no limit
};

// Starts the program, shows its output by lines behind its name, and restarts it when it ends. A
// program that ran longer than the greatest delay is restarted with the first delay again.
class Service {
 public:
  // `on_gone` is called when the program has ended and is not restarted.
  Service(std::string name, std::string command, const Policy &policy,
          std::function<void()> on_gone);
  Service(const Service &) = delete;
  Service &operator=(const Service &) = delete;

  void start();
  // Ends the program with `signal` and does not restart it.
  void stop(int signal);

  bool is_gone() const { return gone_; }

 private:
  using Clock = std::chrono::steady_clock;

  void read(OrpUvIo *io, uint32_t which);
  void exited(uint32_t code, uint32_t signal);
  void restart_later();
  void give_up();
  void say(const std::string &text) const;
  // Shows the whole lines of `text` and keeps the rest.
  void show_lines(std::string *text) const;

  const std::string name_;
  const std::string command_;
  const Policy policy_;
  const std::function<void()> on_gone_;
  OrpUvProcess *process_ = nullptr;
  OrpUvTimer *restart_ = nullptr;
  std::string pending_output_, pending_error_;
  Clock::time_point started_;
  uint32_t delay_ms_;
  uint32_t restarts_ = 0;
  bool stopping_ = false, gone_ = false;
};

}  // namespace supervisor
