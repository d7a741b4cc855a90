// URL encoding beside a plain version, and URL parsing.

#include <cctype>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "msgapi/url.h"

namespace {

void require(bool condition) {
  if (!condition) std::abort();
}

bool is_kept(char byte, const char *also) {
  return std::isalnum(static_cast<unsigned char>(byte)) != 0 || std::strchr(also, byte) != nullptr;
}

std::string expected_form(const std::string &text) {
  std::string encoded;
  for (const char byte : text) {
    char code[4] = {byte == ' ' ? '+' : byte};
    if (byte != ' ' && !is_kept(byte, "-_.~*'()")) {
      std::snprintf(code, sizeof code, "%%%02X", static_cast<unsigned char>(byte));
    }
    encoded += code;
  }
  return encoded;
}

std::string expected_uri(const std::string &text) {
  if (text.empty()) return "/";
  std::string escaped;
  for (size_t at = 0; at < text.size(); ++at) {
    const char *const from = &text[at];
    const bool is_escape = *from == '%' && std::isxdigit(static_cast<unsigned char>(from[1])) &&
                           std::isxdigit(static_cast<unsigned char>(from[2]));
    char code[4] = {*from};
    if (!is_escape && !is_kept(*from, "!#$&'()*+,/:;=?@-._~")) {
      std::snprintf(code, sizeof code, "%%%02x", static_cast<unsigned char>(*from));
    }
    escaped += code;
  }
  return escaped;
}

std::string take(char *text) {
  require(text != nullptr);
  const std::string copy = text;
  std::free(text);
  return copy;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const std::string text(
      std::string(reinterpret_cast<const char *>(data), size).c_str());  // up to the first NUL
  require(take(ORP_UTIL_UrlEncode(text.c_str())) == expected_form(text));
  const std::string escaped = take(ORP_UTIL_GetEscapedUri(text.c_str()));
  require(escaped == expected_uri(text));
  require(take(ORP_UTIL_GetEscapedUri(escaped.c_str())) == escaped);

  uint32_t protocol, port;
  char *host, *path;
  if (ORP_UTIL_ParseUrl(text.c_str(), &protocol, &host, &port, &path) == 1) {
    require(protocol < ORP_URL_PROTOCOL_FIRST_EXTENSION && port >= 1 && port <= 65535);
    require(text.find(take(host)) != std::string::npos);
    require(path == nullptr || take(path)[0] == '/');
  } else {
    require(host == nullptr && path == nullptr);
  }
  return 0;
}
