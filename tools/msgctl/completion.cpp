// msgctl complete: the words that a shell offers, from the live bus if the user may ask it.

#include <fmt/core.h>

#include <algorithm>
#include <set>

#include "msgapi/event.h"
#include "msgapi/notify.h"
#include "msgctl/admin.h"
#include "msgctl/context.h"
#include "msgctl/message_text.h"
#include "msgctl/output.h"

namespace msgctl {
namespace {

// A shell evaluates some of the words that it offers, so words with other characters are left out.
bool harmless(const std::string &word) {
  return !word.empty() && std::ranges::all_of(word, [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
           std::string_view("_-./:+@").find(c) != std::string_view::npos;
  });
}

// Without a server there is nothing to offer, which is no error here.
std::set<std::string> from_server(const Context &context, const char *place, const char *list,
                                  const char *member) {
  std::set<std::string> words;
  try {
    for (const Json &entry : Admin(context).list(place, list)) words.insert(text_at(entry, member));
  } catch (const Failure &) {
  }
  return words;
}

std::set<std::string> words_of(const Context &context, const std::string &kind) {
  std::set<std::string> words;
  if (kind == "names") {
    words = from_server(context, "/v1/clients", "clients", "name");
    words.emplace(kServerWord);
  } else if (kind == "paths") {
    words = from_server(context, "/v1/paths", "paths", "path");
  } else if (kind == "types") {
    for (const catalogue::MessageType &type : context.catalogue.types()) words.emplace(type.name);
  } else if (kind == "events") {
    for (uint32_t event = ORP_MSG_ALL_EVENTS + 1; event >> 8 == ORP_MSG_EVENT_PAGE; ++event) {
      if (const char *module = ORP_EVT_GetEventModuleNameByEventType(event)) words.emplace(module);
    }
    words.emplace("all");
  } else if (kind == "modules") {
    for (uint32_t id = 1; id < ORP_NOTIFYCLT_MODULES; ++id) {
      if (const char *name = ORP_NOTIFYCLT_GetNameByMID(id)) words.emplace(name);
    }
  } else {
    throw servers::UsageError("'" + kind + "' is not names, types, events, paths or modules");
  }
  return words;
}

void complete(const Context &context, const std::string &kind) {
  for (const std::string &word : words_of(context, kind)) {
    if (!harmless(word)) continue;
    if (context.json) {
      print_json({{"word", word}});
    } else {
      print_line(word);
    }
  }
}

}  // namespace

void add_completion_commands(servers::CommandLine *line, Context *context) {
  static std::string kind;
  servers::Command command = line->command("complete", "List words for a shell's completion",
                                           [context] { complete(*context, kind); });
  add_common_options(&command, context);
  command.argument("KIND", &kind, "names, types, events, paths or modules",
                   servers::Presence::kRequired);
}

}  // namespace msgctl
