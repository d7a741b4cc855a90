// msgctl replay, msgctl mock: a capture's messages are sent to an application, or answered for it.

#include <fmt/core.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <optional>
#include <set>
#include <vector>

#include "common/command_line.h"
#include "common/printable.h"
#include "msgctl/bus.h"
#include "msgctl/context.h"
#include "msgctl/output.h"
#include "traffic/filter.h"
#include "traffic/pcapng.h"

namespace msgctl {
namespace {

using servers::printable;

struct ReplayOptions {
  std::string file;
  std::string to;
  std::string of;
  std::string speed = "1";
  std::vector<std::string> filter;  // its words
  uint32_t count = 0;
  bool live = false;
};

// Names a record of a capture: numbers are unique only within a server's section.
struct Id {
  uint32_t section;
  uint64_t number;

  auto operator<=>(const Id &) const = default;
};

// A message of a capture, on its way to one receiver.
struct Recorded {
  Id id;
  uint64_t wall_ns;
  std::string to;
  std::optional<Id> answers;
  uint32_t type;
  uint32_t data;
  std::string body;
};

struct Capture {
  std::vector<Recorded> messages;
  uint64_t in_files = 0;  // messages to the application whose bodies were in files
};

// The root of the sandbox is a tmpfs whose source has that name (tools/sandbox).
bool in_sandbox() {
  std::ifstream mounts("/proc/self/mounts");
  for (std::string line; std::getline(mounts, line);) {
    if (line.starts_with("sandbox / tmpfs ")) return true;
  }
  return false;
}

void refuse_other_buses(bool live) {
  if (live || in_sandbox()) return;
  throw Failure(ExitStatus::kNotPermitted,
                "this is not a sandbox's bus, and its applications would take what comes for "
                "real: run it in the sandbox, or give --live");
}

std::string contents_of(const std::string &path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) {
    throw Failure(errno == EACCES ? ExitStatus::kNotPermitted : ExitStatus::kNoSuch,
                  path + ": " + std::strerror(errno));
  }
  return {std::istreambuf_iterator<char>(file), {}};
}

// Times in the filter refer to the capture's last packet.
traffic::Filter filter_of(const ReplayOptions &options, const std::string &bytes,
                          const catalogue::Catalogue &catalogue) {
  const std::string text = servers::joined(options.filter);
  uint64_t last_ns = 0;
  if (!text.empty()) {
    traffic::PcapngReader reader(bytes);
    while (const auto packet = reader.next()) last_ns = std::max(last_ns, packet->wall_ns);
  }
  try {
    return {text, catalogue, last_ns};
  } catch (const traffic::FilterError &error) {
    throw servers::UsageError(std::string("filter: ") + error.what());
  }
}

// Loads from a capture the messages from and to one application that can be sent again.
class Loader {
 public:
  Loader(const std::string &path, const std::string &name) : path_(path), name_(name) {}

  // Throws when bodies are missing or masked.
  Capture load(const ReplayOptions &options, const catalogue::Catalogue &catalogue) {
    const std::string bytes = contents_of(path_);
    try {
      const traffic::Filter filter = filter_of(options, bytes, catalogue);
      traffic::PcapngReader reader(bytes);
      while (const auto packet = reader.next()) take(*packet, filter);
    } catch (const Failure &) {
      throw;
    } catch (const servers::UsageError &) {
      throw;
    } catch (const std::runtime_error &error) {
      throw Failure(ExitStatus::kBadBody, path_ + ": " + error.what());
    }
    return std::move(capture_);
  }

