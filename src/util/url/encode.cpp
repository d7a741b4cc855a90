// The two encoders. Both write escapes of RFC 3986 section 2.1, and they differ on purpose: form
// encoding writes upper-case hex and "+" for a space, URI escaping lower-case hex and "%20", and
// URI escaping leaves existing escapes alone.

#include "util/url/encode.h"

#include <array>
#include <cstring>

#include "base/cursor.h"
#include "base/hex.h"
#include "msgapi/url.h"

namespace msgapi::url {
namespace {

constexpr size_t kLongestUri = 0x55555553;

// What one byte becomes: up to three characters, followed by their number.
struct Code {
  char text[4];

  constexpr uint32_t length() const { return static_cast<uint8_t>(text[3]); }
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
      table[byte] = {{character, 0, 0, 1}};
    } else {
      table[byte] = {{'%', digits[byte >> 4], digits[byte & 15], 3}};
    }
  }
  return table;
}

constexpr CodeTable make_form_table() {
  CodeTable table = make_table("-_.~*'()", kUpperHexDigits);
  table[' '] = {{'+', 0, 0, 1}};
  return table;
}

constexpr Code kPercentSign = {{'%', 0, 0, 1}};
constexpr CodeTable kFormCodes = make_form_table();
constexpr CodeTable kUriCodes = make_table("!#$&'()*+,/:;=?@-._~", kLowerHexDigits);

// Texts up to this size are encoded on the stack and then copied.
constexpr size_t kShortText = 256;
constexpr size_t kLongestCode = 3;

bool is_escape(std::string_view text) {
  return text.size() >= 3 && text[0] == '%' && hex_value(text[1]) >= 0 && hex_value(text[2]) >= 0;
}

// Both write the encoded text and its NUL to the beginning of `room` and return what they wrote.
std::span<const char> encode_form(std::string_view text, std::span<char> room) {
  TextWriter out(room);
  for (const char character : text) {
    const Code &code = kFormCodes[static_cast<uint8_t>(character)];
    out.put_first(code.text, code.length());
  }
  out.put('\0');
  return out.written();
}

std::span<const char> encode_uri(std::string_view text, std::span<char> room) {
  TextWriter out(room);
  for (size_t at = 0; at < text.size(); ++at) {
    // A "%" that begins an escape stays, and so do the digits after it, like all digits.
    const bool stays = text[at] == '%' && is_escape({&text[at], text.size() - at});
    const Code &code = stays ? kPercentSign : kUriCodes[static_cast<uint8_t>(text[at])];
    out.put_first(code.text, code.length());
  }
  out.put('\0');
  return out.written();
}

Owned<char> copy_of(std::span<const char> text) {
  Owned<char> copy(static_cast<char *>(guarded_alloc(text.size())));
  if (copy) std::memcpy(copy.get(), text.data(), text.size());
  return copy;
}

Owned<char> form_encode(std::string_view text) {
  if (text.size() <= kShortText) {
    char work[kLongestCode * kShortText + 1];
    return copy_of(encode_form(text, work));
  }

  uint64_t length = 0;
  for (const char character : text) length += kFormCodes[static_cast<uint8_t>(character)].length();
  Owned<char> encoded(static_cast<char *>(guarded_alloc(length + 1)));
  if (encoded) encode_form(text, {encoded.get(), static_cast<size_t>(length) + 1});
  return encoded;
}

}  // namespace

Owned<char> escape_uri(std::string_view path) {
  if (path.empty()) path = "/";
  if (path.size() <= kShortText) {
    char work[kLongestCode * kShortText + 1];
    return copy_of(encode_uri(path, work));
  }

  if (path.size() > kLongestUri) return nullptr;
  const size_t work_size = kLongestCode * path.size() + 1;
  const Owned<char> work(static_cast<char *>(guarded_alloc(work_size)));
  return work ? copy_of(encode_uri(path, {work.get(), work_size})) : nullptr;
}

}  // namespace msgapi::url

using namespace msgapi;

extern "C" char *ORP_UTIL_UrlEncode(const char *text) {
  return text == nullptr ? nullptr : url::form_encode(text).release();
}

extern "C" char *ORP_UTIL_GetEscapedUri(const char *path) {
  return url::escape_uri(path == nullptr ? "" : path).release();
}
