#include "inspector/answers.h"

#include <fmt/format.h>
#include <sys/random.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <deque>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <utility>

#include "common/printable.h"
#include "inspector/logs.h"
#include "inspector/page.h"
#include "inspector/streams.h"
#include "msgctl/admin.h"
#include "msgctl/child.h"
#include "msgctl/output.h"
#include "traffic/decode.h"
#include "traffic/mask.h"

namespace inspector {
namespace {

using servers::ExitStatus;
using servers::Failure;

constexpr int kMostStreams = 24;
constexpr uint64_t kMostRecords = 5000;
constexpr uint64_t kMostLogLines = 5000;
constexpr uint64_t kLookedAtOnce = 2000;
constexpr uint32_t kSendTimeout_ms = 5000;

Answer json_answer(const Json &json, unsigned status = 200) {
  Answer answer;
  answer.status = status;
  answer.body = msgctl::json_text(json) + "\n";
  return answer;
}

Answer problem(unsigned status, const std::string &what) {
  return json_answer({{"error", servers::printable(what)}}, status);
}

Answer page_part(const char *type, std::string_view text) {
  Answer answer;
  answer.type = type;
  answer.body = text;
  return answer;
}

// A mistake in the request, which the user can correct.
struct BadRequest : std::runtime_error {
  using std::runtime_error::runtime_error;
};

std::string text_of(const Request &request, const char *name) {
  const auto found = request.arguments.find(name);
  return found == request.arguments.end() ? std::string() : found->second;
}

std::optional<uint64_t> number_of(const Request &request, const char *name) {
  const std::string text = text_of(request, name);
  if (text.empty()) return std::nullopt;
  uint64_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size()) {
    throw BadRequest(fmt::format("{}: '{}' is no number", name, text));
  }
  return number;
}

Range range_of(const Request &request) {
  constexpr uint64_t kMicrosecond_ns = 1000;
  const auto ns = [&](const char *name, uint64_t none, uint64_t rest) {
    const auto us = number_of(request, name);
    if (!us) return none;
    return *us > (~uint64_t{0} - rest) / kMicrosecond_ns ? ~uint64_t{0}
                                                         : *us * kMicrosecond_ns + rest;
  };
  return {ns("from", 0, 0), ns("to", ~uint64_t{0}, kMicrosecond_ns - 1)};
}

const char *state_word(SourceState state) {
  switch (state) {
    case SourceState::kWaiting:
      return "waiting";
    case SourceState::kLive:
      return "live";
    case SourceState::kEnded:
      return "ended";
    case SourceState::kPast:
      return "past";
    case SourceState::kDamaged:
      return "damaged";
  }
  return "";
}

Json status_json(const Bus &bus) {
  const Recording &recording = bus.recording;
  return {{"source", servers::printable(bus.source)},
          {"state", state_word(bus.state)},
          {"reason", servers::printable(bus.reason)},
          {"servers", bus.servers},
          {"server_at_us", bus.server_at_us},
          {"first_at_us", recording.first_wall_ns() / 1000},
          {"last_at_us", recording.last_wall_ns() / 1000},
          {"last", recording.end_sequence() - 1},
          {"records", recording.records()},
          {"left_out", recording.left_out()},
          {"missed", recording.missed()},
          {"forgotten", recording.forgotten()},
          {"one_in", recording.one_in()},
          {"bytes", recording.bytes()}};
}

uint64_t wall_now_ns() {
  timespec now{};
  ::clock_gettime(CLOCK_REALTIME, &now);
  return static_cast<uint64_t>(now.tv_sec) * 1'000'000'000u + static_cast<uint64_t>(now.tv_nsec);
}

std::string random_word() {
  uint64_t number = 0;
  [[maybe_unused]] const ssize_t size = ::getrandom(&number, sizeof number, 0);
  return fmt::format("{:016x}", number);
}

// The program in the same directory as this one, or else the one in PATH.
std::string program_beside(const char *name) {
  std::error_code error;
  const auto self = std::filesystem::read_symlink("/proc/self/exe", error);
  const auto beside = self.parent_path() / name;
  return !error && std::filesystem::exists(beside, error) ? beside.string() : name;
}

}  // namespace

Answers::Answers(Bus *bus, const msgctl::Context *context, Settings settings)
    : bus_(bus), context_(context), settings_(std::move(settings)), session_(random_word()) {}

