#include "msgsvr/report.h"

#include <fmt/core.h>
#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <map>
#include <nlohmann/json.hpp>
#include <unordered_map>
#include <utility>

#include "common/printable.h"
#include "msgsvr/program.h"

namespace msgsvr {
namespace {

using Json = nlohmann::ordered_json;
using servers::printable;

constexpr std::pair<Loss, const char *> kLosses[] = {
    {Loss::kNoSuchName, "no_such_name"},    {Loss::kQueueFull, "queue_full"},
    {Loss::kReceiverGone, "receiver_gone"}, {Loss::kCutShort, "cut_short"},
    {Loss::kNotServed, "not_served"},       {Loss::kMalformed, "malformed"},
    {Loss::kNotPermitted, "not_permitted"}, {Loss::kDescriptor, "descriptor"}};

const char *key_of(Loss loss) {
  const auto entry = std::ranges::find(kLosses, loss, [](const auto &each) { return each.first; });
  return entry == std::end(kLosses) ? "" : entry->second;
}

// A JSON string. What is printable needs no escapes but these two.
std::string json_string(std::string_view text) {
  std::string string = "\"";
  for (const char c : printable(text)) {
    if (c == '\\' || c == '"') string += '\\';
    string += c;
  }
  return string + '"';
}

// Asks the user database once for each user; it may block.
class Users {
 public:
  const std::string &name(uid_t uid) {
    const auto known = names_.find(uid);
    if (known != names_.end()) return known->second;
    std::array<char, 4096> buffer;
    passwd entry{};
    passwd *found = nullptr;
    ::getpwuid_r(uid, &entry, buffer.data(), buffer.size(), &found);
    return names_[uid] = found == nullptr ? "null" : json_string(found->pw_name);
  }

 private:
  std::map<uid_t, std::string> names_;
};

// What the process runs now; null when that cannot be found out.
std::string program_text(pid_t pid) {
  std::array<char, 4096> buffer;
  const std::string_view program = program_of(pid, buffer);
  return program.empty() ? "null" : json_string(program);
}

Json traffic(uint64_t messages, uint64_t bytes) {
  return {{"messages", messages}, {"bytes", bytes}};
}

// Written by hand, without a JSON tree: there may be thousands of clients.
std::string json_text_of(const ClientFacts &client, Users *users) {
  const pid_t pid = client.peer.pid;
  std::string text =
      fmt::format("{{\"id\":{},\"name\":{},", client.id, json_string(client.name.text()));
  auto out = std::back_inserter(text);
  if (client.address.empty()) {
    fmt::format_to(out, R"("pid":{},"program":{},"uid":{},"user":{},"gid":{},"address":null,)", pid,
                   program_text(pid), client.peer.uid, users->name(client.peer.uid),
                   client.peer.gid);
  } else {
    fmt::format_to(out,
                   R"("pid":null,"program":null,"uid":null,"user":null,"gid":null,"address":{},)",
                   json_string(client.address));
  }
  fmt::format_to(out,
                 R"("connected_at":{},"connected_s":{},"swapped":{},)"
                 R"("in":{{"messages":{},"bytes":{}}},"out":{{"messages":{},"bytes":{}}},)"
                 R"("queued_bytes":{},"queue_limit":{},"lost":{},"slow":{},"held":{}}})",
                 client.connected_at, client.connected_s, client.swapped, client.frames_in,
                 client.bytes_in, client.frames_out, client.bytes_out, client.queued,
                 client.queue_limit, client.lost, client.slow, client.held);
  return text;
}

std::unordered_map<uint32_t, std::string> names_of(const std::vector<ClientFacts> &clients) {
  std::unordered_map<uint32_t, std::string> names;
  for (const ClientFacts &client : clients) names[client.id] = printable(client.name.text());
  return names;
}

// One element after the other, so that only one is in memory in two forms.
template <typename Range, typename Function>
std::string list_json(const char *key, const Range &elements, Function text_of_element) {
  std::string text = fmt::format("{{\"{}\": [", key);
  const char *separator = "";
  for (const auto &element : elements) {
    text += std::exchange(separator, ",\n");
    text += text_of_element(element);
  }
  return text + "]}\n";
}

// A metric family of OpenMetrics 1.0: its facts, and then its samples.
class Family {
 public:
  Family(std::string *text, const char *name, const char *type, const char *help)
      : text_(text), name_(name), suffix_(std::string_view(type) == "counter" ? "_total" : "") {
    *text_ += fmt::format("# TYPE msgsvr_{0} {1}\n# HELP msgsvr_{0} {2}\n", name, type, help);
  }
  template <typename T>
  void sample(T value, const std::string &labels = {}) {
    *text_ += fmt::format("msgsvr_{}{}{} {}\n", name_, suffix_, labels, value);
  }

