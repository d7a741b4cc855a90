// msgctl: the message bus from a shell.

#include <csignal>
#include <cstdio>
#include <exception>
#include <optional>

#include "common/printable.h"
#include "msgctl/context.h"
#include "msgctl/output.h"

namespace {

using msgctl::Context;
using servers::ExitStatus;

void print_error(const Context &context, ExitStatus status, const std::string &text) {
  if (context.json) {
    const msgctl::Json error{{"error", text}, {"status", static_cast<int>(status)}};
    std::fprintf(stderr, "%s\n",
                 error.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace).c_str());
  } else {
    std::fprintf(stderr, "msgctl: %s\n", servers::printable(text).c_str());
  }
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
  // A reader that has gone shows as EPIPE.
  std::signal(SIGPIPE, SIG_IGN);
  Context context;
  servers::CommandLine line("msgctl", "Looks at the message bus, and takes part in it.");
  msgctl::add_catalogue_commands(&line, &context);
  for (const catalogue::Problem &problem : context.catalogue.load()) {
    std::fprintf(stderr, "msgctl: %s\n", problem.text().c_str());
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
