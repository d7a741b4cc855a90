// The message block: what every file of the message core knows about header and body.
#pragma once

#include <cstdint>
#include <string_view>

#include "base/memory.h"
#include "base/text.h"
#include "msgapi/msg.h"

namespace msgapi::msg {

static_assert(sizeof(ORP_MSG_HEADER_ST) == ORP_MSG_HEADER_SIZE);

using Header = ORP_MSG_HEADER_ST;

// What has no destination is for the message server itself.
constexpr std::string_view kServer = "";

// A message made of a name: what several requests to the server look like.
struct NameMessage {
  Header header;
  char name[ORP_APP_NAME_SIZE];
};
static_assert(sizeof(NameMessage) == 52);

constexpr uint32_t type_proper(uint32_t type) {
  return type & ORP_MSG_TYPE_MASK;
}

// Names end at their field, NUL or not.
inline std::string_view sender(const Header &header) {
  return field_text(header.aucSendApp);
}
inline std::string_view destination(const Header &header) {
  return field_text(header.aucRecvApp);
}

inline char *body(Header *header) {
  return reinterpret_cast<char *>(header + 1);
}
inline const char *body(const Header *header) {
  return reinterpret_cast<const char *>(header + 1);
}

// Header and body together.
inline uint64_t block_size(const Header &header) {
  return uint64_t{ORP_MSG_HEADER_SIZE} + header.ulDataLen;
}

// The text of a C string that may be null.
inline std::string_view text_or_empty(const char *text) {
  return text == nullptr ? std::string_view() : std::string_view(text);
}

// A header-only message with the next sequence number. Names longer than a field are cut.
Header build_header(std::string_view destination, uint32_t type, uint32_t data);

// A request or notice to the server about the application `name`, with the next sequence number.
NameMessage build_name_message(uint32_t type, uint32_t data, std::string_view name);

// A message with a cleared header but for its length, the body not cleared. Null without memory.
Owned<Header> allocate_message(uint32_t body_size);

// Reverses the four integers.
void swap_header(Header *header);

}  // namespace msgapi::msg
