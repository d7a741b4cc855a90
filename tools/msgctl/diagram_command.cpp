// msgctl diagram: a stretch of traffic as a sequence diagram.

#include <fmt/core.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <vector>

#include "msgctl/context.h"
#include "msgctl/event_text.h"
#include "msgctl/flight_source.h"
#include "msgctl/output.h"

namespace msgctl {
namespace {

using traffic::ClientId;
using traffic::Event;

struct DiagramOptions {
  FlightOptions flight;
  bool mermaid = false;
  bool svg = false;
  uint32_t most = 1000;
};

struct Arrow {
  uint64_t wall_ns;
  size_t from;  // indices of participants
  size_t to;
  bool answer;
  bool lost;
  std::string what;  // its type and data, or why it was lost
  std::string body;
};

struct Diagram {
  std::vector<std::string> participants;  // printable
  std::vector<Arrow> arrows;
  uint64_t left_out = 0;
};

// At most `most` characters of a UTF-8 text.
std::string shortened(const std::string &text, size_t most) {
  size_t characters = 0;
  for (size_t i = 0; i < text.size(); ++i) {
    if ((static_cast<unsigned char>(text[i]) & 0xc0) == 0x80) continue;
    if (++characters > most) return text.substr(0, i) + "...";
  }
  return text;
}

size_t width(const std::string &text) {
  return static_cast<size_t>(std::count_if(text.begin(), text.end(), [](char c) {
    return (static_cast<unsigned char>(c) & 0xc0) != 0x80;
  }));
}

Diagram read(const DiagramOptions &options, const Context &context) {
  constexpr size_t kMostBody = 60;
  const traffic::Filter filter = make_filter(options.flight, context);
  const EventText text(context.catalogue, !options.flight.no_mask);
  Source source(options.flight.file);
  Diagram diagram;
  const auto participant = [&](ClientId id) {
    const std::string name = label(source.model(), id);
    const auto known = std::find(diagram.participants.begin(), diagram.participants.end(), name);
    const auto index = static_cast<size_t>(known - diagram.participants.begin());
    if (known == diagram.participants.end()) diagram.participants.push_back(name);
    return index;
  };

  source.read([&](const Event &event) {
    const bool lost = event.kind() == flight::Kind::kLost;
    if ((!lost && event.kind() != flight::Kind::kAccepted) || event.message == nullptr) return;
    if (!filter.matches(event, source.model())) return;
    if (diagram.arrows.size() >= options.most) {
      ++diagram.left_out;
      return;
    }
    const traffic::Message &message = *event.message;
    Arrow arrow{event.wall_ns,
                participant(event.record.from),
                participant(event.record.to),
                event.request != nullptr,
                lost,
                text.type(message.type()),
                {}};
    if (lost) {
      arrow.what += fmt::format(": {}", flight::loss_text(event.loss()));
    } else {
      arrow.what += fmt::format(" = {}", message.header.ulMsgData);
      if (event.request != nullptr) {
        arrow.what += fmt::format(", after {}",
                                  duration_text(event.record.time_ns - event.request->accepted_ns));
      }
      arrow.body = shortened(text.body(message), kMostBody);
    }
    diagram.arrows.push_back(std::move(arrow));
  });
  return diagram;
}

void print_text(const Diagram &diagram) {
  constexpr size_t kTime = 16;  // "14:30:05.123456 "
  // Every column has room for the longest name.
  size_t column = 12;
  for (const std::string &name : diagram.participants) column = std::max(column, width(name) + 2);
  const auto middle = [column](size_t index) { return index * column + column / 2; };

  std::string names(kTime, ' ');
  for (const std::string &name : diagram.participants) {
    const size_t space = column - width(name);
    names += std::string(space / 2, ' ') + name + std::string(space - space / 2, ' ');
  }
  print_line(names);
  for (const Arrow &arrow : diagram.arrows) {
    std::string line(diagram.participants.size() * column, ' ');
    for (size_t i = 0; i < diagram.participants.size(); ++i) line[middle(i)] = '|';
    const size_t first = middle(std::min(arrow.from, arrow.to));
    const size_t last = middle(std::max(arrow.from, arrow.to));
    for (size_t i = first + 1; i < last; ++i) line[i] = arrow.answer && i % 2 != 0 ? ' ' : '-';
    const char head = arrow.lost ? 'x' : arrow.to > arrow.from ? '>' : '<';
    if (arrow.from == arrow.to) {
      line[first + 1] = head;
    } else {
      line[arrow.to > arrow.from ? last - 1 : first + 1] = head;
    }
    std::string words = arrow.what;
    if (!arrow.body.empty()) words += "  " + arrow.body;
    print_line(coloured(Colour::kDim, time_text(arrow.wall_ns)) + " " + line + " " +
               coloured(arrow.lost ? Colour::kRed : Colour::kNone, words));
  }
}

// Every character except letters, digits and a few marks becomes its number, so that no text can
// end a line or a statement of the diagram.
std::string mermaid_text(const std::string &text) {
  std::string safe;
  for (size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (std::isalnum(static_cast<unsigned char>(c)) != 0 ||
        std::strchr(" _.-/()=,", c) != nullptr) {
      safe += c;
      continue;
    }
    // The text is printable, so its UTF-8 is well-formed: whole characters can be taken.
    const auto lead = static_cast<unsigned char>(c);
    const size_t more = lead < 0x80 ? 0 : lead < 0xe0 ? 1 : lead < 0xf0 ? 2 : 3;
    uint32_t code = more == 0 ? lead : lead & (0x3fu >> more);
    for (size_t k = 0; k < more && i + 1 < text.size(); ++k) {
      code = code << 6 | (static_cast<unsigned char>(text[++i]) & 0x3f);
    }
    safe += fmt::format("#{};", code);
  }
  return safe;
}

void print_mermaid(const Diagram &diagram) {
  print_line("sequenceDiagram");
  for (size_t i = 0; i < diagram.participants.size(); ++i) {
    print_line(fmt::format("  participant p{} as {}", i, mermaid_text(diagram.participants[i])));
  }
  for (const Arrow &arrow : diagram.arrows) {
    const char *line = arrow.lost ? "-x" : arrow.answer ? "-->>" : "->>";
    std::string words = time_text(arrow.wall_ns) + " " + arrow.what;
    if (!arrow.body.empty()) words += ", " + arrow.body;
    print_line(fmt::format("  p{}{}p{}: {}", arrow.from, line, arrow.to, mermaid_text(words)));
  }
}

std::string xml_text(const std::string &text) {
  std::string safe;
  for (const char c : text) {
    switch (c) {
      case '&':
        safe += "&amp;";
        break;
      case '<':
        safe += "&lt;";
        break;
      case '>':
        safe += "&gt;";
        break;
      case '"':
        safe += "&quot;";
        break;
      default:
        safe += c;
    }
  }
  return safe;
}

void print_svg(const Diagram &diagram) {
  constexpr size_t kLeft = 150, kColumn = 260, kTop = 50, kRow = 34;
  const size_t columns = std::max<size_t>(diagram.participants.size(), 1);
  const size_t total = kLeft + columns * kColumn;
  const size_t height = kTop + (diagram.arrows.size() + 1) * kRow;
  const auto x = [](size_t index) { return kLeft + index * kColumn + kColumn / 2; };
  print_line(fmt::format(
      R"(<svg xmlns="http://www.w3.org/2000/svg" width="{0}" height="{1}" viewBox="0 0 {0} {1}" font-family="sans-serif" font-size="12">)",
      total, height));
  print_line(
      R"(<defs><marker id="head" markerWidth="9" markerHeight="8" refX="9" refY="4" orient="auto"><path d="M0,0 L9,4 L0,8 z"/></marker><marker id="lost" markerWidth="10" markerHeight="10" refX="9" refY="5" orient="auto"><path d="M1,1 L9,9 M9,1 L1,9" stroke="#b00" stroke-width="2"/></marker></defs>)");
  print_line(fmt::format(R"(<rect width="{}" height="{}" fill="#fff"/>)", total, height));
  for (size_t i = 0; i < diagram.participants.size(); ++i) {
    print_line(fmt::format(
        R"(<line x1="{0}" y1="{1}" x2="{0}" y2="{2}" stroke="#bbb"/><text x="{0}" y="{3}" text-anchor="middle" font-weight="bold">{4}</text>)",
        x(i), kTop - 20, height - 10, kTop - 26, xml_text(diagram.participants[i])));
  }
  for (size_t i = 0; i < diagram.arrows.size(); ++i) {
    const Arrow &arrow = diagram.arrows[i];
    const size_t y = kTop + (i + 1) * kRow - 10;
    print_line(
        fmt::format(R"(<text x="8" y="{}" fill="#666">{}</text>)", y, time_text(arrow.wall_ns)));
    const char *style =
        arrow.lost     ? R"svg(stroke="#b00" marker-end="url(#lost)")svg"
        : arrow.answer ? R"svg(stroke="#000" stroke-dasharray="5,3" marker-end="url(#head)")svg"
                       : R"svg(stroke="#000" marker-end="url(#head)")svg";
    const size_t words_at =
        arrow.from == arrow.to ? x(arrow.from) + kColumn / 4 : (x(arrow.from) + x(arrow.to)) / 2;
    if (arrow.from == arrow.to) {
      print_line(fmt::format(R"(<path d="M{0},{1} h40 v10 h-40" fill="none" {2}/>)", x(arrow.from),
                             y, style));
    } else {
      print_line(fmt::format(R"(<line x1="{}" y1="{}" x2="{}" y2="{}" {}/>)", x(arrow.from), y,
                             x(arrow.to), y, style));
    }
    print_line(fmt::format(R"(<text x="{}" y="{}" text-anchor="middle">{}<title>{}</title></text>)",
                           words_at, y - 5, xml_text(arrow.what), xml_text(arrow.body)));
  }
  print_line("</svg>");
}

void draw(const DiagramOptions &options, const Context &context) {
  if (options.mermaid && options.svg) throw servers::UsageError("either --mermaid or --svg");
  const Diagram diagram = read(options, context);
  if (options.mermaid) {
    print_mermaid(diagram);
  } else if (options.svg) {
    print_svg(diagram);
  } else {
    print_text(diagram);
  }
  if (diagram.left_out > 0) {
    std::fprintf(stderr, "msgctl: %llu messages are left out: give --most, or a filter\n",
                 static_cast<unsigned long long>(diagram.left_out));
  }
}

}  // namespace

void add_diagram_command(servers::CommandLine *line, Context *context) {
  static DiagramOptions options;
  servers::Command command = line->command("diagram", "Draw what passed as a sequence diagram",
                                           [context] { draw(options, *context); });
  command.option("-f,--file", &options.flight.file,
                 "The flight file; that of the server before has \".1\" at its end");
  command.flag("--no-mask", &options.flight.no_mask, "Show personal data");
  command.flag("--mermaid", &options.mermaid, "In the language of Mermaid");
  command.flag("--svg", &options.svg, "As an SVG picture");
  command.number("--most", &options.most, "So many arrows at most", {1, 100000});
  add_filter(&command, &options.flight);
}

}  // namespace msgctl
