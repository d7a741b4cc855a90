// The two encoders. They differ on purpose: form encoding writes upper-case hex and "+" for a
// space, URI escaping lower-case hex and "%20", and URI escaping leaves existing escapes alone.

#include "util/url/encode.h"

#include <array>
#include <cstring>

#include "base/cursor.h"
#include "base/hex.h"
#include "msgapi/url.h"

namespace msgapi::url {
namespace {

constexpr size_t kLongestUri = 0x55555553;

// What one byte becomes.
struct Code {
  char text[4];
  uint32_t length;
};

using CodeTable = std::array<Code, 256>;

constexpr bool is_alphanumeric(size_t byte) {
  return (byte >= '0' && byte <= '9') || (byte >= 'A' && byte <= 'Z') ||
         (byte >= 'a' && byte <= 'z');
}

constexpr CodeTable make_table(std::string_view unreserved, const char *digits) {
  CodeTable table{};
  for (size_t byte = 0; byte < table.size(); ++byte) {
    const char character = static_cast<char>(byte);
    if (is_alphanumeric(byte) || unreserved.find(character) != unreserved.npos) {
      table[byte] = {{character}, 1};
    } else {
      table[byte] = {{'%', digits[byte >> 4], digits[byte & 15]}, 3};
    }
  }
  return table;
}

constexpr CodeTable make_form_table() {
  CodeTable table = make_table("-_.~*'()", kUpperHexDigits);
  table[' '] = {{'+'}, 1};
  return table;
}

constexpr CodeTable kFormCodes = make_form_table();
constexpr CodeTable kUriCodes = make_table("!#$&'()*+,/:;=?@-._~", kLowerHexDigits);

constexpr const Code &code_of(const CodeTable &table, char character) {
  return table[static_cast<uint8_t>(character)];
}

bool is_escape(std::string_view text) {
  return text.size() >= 3 && text[0] == '%' && hex_value(text[1]) >= 0 && hex_value(text[2]) >= 0;
}

void put_code(TextWriter *out, const Code &code) {
  out->put_first(code.text, code.length);
}

Owned<char> form_encode(std::string_view text) {
  uint64_t length = 0;
  for (const char character : text) length += code_of(kFormCodes, character).length;
  Owned<char> encoded(static_cast<char *>(guarded_alloc(length + 1)));
  if (!encoded) return nullptr;

  TextWriter out({encoded.get(), static_cast<size_t>(length) + 1});
  for (const char character : text) put_code(&out, code_of(kFormCodes, character));
  out.put('\0');
  return encoded;
}

}  // namespace

Owned<char> escape_uri(std::string_view path) {
  if (path.empty()) path = "/";
  if (path.size() > kLongestUri) return nullptr;
  const size_t work_size = 3 * path.size() + 1;
  const Owned<char> work(static_cast<char *>(guarded_alloc(work_size)));
  if (!work) return nullptr;

  TextWriter out({work.get(), work_size});
  while (!path.empty()) {
    // A "%" that begins an escape stays, and so do the digits behind it, like all of their kind.
    if (is_escape(path)) {
      out.put('%');
    } else {
      put_code(&out, code_of(kUriCodes, path[0]));
    }
    path.remove_prefix(1);
  }
  out.put('\0');

  Owned<char> escaped(static_cast<char *>(guarded_alloc(out.offset())));
  if (escaped) std::memcpy(escaped.get(), work.get(), out.offset());
  return escaped;
}

}  // namespace msgapi::url

using namespace msgapi;

extern "C" char *ORP_UTIL_UrlEncode(const char *text) {
  return text == nullptr ? nullptr : url::form_encode(text).release();
}

extern "C" char *ORP_UTIL_GetEscapedUri(const char *path) {
  return url::escape_uri(path == nullptr ? "" : path).release();
}
