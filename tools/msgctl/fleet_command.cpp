// msgctl fleet: many gateways at once, through the broker that their bridges are connected to
// (docs/fleet.md). It needs no message server of its own.

#include <fmt/core.h>
#include <mqtt_protocol.h>
#include <sys/random.h>

#include <algorithm>
#include <cerrno>
#include <exception>
#include <functional>
#include <map>
#include <optional>
#include <set>

#include "common/printable.h"
#include "mqtt/client.h"
#include "msgctl/body.h"
#include "msgctl/bus.h"
#include "msgctl/fleet_command.h"
#include "msgctl/output.h"
#include "traffic/decode.h"
#include "traffic/histogram.h"

namespace msgctl {
namespace {

using servers::printable;

constexpr uint16_t kKeepAlive_s = 30;
constexpr int kLoopTime_ms = 50;
// A broker sends retained messages at once; after a pause this long it has sent all of them.
constexpr uint32_t kQuiet_ms = 500;
constexpr uint16_t kInFlight = 1000;
constexpr size_t kMostNamed = 10;

struct FleetWords {
  std::string action;
  std::vector<std::string> words;
  std::string broker;
  std::string prefix = "gw";
  std::string credentials;
  mqtt::Tls tls;
  bool no_verify = false;
  std::vector<std::string> gateways;
  uint64_t count = 0;
  uint32_t seconds = 0;
};

struct Arrived {
  std::string topic;
  std::string payload;
  std::string correlation;
  std::string stream;
  uint64_t sequence = 0;
  std::string status;
};

std::string random_id() {
  uint64_t random = 0;
  if (::getrandom(&random, sizeof random, 0) != sizeof random) throw std::bad_alloc();
  return fmt::format("msgctl-{:016x}", random);
}

// A connection to the broker.
class Broker {
 public:
  Broker(const Context &context, const FleetWords &words) : id_(random_id()) {
    mosquitto_lib_init();
    const mqtt::Address address = address_of(words);
    const std::optional<mqtt::Credentials> credentials = credentials_of(words);
    try {
      client_ = mqtt::make_client(id_, this, address, words.tls, credentials);
    } catch (const std::runtime_error &error) {
      throw Failure(ExitStatus::kUsage, error.what());
    }
    mosquitto_int_option(client_.get(), MOSQ_OPT_SEND_MAXIMUM, kInFlight);
    mosquitto_connect_v5_callback_set(
        client_.get(), [](mosquitto *, void *self, int reason, int, const mosquitto_property *) {
          static_cast<Broker *>(self)->connected_ = reason;
        });
    mosquitto_subscribe_v5_callback_set(
        client_.get(), [](mosquitto *, void *self, int, int count, const int *granted,
                          const mosquitto_property *) {
          auto *broker = static_cast<Broker *>(self);
          broker->subscribed_ = true;
          broker->refused_ = std::any_of(granted, granted + count, [](int qos) { return qos > 2; });
        });
    mosquitto_message_v5_callback_set(client_.get(),
                                      [](mosquitto *, void *self, const mosquitto_message *message,
                                         const mosquitto_property *list) {
                                        // No exception may pass through the library's frames:
                                        // run() rethrows it.
                                        auto *broker = static_cast<Broker *>(self);
                                        try {
                                          if (!broker->failure_) broker->take(*message, list);
                                        } catch (...) {
                                          broker->failure_ = std::current_exception();
                                        }
                                      });
    mosquitto_log_callback_set(client_.get(),
                               [](mosquitto *, void *self, int level, const char *text) {
                                 if (level != MOSQ_LOG_ERR) return;
                                 auto *broker = static_cast<Broker *>(self);
                                 const int number = errno;  // the library reads it after this call
                                 try {
                                   broker->trouble_ = text;
                                 } catch (...) {
                                   broker->failure_ = std::current_exception();
                                 }
                                 errno = number;
                               });
    const Deadline deadline = in_ms(context.timeout_ms);
    check(mosquitto_connect_bind_v5(client_.get(), address.host.c_str(), address.port, kKeepAlive_s,
                                    nullptr, nullptr),
          address);
    run(deadline, address, [this] { return connected_.has_value(); });
    if (!connected_) {
      throw Failure(ExitStatus::kTimeout, fmt::format("{} does not answer", address.text()));
    }
    if (*connected_ != 0) {
      throw Failure(ExitStatus::kNotPermitted, fmt::format("{} refuses: {}", address.text(),
                                                           mosquitto_reason_string(*connected_)));
    }
    address_ = address;
  }

