// msgctl publish, msgctl listen: events.

#include "msgctl/events.h"

#include <fmt/core.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

#include "common/printable.h"
#include "msgapi/event.h"
#include "msgctl/admin.h"
#include "msgctl/body.h"
#include "msgctl/message_text.h"
#include "msgctl/output.h"
#include "traffic/decode.h"

namespace msgctl {
namespace {

constexpr std::string_view kEventType = "EventType";

struct PublishWords {
  std::string event;
  std::vector<std::string> items;
  std::string payload;
  std::string raw;
};

struct ListenWords {
  std::vector<std::string> events;
  uint32_t count = 0;
  uint32_t seconds = 0;
};

uint64_t wall_ns() {
  timespec now{};
  ::clock_gettime(CLOCK_REALTIME, &now);
  return static_cast<uint64_t>(now.tv_sec) * 1'000'000'000u + static_cast<uint64_t>(now.tv_nsec);
}

// "2026-01-01T00:00:00Z"
std::string timestamp() {
  const time_t now = ::time(nullptr);
  tm utc{};
  ::gmtime_r(&now, &utc);
  return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}Z", utc.tm_year + 1900, utc.tm_mon + 1,
                     utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec);
}

// Takes the event type out of `items`: the first word if it has no "=", or else the item EventType.
std::string take_event_type(std::vector<std::string> *items) {
  if (!items->empty() && items->front().find('=') == std::string::npos) {
    std::string word = items->front();
    items->erase(items->begin());
    return word;
  }
  const std::string head = std::string(kEventType) + "=";
  const auto entry =
      std::ranges::find_if(*items, [&](const std::string &item) { return item.starts_with(head); });
  if (entry == items->end()) {
    throw servers::UsageError(
        "say what happened, in one word before the others: msgctl publish wan LinkUp if=eth0");
  }
  std::string word = entry->substr(head.size());
  items->erase(entry);
  return word;
}

std::string event_body(uint32_t event, const PublishWords &words) {
  if (!words.raw.empty()) {
    if (!words.items.empty() || !words.payload.empty()) {
      throw servers::UsageError("--raw is the whole event: items and --payload do not go with it");
    }
    return make_body({words.raw, {}, 0});
  }
  std::vector<std::string> items = words.items;
  const std::string what = take_event_type(&items);
  if (words.payload.empty()) {
    // The library does not hand its subscribers an event without any other item.
    if (items.empty() && event >= ORP_MSG_FIRST_JSON_EVENT) {
      throw servers::UsageError(
          "an event of this module needs an item, KEY=VALUE: subscribers get no empty ones");
    }
    items.insert(items.begin(), fmt::format("{}={}", kEventType, what));
    return make_items(items, 0);
  }
  if (!items.empty()) throw servers::UsageError("give items or --payload, not both");
  Json payload = traffic::parsed(body_text(words.payload));
  if (!payload.is_object()) {
    throw Failure(ExitStatus::kBadBody, "--payload is no JSON object: " + words.payload);
  }
  const Json json{{"Method", "notify"},
                  {"Module", event_text(event)},
                  {"EventType", what},
                  {"Timestamp", timestamp()},
                  {"Payload", std::move(payload)}};
  return json.dump() + '\0';
}

void publish(const Context &context, const PublishWords &words) {
  const uint32_t event = event_number(context, words.event);
  if (event == ORP_MSG_ALL_EVENTS) {
    throw servers::UsageError("'all' stands for events to listen to; publish a single one");
  }
  const std::string body = event_body(event, words);
  const Deadline deadline = in_ms(context.timeout_ms);
  Bus bus(context, Bus::Purpose::kSends, deadline);
  const uint32_t sequence = bus.send("", event, 0, body);
  try {
    bus.settle("", event, sequence, deadline);
  } catch (const Failure &failure) {
    if (failure.status() != ExitStatus::kNoSuch) throw;
    throw Failure(
        ExitStatus::kNoSuch,
        fmt::format("0x{:x} is outside the events, and nobody has subscribed to it", event));
  }
  if (context.json) {
    print_json({{"event", event}, {"module", event_text(event)}, {"length", body.size()}});
  }
}

