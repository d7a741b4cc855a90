// The catalogue of message types: everything about the types that the library or a server knows,
// for people and tools. The numbers are those of msgapi/messages.h. Applications describe their own
// types in files (catalogue/type_files.h).
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace catalogue {

// What the body of a message holds.
enum class Body : uint8_t {
  kNone,
  kName,     // a name in a field of 12 bytes
  kText,     // characters and a NUL
  kItems,    // a DM body: named items
  kEvent,    // what the publisher sent: a DM body or JSON text
  kRestful,  // code, second word, path, handler, text
  kRecord,   // the record that `record` names
  kPath,     // the path of a file, with its NUL
};

// One direction of a message. Texts are empty where there is nothing to say.
struct Content {
  std::string_view data;  // what ulMsgData means
  Body body = Body::kNone;
  std::string_view record = {};  // for Body::kRecord
};

// A chapter of the catalogue.
enum class Group : uint8_t {
  kDelivery,
  kProcesses,
  kRestful,
  kItems,
  kApplications,
  kConfiguration,
  kLogin,
  kEvents,
  kOwn,  // described by an application
};

// Members are in the order in which a row of the table reads; there are few records.
// NOLINTNEXTLINE(clang-analyzer-optin.performance.Padding)
struct MessageType {
  uint32_t number;
  std::string_view name;      // lower-case words joined by "-"
  std::string_view constant;  // in msgapi/messages.h; empty for an application's own type
  Group group;
  std::string_view from;
  std::string_view to;
  Content request;
  std::optional<Content> answer;  // none: nobody answers
  uint32_t timeout_ms;            // how long requesters usually wait; 0: not known, or no answer
  std::string_view meaning;       // one sentence or less
  uint32_t last = number;         // the end of a range of types that begins with `number`
};

// All types that the library or a server knows, by number.
std::span<const MessageType> message_types();

// The type with that number, of which the low 20 bits count; null when it is not known. A type in a
// range without an entry of its own has the range's.
const MessageType *find(uint32_t type, std::span<const MessageType> types = message_types());

// For people: "import-cfg-file (0x5027)", or the number alone.
std::string describe(uint32_t type, std::span<const MessageType> types = message_types());

// The number of a type that is given by name, by constant, or as a number ("0x5027", "20519").
std::optional<uint32_t> number_of(std::string_view text,
                                  std::span<const MessageType> types = message_types());

// "name", "path" and so on: the words of the documents and the files.
std::string_view body_word(Body body);
std::optional<Body> body_of(std::string_view word);

}  // namespace catalogue
