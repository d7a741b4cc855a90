// Headers and names as they cross the server.
#pragma once

#include <array>
#include <cstdint>
#include <cstring>
#include <functional>
#include <optional>
#include <span>
#include <string_view>

#include "msgapi/msg.h"

namespace msgsvr {

using Header = ORP_MSG_HEADER_ST;
static_assert(sizeof(Header) == ORP_MSG_HEADER_SIZE);

constexpr size_t kHeaderSize = ORP_MSG_HEADER_SIZE;

// The server's own name; the empty name also means the server.
constexpr std::string_view kServerName = "mic";

inline void swap_header(Header *header) {
  header->ulMsgType = __builtin_bswap32(header->ulMsgType);
  header->ulSeqNum = __builtin_bswap32(header->ulSeqNum);
  header->ulMsgData = __builtin_bswap32(header->ulMsgData);
  header->ulDataLen = __builtin_bswap32(header->ulDataLen);
}

// `swapped`: the bytes are in the other byte order.
inline Header load_header(const char *bytes, bool swapped) {
  Header header;
  std::memcpy(&header, bytes, sizeof header);
  if (swapped) swap_header(&header);
  return header;
}

inline void store_header(Header header, bool swapped, char *bytes) {
  if (swapped) swap_header(&header);
  std::memcpy(bytes, &header, sizeof header);
}

// An application's name, zero-filled after its end so that it can be compared whole.
class AppName {
 public:
  AppName() = default;
  // Cut to 11 characters, and at a NUL.
  explicit AppName(std::string_view text) {
    text = text.substr(0, text.find('\0')).substr(0, bytes_.size() - 1);
    text.copy(bytes_.data(), text.size());
  }
  // From a 12-byte field; none if no NUL ends it.
  static std::optional<AppName> from_field(const char *field) {
    if (std::memchr(field, 0, ORP_APP_NAME_SIZE) == nullptr) return std::nullopt;
    return AppName(std::string_view(field));
  }

  std::string_view text() const { return bytes_.data(); }
  bool empty() const { return bytes_[0] == '\0'; }
  bool is_server() const { return empty() || text() == kServerName; }
  void store(char *field) const { std::memcpy(field, bytes_.data(), bytes_.size()); }
  bool operator==(const AppName &) const = default;

 private:
  friend std::hash<AppName>;
  std::array<char, ORP_APP_NAME_SIZE> bytes_{};
};

// A whole message that is for the server itself.
struct Message {
  Header header;                // in host order, with the transport's flags
  std::span<const char> body;   // the contents of the hand-over file, if there was one
  std::span<const char> frame;  // header and body as they came, in the sender's byte order
  uint64_t record = 0;          // its number in the journal

  uint32_t type() const { return header.ulMsgType & ORP_MSG_TYPE_MASK; }

  // The application name that is the body; none if the body is too short or no NUL ends it within
  // the field.
  std::optional<AppName> name_in_body() const {
    if (body.empty() || std::memchr(body.data(), 0, std::min(body.size(), size_t{12})) == nullptr) {
      return std::nullopt;
    }
    return AppName(std::string_view(body.data()));
  }
};

}  // namespace msgsvr

template <>
struct std::hash<msgsvr::AppName> {
  size_t operator()(const msgsvr::AppName &name) const {
    uint64_t first;
    uint32_t rest;
    std::memcpy(&first, name.bytes_.data(), sizeof first);
    std::memcpy(&rest, name.bytes_.data() + sizeof first, sizeof rest);
    uint64_t mixed = (first ^ (uint64_t{rest} << 17)) * 0x9e3779b97f4a7c15u;
    return static_cast<size_t>(mixed ^ (mixed >> 32));
  }
};
