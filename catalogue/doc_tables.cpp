// doc_tables [--check] FILE...: makes the tables of message types and statuses in the documents
// from the catalogue.
//
// A table is between the lines "<!-- message types: GROUP... -->" and "<!-- end -->". With
// "<!-- message types, served: GROUP... -->" it has only the type, the answer and the meaning.
// "<!-- statuses: FAMILY... -->" begins a table of statuses. Files are rewritten in place. With
// --check nothing is written, and the files that would change are named.

#include <cstdio>
#include <fstream>
#include <iterator>
#include <map>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>

#include "catalogue/message_types.h"
#include "catalogue/statuses.h"

namespace {

using catalogue::Body;
using catalogue::Content;
using catalogue::Group;
using catalogue::MessageType;
using catalogue::StatusNumber;

constexpr std::string_view kEnd = "<!-- end -->";

const std::map<std::string, Group, std::less<>> kGroups = {
    {"delivery", Group::kDelivery},
    {"processes", Group::kProcesses},
    {"restful", Group::kRestful},
    {"items", Group::kItems},
    {"applications", Group::kApplications},
    {"login", Group::kLogin},
    {"configuration", Group::kConfiguration},
    {"events", Group::kEvents},
};

std::string escaped(std::string_view text) {
  std::string out;
  for (const char c : text) {
    if (c == '|') out += '\\';
    out += c;
  }
  return out;
}

std::string body_text(const Content &content) {
  switch (content.body) {
    case Body::kNone:
      return "";
    case Body::kName:
      return "name";
    case Body::kText:
      return "text";
    case Body::kItems:
      return "DM items";
    case Body::kEvent:
      return "DM items or JSON";
    case Body::kRestful:
      return "request and text";
    case Body::kRecord:
      return content.record.starts_with("ORP_") ? "`" + std::string(content.record) + "`"
                                                : std::string(content.record);
    case Body::kPath:
      return "path";
  }
  return "";
}

std::string or_dash(std::string_view text) {
  return text.empty() ? "-" : escaped(text);
}

// "status", "0; body: text".
std::string answer_text(const std::optional<Content> &answer) {
  if (!answer) return "-";
  const std::string body = body_text(*answer);
  std::string text(answer->data);
  if (!text.empty() && !body.empty()) text += "; ";
  if (!body.empty()) text += "body: " + body;
  return or_dash(text);
}

std::string number_text(const MessageType &type) {
  char text[40];
  if (type.last == type.number) {
    std::snprintf(text, sizeof text, "`0x%X`", type.number);
  } else {
    std::snprintf(text, sizeof text, "`0x%X`-`0x%X`", type.number, type.last);
  }
  return text;
}

std::string row(const MessageType &type, bool served) {
  std::string line = "| " + number_text(type) + " | `" + std::string(type.name) + "` | ";
  if (!served) {
    line += std::string(type.from) + " | " + std::string(type.to) + " | ";
    line += or_dash(type.request.data) + " | " + or_dash(body_text(type.request)) + " | ";
  }
  line += answer_text(type.answer) + " | ";
  if (!served) {
    line += (type.timeout_ms == 0 ? "-" : std::to_string(type.timeout_ms / 1000) + " s") + " | ";
  }
  return line + escaped(type.meaning) + " |\n";
}

std::string type_rows(const std::string &group, bool served) {
  const auto known = kGroups.find(group);
  if (known == kGroups.end()) throw std::runtime_error("there is no group '" + group + "'");
  std::string rows;
  for (const MessageType &type : catalogue::message_types()) {
    if (type.group == known->second) rows += row(type, served);
  }
  return rows;
}

std::string status_rows(const std::string &family) {
  std::string rows;
  for (const StatusNumber &status : catalogue::statuses()) {
    if (catalogue::family_word(status.family) != family) continue;
    const std::string name = status.name.empty() ? "-" : "`" + std::string(status.name) + "`";
    rows += "| " + catalogue::status_text(status.number) + " | " + name + " | " +
            escaped(status.sentence) + " |\n";
  }
  if (rows.empty()) throw std::runtime_error("there is no family '" + family + "'");
  return rows;
}

// A kind of table: the beginning of the line before it, up to the words, and how it is made.
struct Table {
  std::string_view marker;
  std::string_view head;
  std::string (*rows)(const std::string &word);
};

constexpr Table kTables[] = {
    {"<!-- message types: ",
     "| Type | Name | From | To | `ulMsgData` | Body | Answer | Wait | Meaning |\n"
     "|---|---|---|---|---|---|---|---|---|\n",
     [](const std::string &group) { return type_rows(group, false); }},
    {"<!-- message types, served: ",
     "| Type | Name | Answer | What it asks for |\n|---|---|---|---|\n",
     [](const std::string &group) { return type_rows(group, true); }},
    {"<!-- statuses: ", "| Number | Name | Meaning |\n|---|---|---|\n", status_rows},
};

// `words` end in " -->".
std::string rendered(const Table &table, const std::string &words) {
  std::string text(table.head);
  std::istringstream in(words);
  for (std::string word; in >> word && word != "-->";) text += table.rows(word);
  return text;
}

std::string with_tables(const std::string &document) {
  std::istringstream lines(document);
  std::string out;
  bool inside = false;
  for (std::string line; std::getline(lines, line);) {
    if (line == kEnd) inside = false;
    if (!inside) out += line + "\n";
    for (const Table &table : kTables) {
      if (!line.starts_with(table.marker)) continue;
      inside = true;
      out += rendered(table, line.substr(table.marker.size()));
    }
  }
  if (inside) throw std::runtime_error("a table without its end");
  return out;
}

// Whether the document now holds the right tables.
bool update(const std::string &path, bool check) {
  std::ifstream file(path, std::ios::binary);
  if (!file) throw std::runtime_error("cannot be read");
  const std::string before{std::istreambuf_iterator<char>(file), {}};
  const std::string after = with_tables(before);
  if (after == before) return true;
  if (check) return false;
  std::ofstream out(path, std::ios::binary);
  if (!(out << after).flush()) throw std::runtime_error("cannot be written");
  return true;
}

}  // namespace

int main(int argc, char **argv) {
  const bool check = argc > 1 && std::string_view(argv[1]) == "--check";
  int status = 0;
  for (int i = check ? 2 : 1; i < argc; ++i) {
    try {
      if (update(argv[i], check)) continue;
      std::fprintf(stderr, "doc_tables: %s differs from the catalogue; ./dev tables renews it\n",
                   argv[i]);
    } catch (const std::exception &error) {
      std::fprintf(stderr, "doc_tables: %s: %s\n", argv[i], error.what());
    }
    status = 1;
  }
  return status;
}
