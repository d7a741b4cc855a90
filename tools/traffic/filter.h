// The filter language of msgctl's commands on recorded traffic.
//
//   type=wifi-scan and (from=panel or to=panel) and not lost
//
// Terms side by side must all hold ("and" may be left out); "or" binds weaker, "not" stronger;
// parentheses group. A term is KEY=VALUE or KEY!=VALUE; a value may be a list "a,b,c" and names may
// have the wildcards * and ?.
//
//   type=   a name of the catalogue, a number, a range 0x100-0x1ff, or a pattern of names
//   event=  the same, for events only; "event" alone: any event
//   from=, to=, app=   the sender, the receiver, one of the two: a name or "server"
//   data=, length=     a number or range; also with < <= > >=
//   body=   a text that the kept part of the body holds
//   kind=   accepted, delivered, lost, connected ...; see docs/flight-file.md
//   loss=   queue-full ...; "lost" alone: any loss
//   since=, until=     -5s, -10min, 14:30, 14:30:05.250, 2026-03-01T14:30:00 (UTC)
//   answer, request    messages that answer a request, requests that were answered
#pragma once

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>

#include "catalogue/type_files.h"
#include "traffic/model.h"

namespace traffic {

// A mistake in a filter; what() tells the user what is wrong, and where.
struct FilterError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

class Filter {
 public:
  // Matches everything.
  Filter();
  // Relative times and times of day refer to `now_ns`, since 1970. The catalogue must outlive the
  // filter. Throws FilterError.
  Filter(std::string_view text, const catalogue::Catalogue &catalogue, uint64_t now_ns);
  ~Filter();
  Filter(Filter &&) noexcept;
  Filter &operator=(Filter &&) noexcept;

  bool matches(const Event &event, const Model &model) const;
  // Whether the record that accepted `message`, at `wall_ns`, would match.
  bool matches(const Message &message, uint64_t wall_ns, const Model &model) const;
  // Whether the filter has a term for kinds of records.
  bool names_kind() const;

  struct Node;

 private:
  std::unique_ptr<Node> root_;
};

}  // namespace traffic