 private:
  void take(const traffic::Packet &packet, const traffic::Filter &filter) {
    const std::string from = traffic::name_in_label(packet.from);
    const std::string to = traffic::name_in_label(packet.to);
    if (packet.section != section_) model_ = traffic::Model();
    section_ = packet.section;
    if (!from.starts_with('#')) model_.learn_name(packet.record.from, from);
    if (!to.starts_with('#')) model_.learn_name(packet.record.to, to);
    const bool fits = filter.matches(model_.take(packet.entry(), packet.wall_ns), model_);

    const auto kind = static_cast<flight::Kind>(packet.record.kind);
    if (kind == flight::Kind::kDelivered && to == name_ && fits) {
      if (const auto event = events_.find({section_, packet.record.about});
          event != events_.end()) {
        capture_.messages.push_back(event->second);
        capture_.messages.back().to = to;
      }
    }
    if (kind == flight::Kind::kAccepted) accept(packet, from, to, fits);
  }

  void accept(const traffic::Packet &packet, const std::string &from, const std::string &to,
              bool fits) {
    const Id id{section_, packet.record.number};
    const bool theirs = from == name_ || to == name_;
    if (!theirs && packet.record.to != 0) return;
    std::optional<Id> answers;
    if (packet.answers != 0) answers = Id{section_, packet.answers};
    // The filter chooses requests; their answers come along.
    if (theirs && !(answers ? chosen_.contains(*answers) : fits)) return;
    if (theirs) chosen_.insert(id);

    const ORP_MSG_HEADER_ST &header = *packet.header;
    if ((header.ulMsgType & ORP_MSG_TYPE_BODY_IN_FILE) != 0) {
      if (theirs) ++capture_.in_files;
      return;
    }
    const bool whole = packet.record.a <= packet.kept.size();
    if (theirs && !whole) {
      throw Failure(
          ExitStatus::kBadBody,
          fmt::format("{}: record {} has {} of its {} body bytes: run msgsvr with "
                      "--flight-body {} and capture again",
                      path_, id.number, packet.kept.size(), packet.record.a, flight::kMostKept));
    }
    if (theirs && packet.masked && packet.record.a > 0) {
      throw Failure(ExitStatus::kBadBody,
                    fmt::format("{}: its bodies are masked: capture with --no-mask", path_));
    }
    Recorded message{id,
                     packet.wall_ns,
                     to,
                     answers,
                     header.ulMsgType & ORP_MSG_TYPE_MASK,
                     header.ulMsgData,
                     packet.kept};
    if (theirs) {
      capture_.messages.push_back(std::move(message));
    } else if (whole && !packet.masked) {
      events_.insert_or_assign(id, std::move(message));
    }
  }

  const std::string &path_;
  const std::string &name_;
  Capture capture_;
  uint32_t section_ = 0;
  traffic::Model model_;
  std::set<Id> chosen_;
  std::map<Id, Recorded> events_;  // accepted without a receiver of their own
};

double speed_of(const std::string &text) {
  double speed = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), speed);
  // The comparisons are also false for NaN.
  if (error != std::errc() || end != text.data() + text.size() || !(speed >= 0 && speed <= 1e6)) {
    throw servers::UsageError("'" + text +
                              "' is no speed: 1 is that of the capture, 2 is twice as "
                              "fast, 0 is without pauses");
  }
  return speed;
}

// Sends requests and compares the answers with the recorded ones.
class Player {
 public:
  Player(const Context &context, std::string to)
      : bus_(context, Bus::Purpose::kIsAnswered), to_(std::move(to)) {
    bus_.stay_quietly();
  }

  void send(const Recorded &message, const Recorded *answer) {
    const uint32_t sequence = bus_.send(to_, message.type, message.data, message.body);
    ++sent_;
    if (answer != nullptr) open_[{message.type, sequence}] = answer;
  }

  void receive_until(Deadline deadline) {
    while (const Message message = bus_.receive(deadline)) take(*message);
  }
  void receive_answers(Deadline deadline) {
    while (!open_.empty()) {
      const Message message = bus_.receive(deadline);
      if (!message) return;
      take(*message);
    }
  }

