// msgctl wait: waits until an application is there or gone, or until an event comes.

#include <fmt/core.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

#include "msgctl/bus.h"
#include "msgctl/context.h"
#include "msgctl/events.h"
#include "msgctl/message_text.h"
#include "msgctl/output.h"

namespace msgctl {
namespace {

// The server does not tell when somebody comes or goes, so it is asked again and again.
constexpr uint32_t kLook_ms = 50;

struct WaitWords {
  std::string name;
  std::string gone;
  std::string event;
};

void pause_until(Deadline deadline) {
  ::usleep(1000 * std::min(kLook_ms, ms_until(deadline)));
}

// Scripts wait while a system starts, so the server itself may not be there yet.
void wait_for_server(Deadline deadline) {
  struct stat status {};
  while (::stat(ORP_MSG_SERVER_PATH, &status) != 0 && ms_until(deadline) > 0) {
    pause_until(deadline);
  }
}

void wait_for_event(const Context &context, const std::string &word, Deadline deadline) {
  const uint32_t event = event_number(context, word);
  wait_for_server(deadline);
  Bus bus(context, Bus::Purpose::kIsAnswered, deadline);
  bus.subscribe(event, deadline);
  while (const Message message = bus.receive(deadline)) {
    if (!is_event(*message, event)) continue;
    print_event(context, *message);
    return;
  }
  throw Failure(ExitStatus::kTimeout,
                fmt::format("no event '{}' came in {} ms (--timeout)", word, context.timeout_ms));
}

void wait_for_application(const Context &context, const std::string &name, bool there,
                          Deadline deadline) {
  if (receiver_name(name).empty()) throw servers::UsageError("wait for an application by its name");
  if (there) wait_for_server(deadline);
  Bus bus(context, Bus::Purpose::kIsAnswered, deadline);
  for (;;) {
    // The last question still gets time for its answer.
    const uint32_t count = bus.count(name, std::max(deadline, in_ms(1000)));
    if ((count > 0) == there) {
      if (context.json) print_json({{"name", name}, {"clients", count}});
      return;
    }
    if (ms_until(deadline) == 0) break;
    pause_until(deadline);
  }
  throw Failure(ExitStatus::kTimeout,
                fmt::format("'{}' {} after {} ms (--timeout)", name,
                            there ? "is not there" : "is still there", context.timeout_ms));
}

void wait(const Context &context, const WaitWords &words) {
  const int given = static_cast<int>(!words.name.empty()) + static_cast<int>(!words.gone.empty()) +
                    static_cast<int>(!words.event.empty());
  if (given != 1)
    throw servers::UsageError("wait for one thing: NAME, --gone NAME or --event EVENT");
  const Deadline deadline = in_ms(context.timeout_ms);
  if (!words.event.empty()) return wait_for_event(context, words.event, deadline);
  wait_for_application(context, words.name.empty() ? words.gone : words.name, !words.name.empty(),
                       deadline);
}

}  // namespace

void add_wait_command(servers::CommandLine *line, Context *context) {
  static WaitWords words;
  servers::Command command =
      line->command("wait", "Wait until an application is there or gone, or for an event",
                    [context] { wait(*context, words); });
  add_common_options(&command, context);
  command.option("--gone", &words.gone, "Until no client has this name");
  command.option("--event", &words.event, "Until this event comes, and print it");
  command.argument("NAME", &words.name, "Until a client has this name",
                   servers::Presence::kOptional);
}

}  // namespace msgctl
