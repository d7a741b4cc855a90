// msgctl dissector: prints what Wireshark needs to understand captures of the bus.

#include <fmt/core.h>

#include "common/printable.h"
#include "flight/record.h"
#include "msgctl/context.h"
#include "msgctl/dissector_lua.h"
#include "msgctl/output.h"

namespace msgctl {
namespace {

// A Lua string literal. A catalogue file may hold any characters.
std::string quoted(std::string_view text) {
  std::string lua = "\"";
  for (const char c : servers::printable(text)) {
    if (c == '"' || c == '\\') {
      lua += fmt::format("\\{:03}", static_cast<unsigned char>(c));
    } else {
      lua += c;
    }
  }
  return lua + "\"";
}

void print_dissector(const Context &context) {
  std::string lua =
      "-- Wireshark's dissector of captures of the message bus: msgctl dissector > msgapi.lua,\n"
      "-- then into the personal Lua plugins (Help, About Wireshark, Folders), or\n"
      "-- tshark -X lua_script:msgapi.lua\n\nlocal types = {\n";
  // The first entry that fits counts, so single types come before the ranges around them.
  for (const bool ranges : {false, true}) {
    for (const catalogue::MessageType &type : context.catalogue.types()) {
      if ((type.last != type.number) != ranges) continue;
      lua += fmt::format("  {{0x{:x}, 0x{:x}, {}}},\n", type.number, type.last, quoted(type.name));
    }
  }
  lua += "}\n\nlocal kinds = {\n";
  for (uint8_t kind = 0; kind <= flight::kLastKind; ++kind) {
    lua += fmt::format("  [{}] = {},\n", kind,
                       quoted(flight::kind_name(static_cast<flight::Kind>(kind))));
  }
  lua += "}\n\nlocal losses = {\n  [0] = \"none\",\n";
  for (uint8_t loss = 1; loss <= flight::kLastLoss; ++loss) {
    lua += fmt::format("  [{}] = {},\n", loss,
                       quoted(flight::loss_text(static_cast<flight::Loss>(loss))));
  }
  lua += "}\n\n";
  lua += kDissectorLua;
  print_line(lua);
}

}  // namespace

void add_dissector_command(servers::CommandLine *line, Context *context) {
  line->command("dissector", "Print a Lua dissector for Wireshark, made from the catalogue",
                [context] { print_dissector(*context); });
}

}  // namespace msgctl
