// msgctl ping: round trips.

#include <fmt/core.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include "msgctl/body.h"
#include "msgctl/bus.h"
#include "msgctl/context.h"
#include "msgctl/message_text.h"
#include "msgctl/output.h"

namespace msgctl {
namespace {

struct PingWords {
  std::string name{kServerWord};
  std::string type;
  uint32_t count = 1000;
  uint32_t size = 0;
};

uint64_t at(const std::vector<uint64_t> &sorted, double share) {
  const auto index =
      static_cast<size_t>(std::lround(share * static_cast<double>(sorted.size() - 1)));
  return sorted[index];
}

// In microseconds, the usual unit of round trips.
std::string us(uint64_t ns) {
  return fmt::format("{:.1f} us", static_cast<double>(ns) / 1e3);
}

// One round trip, waited for with the library's own function like in an application: a poll() of
// ours before it would be measured, too.
Message round_trip(Bus *bus, const std::string &to, uint32_t type, const std::string &body,
                   uint32_t timeout_ms, uint64_t *took_ns) {
  const Clock::time_point start = Clock::now();
  const uint32_t sequence = bus->send(to, type, 0, body);
  const Deadline deadline = start + std::chrono::milliseconds(timeout_ms);
  for (;;) {
    ORP_MSG_HEADER_ST *raw = nullptr;
    const uint32_t status = ORP_MSG_ReceiveManual(&raw, std::max(ms_until(deadline), 1u));
    Message message(raw);
    if (status == ORP_ERR_TIMEOUT) return nullptr;
    if (status != ORP_OK) fail(status, "the round trips ended");
    if (message->ulSeqNum != sequence) continue;
    *took_ns = static_cast<uint64_t>(
        std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now() - start).count());
    return message;
  }
}

void ping(const Context &context, const PingWords &words) {
  const std::string to = receiver_name(words.name);
  if (!to.empty() && words.type.empty()) {
    throw servers::UsageError("no message is answered by every application: name a type that '" +
                              to + "' answers and that may come often (--type)");
  }
  const uint32_t type =
      words.type.empty() ? ORP_MSG_FACTORY_MODE : type_number(context, words.type);
  const std::string body(words.size, '\0');

  Bus bus(context, Bus::Purpose::kIsAnswered);
  // The first one only shows whether somebody answers, and is not counted.
  (void)bus.ask(to, type, 0, body, in_ms(context.timeout_ms));
  std::vector<uint64_t> times;
  times.reserve(words.count);
  bool missing = false;
  const Clock::time_point start = Clock::now();
  while (times.size() < words.count) {
    uint64_t took_ns = 0;
    const Message message = round_trip(&bus, to, type, body, context.timeout_ms, &took_ns);
    missing = !message || (message->ulMsgType & ORP_MSG_TYPE_MASK) != type;
    if (missing) break;
    times.push_back(took_ns);
  }
  const std::chrono::duration<double> all = Clock::now() - start;
  const size_t done = times.size();
  if (done > 0) {
    std::ranges::sort(times);
    const double rate = static_cast<double>(done) / all.count();
    if (context.json) {
      print_json({{"to", to},
                  {"type", type},
                  {"size", words.size},
                  {"round_trips", done},
                  {"min_ns", times.front()},
                  {"median_ns", at(times, 0.5)},
                  {"p99_ns", at(times, 0.99)},
                  {"max_ns", times.back()},
                  {"per_second", rate}});
    } else {
      print_line(fmt::format("{} round trips: min {}, median {}, p99 {}, max {}, {:.0f} a second",
                             done, us(times.front()), us(at(times, 0.5)), us(at(times, 0.99)),
                             us(times.back()), rate));
    }
  }
  if (missing) {
    throw Failure(ExitStatus::kTimeout,
                  fmt::format("{} did not answer round trip {} of {} in {} ms (--timeout)",
                              receiver_text(to), done + 1, words.count, context.timeout_ms));
  }
}

}  // namespace

void add_ping_command(servers::CommandLine *line, Context *context) {
  static PingWords words;
  servers::Command command =
      line->command("ping", "Measure round trips to the server or an application",
                    [context] { ping(*context, words); });
  add_common_options(&command, context);
  command.number("-n,--count", &words.count, "Round trips", {1, 10'000'000});
  command.number("--size", &words.size, "Bytes of the body", {0, 8'000'000});
  command.option("--type", &words.type, "A type that NAME answers, by name or number");
  command.argument("NAME", &words.name, "An application, or 'server'",
                   servers::Presence::kOptional);
}

}  // namespace msgctl
