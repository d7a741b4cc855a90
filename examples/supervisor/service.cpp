#include "service.h"

#include <fmt/core.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <utility>

namespace supervisor {
namespace {

constexpr size_t kMaxLine = 4096;

Service *service_of(const OrpUvProcess *process) {
  return reinterpret_cast<Service *>(process->head.data);
}

}  // namespace

Service::Service(std::string name, std::string command, const Policy &policy,
                 std::function<void()> on_gone)
    : name_(std::move(name)),
      command_(std::move(command)),
      policy_(policy),
      on_gone_(std::move(on_gone)),
      delay_ms_(policy.first_delay_ms) {}

void Service::start() {
  char *args[] = {const_cast<char *>("sh"), const_cast<char *>("-c"),
                  const_cast<char *>(command_.c_str()), nullptr};
  OrpUvSpawnOptions options = {};
  options.file = "/bin/sh";
  options.args = args;
  options.data = reinterpret_cast<ORP_WORD>(this);
  // A session of its own, so that stop() reaches what the command starts, too.
  options.flags = ORP_UV_SPAWN_STDOUT | ORP_UV_SPAWN_STDERR | ORP_UV_SPAWN_SETSID;
  options.outputProc = [](OrpUvProcess *process, OrpUvIo *io, uint32_t which) {
    service_of(process)->read(io, which);
  };
  options.exitProc = [](OrpUvProcess *process, int32_t, uint32_t code, uint32_t signal) {
    service_of(process)->exited(code, signal);
  };

  started_ = Clock::now();
  const uint32_t status = OrpUvProcessSpawn(nullptr, &process_, &options);
  if (status != ORP_OK) {
    say(fmt::format("cannot be started (0x{:x})", status));
    return restart_later();
  }
  say(fmt::format("started as {}", process_->pid));
}

void Service::stop(int signal) {
  stopping_ = true;
  OrpTimerSafeDel(&restart_);
  if (process_ == nullptr) return give_up();
  if (process_->pid > 0) ::kill(-process_->pid, signal);
}

void Service::read(OrpUvIo *io, uint32_t which) {
  std::string &pending = which == ORP_UV_SPAWN_STDOUT ? pending_output_ : pending_error_;
  char buffer[kMaxLine];
  const ssize_t count = ::read(io->fd, buffer, sizeof buffer);
  if (count <= 0) {
    if (!pending.empty()) say(std::exchange(pending, ""));
    return OrpUvProcessDeleteRedirectIo(process_, io);
  }
  pending.append(buffer, static_cast<size_t>(count));
  show_lines(&pending);
}

void Service::show_lines(std::string *text) const {
  size_t begin = 0;
  for (size_t end; (end = text->find('\n', begin)) != std::string::npos; begin = end + 1) {
    say(text->substr(begin, end - begin));
  }
  text->erase(0, begin);
  if (text->size() >= kMaxLine) say(std::exchange(*text, ""));
}

void Service::exited(uint32_t code, uint32_t signal) {
  process_ = nullptr;
  say(signal != 0 ? fmt::format("ended by signal {}", signal)
                  : fmt::format("ended with exit code {}", code));
  if (stopping_) return give_up();
  if (Clock::now() - started_ >= std::chrono::milliseconds(policy_.max_delay_ms)) {
    delay_ms_ = policy_.first_delay_ms;
  }
  restart_later();
}

void Service::restart_later() {
  if (policy_.max_restarts != 0 && restarts_ == policy_.max_restarts) return give_up();
  ++restarts_;
  restart_ = ORP_UTIL_TimerAdd(
      delay_ms_, 1,
      [](ORP_WORD self) {
        auto *service = reinterpret_cast<Service *>(self);
        service->restart_ = nullptr;  // a timer that has fired its last time ends by itself
        service->start();
      },
      reinterpret_cast<ORP_WORD>(this));
  delay_ms_ = std::min(delay_ms_ * 2, policy_.max_delay_ms);
}

void Service::give_up() {
  if (std::exchange(gone_, true)) return;
  say("not restarted");
  on_gone_();
}

void Service::say(const std::string &text) const {
  fmt::print("{}: {}\n", name_, text);
  std::fflush(stdout);
}

}  // namespace supervisor
