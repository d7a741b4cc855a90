// Sending, for the rest of the library. msgapi/msg.h says what each way promises.
//
// The status is the library's own or, when the application's hook takes the message, the hook's.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>

#include "base/status.h"
#include "msg/header.h"

namespace msgapi::msg {

// Whether the application's hook may take the message instead.
enum class Hook { kAsked, kPassedBy };

// On the process's connection, under the process's name.
Status send(Header *message, Hook hook = Hook::kAsked);

// A header without a body, under the next sequence number.
Status send_header(std::string_view destination, uint32_t type, uint32_t data);

// The same under the number of another message, usually the request that it answers.
Status send_header_under(uint32_t sequence, std::string_view destination, uint32_t type,
                         uint32_t data);

// A copy of `content`, which may be empty.
Status send_content(std::string_view destination, uint32_t type, std::span<const char> content,
                    uint32_t data = 0, uint32_t sequence = 0);

// The same for a record.
template <typename T>
Status send_record(std::string_view destination, uint32_t type, const T &record) {
  return send_content(destination, type, {reinterpret_cast<const char *>(&record), sizeof record});
}

// A body as a C caller gives it; the caller of this function has checked for null.
inline std::span<const char> content_of(const void *body, uint32_t size) {
  return {static_cast<const char *>(body), size};
}

}  // namespace msgapi::msg
