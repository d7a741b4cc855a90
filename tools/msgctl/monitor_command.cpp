// msgctl monitor: what passed, and what passes.

#include <fmt/core.h>

#include <deque>

#include "msgctl/context.h"
#include "msgctl/event_text.h"
#include "msgctl/flight_source.h"
#include "msgctl/output.h"

namespace msgctl {
namespace {

using traffic::Event;

struct MonitorOptions {
  FlightOptions flight;
  uint32_t lines = UINT32_MAX;
  bool history_only = false;
  bool all = false;
};

// Deliveries and clock records mostly repeat what other lines say.
bool said_elsewhere(const Event &event) {
  return event.kind() == flight::Kind::kDelivered || event.kind() == flight::Kind::kClock;
}

void monitor(const MonitorOptions &options, Context *context) {
  const traffic::Filter filter = make_filter(options.flight, *context);
  const bool all = options.all || filter.names_kind();
  EventText text(context->catalogue, !options.flight.no_mask);
  Source source(options.flight.file);
  // The last lines of the history, when only some are wanted.
  const bool few = options.lines != UINT32_MAX;
  std::deque<Line> last;
  bool history = true;

  const auto print = [&](Line line) {
    if (!history || !few) {
      line.print();
      return;
    }
    last.push_back(std::move(line));
    if (last.size() > options.lines) last.pop_front();
  };
  const auto note = [&](const Json &json, const std::string &words) {
    if (context->json) {
      print({json, {}});
    } else {
      print({nullptr, coloured(Colour::kYellow, "-- " + words)});
    }
  };
  const auto take = [&](const Event &event) {
    text.take(event);
    if ((!all && said_elsewhere(event)) || !filter.matches(event, source.model())) return;
    if (context->json) {
      print({text.json(event, source.model()), {}});
    } else {
      print({nullptr, coloured(Colour::kDim, time_text(event.wall_ns)) + " " +
                          text.line(event, source.model())});
    }
  };
  source.on_missed = [&](uint64_t count) {
    context->status = ExitStatus::kLost;
    note({{"missed", count}},
         fmt::format("{} records were overwritten before they could be read", count));
  };
  source.on_replaced = [&] {
    text.forget();
    note({{"replaced", true}}, "the server was started anew");
  };

  source.read(take);
  history = false;
  for (const Line &line : last) line.print();
  if (!options.history_only) source.follow(take, [] { return true; });
}

}  // namespace

void add_monitor_command(servers::CommandLine *line, Context *context) {
  static MonitorOptions options;
  servers::Command command =
      line->command("monitor", "Show what passed on the bus, and what passes",
                    [context] { monitor(options, context); });
  add_flight_options(&command, context, &options.flight, Personal::kMasked);
  command.number("-n,--lines", &options.lines, "So many lines of the past at most",
                 {0, UINT32_MAX - 1});
  command.flag("--history-only", &options.history_only, "End after what has passed");
  command.flag("--all", &options.all,
               "Also deliveries and clock records, as when the filter names a kind");
  add_filter(&command, &options.flight);
}

}  // namespace msgctl