  const std::string &id() const { return id_; }
  void on_arrival(std::function<void(const Arrived &)> take) { take_ = std::move(take); }

  // Of what the broker has retained, or only of what comes from now on.
  enum class Retained { kSent, kNotSent };
  void subscribe(const std::string &topics, Retained retained, Deadline deadline) {
    subscribed_ = false;
    const int options = retained == Retained::kSent ? 0 : MQTT_SUB_OPT_SEND_RETAIN_NEVER;
    check(mosquitto_subscribe_v5(client_.get(), nullptr, topics.c_str(), 1, options, nullptr),
          address_);
    run(deadline, [this] { return subscribed_; });
    if (!subscribed_) throw Failure(ExitStatus::kTimeout, "the broker does not answer");
    if (refused_) {
      throw Failure(ExitStatus::kNotPermitted, "the broker refuses a subscription to " + topics);
    }
  }

  void ask(const std::string &topic, const std::string &payload, const std::string &answer_to,
           const std::string &correlation) {
    mqtt::Properties properties;
    properties.add_text(MQTT_PROP_RESPONSE_TOPIC, answer_to);
    properties.add_bytes(MQTT_PROP_CORRELATION_DATA, correlation);
    check(mosquitto_publish_v5(client_.get(), nullptr, topic.c_str(),
                               static_cast<int>(payload.size()), payload.data(), 1, false,
                               properties.get()),
          address_);
  }

  // Serves the connection until `deadline`, or until `done`.
  void run(Deadline deadline, const std::function<bool()> &done) { run(deadline, address_, done); }

 private:
  static mqtt::Address address_of(const FleetWords &words) {
    try {
      return mqtt::read_address(words.broker);
    } catch (const std::invalid_argument &error) {
      throw servers::UsageError("--broker " + words.broker + ": " + error.what());
    }
  }

  static std::optional<mqtt::Credentials> credentials_of(const FleetWords &words) {
    if (words.credentials.empty()) return std::nullopt;
    try {
      return mqtt::read_credentials(words.credentials);
    } catch (const catalogue::JsonError &error) {
      throw Failure(ExitStatus::kBadBody, catalogue::problem_in(words.credentials, error).text());
    } catch (const catalogue::Unreadable &error) {
      throw Failure(ExitStatus::kBadBody, words.credentials + ": " + error.what());
    }
  }

  void check(int error, const mqtt::Address &address) const {
    if (error == MOSQ_ERR_SUCCESS) return;
    const int number = errno;
    throw Failure(ExitStatus::kNoServer,
                  fmt::format("no connection to {}: {}", address.text(),
                              trouble_.empty() ? mqtt::error_text(error, number) : trouble_));
  }

  void run(Deadline deadline, const mqtt::Address &address, const std::function<bool()> &done) {
    while (!done() && ms_until(deadline) > 0) {
      const auto wait_ms = static_cast<int>(std::min<uint32_t>(ms_until(deadline), kLoopTime_ms));
      const int error = mosquitto_loop(client_.get(), wait_ms, 1);
      if (failure_) std::rethrow_exception(failure_);
      // A broker that refuses says so, and ends the connection.
      if (!done()) check(error, address);
    }
  }

  void take(const mosquitto_message &message, const mosquitto_property *list) {
    if (!take_) return;
    Arrived arrived{.topic = message.topic,
                    .payload = {static_cast<const char *>(message.payload),
                                static_cast<size_t>(message.payloadlen)},
                    .correlation = {},
                    .stream = mqtt::user_property(list, "stream").value_or(""),
                    .status = mqtt::user_property(list, "status").value_or("")};
    arrived.correlation = mqtt::bytes_property(list, MQTT_PROP_CORRELATION_DATA).value_or("");
    const std::string sequence = mqtt::user_property(list, "sequence").value_or("0");
    arrived.sequence = std::strtoull(sequence.c_str(), nullptr, 10);
    take_(arrived);
  }

