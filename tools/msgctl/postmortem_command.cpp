// msgctl postmortem: reads what a dead server has left.

#include <fmt/core.h>
#include <unistd.h>

#include <deque>
#include <map>

#include "msgctl/context.h"
#include "msgctl/event_text.h"
#include "msgctl/flight_source.h"
#include "msgctl/output.h"
#include "msgctl/waits_text.h"

namespace msgctl {
namespace {

using traffic::Event;

struct PostmortemOptions {
  FlightOptions flight;
  uint32_t seconds = 1;
};

// The file of a server that is gone: the current file, or else the one before it.
std::string dead_file(const std::string &wanted) {
  if (wanted != flight::kPath) return wanted;
  const std::string before = wanted + ".1";
  if (::access(wanted.c_str(), F_OK) != 0)
    return ::access(before.c_str(), F_OK) == 0 ? before : wanted;
  Source present(wanted);
  present.read_to_damage();
  return present.alive() && ::access(before.c_str(), F_OK) == 0 ? before : wanted;
}

struct TimedLine {
  uint64_t time_ns;
  Line line;
};

void postmortem(const PostmortemOptions &options, Context *context) {
  FlightOptions flight = options.flight;
  flight.file = dead_file(flight.file);
  const traffic::Filter filter = make_filter(flight, *context);
  Source source(flight.file);
  EventText text(context->catalogue, !options.flight.no_mask);
  const uint64_t stretch_ns = options.seconds * uint64_t{1'000'000'000};
  std::deque<TimedLine> last;
  std::map<uint64_t, traffic::Message> queued;  // by number

  const auto take = [&](const Event &event) {
    text.take(event);
    const flight::Record &record = event.record;
    const bool wanted = filter.matches(event, source.model());
    if (event.kind() == flight::Kind::kAccepted && event.message->to != 0) {
      if (wanted) queued.emplace(record.number, *event.message);
    } else if (event.kind() == flight::Kind::kDelivered || event.kind() == flight::Kind::kLost) {
      queued.erase(record.about);
    } else if (event.kind() == flight::Kind::kEnded) {
      std::erase_if(queued, [&record](const auto &each) { return each.second.to == record.from; });
    }
    while (!last.empty() && record.time_ns - last.front().time_ns > stretch_ns) last.pop_front();
    if (!wanted) return;
    if (context->json) {
      last.push_back({record.time_ns, {text.json(event, source.model()), {}}});
    } else {
      last.push_back(
          {record.time_ns,
           {nullptr, time_text(event.wall_ns) + " " + text.line(event, source.model())}});
    }
  };
  const std::string damage = source.read_to_damage(take);

  while (!last.empty() && source.last_ns() - last.front().time_ns > stretch_ns) last.pop_front();

  const bool alive = source.alive();
  const traffic::Model &model = source.model();
  const auto [waits, stuck] = waiting(source, answered_by(context->catalogue), filter);
  const std::string end = date_text(source.wall_ns(source.last_ns()));
  if (context->json) {
    print_json({{"file", source.path()},
                {"process", source.head().pid},
                {"running", alive},
                {"started", date_text(source.head().wall_ns)},
                {"last_record", end},
                {"records", source.records()},
                {"overwritten", source.before_first()}});
    for (const auto &[id, client] : model.clients()) {
      if (id == 0 || client.ended) continue;
      print_json({{"connected", model.label(id)},
                  {"process", client.pid},
                  {"user", client.uid},
                  {"program", text.shown(client.program)}});
    }
    for (const auto &[number, message] : queued) {
      print_json({{"queued", number},
                  {"from", model.label(message.from)},
                  {"to", model.label(message.to)},
                  {"type", message.type()},
                  {"type_name", text.type(message.type())},
                  {"length", message.length},
                  {"accepted", date_text(source.wall_ns(message.accepted_ns))}});
    }
    for (const traffic::Wait &wait : waits) print_json(wait_json(wait, source, text));
    for (const Deadlock &each : stuck) print_json(deadlock_json(each, source));
    for (const TimedLine &each : last) each.line.print();
  } else {
    const auto title = [](const std::string &words) {
      print_line("");
      print_line(coloured(Colour::kBlue, words));
    };
    print_line(fmt::format("{}: process {}{}, started {}, last record {}", source.path(),
                           source.head().pid, alive ? " (which is running)" : "",
                           date_text(source.head().wall_ns), end));
    print_line(fmt::format("{} records, {} before them overwritten", source.records(),
                           source.before_first()));
    title("Connected at the end");
    Table clients(
        {{"NAME"}, {"PROCESS", Table::Align::kRight}, {"USER", Table::Align::kRight}, {"PROGRAM"}});
    for (const auto &[id, client] : model.clients()) {
      if (id == 0 || client.ended) continue;
      clients.add({label(model, id), std::to_string(client.pid), std::to_string(client.uid),
                   text.shown(client.program)});
    }
    clients.print();
    title("Queued: accepted, not delivered");
    for (const auto &[number, message] : queued) {
      print_line(fmt::format("{} {}  {} #{}, {} B", time_text(source.wall_ns(message.accepted_ns)),
                             text.pair(message.from, message.to, model), text.type(message.type()),
                             message.header.ulSeqNum, message.length));
    }
    if (queued.empty()) print_line("nothing");
    title("Requests without an answer");
    for (const std::string &line : waits_lines(waits, source, text)) print_line(line);
    for (const Deadlock &each : stuck) {
      print_line(coloured(Colour::kRed, deadlock_line(each, source)));
    }
    if (waits.empty()) print_line("none");
    title(fmt::format("The last {} s", options.seconds));
    for (const TimedLine &each : last) each.line.print();
  }
  if (!damage.empty()) throw Failure(ExitStatus::kBadBody, damage);
}

}  // namespace

void add_postmortem_command(servers::CommandLine *line, Context *context) {
  static PostmortemOptions options;
  servers::Command command =
      line->command("postmortem", "Show what a server that is gone was doing at its end",
                    [context] { postmortem(options, context); });
  add_flight_options(&command, context, &options.flight, Personal::kMasked);
  command.number("--seconds", &options.seconds, "How much of the end to show", {0, 86400});
  add_filter(&command, &options.flight);
}

}  // namespace msgctl
