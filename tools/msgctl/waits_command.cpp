// msgctl waits: requests without an answer.

#include <fmt/core.h>

#include "msgctl/context.h"
#include "msgctl/output.h"
#include "msgctl/waits_text.h"

namespace msgctl {
namespace {

using traffic::Event;
using traffic::Wait;

struct WaitsOptions {
  FlightOptions flight;
  uint32_t watch_s = 0;  // 0: look once
};

void report(const WaitsOptions &options, const Context &context, const Source &source,
            const std::vector<Wait> &waits, const std::vector<Deadlock> &stuck) {
  const EventText text(context.catalogue, true);
  if (context.json) {
    for (const Wait &wait : waits) print_json(wait_json(wait, source, text));
    for (const Deadlock &deadlock : stuck) print_json(deadlock_json(deadlock, source));
    return;
  }
  if (!source.alive()) {
    print_line(coloured(Colour::kYellow,
                        fmt::format("-- {}: its server is gone; this is how it was at the end",
                                    options.flight.file)));
  }
  for (const std::string &line : waits_lines(waits, source, text)) print_line(line);
  for (const Deadlock &deadlock : stuck) {
    print_line(coloured(Colour::kRed, deadlock_line(deadlock, source)));
  }
  if (waits.empty()) print_line("nobody waits for an answer");
}

void waits(const WaitsOptions &options, Context *context) {
  const traffic::Filter filter = make_filter(options.flight, *context);
  Source source(options.flight.file);
  if (options.watch_s != 0 && !source.follows()) {
    throw servers::UsageError("waits: --watch looks at the running server, not at a file");
  }
  const traffic::Model::Known answered = answered_by(context->catalogue);
  const auto ignore = [](const Event &) {};
  source.read(ignore);
  if (options.watch_s == 0) {
    const Waiting found = waiting(source, answered, filter);
    report(options, *context, source, found.waits, found.deadlocks);
    return;
  }

  source.follow(ignore, [&] {
    const Waiting found = waiting(source, answered, filter);
    for (const Deadlock &deadlock : found.deadlocks) {
      const uint64_t now_ns = source.now_ns();
      if (now_ns < deadlock.since_ns ||
          now_ns - deadlock.since_ns < options.watch_s * uint64_t{1'000'000'000}) {
        continue;
      }
      report(options, *context, source, found.waits, {deadlock});
      context->status = ExitStatus::kAnswerError;
      return false;
    }
    return true;
  });
}

}  // namespace

void add_waits_command(servers::CommandLine *line, Context *context) {
  static WaitsOptions options;
  servers::Command command =
      line->command("waits", "Show who waits for whose answer, and who waits in a circle",
                    [context] { waits(options, context); });
  add_flight_options(&command, context, &options.flight);
  command.number("--watch", &options.watch_s,
                 "Wait until a circle has lasted so many seconds, then end with status 1",
                 {1, 86400});
  add_filter(&command, &options.flight);
}

}  // namespace msgctl