  std::string id_;
  mqtt::Address address_{"", 0, false};
  mqtt::Client client_;
  std::function<void(const Arrived &)> take_;
  std::optional<int> connected_;
  bool subscribed_ = false;
  bool refused_ = false;
  std::string trouble_;
  std::exception_ptr failure_;
};

// The topic's level behind the prefix, which is the gateway; empty for topics without the prefix.
std::string gateway_in(const std::string &topic, const std::string &prefix) {
  if (!topic.starts_with(prefix + "/")) return "";
  const size_t begin = prefix.size() + 1;
  return topic.substr(begin, std::min(topic.find('/', begin), topic.size()) - begin);
}

// The JSON, or a text if it is none or beyond the limits of traffic::parsed().
Json parsed(const std::string &text) {
  Json json = traffic::parsed(text);
  return json.is_discarded() ? Json(printable(text)) : json;
}

std::string member(const Json &object, const char *name) {
  if (!object.is_object() || !object.contains(name)) return "";
  const Json &value = object[name];
  return value.is_string() ? printable(value.get<std::string>()) : json_text(value);
}

// The retained statuses, by gateway.
struct Statuses {
  std::map<std::string, Json> gateways;
  bool complete;  // false: the broker was still sending at the deadline
};

Statuses statuses(Broker *broker, const FleetWords &words, Deadline deadline) {
  Statuses found;
  // A short time-out needs a shorter pause, or a silent broker would count as one that still sends.
  uint32_t pause_ms = kQuiet_ms;
  Deadline quiet = in_ms(pause_ms);
  broker->on_arrival([&](const Arrived &arrived) {
    const std::string gateway = gateway_in(arrived.topic, words.prefix);
    if (gateway.empty() || !arrived.topic.ends_with("/status")) return;
    found.gateways[gateway] = parsed(arrived.payload);
    quiet = in_ms(pause_ms);
  });
  broker->subscribe(words.prefix + "/+/status", Broker::Retained::kSent, deadline);
  pause_ms = std::min(kQuiet_ms, static_cast<uint32_t>(ms_until(deadline)) / 2);
  quiet = in_ms(pause_ms);
  broker->run(deadline, [&quiet] { return ms_until(quiet) == 0; });
  broker->on_arrival(nullptr);
  found.complete = ms_until(quiet) == 0;
  return found;
}

Failure incomplete(const Context &context, const char *what) {
  return {ExitStatus::kTimeout,
          fmt::format("the broker was still sending statuses of gateways after {} ms (--timeout): "
                      "{}",
                      context.timeout_ms, what)};
}

void list(const Context &context, const FleetWords &words) {
  const Deadline deadline = in_ms(context.timeout_ms);
  Broker broker(context, words);
  const auto [found, complete] = statuses(&broker, words, deadline);
  Table table({{"GATEWAY"},
               {"STATE"},
               {"VERSION"},
               {"EVENTS", Table::Align::kRight},
               {"WAITING", Table::Align::kRight},
               {"GIVEN UP", Table::Align::kRight}});
  size_t online = 0;
  for (const auto &[gateway, status] : found) {
    online += member(status, "state") == "online" ? 1 : 0;
    if (context.json) {
      print_json({{"gateway", printable(gateway)}, {"status", status}});
    } else {
      table.add({printable(gateway), member(status, "state"), member(status, "version"),
                 member(status, "sequence"), member(status, "waiting"),
                 member(status, "given_up")});
    }
  }
  if (!context.json) {
    if (!found.empty()) table.print();
    print_line(fmt::format("{} gateways, {} online", found.size(), online));
  }
  if (!complete) throw incomplete(context, "there may be more of them");
}

// ---- Events ----

// The numbers come from gateways and may be anything, so sums stop at the largest number.
void add_bounded(uint64_t *sum, uint64_t count) {
  *sum += std::min(count, UINT64_MAX - *sum);
}

// The numbers of one gateway's events. A missing event can be seen twice, as a gap and in a notice
// of the gateway, in either order. It counts once.
class Stream {
 public:
  // A notice is remembered until a later event has come.
  static constexpr size_t kMostNotices = 256;

  bool is(const std::string &name) const { return name_ == name; }
  void begin(const std::string &name) { *this = Stream{}, name_ = name; }

