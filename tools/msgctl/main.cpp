// msgctl: the message bus from a shell.

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <exception>
#include <optional>
#include <string_view>

#include "msgctl/context.h"
#ifdef MSGCTL_FLEET
#include "msgctl/fleet_command.h"
#endif
#include "msgctl/output.h"

namespace {

using msgctl::Context;
using servers::ExitStatus;

void print_error(const Context &context, ExitStatus status, const std::string &text) {
  std::fputs(msgctl::error_line(context.json, status, text).c_str(), stderr);
}

}  // namespace

namespace msgctl {

void add_common_options(servers::Command *command, Context *context) {
  command->flag("--json", &context->json, "One JSON object a line, errors too");
  command->number("--timeout", &context->timeout_ms, "Milliseconds to wait for what must come",
                  {1, 86'400'000});
  command->option("--as", &context->as, "The name under which to register (11 characters)");
}

}  // namespace msgctl

int main(int argc, char **argv) {
  // Without the signal, a reader that has gone shows as EPIPE.
  std::signal(SIGPIPE, SIG_IGN);
  Context context;
  servers::CommandLine line("msgctl", "Looks at the message bus, and takes part in it.");
  msgctl::add_catalogue_commands(&line, &context);
  msgctl::add_call_commands(&line, &context);
  msgctl::add_client_commands(&line, &context);
  msgctl::add_completion_commands(&line, &context);
  msgctl::add_doctor_command(&line, &context);
  msgctl::add_event_commands(&line, &context);
#ifdef MSGCTL_FLEET
  msgctl::add_fleet_command(&line, &context);
#endif
  msgctl::add_notify_command(&line, &context);
  msgctl::add_ping_command(&line, &context);
  msgctl::add_policy_command(&line, &context);
  msgctl::add_restful_commands(&line, &context);
  msgctl::add_serve_command(&line, &context);
  msgctl::add_server_commands(&line, &context);
  msgctl::add_wait_command(&line, &context);
  msgctl::add_monitor_command(&line, &context);
  msgctl::add_capture_command(&line, &context);
  msgctl::add_latency_command(&line, &context);
  msgctl::add_top_command(&line, &context);
  msgctl::add_waits_command(&line, &context);
  msgctl::add_diagram_command(&line, &context);
  msgctl::add_postmortem_command(&line, &context);
  msgctl::add_dissector_command(&line, &context);
  msgctl::add_replay_commands(&line, &context);
  for (const catalogue::Problem &problem : context.catalogue.load()) {
    std::fprintf(stderr, "msgctl: %s\n", problem.text().c_str());
  }
  // A mistake may come before --json on the command line.
  if (std::any_of(argv + 1, argv + argc,
                  [](const char *word) { return word == std::string_view("--json"); })) {
    line.tell_mistakes([](const std::string &mistake) {
      std::fputs(msgctl::error_line(true, ExitStatus::kUsage, mistake).c_str(), stderr);
    });
  }
  try {
    if (const std::optional<int> status = line.parse(argc, argv)) return *status;
  } catch (const servers::Failure &failure) {
    print_error(context, failure.status(), failure.what());
    return static_cast<int>(failure.status());
  } catch (const std::exception &error) {
    print_error(context, ExitStatus::kAnswerError, error.what());
    return static_cast<int>(ExitStatus::kAnswerError);
  }
  return static_cast<int>(context.status);
}
