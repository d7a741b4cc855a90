// Recorded events as lines for people and as JSON.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "catalogue/type_files.h"
#include "msgctl/output.h"
#include "traffic/model.h"

namespace msgctl {

class EventText {
 public:
  enum class Colours { kAsTerminal, kNone };
  EventText(const catalogue::Catalogue &catalogue, bool masked,
            Colours colours = Colours::kAsTerminal)
      : catalogue_(catalogue), masked_(masked), colours_(colours) {}

  // Remembers what later events refer to. Call it once for each event, before the other functions.
  void take(const traffic::Event &event);
  void forget() { http_.clear(); }

  // A line without the time, printable.
  std::string line(const traffic::Event &event, const traffic::Model &model) const;
  Json json(const traffic::Event &event, const traffic::Model &model) const;

  // "panel -> station"
  std::string pair(traffic::ClientId from, traffic::ClientId to, const traffic::Model &model) const;
  std::string type(uint32_t type) const;
  // The body on one line, masked if this masks.
  std::string body(const traffic::Message &message) const;
  // A text of a record, masked if this masks, and printable.
  std::string shown(const std::string &text) const;

 private:
  struct HttpRequest {
    uint64_t time_ns;
    std::string path;
  };

  std::string paint(Colour colour, std::string_view text) const;
  traffic::Message without_personal_data(const traffic::Message &message) const;
  std::string message_text(const traffic::Event &event) const;
  // The time between a request and this answer to it; none for other events.
  std::optional<uint64_t> after_ns(const traffic::Event &event) const;

  const catalogue::Catalogue &catalogue_;
  bool masked_;
  Colours colours_;
  std::map<uint64_t, HttpRequest> http_;  // by the number of the record
};

// One line of output, as JSON or as text.
struct Line {
  Json json;         // null: the line is text
  std::string text;  // printable

  void print() const {
    if (json.is_null()) {
      print_line(text);
    } else {
      print_json(json);
    }
  }
};

// "panel", printable.
std::string label(const traffic::Model &model, traffic::ClientId id);
// "2026-03-01T14:30:05.123456Z"
std::string date_text(uint64_t wall_ns);

}  // namespace msgctl