Answer Answers::operator()(const Request &request) const {
  try {
    if (request.method == "POST" && request.path == "v1/send") return send(request);
    if (request.method != "GET") return problem(405, "this can only be read");
    return get(request);
  } catch (const BadRequest &error) {
    return problem(400, error.what());
  } catch (const traffic::FilterError &error) {
    return problem(400, error.what());
  } catch (const Failure &failure) {
    return problem(failure.status() == ExitStatus::kNoSuch ? 404 : 502, failure.what());
  }
}

Answer Answers::get(const Request &request) const {
  const std::string &path = request.path;
  constexpr std::string_view kClient = "v1/clients/";
  if (path.empty()) return page_part("text/html; charset=utf-8", kPageHtml);
  if (path == "inspector.css") return page_part("text/css; charset=utf-8", kPageCss);
  if (path == "inspector.js") return page_part("text/javascript; charset=utf-8", kPageJs);
  if (path == "v1/status") return status();
  if (path == "v1/records") return records(request);
  if (path == "v1/events") return events(request);
  if (path == "v1/summary") return summary(request);
  if (path == "v1/export") return exported(request);
  if (path == "v1/logs") return logs(request);
  if (path == "v1/clients") return clients();
  const bool admin = path == "v1/stats" ||
                     (path.starts_with(kClient) &&
                      path.find_first_not_of("0123456789", kClient.size()) == std::string::npos);
  if (!admin) return problem(404, "there is no such place");
  if (settings_.past) return problem(404, "a file is shown, not a running server");
  return json_answer(msgctl::Admin(*context_).get("/" + path));
}

uint64_t Answers::now_ns() const {
  if (settings_.past) {
    const std::lock_guard lock(bus_->mutex);
    return bus_->recording.last_wall_ns();
  }
  return wall_now_ns();
}

Selection Answers::selection_of(const Request &request) const {
  const std::string text = text_of(request, "filter");
  Selection selection;
  selection.filter = traffic::Filter(text, context_->catalogue, now_ns());
  selection.all = text_of(request, "all") == "1" || selection.filter.names_kind();
  selection.range = range_of(request);
  return selection;
}

Answer Answers::status() const {
  Json json{{"version", MSGAPI_VERSION},          {"session", session_},
            {"masked", settings_.masked},         {"past", settings_.past},
            {"allow_send", settings_.allow_send}, {"browsers", streams_->load()},
            {"now_us", wall_now_ns() / 1000}};
  const std::lock_guard lock(bus_->mutex);
  json.update(status_json(*bus_));
  return json_answer(json);
}

// The newest records of the selection. Others may use the bus between pieces of the search.
Answer Answers::records(const Request &request) const {
  const Selection selection = selection_of(request);
  const uint64_t most = std::min(number_of(request, "limit").value_or(1000), kMostRecords);
  std::deque<std::string> found;
  uint64_t before = 0, last = 0;
  bool more = true;
  do {
    if (last != 0) let_others_in();
    const std::lock_guard lock(bus_->mutex);
    const Recording &recording = bus_->recording;
    if (last == 0) before = last = recording.end_sequence();
    for (uint64_t looked = 0; looked < kLookedAtOnce; ++looked) {
      more = before > recording.first_sequence() && found.size() < most;
      if (!more) break;
      const Kept &kept = recording.at(--before);
      if (recording.matches(kept, selection)) found.push_front(kept.json);
    }
  } while (more);
  Answer answer;
  answer.body = fmt::format("{{\"last\":{},\"more\":{},\"records\":[{}]}}\n", last - 1,
                            found.size() == most, fmt::join(found, ","));
  return answer;
}

Answer Answers::events(const Request &request) const {
  if (streams_->load() >= kMostStreams) return problem(503, "too many browsers look on");
  Selection selection = selection_of(request);
  uint64_t after = 0;
  {
    const std::lock_guard lock(bus_->mutex);
    after = number_of(request, "after").value_or(bus_->recording.end_sequence() - 1);
    // The browser counts from an inspector that ran before this one.
    if (after >= bus_->recording.end_sequence()) after = bus_->recording.end_sequence() - 1;
  }
  Answer answer;
  answer.type = "text/event-stream";
  const auto tell = [this] {
    std::string text = status().body;
    text.pop_back();
    return text;
  };
  answer.stream = live_records(bus_, std::move(selection), after, tell, streams_);
  return answer;
}