  // How many events are missing between the last one and this one, beyond those that notices have
  // told of; none when this one came before.
  std::optional<uint64_t> event(uint64_t sequence) {
    if (sequence != 0 && sequence <= last_) return std::nullopt;
    uint64_t gap = last_ == 0 || sequence == 0 ? 0 : sequence - last_ - 1;
    for (Notice &notice : notices_) {
      if (notice.first >= sequence) continue;
      const uint64_t known = std::min(gap, notice.count);
      gap -= known;
      notice.count -= known;
    }
    std::erase_if(notices_, [sequence](const Notice &each) { return each.last < sequence; });
    last_ = std::max(last_, sequence);
    add_bounded(&unexplained_, gap);
    return gap;
  }

  // How many of the notice's events have not been counted yet.
  uint64_t notice(uint64_t first, uint64_t last, uint64_t count) {
    if (last < first) return 0;
    count = std::min(count, last - first + 1);
    const uint64_t known = first <= last_ ? std::min(unexplained_, count) : 0;
    unexplained_ -= known;
    if (last > last_ && notices_.size() < kMostNotices) notices_.push_back({first, last, count});
    return count - known;
  }

 private:
  struct Notice {
    uint64_t first, last, count;
  };

  std::string name_;
  uint64_t last_ = 0;
  uint64_t unexplained_ = 0;  // missing events that no notice has told of
  std::vector<Notice> notices_;
};

uint64_t number_in(const Json &object, const char *name) {
  if (!object.is_object() || !object.contains(name)) return 0;
  const Json &value = object[name];
  return value.is_number_unsigned() ? value.get<uint64_t>() : 0;
}

void listen(Context *context, const FleetWords &words) {
  if (words.words.size() > 2) throw servers::UsageError("listen takes a module and an event");
  const auto level = [&words](size_t index) {
    return index < words.words.size() ? words.words[index] : std::string("+");
  };
  // A selection of events has gaps in its numbers, so missing ones are counted only without one.
  const bool counts = words.words.empty();
  Broker broker(*context, words);
  std::map<std::string, Stream> streams;
  uint64_t printed = 0, lost = 0;
  broker.on_arrival([&](const Arrived &arrived) {
    const std::string gateway = gateway_in(arrived.topic, words.prefix);
    if (words.count > 0 && printed == words.count) return;
    if (!words.gateways.empty() && std::ranges::count(words.gateways, gateway) == 0) return;
    const Json payload = parsed(arrived.payload);
    Stream &stream = streams[gateway];
    if (!stream.is(arrived.stream)) stream.begin(arrived.stream);
    // An event may be called "lost", too.
    if (arrived.topic == fmt::format("{}/{}/lost", words.prefix, gateway)) {
      const uint64_t count = number_in(payload, "count");
      add_bounded(&lost,
                  stream.notice(number_in(payload, "first"), number_in(payload, "last"), count));
      print_line(context->json ? json_text({{"gateway", printable(gateway)}, {"lost", payload}})
                               : fmt::format("{} gave up {} events: {}", printable(gateway), count,
                                             member(payload, "reason")));
      return;
    }
    const std::optional<uint64_t> missing = stream.event(arrived.sequence);
    if (!missing) return;
    if (counts && *missing > 0) {
      add_bounded(&lost, *missing);
      if (!context->json) {
        print_line(fmt::format("{} {} events are missing here", printable(gateway), *missing));
      }
    }
    ++printed;
    if (context->json) {
      print_json({{"gateway", printable(gateway)},
                  {"sequence", arrived.sequence},
                  {"topic", printable(arrived.topic)},
                  {"event", payload}});
    } else {
      print_line(fmt::format(
          "{} {} {} {}", printable(gateway), member(payload, "Module"),
          member(payload, "EventType"),
          json_text(payload.is_object() && payload.contains("Payload") ? payload["Payload"]
                                                                       : payload)));
    }
  });
  const Deadline subscribed = in_ms(context->timeout_ms);
  // An event that is retained has come long ago: what came since then is not missing.
  const auto subscribe = [&](const std::string &topics) {
    broker.subscribe(topics, Broker::Retained::kNotSent, subscribed);
  };
  if (counts) subscribe(words.prefix + "/+/lost");
  subscribe(fmt::format("{}/+/event/{}/{}", words.prefix, level(0), level(1)));
  const Deadline end = words.seconds > 0 ? in_ms(uint64_t{words.seconds} * 1000) : Deadline::max();
  broker.run(end, [&] { return words.count > 0 && printed >= words.count; });
  if (lost > 0) {
    throw Failure(ExitStatus::kLost,
                  fmt::format("{} events did not come: gateways gave them up, or the broker "
                              "dropped them",
                              lost));
  }
}

// ---- Requests ----

struct FleetQuestion {
  std::string below;  // the topic's levels behind the gateway
  std::string payload;
};

FleetQuestion question_of(const FleetWords &words) {
  if (words.action == "get") {
    if (words.words.empty() || words.words.size() > 2 || !words.words[0].starts_with('/')) {
      throw servers::UsageError("get takes a path that begins with /, and a query");
    }
    return {"rest/get" + words.words[0], words.words.size() > 1 ? words.words[1] : ""};
  }
  if (words.words.size() < 2 || words.words.size() > 4) {
    throw servers::UsageError("call takes an application, a type, a data word and a body");
  }
  Json payload = Json::object();
  if (words.words.size() > 2) payload["data"] = number(words.words[2], "data word");
  if (words.words.size() > 3) payload["body"] = words.words[3];
  try {
    return {fmt::format("call/{}/{}", words.words[0], words.words[1]),
            payload.empty() ? "" : payload.dump()};
  } catch (const Json::exception &) {
    throw Failure(ExitStatus::kBadBody, "the body is no UTF-8, which JSON needs");
  }
}

struct FleetAnswers {
  std::map<std::string, Clock::time_point> asked;
  std::set<std::string> missing;
  size_t errors = 0;
  traffic::Histogram times;
};

void take_answer(const Context &context, const Arrived &arrived, FleetAnswers *answers) {
  const auto asked = answers->asked.find(arrived.correlation);
  if (asked == answers->asked.end() || answers->missing.erase(arrived.correlation) == 0) return;
  const auto took_ns = static_cast<uint64_t>(
      std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now() - asked->second).count());
  answers->times.add(took_ns);
  const Json answer = parsed(arrived.payload);
  const bool done = arrived.status == "200";
  if (!done) ++answers->errors;
  if (context.json) {
    print_json({{"gateway", printable(arrived.correlation)},
                {"took_ms", static_cast<double>(took_ns) / 1e6},
                {"answer", answer}});
    return;
  }
  std::string text = member(answer, "error");
  if (done) {
    text = answer.contains("body") ? json_text(answer["body"]) : "";
    if (answer.contains("data")) {
      text = member(answer, "data") + (text.empty() ? "" : " ") + text;
    }
  }
  print_line(fmt::format("{} {}{}", printable(arrived.correlation), member(answer, "status"),
                         text.empty() ? "" : " " + text));
}

void summarise(const Context &context, const FleetAnswers &answers) {
  const traffic::Histogram &times = answers.times;
  if (context.json) {
    Json missing = Json::array();
    for (const std::string &gateway : answers.missing) missing.push_back(printable(gateway));
    print_json({{"asked", answers.asked.size()},
                {"answered", times.count()},
                {"errors", answers.errors},
                {"missing", missing},
                {"median_ns", times.quantile(0.5)},
                {"p90_ns", times.quantile(0.9)},
                {"p99_ns", times.quantile(0.99)},
                {"max_ns", times.max()}});
    return;
  }
  print_line(fmt::format("{} asked, {} answered, {} of them errors, {} missing",
                         answers.asked.size(), times.count(), answers.errors,
                         answers.missing.size()));
  if (times.count() > 0) {
    print_line(fmt::format("median {}, p90 {}, p99 {}, max {}", duration_text(times.quantile(0.5)),
                           duration_text(times.quantile(0.9)), duration_text(times.quantile(0.99)),
                           duration_text(times.max())));
  }
  if (answers.missing.empty()) return;
  std::string names;
  size_t named = 0;
  for (const std::string &gateway : answers.missing) {
    if (++named > kMostNamed) break;
    names += " " + printable(gateway);
  }
  print_line(fmt::format("missing:{}{}", names, named > kMostNamed ? " ..." : ""));
}

void ask(Context *context, const FleetWords &words) {
  const FleetQuestion question = question_of(words);
  Broker broker(*context, words);
  std::vector<std::string> gateways = words.gateways;
  bool complete = true;
  if (gateways.empty()) {
    const Statuses found = statuses(&broker, words, in_ms(context->timeout_ms));
    complete = found.complete;
    for (const auto &[gateway, status] : found.gateways) {
      if (member(status, "state") == "online") gateways.push_back(gateway);
    }
  }
  if (gateways.empty()) {
    throw Failure(ExitStatus::kNoSuch,
                  fmt::format("no gateway is online below '{}' (--prefix)", words.prefix));
  }
  const std::string answer_to = words.prefix + "/answers/" + broker.id();
  FleetAnswers answers;
  broker.on_arrival([&](const Arrived &arrived) {
    if (arrived.topic == answer_to) take_answer(*context, arrived, &answers);
  });
  broker.subscribe(answer_to, Broker::Retained::kNotSent, in_ms(context->timeout_ms));
  for (const std::string &gateway : gateways) {
    const std::string topic = fmt::format("{}/{}/{}", words.prefix, gateway, question.below);
    if (!mqtt::is_topic(topic)) throw servers::UsageError("'" + printable(topic) + "' is no topic");
    answers.missing.insert(gateway);
    answers.asked[gateway] = Clock::now();
    broker.ask(topic, question.payload, answer_to, gateway);
  }
  broker.run(in_ms(context->timeout_ms), [&answers] { return answers.missing.empty(); });
  summarise(*context, answers);
  if (!answers.missing.empty()) {
    throw Failure(ExitStatus::kTimeout,
                  fmt::format("{} of {} gateways did not answer in {} ms (--timeout)",
                              answers.missing.size(), answers.asked.size(), context->timeout_ms));
  }
  if (!complete) throw incomplete(*context, "not all of them were asked");
  if (answers.errors > 0) {
    throw Failure(ExitStatus::kAnswerError,
                  fmt::format("{} gateways answered an error", answers.errors));
  }
}

void fleet(Context *context, FleetWords words) {
  words.tls.verify = !words.no_verify;
  if (words.broker.empty()) {
    throw servers::UsageError("name the fleet's broker: --broker mqtts://HOST");
  }
  if (!mqtt::is_topic(words.prefix)) throw servers::UsageError("--prefix is no topic");
  if (words.tls.certificate.empty() != words.tls.key.empty()) {
    throw servers::UsageError("--certificate and --key belong together");
  }
  if (words.action == "list") {
    if (!words.words.empty()) throw servers::UsageError("list takes no more words");
    list(*context, words);
  } else if (words.action == "listen") {
    listen(context, words);
  } else if (words.action == "get" || words.action == "call") {
    ask(context, words);
  } else {
    throw servers::UsageError("'" + words.action + "' is not list, listen, get or call");
  }
}

}  // namespace

