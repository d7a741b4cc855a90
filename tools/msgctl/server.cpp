// msgctl count, exit, sync, disconnect, stats: the message server's services and counters.

#include <fmt/core.h>
#include <unistd.h>

#include <vector>

#include "common/printable.h"
#include "msgctl/admin.h"
#include "msgctl/bus.h"
#include "msgctl/clients.h"
#include "msgctl/context.h"
#include "msgctl/output.h"

namespace msgctl {
namespace {

struct ServerWords {
  std::string name;
  std::string action;
  bool watch = false;
  uint32_t interval_ms = 1000;
};

std::string application(const std::string &name) {
  std::string application = receiver_name(name);
  if (application.empty())
    throw servers::UsageError("that is for applications, not for the server");
  return application;
}

void count(const Context &context, const ServerWords &words) {
  const std::string name = application(words.name);
  const Deadline deadline = in_ms(context.timeout_ms);
  Bus bus(context, Bus::Purpose::kIsAnswered, deadline);
  const uint32_t clients = bus.count(name, deadline);
  if (context.json) {
    print_json({{"name", name}, {"clients", clients}});
  } else {
    print_line(std::to_string(clients));
  }
}

// Like ORP_MSG_SafeExitProcesses: asks the oldest client of the name and waits for its answer, then
// has the server ask all of them.
void ask_to_exit(const Context &context, const ServerWords &words) {
  const std::string name = application(words.name);
  const Deadline deadline = in_ms(context.timeout_ms);
  Bus bus(context, Bus::Purpose::kIsAnswered, deadline);
  std::string body = name;
  body.resize(ORP_APP_NAME_SIZE);
  bool said = true;
  try {
    (void)bus.ask(name, ORP_MSG_EXIT, 0, {}, deadline);
  } catch (const Failure &failure) {
    if (failure.status() != ExitStatus::kTimeout) throw;
    said = false;
  }
  bus.send("", ORP_MSG_EXIT, 0, body);
  if (!said) {
    throw Failure(ExitStatus::kTimeout,
                  fmt::format("'{}' did not say that it exits in {} ms (--timeout); it has been "
                              "asked, 'msgctl wait --gone {}' tells when it has gone",
                              name, context.timeout_ms, name));
  }
  if (context.json) print_json({{"name", name}, {"exits", true}});
}

void sync(const Context &context, const ServerWords &words) {
  if (words.name.empty() || words.name.size() > 255) {
    throw servers::UsageError("the name of a synchronisation point has 1 to 255 characters");
  }
  const Deadline deadline = in_ms(context.timeout_ms);
  const std::string body = words.name + '\0';
  if (words.action == "wait") {
    Bus bus(context, Bus::Purpose::kIsAnswered, deadline);
    try {
      (void)bus.ask("", ORP_MSG_SYNC_WAIT, 0, body, deadline);
    } catch (const Failure &failure) {
      if (failure.status() != ExitStatus::kTimeout) throw;
      throw Failure(ExitStatus::kTimeout,
                    fmt::format("nobody released the point '{}' in {} ms (--timeout)", words.name,
                                context.timeout_ms));
    }
  } else if (words.action == "post") {
    Bus bus(context, Bus::Purpose::kSends, deadline);
    const uint32_t sequence = bus.send("", ORP_MSG_SYNC_POST, 0, body);
    bus.settle("", ORP_MSG_SYNC_POST, sequence, deadline);
  } else {
    throw servers::UsageError("'" + words.action + "' is not 'wait' or 'post'");
  }
  if (context.json) print_json({{"point", words.name}, {"done", words.action}});
}

void disconnect(const Context &context, const ServerWords &words) {
  const Admin admin(context);
  for (const Json &client : clients_named(admin, words.name)) {
    admin.remove(fmt::format("/v1/clients/{}", count_at(client, "id")));
    if (context.json) {
      print_json({{"id", count_at(client, "id")}, {"name", text_at(client, "name")}});
    }
  }
}

// ---- stats ----

void print_flow(const char *title, const Json &flow) {
  print_line(fmt::format("{:<20}{} messages, {}", title, count_at(flow, "messages"),
                         bytes_text(count_at(flow, "bytes"))));
}

// "no such name"
std::string words_of(std::string text) {
  for (char &c : text) {
    if (c == '_') c = ' ';
  }
  return servers::printable(text);
}

uint64_t print_losses(const Json &stats) {
  uint64_t sum = 0;
  for (const auto &[kind, number] : object_at(stats, "lost").items()) {
    const uint64_t lost = number.is_number_unsigned() ? number.get<uint64_t>() : 0;
    sum += lost;
    print_line(coloured(lost == 0 ? Colour::kNone : Colour::kRed,
                        fmt::format("{:<20}{}", "lost, " + words_of(kind), lost)));
  }
  return sum;
}

void print_culprits(const Json &stats) {
  const auto culprits = stats.find("culprits");
  if (culprits == stats.end() || !culprits->is_array() || culprits->empty()) return;
  print_line("");
  Table table({{"LOSS"}, {"FROM"}, {"TO"}, {"COUNT", Table::Align::kRight}, {"LAST"}});
  for (const Json &pair : *culprits) {
    table.add({words_of(text_at(pair, "loss")), servers::printable(text_at(pair, "from")),
               servers::printable(text_at(pair, "to")), std::to_string(count_at(pair, "count")),
               time_text(static_cast<uint64_t>(number_at(pair, "last_at") * 1e9))});
  }
  table.print();
}

void print_stats(const Context &context, const Json &stats) {
  if (context.json) {
    print_json(stats);
    return;
  }
  print_line(fmt::format("{:<20}{}, process {}", "msgsvr",
                         servers::printable(text_at(stats, "version")), count_at(stats, "pid")));
  print_line(fmt::format("{:<20}{}", "running for",
                         duration_text(static_cast<uint64_t>(number_at(stats, "uptime_s") * 1e9))));
  print_line(fmt::format("{:<20}{} now, {} in all", "clients", count_at(stats, "clients"),
                         count_at(stats, "connections")));
  print_flow("taken in", object_at(stats, "in"));
  print_flow("given out", object_at(stats, "out"));
  print_losses(stats);
  for (const char *member :
       {"senders_told", "nobody_told", "descriptors_passed", "failed_callbacks"}) {
    print_line(fmt::format("{:<20}{}", words_of(member), count_at(stats, member)));
  }
  const Json &flight = object_at(stats, "flight");
  if (!flight.empty()) {
    print_line(fmt::format("{:<20}{} of {}, {} records", "flight recorder",
                           servers::printable(text_at(flight, "path")),
                           bytes_text(count_at(flight, "size")), count_at(flight, "records")));
  }
  print_culprits(stats);
}

void stats(const Context &context, const ServerWords &words) {
  const Admin admin(context);
  for (;;) {
    print_stats(context, admin.get("/v1/stats"));
    if (!words.watch) return;
    if (!context.json) print_line("");
    ::usleep(words.interval_ms * 1000);
  }
}

}  // namespace

void add_server_commands(servers::CommandLine *line, Context *context) {
  static ServerWords words;
  const auto with_name = [&](servers::Command command, const char *label, const char *help) {
    add_common_options(&command, context);
    command.argument(label, &words.name, help, servers::Presence::kRequired);
  };
  with_name(
      line->command("count", "Count the clients of a name", [context] { count(*context, words); }),
      "NAME", "An application");
  with_name(line->command("exit", "Ask an application to exit in an orderly way",
                          [context] { ask_to_exit(*context, words); }),
            "NAME", "An application");
  with_name(line->command("disconnect", "End the connections of a client",
                          [context] { disconnect(*context, words); }),
            "CLIENT", "A name, or #ID for one connection");

  servers::Command sync_command =
      line->command("sync", "Wait at a synchronisation point, or release it",
                    [context] { sync(*context, words); });
  add_common_options(&sync_command, context);
  sync_command.argument("wait|post", &words.action, "What to do", servers::Presence::kRequired);
  sync_command.argument("POINT", &words.name, "The point's name", servers::Presence::kRequired);

  servers::Command stats_command = line->command("stats", "Show what the server counts and lost",
                                                 [context] { stats(*context, words); });
  add_common_options(&stats_command, context);
  stats_command.flag("--watch", &words.watch, "Again and again");
  stats_command.number("--interval", &words.interval_ms, "Milliseconds between two looks",
                       {10, 3'600'000});
}

}  // namespace msgctl
