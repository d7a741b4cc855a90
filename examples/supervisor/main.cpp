// supervisor: keeps a few programs running and shows their output by lines.
//
//   supervisor 'web=httpd -f -p 8080' 'clock=while sleep 1; do date; done'
//
// SIGTERM and SIGINT end the programs, the ones that do not end within two seconds with SIGKILL,
// and then the supervisor.

#include <fmt/core.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "common/command_line.h"
#include "msgapi/loop.h"
#include "service.h"

namespace {

using supervisor::Policy;
using supervisor::Service;

constexpr uint32_t kPatience_ms = 2000;

std::vector<std::unique_ptr<Service>> g_services;

void stop_all(int signal) {
  for (const auto &service : g_services) service->stop(signal);
}

void end_when_all_are_gone() {
  const auto is_gone = [](const auto &service) { return service->is_gone(); };
  if (std::all_of(g_services.begin(), g_services.end(), is_gone)) {
    OrpUvLoopStop(OrpUvLoopGetDefault());
  }
}

int g_signal_event = -1;

void on_signal(int /*signal*/) {
  const uint64_t one = 1;
  [[maybe_unused]] const ssize_t ignored = ::write(g_signal_event, &one, sizeof one);
}

// SIGTERM and SIGINT become an event of the loop. They are caught, not blocked: children inherit
// what is blocked, while what is caught has its default action in them.
void watch_signals() {
  g_signal_event = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  auto *watcher = static_cast<OrpUvIo *>(std::calloc(1, sizeof(OrpUvIo)));
  if (g_signal_event < 0 || watcher == nullptr) throw std::runtime_error("cannot watch signals");

  OrpUvIoInit(nullptr, watcher, g_signal_event, [](OrpUvIo *self, uint32_t) {
    uint64_t count;
    if (::read(self->fd, &count, sizeof count) != sizeof count) return;
    stop_all(SIGTERM);
    ORP_UTIL_TimerAdd(
        kPatience_ms, 1, [](ORP_WORD) { stop_all(SIGKILL); }, 0);
  });
  OrpUvIoStart(watcher, ORP_UV_READABLE);
  struct sigaction action = {};
  action.sa_handler = on_signal;
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
}

int run(int argc, char **argv) {
  servers::CommandLine line("supervisor",
                            "Keeps programs running and shows their output by lines.");
  Policy policy;
  std::vector<std::string> commands;
  line.number("--delay", &policy.first_delay_ms, "Milliseconds before the first restart",
              {1, 60000});
  line.number("--max-delay", &policy.max_delay_ms, "The delay doubles up to this", {1, 3600000});
  line.number("--restarts", &policy.max_restarts, "Restarts of each program; 0: no limit");
  line.arguments("programs", &commands, "NAME=COMMAND, run by /bin/sh",
                 servers::Presence::kRequired);
  if (const std::optional<int> status = line.parse(argc, argv)) return *status;

  for (const std::string &command : commands) {
    const size_t equals = command.find('=');
    if (equals == 0 || equals == std::string::npos) {
      return line.usage_error("not of the form NAME=COMMAND: " + command);
    }
    g_services.push_back(std::make_unique<Service>(
        command.substr(0, equals), command.substr(equals + 1), policy, end_when_all_are_gone));
  }
  watch_signals();
  for (const auto &service : g_services) service->start();
  return ORP_UV_LoopRun(nullptr, 0) == ORP_OK ? 0 : 1;
}

}  // namespace

int main(int argc, char **argv) {
  try {
    return run(argc, argv);
  } catch (const std::exception &error) {
    fmt::print(stderr, "supervisor: {}\n", error.what());
    return 1;
  }
}
