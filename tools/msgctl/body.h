// Bodies of messages as the user writes them on a command line.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "catalogue/message_types.h"
#include "common/command_line.h"

namespace msgctl {

// How the user gives a body:
//   TEXT           as it is, with a NUL behind it
//   text:TEXT      the same, for a text that begins like one of the following
//   @FILE, -       the bytes of a file, of standard input
//   hex:0A1B...    those bytes
//   json:TEXT      the same as TEXT, refused when it is no JSON
//   --dm NAME=VALUE, several times: DM items, each a text or "hex:..."
struct BodyWords {
  std::string word;
  std::vector<std::string> items;
  uint32_t sub_type = 0;  // of DM items

  bool given() const { return !word.empty() || !items.empty(); }
};

// The options for DM items; the word is an argument, which each command places itself.
void add_item_options(servers::Command *command, BodyWords *words);

// The bytes of the body. Where the catalogue says that a type's body is a name, the text is padded
// to the size of a name. Throws a Failure for words without a meaning.
std::string make_body(const BodyWords &words, const catalogue::Content *content = nullptr);

// A sealed DM body of the items.
std::string make_items(const std::vector<std::string> &items, uint32_t sub_type);

// A body that must be text: the word itself, or the text of a file or of standard input.
std::string body_text(const std::string &word);

// "0x10", "16".
uint32_t number(const std::string &text, const char *what);

}  // namespace msgctl
