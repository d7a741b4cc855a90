// Predicates on input text.

#include <cstring>
#include <string_view>

#include "base/text.h"
#include "msgapi/str.h"

using namespace msgapi;

extern "C" uint32_t ORP_UTIL_ValidatePort(uint32_t port) {
  return port >= 1 && port <= 65535 ? 1 : 0;
}

extern "C" uint32_t ORP_UTIL_ValidateNumber(const char *text) {
  if (text == nullptr || *text == '\0') return 0;
  return std::string_view(text).find_first_not_of("0123456789") == std::string_view::npos ? 1 : 0;
}

extern "C" uint32_t ORP_UTIL_ValidateLength(const char *text, uint32_t max) {
  if (text == nullptr || *text == '\0') return 0;
  return strlen(text) <= max ? 1 : 0;
}

extern "C" uint32_t ORP_UTIL_ValidStr(const char *text) {
  if (text == nullptr) return 0;
  // 0x7F counts as printable.
  while (static_cast<uint8_t>(*text) >= 0x20 && static_cast<uint8_t>(*text) <= 0x7F) ++text;
  return *text == '\0' ? 1 : 0;
}

extern "C" uint32_t ORP_UTIL_CheckStringTerminated(const char *buffer, uint32_t size) {
  return buffer != nullptr && is_terminated({buffer, size}) ? 1 : 0;
}
