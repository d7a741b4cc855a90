#include "msgctl/event_text.h"

#include <fmt/core.h>
#include <time.h>

#include "common/printable.h"
#include "traffic/decode.h"
#include "traffic/latency.h"
#include "traffic/mask.h"

namespace msgctl {
namespace {

using flight::Kind;
using servers::printable;
using traffic::Event;
using traffic::Model;

constexpr size_t kMostHttpRequests = 1024;

std::string_view method_text(uint32_t method) {
  constexpr std::string_view kMethods[] = {"GET", "POST", "PUT", "DELETE", "PATCH"};
  return method < std::size(kMethods) ? kMethods[method] : "?";
}

}  // namespace

std::string label(const Model &model, traffic::ClientId id) {
  return printable(model.label(id));
}

std::string date_text(uint64_t wall_ns) {
  const time_t seconds = static_cast<time_t>(wall_ns / 1'000'000'000u);
  tm utc{};
  ::gmtime_r(&seconds, &utc);
  return fmt::format("{:04}-{:02}-{:02}T{}Z", utc.tm_year + 1900, utc.tm_mon + 1, utc.tm_mday,
                     time_text(wall_ns));
}

void EventText::take(const Event &event) {
  if (event.kind() != Kind::kHttpRequest) return;
  http_[event.record.number] = {event.record.time_ns, event.text};
  if (http_.size() > kMostHttpRequests) http_.erase(http_.begin());
}

std::string EventText::paint(Colour colour, std::string_view text) const {
  return colours_ == Colours::kNone ? std::string(text) : coloured(colour, text);
}

std::string EventText::shown(const std::string &text) const {
  return printable(masked_ ? traffic::masked(text) : text);
}

traffic::Message EventText::without_personal_data(const traffic::Message &message) const {
  traffic::Message copy = message;
  if (masked_) traffic::mask_body(copy.body, copy.length > copy.body.size());
  return copy;
}

std::string EventText::pair(traffic::ClientId from, traffic::ClientId to,
                            const Model &model) const {
  return label(model, from) + " -> " + label(model, to);
}

std::string EventText::type(uint32_t type) const {
  return printable(catalogue_.describe(type));
}

std::string EventText::body(const traffic::Message &message) const {
  return traffic::body_line(without_personal_data(message), catalogue_);
}

std::optional<uint64_t> EventText::after_ns(const Event &event) const {
  if (event.kind() == Kind::kHttpAnswer) {
    const auto request = http_.find(event.record.about);
    if (request == http_.end()) return std::nullopt;
    return event.record.time_ns - request->second.time_ns;
  }
  if (event.request == nullptr) return std::nullopt;
  return event.record.time_ns - event.request->accepted_ns;
}

std::string EventText::message_text(const Event &event) const {
  const traffic::Message &message = *event.message;
  std::string text = fmt::format("{} #{} = {}", type(message.type()), message.header.ulSeqNum,
                                 message.header.ulMsgData);
  if (message.length > 0) text += fmt::format(", {} B", message.length);
  if (event.kind() == Kind::kAccepted) {
    if (const auto after = after_ns(event)) {
      text += paint(Colour::kGreen, fmt::format("  answer after {}", duration_text(*after)));
    }
    if (const std::string shown = body(message); !shown.empty()) text += "  " + shown;
  }
  return text;
}

std::string EventText::line(const Event &event, const Model &model) const {
  const flight::Record &record = event.record;
  const std::string from = label(model, record.from), to = label(model, record.to);
  const std::string message =
      event.message != nullptr
          ? message_text(event)
          : fmt::format("{} #{} (accepted before what is still there)", type(record.a), record.b);
  switch (event.kind()) {
    case Kind::kFiller:
      break;
    case Kind::kClock:
      return paint(Colour::kDim, "clock " + date_text(record.about));
    case Kind::kConnected:
      return fmt::format("#{} connected: {} (process {}, user {})", record.from, shown(event.text),
                         record.a, record.b);
    case Kind::kNamed:
      return fmt::format("#{} is now {}", record.from, shown(event.text));
    case Kind::kEnded: {
      std::string text = from + " left";
      if (!event.text.empty()) text += ": " + shown(event.text);
      if (record.a > 0) {
        text += paint(Colour::kRed, fmt::format("; {} messages for it are lost", record.a));
      }
      return text;
    }
    case Kind::kAccepted:
      return pair(record.from, record.to, model) + "  " + message;
    case Kind::kDelivered: {
      std::string text = pair(record.from, record.to, model) + "  delivered " + message;
      if (const auto queue = traffic::spans_of(event).queue_ns) {
        text += " after " + duration_text(*queue);
      }
      return paint(Colour::kDim, text);
    }
    case Kind::kLost:
      return pair(record.from, record.to, model) + "  " +
             paint(Colour::kRed, fmt::format("lost ({})", flight::loss_text(event.loss()))) + " " +
             message;
    case Kind::kBacklog:
      return paint(Colour::kYellow, fmt::format("{} does not read: {} of {} wait for it", to,
                                                bytes_text(record.a), bytes_text(record.b)));
    case Kind::kRelieved: {
      std::string text = to + " has read everything";
      if (record.a > 0) {
        text += paint(Colour::kRed, fmt::format("; {} messages were lost meanwhile", record.a));
      }
      return text;
    }
    case Kind::kDescriptor:
      return pair(record.from, record.to, model) + "  descriptor with " + message;
    case Kind::kHttpRequest:
      return fmt::format("HTTP {} {}, {} B", method_text(record.a), shown(event.text), record.b);
    case Kind::kHttpAnswer: {
      std::string text = fmt::format("HTTP {}, {} B", record.a, record.b);
      if (const auto request = http_.find(record.about); request != http_.end()) {
        text += "  " + shown(request->second.path);
      }
      if (const auto after = after_ns(event)) {
        text += paint(Colour::kGreen, fmt::format("  answer after {}", duration_text(*after)));
      }
      return text;
    }
  }
  return std::string(flight::kind_name(event.kind()));
}

Json EventText::json(const Event &event, const Model &model) const {
  const flight::Record &record = event.record;
  Json json{{"number", record.number},
            {"time", date_text(event.wall_ns)},
            {"time_ns", record.time_ns},
            {"kind", flight::kind_name(event.kind())}};
  if (event.loss() != flight::Loss::kNone) json["loss"] = flight::loss_text(event.loss());
  const auto clients = [&] {
    json["from"] = model.label(record.from);
    json["to"] = model.label(record.to);
  };
  switch (event.kind()) {
    case Kind::kFiller:
    case Kind::kClock:
      break;
    case Kind::kConnected:
      json["client"] = record.from;
      json["process"] = record.a;
      json["user"] = record.b;
      json["program"] = masked_ ? traffic::masked(event.text) : event.text;
      break;
    case Kind::kNamed:
    case Kind::kEnded:
      json["client"] = record.from;
      json["name"] = model.client(record.from).name;
      if (event.kind() == Kind::kEnded) {
        json["reason"] = masked_ ? traffic::masked(event.text) : event.text;
        json["lost"] = record.a;
      }
      break;
    case Kind::kDelivered:
    case Kind::kLost:
      json["about"] = record.about;
      [[fallthrough]];
    case Kind::kAccepted:
    case Kind::kDescriptor:
      clients();
      if (event.message != nullptr) {
        const traffic::Message &message = *event.message;
        json["type"] = message.type();
        const catalogue::MessageType *known = catalogue_.find(message.type());
        json["type_name"] = known == nullptr ? Json(nullptr) : Json(known->name);
        json["sequence"] = message.header.ulSeqNum;
        json["data"] = message.header.ulMsgData;
        json["length"] = message.length;
        if (message.board != 0) json["board"] = message.board;
        if (message.answers != 0) json["answers"] = message.answers;
        if (event.kind() == Kind::kAccepted) {
          json["body"] = traffic::body_json(without_personal_data(message), catalogue_);
        }
      }
      if (const auto queue = traffic::spans_of(event).queue_ns) json["queue_ns"] = *queue;
      break;
    case Kind::kBacklog:
      json["to"] = model.label(record.to);
      json["bytes"] = record.a;
      json["limit"] = record.b;
      break;
    case Kind::kRelieved:
      json["to"] = model.label(record.to);
      json["lost"] = record.a;
      break;
    case Kind::kHttpRequest:
      json["method"] = method_text(record.a);
      json["path"] = masked_ ? traffic::masked(event.text) : event.text;
      json["length"] = record.b;
      break;
    case Kind::kHttpAnswer:
      json["about"] = record.about;
      json["status"] = record.a;
      json["length"] = record.b;
      break;
  }
  if (event.kind() == Kind::kAccepted || event.kind() == Kind::kHttpAnswer) {
    if (const auto after = after_ns(event)) json["after_ns"] = *after;
  }
  return json;
}

}  // namespace msgctl