void add_fleet_command(servers::CommandLine *line, Context *context) {
  static FleetWords words;
  servers::Command command =
      line->command("fleet", "Look at many gateways through their broker, and ask them",
                    [context] { fleet(context, words); });
  add_common_options(&command, context);
  command.option("--broker", &words.broker, "mqtt://HOST[:PORT] or mqtts://HOST[:PORT]");
  command.option("--prefix", &words.prefix, "The topics' prefix, as the bridges have it");
  command.option("--credentials", &words.credentials,
                 "A file {\"user\": ..., \"password\": ...} of its owner's alone");
  command.option("--ca", &words.tls.ca, "Whom to trust (the system's authorities without it)");
  command.option("--certificate", &words.tls.certificate, "Ours, a PEM file");
  command.option("--key", &words.tls.key, "Its key, a PEM file");
  command.flag("--no-verify", &words.no_verify, "Trust whoever answers");
  command.option("--gateway", &words.gateways, "Only this gateway; may be given several times");
  command.number("-n,--count", &words.count, "listen: end after so many events");
  command.number("--for", &words.seconds, "listen: end after so many seconds", {0, 86'400'000});
  command.argument("ACTION", &words.action, "list, listen, get or call",
                   servers::Presence::kRequired);
  command.arguments("WORDS", &words.words,
                    "listen [MODULE [EVENT]], get PATH [QUERY], call APP TYPE [DATA [BODY]]",
                    servers::Presence::kOptional);
}

}  // namespace msgctl
