// msgctl list, msgctl info: who is connected.

#include "msgctl/clients.h"

#include <fmt/core.h>

#include <algorithm>
#include <functional>
#include <map>

#include "common/printable.h"
#include "msgctl/body.h"
#include "msgctl/context.h"
#include "msgctl/message_text.h"

namespace msgctl {
namespace {

using servers::printable;

struct ClientWords {
  std::string name;
  std::string sort = "id";
  bool names = false;
};

std::string state(const Json &client) {
  std::string text;
  for (const char *word : {"slow", "held", "swapped"}) {
    if (flag_at(client, word)) text += (text.empty() ? "" : ",") + std::string(word);
  }
  return text;
}

std::string duration(const Json &client, const char *member) {
  return duration_text(static_cast<uint64_t>(std::max(0.0, number_at(client, member)) * 1e9));
}

std::string pid_text(const Json &client) {
  const uint64_t pid = count_at(client, "pid");
  return pid == 0 ? "" : std::to_string(pid);
}

std::string program_text(const Json &client) {
  const std::string address = text_at(client, "address");
  return printable(address.empty() ? text_at(client, "program") : address);
}

std::string user_text(const Json &client) {
  const std::string user = text_at(client, "user");
  if (!user.empty() || !client.contains("uid") || !client["uid"].is_number())
    return printable(user);
  return std::to_string(count_at(client, "uid"));
}

// Numbers are sorted downwards, so that the largest come first; names and ids upwards.
void sort_by(const std::string &key, std::vector<Json> *clients) {
  using Key = std::function<double(const Json &)>;
  const std::map<std::string, Key> kNumbers = {
      {"in", [](const Json &c) { return number_at(object_at(c, "in"), "messages"); }},
      {"out", [](const Json &c) { return number_at(object_at(c, "out"), "messages"); }},
      {"queued", [](const Json &c) { return number_at(c, "queued_bytes"); }},
      {"lost", [](const Json &c) { return number_at(c, "lost"); }},
      {"since", [](const Json &c) { return -number_at(c, "connected_s"); }},
      {"pid", [](const Json &c) { return -number_at(c, "pid"); }},
      {"id", [](const Json &c) { return -number_at(c, "id"); }}};
  if (key == "name") {
    std::ranges::stable_sort(*clients, {}, [](const Json &c) { return text_at(c, "name"); });
  } else {
    std::ranges::stable_sort(*clients, std::ranges::greater(), kNumbers.at(key));
  }
}

void list(const Context &context, const ClientWords &words) {
  std::vector<Json> clients = Admin(context).list("/v1/clients", "clients");
  sort_by(words.sort, &clients);
  if (words.names) {
    for (const Json &client : clients) {
      if (context.json) {
        print_json({{"name", text_at(client, "name")}});
      } else {
        print_line(printable(text_at(client, "name")));
      }
    }
    return;
  }
  constexpr auto kRight = Table::Align::kRight;
  Table table({{"ID", kRight},
               {"NAME"},
               {"PID", kRight},
               {"USER"},
               {"SINCE", kRight},
               {"IN", kRight},
               {"OUT", kRight},
               {"QUEUED", kRight},
               {"LOST", kRight},
               {"STATE"},
               {"PROGRAM"}});
  for (const Json &client : clients) {
    if (context.json) {
      print_json(client);
      continue;
    }
    table.add({std::to_string(count_at(client, "id")), printable(text_at(client, "name")),
               pid_text(client), user_text(client), duration(client, "connected_s"),
               std::to_string(count_at(object_at(client, "in"), "messages")),
               std::to_string(count_at(object_at(client, "out"), "messages")),
               bytes_text(count_at(client, "queued_bytes")),
               std::to_string(count_at(client, "lost")), state(client), program_text(client)});
  }
  if (!context.json) table.print();
}

std::string joined(const Context &context, const Json &client, const char *member) {
  std::string text;
  if (!client.contains(member) || !client[member].is_array()) return "-";
  for (const Json &entry : client[member]) {
    text += text.empty() ? "" : ", ";
    if (entry.is_string()) text += printable(entry.get<std::string>());
    if (entry.is_number_unsigned()) {
      const auto event = entry.get<uint32_t>();
      text += event == ORP_MSG_ALL_EVENTS ? "all events" : context.catalogue.describe(event);
    }
  }
  return text.empty() ? "-" : text;
}

void print_client(const Context &context, const Json &client) {
  const auto line = [](const char *title, const std::string &text) {
    print_line(fmt::format("{:<16}{}", title, text.empty() ? "-" : text));
  };
  const auto flow = [&](const char *member) {
    const Json &numbers = object_at(client, member);
    return fmt::format("{} messages, {}", count_at(numbers, "messages"),
                       bytes_text(count_at(numbers, "bytes")));
  };
  line("name", printable(text_at(client, "name")));
  line("id", fmt::format("#{}", count_at(client, "id")));
  if (const std::string address = text_at(client, "address"); !address.empty()) {
    line("board at", printable(address));
  } else {
    line("process", pid_text(client));
    line("program", program_text(client));
    line("user", fmt::format("{} ({}:{})", user_text(client), count_at(client, "uid"),
                             count_at(client, "gid")));
  }
  line("connected for", duration(client, "connected_s"));
  line("byte order", flag_at(client, "swapped") ? "headers travel reversed" : "the server's");
  line("sent", flow("in"));
  line("was given", flow("out"));
  line("queue", fmt::format("{} of {}", bytes_text(count_at(client, "queued_bytes")),
                            bytes_text(count_at(client, "queue_limit"))));
  line("lost", coloured(count_at(client, "lost") == 0 ? Colour::kNone : Colour::kRed,
                        std::to_string(count_at(client, "lost"))));
  line("state", flag_at(client, "slow")   ? "does not read: nobody waits for it any more"
                : flag_at(client, "held") ? "held: a receiver of it is full"
                                          : "in order");
  line("events", joined(context, client, "subscriptions"));
  line("events by name", joined(context, client, "named_subscriptions"));
  line("paths", joined(context, client, "paths"));
  line("waits at", joined(context, client, "sync_points"));
  const Json &keep_alive = object_at(client, "keep_alive");
  line("keep-alive", !flag_at(keep_alive, "watched") ? "not watched"
                     : flag_at(keep_alive, "missing")
                         ? fmt::format("missing for {}", duration(keep_alive, "last_s"))
                         : fmt::format("{} ago", duration(keep_alive, "last_s")));
}

void info(const Context &context, const ClientWords &words) {
  const Admin admin(context);
  bool first = true;
  for (const Json &client : clients_named(admin, words.name)) {
    const Json details = admin.get(fmt::format("/v1/clients/{}", count_at(client, "id")));
    if (context.json) {
      print_json(details);
      continue;
    }
    if (!first) print_line("");
    first = false;
    print_client(context, details);
  }
}

}  // namespace

std::vector<Json> clients_named(const Admin &admin, const std::string &name) {
  std::vector<Json> found;
  const bool by_id = name.starts_with('#');
  const uint64_t id = by_id ? number(name.substr(1), "client's number") : 0;
  for (Json &client : admin.list("/v1/clients", "clients")) {
    const bool wanted = by_id ? count_at(client, "id") == id : text_at(client, "name") == name;
    if (wanted) found.push_back(std::move(client));
  }
  if (found.empty()) {
    throw Failure(ExitStatus::kNoSuch,
                  fmt::format("no client is called '{}'; 'msgctl list' shows who is there", name));
  }
  return found;
}

void add_client_commands(servers::CommandLine *line, Context *context) {
  static ClientWords words;
  servers::Command list_command = line->command("list", "List the clients of the message server",
                                                [context] { list(*context, words); });
  add_common_options(&list_command, context);
  list_command.flag("--names", &words.names, "Only the names");
  list_command.choice("--sort", &words.sort,
                      {"id", "name", "pid", "since", "in", "out", "queued", "lost"},
                      "By what; numbers of messages and bytes with the highest first");

  servers::Command info_command = line->command("info", "Show all that is known about a client",
                                                [context] { info(*context, words); });
  add_common_options(&info_command, context);
  info_command.argument("CLIENT", &words.name, "A name, or #ID for one connection",
                        servers::Presence::kRequired);
}

}  // namespace msgctl