Answer Answers::summary(const Request &request) const {
  const auto type = number_of(request, "type");
  if (type && *type > UINT32_MAX) throw BadRequest("type: there is no such number");
  const Range range = range_of(request);
  std::unique_lock lock(bus_->mutex);
  const Json json = bus_->recording.summary().json(
      range, type ? std::optional(static_cast<uint32_t>(*type)) : std::nullopt,
      context_->catalogue);
  lock.unlock();
  return json_answer(json);
}

Answer Answers::exported(const Request &request) const {
  const std::string format = text_of(request, "format");
  Selection selection = selection_of(request);
  selection.all = true;
  Answer answer;
  if (format == "pcapng") {
    answer.type = "application/octet-stream";
    answer.file = "bus.pcapng";
    answer.stream = capture(bus_, std::move(selection), settings_.masked);
  } else if (format == "json") {
    answer.file = "bus.json";
    answer.stream = json_list(bus_, std::move(selection));
  } else {
    throw BadRequest("format: pcapng or json");
  }
  return answer;
}

Answer Answers::logs(const Request &request) const {
  const uint64_t most = std::min(number_of(request, "limit").value_or(500), kMostLogLines);
  return json_answer(
      log_lines(settings_.log_directory, range_of(request), static_cast<size_t>(most)));
}

// What the server says about them; without a server what the recording says, and why.
Answer Answers::clients() const {
  if (!settings_.past) {
    try {
      const msgctl::Admin admin(*context_);
      Json json = admin.get("/v1/clients");
      json["subscriptions"] = admin.list("/v1/subscriptions", "subscriptions");
      json["paths"] = admin.list("/v1/paths", "paths");
      json["stats"] = admin.get("/v1/stats");
      for (Json &entry : json["subscriptions"]) {
        entry["event_text"] = servers::printable(
            context_->catalogue.describe(static_cast<uint32_t>(msgctl::count_at(entry, "event"))));
      }
      return json_answer(json);
    } catch (const Failure &failure) {
      Json json = recorded_clients();
      json["error"] = servers::printable(failure.what());
      return json_answer(json);
    }
  }
  return json_answer(recorded_clients());
}

Json Answers::recorded_clients() const {
  Json list = Json::array();
  const std::lock_guard lock(bus_->mutex);
  for (const auto &[id, client] : bus_->recording.model().clients()) {
    if (id == 0) continue;
    const auto shown = [this](const std::string &text) {
      return servers::printable(settings_.masked ? traffic::masked(text) : text);
    };
    list.push_back({{"id", id},
                    {"name", servers::printable(client.name)},
                    {"pid", client.pid},
                    {"uid", client.uid},
                    {"program", shown(client.program)},
                    {"left", client.ended},
                    {"last_words", shown(client.last_words)}});
  }
  return {{"clients", std::move(list)}};
}

Answer Answers::send(const Request &request) const {
  if (!settings_.allow_send) return problem(403, "start msginspect with --allow-send to send");
  if (!request.from_own_page) return problem(403, "this was not asked by the inspector's own page");
  const Json json = traffic::parsed(request.body);
  const std::string to = msgctl::text_at(json, "to"), type = msgctl::text_at(json, "type");
  const std::string body = msgctl::text_at(json, "body");
  const bool answered = msgctl::flag_at(json, "answered");
  const auto is_word = [](const std::string &text) {
    return !text.empty() && text[0] != '-' && text.find('\0') == std::string::npos;
  };
  if (!is_word(to) || !is_word(type) || body.find('\0') != std::string::npos) {
    throw BadRequest("to, type: who is to get which message?");
  }
  const uint64_t data = msgctl::count_at(json, "data");
  const bool is_number = !json.contains("data") || json["data"].is_number_unsigned();
  if (!is_number || data > UINT32_MAX) throw BadRequest("data: a number from 0 to 4294967295");
  std::vector<std::string> words{program_beside("msgctl"),
                                 answered ? "call" : "send",
                                 "--json",
                                 "--timeout",
                                 std::to_string(kSendTimeout_ms),
                                 to,
                                 type,
                                 std::to_string(data)};
  if (!body.empty()) words.push_back("text:" + body);
  const msgctl::ChildResult result =
      msgctl::run_child(words, {}, {}, 2 * kSendTimeout_ms, size_t{1} << 20);
  Json answer = traffic::parsed(result.output);
  if (answer.is_discarded()) answer = nullptr;
  return json_answer({{"status", result.status}, {"answer", answer}});
}

}  // namespace inspector