  ExitStatus report(const Context &context, const Capture &capture) const {
    const size_t unanswered = open_.size();
    if (context.json) {
      print_json({{"sent", sent_},
                  {"answered_alike", alike_},
                  {"answered_differently", different_},
                  {"unanswered", unanswered},
                  {"undelivered", undelivered_},
                  {"left_out", capture.in_files}});
    } else {
      print_line(
          fmt::format("{} messages sent to {}: {} answered as in the capture, {} otherwise, "
                      "{} not answered, {} not delivered",
                      sent_, printable(to_), alike_, different_, unanswered, undelivered_));
      if (capture.in_files > 0) {
        print_line(fmt::format("{} messages with large bodies were left out", capture.in_files));
      }
    }
    if (undelivered_ > 0) return undelivered_ == sent_ ? ExitStatus::kNoSuch : ExitStatus::kLost;
    if (unanswered > 0) return ExitStatus::kTimeout;
    return different_ > 0 ? ExitStatus::kAnswerError : ExitStatus::kDone;
  }

 private:
  void take(const ORP_MSG_HEADER_ST &message) {
    const uint32_t type = message.ulMsgType & ORP_MSG_TYPE_MASK;
    if (type == ORP_MSG_UNDELIVERABLE) {
      ++undelivered_;
      open_.erase({message.ulMsgData & ORP_MSG_TYPE_MASK, message.ulSeqNum});
      return;
    }
    const auto request = open_.find({type, message.ulSeqNum});
    if (request == open_.end()) return;
    const Recorded &expected = *request->second;
    const bool same = expected.data == message.ulMsgData && expected.body == body_of(message);
    ++(same ? alike_ : different_);
    open_.erase(request);
  }

  Bus bus_;
  std::string to_;
  std::map<std::pair<uint32_t, uint32_t>, const Recorded *> open_;  // by type and sequence number
  uint64_t sent_ = 0;
  uint64_t alike_ = 0;
  uint64_t different_ = 0;
  uint64_t undelivered_ = 0;
};

void replay(const ReplayOptions &options, Context *context) {
  refuse_other_buses(options.live);
  const double speed = speed_of(options.speed);
  const std::string of = options.of.empty() ? options.to : options.of;
  const Capture capture = Loader(options.file, of).load(options, context->catalogue);
  std::map<Id, const Recorded *> answers;  // by the request
  for (const Recorded &message : capture.messages) {
    if (message.answers && message.to != of) answers[*message.answers] = &message;
  }
  std::vector<const Recorded *> requests;
  for (const Recorded &message : capture.messages) {
    if (message.to == of && !message.answers) requests.push_back(&message);
  }
  if (requests.empty()) {
    throw Failure(
        ExitStatus::kNoSuch,
        fmt::format("{}: nothing wanted in it was sent to '{}' (--of names another receiver)",
                    options.file, of));
  }

  Player player(*context, receiver_name(options.to));
  const Deadline start = Clock::now();
  for (const Recorded *message : requests) {
    const uint64_t first_ns = requests.front()->wall_ns;
    const uint64_t pause_ns = message->wall_ns < first_ns ? 0 : message->wall_ns - first_ns;
    if (speed > 0) {
      player.receive_until(start + std::chrono::nanoseconds(static_cast<int64_t>(
                                       static_cast<double>(pause_ns) / speed)));
    }
    const auto answer = answers.find(message->id);
    player.send(*message, answer == answers.end() ? nullptr : answer->second);
  }
  player.receive_answers(in_ms(context->timeout_ms));
  context->status = player.report(*context, capture);
}

// The recorded answers to the requests of one type.
struct RecordedAnswers {
  struct Pair {
    const Recorded *request;
    const Recorded *answer;
  };
  std::vector<Pair> pairs;
  size_t next = 0;

  // The answer to the same request, or else to one with the same data word, or else the next one.
  const Recorded &choose(const ORP_MSG_HEADER_ST &request) {
    const auto same = [&request](bool with_body) {
      return [&request, with_body](const Pair &pair) {
        return pair.request->data == request.ulMsgData &&
               (!with_body || pair.request->body == body_of(request));
      };
    };
    for (const bool with_body : {true, false}) {
      const auto found = std::find_if(pairs.begin(), pairs.end(), same(with_body));
      if (found != pairs.end()) return *found->answer;
    }
    return *pairs[next++ % pairs.size()].answer;
  }
};

