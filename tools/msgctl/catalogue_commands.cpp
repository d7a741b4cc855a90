// msgctl types, msgctl status: the catalogues.

#include <fmt/core.h>

#include "catalogue/statuses.h"
#include "common/printable.h"
#include "msgctl/context.h"
#include "msgctl/output.h"

namespace msgctl {
namespace {

using servers::printable;

Json content_json(const catalogue::Content &content) {
  return {{"data", content.data},
          {"body", catalogue::body_word(content.body)},
          {"record", content.record}};
}

void print_types(const Context &context) {
  Table table({{"NUMBER"}, {"NAME"}, {"FROM"}, {"TO"}, {"BODY"}, {"ANSWERED"}, {"MEANING"}});
  for (const catalogue::MessageType &type : context.catalogue.types()) {
    if (context.json) {
      Json json{{"number", type.number},  {"last", type.last},
                {"name", type.name},      {"from", type.from},
                {"to", type.to},          {"request", content_json(type.request)},
                {"answer", nullptr},      {"timeout_ms", type.timeout_ms},
                {"meaning", type.meaning}};
      if (type.answer) json["answer"] = content_json(*type.answer);
      print_json(json);
    } else {
      table.add({fmt::format("0x{:x}", type.number), printable(type.name), printable(type.from),
                 printable(type.to), std::string(catalogue::body_word(type.request.body)),
                 type.answer ? "yes" : "no", printable(type.meaning)});
    }
  }
  if (!context.json) table.print();
}

void print_status(const Context &context, const std::string &text) {
  const std::optional<int64_t> number = catalogue::status_number_of(text);
  if (!number) {
    throw servers::UsageError("'" + text +
                              "' is no status: give a number, or a name as in docs/statuses.md");
  }
  const auto meanings = catalogue::meanings(*number);
  if (meanings.empty()) {
    throw Failure(ExitStatus::kNoSuch, fmt::format("no function returns {} as a status of its own",
                                                   catalogue::status_text(*number)));
  }
  for (const catalogue::StatusNumber &meaning : meanings) {
    if (context.json) {
      print_json({{"number", meaning.number},
                  {"name", meaning.name},
                  {"family", catalogue::family_word(meaning.family)},
                  {"sentence", meaning.sentence}});
    } else {
      print_line(fmt::format("{} {} ({}): {}", catalogue::status_text(meaning.number), meaning.name,
                             catalogue::family_word(meaning.family), meaning.sentence));
    }
  }
}

}  // namespace

void add_catalogue_commands(servers::CommandLine *line, Context *context) {
  servers::Command types = line->command("types", "List the message types of the catalogue",
                                         [context] { print_types(*context); });
  add_common_options(&types, context);

  static std::string text;
  servers::Command status = line->command("status", "Say what a status means",
                                          [context] { print_status(*context, text); });
  add_common_options(&status, context);
  status.argument("CODE", &text, "A number (0x10005, 65541, -2) or a name",
                  servers::Presence::kRequired);
}

}  // namespace msgctl