 private:
  std::string *text_;
  const char *name_;
  const char *suffix_;
};

std::string label(const char *name, std::string_view value) {
  return fmt::format("{{{}={}}}", name, json_string(value));
}

std::string label_of(const ClientFacts &client) {
  return fmt::format("{{id=\"{}\",name={}}}", client.id, json_string(client.name.text()));
}

}  // namespace

std::string clients_json(const std::vector<ClientFacts> &clients) {
  Users users;
  return list_json("clients", clients,
                   [&users](const ClientFacts &each) { return json_text_of(each, &users); });
}

std::string client_json(const ClientFacts &client, const Details &details,
                        const Inventory &inventory) {
  Users users;
  Json json = Json::parse(json_text_of(client, &users));
  Json own = Json::array(), named = Json::array(), paths = Json::array(), points = Json::array();
  for (const Inventory::Subscription &each : inventory.subscriptions) {
    if (each.client == client.id) own.push_back(each.event);
    if (each.client == 0 && each.name == client.name) named.push_back(each.event);
  }
  for (const Inventory::Path &each : inventory.paths) {
    if (each.client == client.id) paths.push_back(printable(each.path));
  }
  for (const Inventory::Wait &each : inventory.waits) {
    if (each.client == client.id) points.push_back(printable(each.point));
  }
  json["subscriptions"] = std::move(own);
  json["named_subscriptions"] = std::move(named);
  json["paths"] = std::move(paths);
  json["sync_points"] = std::move(points);
  json["keep_alive"] = {{"watched", false}, {"missing", false}, {"last_s", nullptr}};
  for (const Inventory::KeepAlive &each : inventory.keep_alives) {
    if (each.client != client.id) continue;
    json["keep_alive"] = {
        {"watched", each.watched}, {"missing", each.missing}, {"last_s", each.last_s}};
  }
  json["in_message"] = details.in_message;
  Json &limits = json["limits"] = Json::object();
  for (const Details::Limit &each : details.limits) {
    limits[each.what] = {{"own", each.own}, {"user", each.user}, {"limit", each.limit}};
  }
  return json.dump() + '\n';
}

std::string totals_json(const Totals &totals) {
  const Statistics &s = totals.statistics;
  Json json;
  json["version"] = MSGAPI_VERSION;
  json["pid"] = ::getpid();
  json["started_at"] = totals.started_at;
  json["uptime_s"] = totals.uptime_s;
  json["clients"] = totals.clients;
  json["connections"] = s.connections;
  json["in"] = traffic(s.frames_in, s.bytes_in);
  json["out"] = traffic(s.frames_out, s.bytes_out);
  for (const auto &[loss, key] : kLosses) json["lost"][key] = s.of(loss);
  json["senders_told"] = s.told;
  json["nobody_told"] = s.untold;
  json["descriptors_passed"] = s.descriptors_passed;
  json["failed_callbacks"] = totals.failed_callbacks;
  json["refused"] = s.refused;
  json["foreign_senders"] = s.foreign;
  json["http_refused"] = totals.http_refused;
  Json &culprits = json["culprits"] = Json::array();
  for (const Culprit &each : totals.culprits) {
    culprits.push_back({{"loss", key_of(each.loss)},
                        {"from", printable(each.from.text())},
                        {"to", printable(each.to.text())},
                        {"count", each.count},
                        {"last_at", static_cast<double>(each.last_at)}});
  }
  json["flight"] = totals.flight_size == 0 ? Json()
                                           : Json{{"path", flight::kPath},
                                                  {"size", totals.flight_size},
                                                  {"records", totals.flight_records}};
  return json.dump() + '\n';
}

std::string subscriptions_json(const Inventory &inventory,
                               const std::vector<ClientFacts> &clients) {
  const auto names = names_of(clients);
  return list_json("subscriptions", inventory.subscriptions,
                   [&](const Inventory::Subscription &each) {
                     const bool by_name = each.client == 0;
                     const auto owner = names.find(each.client);
                     return Json{{"event", each.event},
                                 {"id", by_name ? Json() : Json(each.client)},
                                 {"name", by_name                ? printable(each.name.text())
                                          : owner == names.end() ? std::string()
                                                                 : owner->second}}
                         .dump();
                   });
}

std::string paths_json(const Inventory &inventory, const std::vector<ClientFacts> &clients) {
  const auto names = names_of(clients);
  return list_json("paths", inventory.paths, [&](const Inventory::Path &each) {
    const auto owner = names.find(each.client);
    return Json{{"path", printable(each.path)},
                {"id", each.client},
                {"name", owner == names.end() ? std::string() : owner->second}}
        .dump();
  });
}

std::string metrics_text(const Totals &totals, const std::vector<ClientFacts> &clients) {
  const Statistics &s = totals.statistics;
  std::string text;
  Family(&text, "uptime_seconds", "gauge", "Since the server started.").sample(totals.uptime_s);
  Family(&text, "clients", "gauge", "Connected now.").sample(totals.clients);
  Family(&text, "connections", "counter", "Accepted.").sample(s.connections);
  Family(&text, "received_messages", "counter", "From clients.").sample(s.frames_in);
  Family(&text, "received_bytes", "counter", "From clients.").sample(s.bytes_in);
  Family(&text, "sent_messages", "counter", "To clients.").sample(s.frames_out);
  Family(&text, "sent_bytes", "counter", "To clients.").sample(s.bytes_out);
  Family lost(&text, "lost_messages", "counter", "Not delivered, by the reason.");
  for (const auto &[loss, key] : kLosses) lost.sample(s.of(loss), label("reason", key));
  Family(&text, "notices", "counter", "To senders of lost messages.").sample(s.told);
  Family(&text, "unnoticed_losses", "counter", "Of which nobody is told.").sample(s.untold);
  Family(&text, "passed_descriptors", "counter", "To their receivers.")
      .sample(s.descriptors_passed);
  Family(&text, "failed_callbacks", "counter", "Given up for want of memory and the like.")
      .sample(totals.failed_callbacks);
  Family(&text, "refusals", "counter", "By the policy.").sample(s.refused);
  Family(&text, "foreign_senders", "counter", "Messages under another name than their sender's.")
      .sample(s.foreign);
  Family(&text, "http_refusals", "counter", "By Host, origin or token.")
      .sample(totals.http_refused);
  Family(&text, "flight_records", "counter", "Written by the flight recorder.")
      .sample(totals.flight_records);

  const auto per_client = [&](const char *name, const char *type, const char *help,
                              uint64_t ClientFacts::*member) {
    Family family(&text, name, type, help);
    for (const ClientFacts &each : clients) family.sample(each.*member, label_of(each));
  };
  per_client("client_received_messages", "counter", "From this client.", &ClientFacts::frames_in);
  per_client("client_sent_messages", "counter", "To this client.", &ClientFacts::frames_out);
  per_client("client_lost_messages", "counter", "For this client.", &ClientFacts::lost);
  per_client("client_queued_bytes", "gauge", "That wait for this client.", &ClientFacts::queued);
  return text + "# EOF\n";
}

std::string error_json(std::string_view error) {
  return Json{{"error", printable(error)}}.dump() + '\n';
}

}  // namespace msgsvr