void mock(const ReplayOptions &options, Context *context) {
  refuse_other_buses(options.live);
  if (context->as.empty()) throw servers::UsageError("mock: --as NAME is missing");
  const std::string of = options.of.empty() ? context->as : options.of;
  const Capture capture = Loader(options.file, of).load(options, context->catalogue);
  std::map<Id, const Recorded *> requests;
  std::map<uint32_t, RecordedAnswers> answers;
  for (const Recorded &message : capture.messages) {
    if (message.to == of) requests[message.id] = &message;
    if (!message.answers) continue;
    const auto request = requests.find(*message.answers);
    if (request == requests.end()) continue;
    answers[message.type].pairs.push_back({request->second, &message});
  }
  if (answers.empty()) {
    throw Failure(ExitStatus::kNoSuch,
                  fmt::format("{}: '{}' answered nothing in it (--of names another application)",
                              options.file, of));
  }

  Bus bus(*context, Bus::Purpose::kIsAnswered);
  bus.stay_quietly();
  for (uint32_t answered = 0; options.count == 0 || answered < options.count;) {
    const Message request = bus.receive(in_ms(3'600'000));
    if (!request) continue;
    const uint32_t type = request->ulMsgType & ORP_MSG_TYPE_MASK;
    if (type == ORP_MSG_UNDELIVERABLE) continue;  // a requester that did not wait
    const std::string from = sender_of(*request);
    const auto known = answers.find(type);
    if (known == answers.end() && type == ORP_MSG_EXIT) {
      bus.send(from, type, 0, {}, request->ulSeqNum);
      return;
    }
    const Recorded *answer = known == answers.end() ? nullptr : &known->second.choose(*request);
    if (answer != nullptr) {
      bus.send(from, type, answer->data, answer->body, request->ulSeqNum);
      ++answered;
    }
    if (context->json) {
      print_json({{"from", from},
                  {"type", type},
                  {"data", request->ulMsgData},
                  {"answer", answer == nullptr ? Json(nullptr) : Json(answer->id.number)}});
    } else {
      print_line(fmt::format("{}  {} = {}: {}", printable(from),
                             printable(context->catalogue.describe(type)), request->ulMsgData,
                             answer == nullptr
                                 ? std::string("no answer to that was captured")
                                 : fmt::format("answered as in record {}", answer->id.number)));
    }
  }
}

}  // namespace

void add_replay_commands(servers::CommandLine *line, Context *context) {
  static ReplayOptions options;
  const auto common = [context](servers::Command *command) {
    add_common_options(command, context);
    command->option("--of", &options.of, "Whose messages of the capture, if not those of NAME");
    command->flag("--live", &options.live, "Also on a bus that is not a sandbox's");
    command->argument("FILE", &options.file, "A capture with bodies, made with --no-mask",
                      servers::Presence::kRequired);
    command->arguments("FILTER", &options.filter,
                       "Which of its requests and events: type=wifi-scan and from=panel",
                       servers::Presence::kOptional);
  };
  servers::Command replay_command =
      line->command("replay", "Send an application what it was sent in a capture", [context] {
        if (options.to.empty()) throw servers::UsageError("replay: --to NAME is missing");
        replay(options, context);
      });
  common(&replay_command);
  replay_command.option("--to", &options.to, "The application");
  replay_command.option("--speed", &options.speed,
                        "2 is twice as fast as in the capture, 0 without pauses");

  servers::Command mock_command =
      line->command("mock", "Answer in an application's place as it did in a capture (--as NAME)",
                    [context] { mock(options, context); });
  common(&mock_command);
  mock_command.number("-n,--count", &options.count, "End after so many answers; 0: go on");
}

}  // namespace msgctl