// How many messages the server lost for this client; 0 if this user may not ask.
uint64_t lost_for_us(const Context &context) {
  try {
    for (const Json &client : Admin(context).list("/v1/clients", "clients")) {
      if (count_at(client, "pid") == static_cast<uint64_t>(::getpid())) {
        return count_at(client, "lost");
      }
    }
  } catch (const Failure &) {
  }
  return 0;
}

void listen(const Context &context, const ListenWords &words) {
  std::vector<uint32_t> events;
  for (const std::string &word : words.events) events.push_back(event_number(context, word));
  if (events.empty()) events.push_back(ORP_MSG_ALL_EVENTS);

  Bus bus(context, Bus::Purpose::kIsAnswered);
  bus.stay_quietly();
  for (const uint32_t event : events) bus.subscribe(event, in_ms(context.timeout_ms));

  const Deadline end = words.seconds == 0 ? Deadline::max() : in_ms(uint64_t{words.seconds} * 1000);
  uint32_t seen = 0;
  while (words.count == 0 || seen < words.count) {
    const Deadline wait = words.seconds == 0 ? in_ms(3'600'000) : end;
    const Message message = bus.receive(wait);
    if (!message) {
      if (words.seconds == 0) continue;
      break;
    }
    const bool wanted =
        std::ranges::any_of(events, [&](uint32_t event) { return is_event(*message, event); });
    if (!wanted) continue;
    print_event(context, *message);
    ++seen;
  }
  if (const uint64_t lost = lost_for_us(context); lost != 0) {
    throw Failure(
        ExitStatus::kLost,
        fmt::format("{} messages were lost: msgctl did not print them fast enough", lost));
  }
  if (seen < words.count) {
    throw Failure(ExitStatus::kTimeout, fmt::format("{} of {} events came in {} s (--for)", seen,
                                                    words.count, words.seconds));
  }
}

}  // namespace

bool is_event(const ORP_MSG_HEADER_ST &message, uint32_t event) {
  const uint32_t type = message.ulMsgType & ORP_MSG_TYPE_MASK;
  return event == ORP_MSG_ALL_EVENTS ? type >> 8 == ORP_MSG_EVENT_PAGE : type == event;
}

void print_event(const Context &context, const ORP_MSG_HEADER_ST &message) {
  const uint32_t type = message.ulMsgType & ORP_MSG_TYPE_MASK;
  const uint64_t now = wall_ns();
  if (context.json) {
    Json json{{"at", static_cast<double>(now) / 1e9}, {"module", event_text(type)}};
    json.update(message_json(context, message, Role::kRequest));
    print_json(json);
    return;
  }
  print_line(fmt::format("{}  {}  {}  {}", coloured(Colour::kDim, time_text(now)),
                         coloured(Colour::kGreen, event_text(type)),
                         coloured(Colour::kBlue, servers::printable(sender_of(message))),
                         body_line(context, message, Role::kRequest)));
}

void add_event_commands(servers::CommandLine *line, Context *context) {
  static PublishWords publish_words;
  servers::Command publish_command =
      line->command("publish", "Publish an event", [context] { publish(*context, publish_words); });
  add_common_options(&publish_command, context);
  publish_command.option("--payload", &publish_words.payload,
                         "Publish as JSON with this object (or @FILE, -) as its payload");
  publish_command.option("--raw", &publish_words.raw,
                         "Publish these bytes: TEXT, @FILE, -, hex:...");
  publish_command.argument("EVENT", &publish_words.event, "A module (wan), a type's name or number",
                           servers::Presence::kRequired);
  publish_command.arguments("KEY=VALUE", &publish_words.items,
                            "What happened, in a word, and the event's items",
                            servers::Presence::kOptional);

  static ListenWords listen_words;
  servers::Command listen_command = line->command("listen", "Print events as they come",
                                                  [context] { listen(*context, listen_words); });
  add_common_options(&listen_command, context);
  listen_command.number("-n,--count", &listen_words.count, "End after so many events; 0: go on");
  listen_command.number("--for", &listen_words.seconds, "End after so many seconds; 0: go on",
                        {0, 31'536'000});
  listen_command.arguments("EVENT", &listen_words.events,
                           "Modules (wan), types by name or number; all events without one",
                           servers::Presence::kOptional);
}

}  // namespace msgctl
