#include "traffic/mask.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <cstdint>
#include <cstring>
#include <vector>

#include "msgapi/blur.h"
#include "msgapi/dmmsg.h"

namespace traffic {
namespace {

constexpr std::string_view kBlanks = " \t";

// Where each character of a text begins, and then the text's end. In the text of a JSON string an
// escape sequence (RFC 8259, 7) is one character.
enum class Spelling { kPlain, kJson };
std::vector<size_t> characters(std::string_view text, Spelling form) {
  constexpr size_t kEscape = 2, kUnicodeEscape = 6;
  std::vector<size_t> begins;
  for (size_t at = 0; at < text.size();) {
    begins.push_back(at);
    if (form == Spelling::kJson && text[at] == '\\') {
      at += at + 1 < text.size() && text[at + 1] == 'u' ? kUnicodeEscape : kEscape;
      continue;
    }
    ++at;
    while (at < text.size() && (static_cast<unsigned char>(text[at]) & 0xc0) == 0x80) ++at;
  }
  begins.push_back(text.size());
  return begins;
}

// Writes one * for each byte. Personal values keep their first and last character.
void hide(std::span<char> value, Care care, Spelling form = Spelling::kPlain) {
  if (care == Care::kNone) return;
  while (!value.empty() && value.back() == '\0') value = value.first(value.size() - 1);
  if (care == Care::kPersonal) {
    const std::vector<size_t> at = characters({value.data(), value.size()}, form);
    if (at.size() > 3) value = value.subspan(at[1], at[at.size() - 2] - at[1]);
  }
  std::fill(value.begin(), value.end(), '*');
}

// Calls `hide_in` with each text between NULs.
template <typename Hide>
void for_each_text(std::span<char> bytes, Hide hide_in) {
  while (!bytes.empty()) {
    const auto length =
        static_cast<size_t>(std::find(bytes.begin(), bytes.end(), '\0') - bytes.begin());
    if (length > 0) hide_in(bytes.first(length));
    bytes = bytes.subspan(std::min(length + 1, bytes.size()));
  }
}

// Masks as the library does in logs.
void hide_patterns(std::span<char> bytes) {
  std::string text(bytes.begin(), bytes.end());
  MlogBlurString(text.data(), static_cast<uint32_t>(text.size()));
  MlogBlurIpv6String(text.data(), static_cast<uint32_t>(text.size()));
  std::copy(text.begin(), text.end(), bytes.begin());
}

// Hides what may be the beginning of an address at the end of cut bytes: no pattern finds it.
void hide_cut_end(std::span<char> bytes) {
  for (size_t i = bytes.size(); i > 0; --i) {
    char &c = bytes[i - 1];
    const bool in_value =
        std::isalnum(static_cast<unsigned char>(c)) != 0 || c == ':' || c == '.' || c == '-';
    if (!in_value) return;
    c = '*';
  }
}

uint32_t word_at(std::span<const char> bytes, size_t at) {
  uint32_t word;
  std::memcpy(&word, bytes.data() + at, sizeof word);
  return word;
}

// docs/events.md has the layout. A cut body is masked as far as it goes.
void hide_items(std::span<char> body) {
  constexpr size_t kHead = 24, kItemHead = 12;
  size_t at = kHead;
  while (body.size() - at >= kItemHead) {
    const size_t name_size = word_at(body, at + 4);
    const size_t value_size = word_at(body, at + 8);
    at += kItemHead;
    if (name_size > body.size() - at) return;
    const std::string_view name(body.data() + at, name_size);
    at += name_size;
    const size_t there = std::min(value_size, body.size() - at);
    hide(body.subspan(at, there), care_of(name));
    at += there;
  }
}

bool is_in(char c, std::string_view set) {
  return set.find(c) != std::string_view::npos;
}

bool is_of_word(char c) {
  return std::isalnum(static_cast<unsigned char>(c)) != 0;
}

// The text of a JSON string, to look for names and assignments in. These are ASCII, so other
// characters need not come out right.
std::string unescaped(std::string_view text) {
  constexpr size_t kUnicodeEscape = 6;
  const std::vector<size_t> begins = characters(text, Spelling::kJson);
  std::string plain;
  for (size_t i = 0; i + 1 < begins.size(); ++i) {
    const std::string_view one = text.substr(begins[i], begins[i + 1] - begins[i]);
    if (one[0] != '\\') {
      plain += one.size() == 1 ? one[0] : '?';
    } else if (one.size() == kUnicodeEscape) {
      unsigned code = 0;
      std::from_chars(one.data() + 2, one.data() + one.size(), code, 16);
      plain += code > 0 && code < 0x80 ? static_cast<char>(code) : '?';
    } else {
      plain += one.size() == 2 && !is_in(one[1], "bfnrt") ? one[1] : ' ';
    }
  }
  return plain;
}

// Replaces digits by blanks and one 0, so that the text stays JSON: a number has no leading zeros
// (RFC 8259, 6).
void hide_number(std::span<char> digits) {
  std::fill(digits.begin(), digits.end(), ' ');
  digits.back() = '0';
}

// `before` ends with an equals sign, and perhaps blanks: the care of the name in front of the sign.
Care assigned(std::string_view before) {
  const size_t sign = before.find_last_not_of(kBlanks);
  if (sign == before.npos || before[sign] != '=') return Care::kNone;
  before = before.substr(0, sign);
  const size_t last = before.find_last_not_of(kBlanks);
  if (last == before.npos) return Care::kNone;
  size_t begin = last + 1;
  while (begin > 0 && (is_of_word(before[begin - 1]) || is_in(before[begin - 1], "-_."))) --begin;
  return care_of(before.substr(begin, last + 1 - begin));
}

// The position of the next `quote` that is not escaped, or the end.
size_t end_of_quoted(std::string_view text, size_t at, char quote) {
  while (at < text.size() && text[at] != quote) at += text[at] == '\\' ? 2 : 1;
  return std::min(at, text.size());
}

// Hides the values of name=value and name='value', as in command lines, URLs and settings.
void hide_assignments(std::span<char> text) {
  const std::string_view whole(text.data(), text.size());
  for (size_t sign = whole.find('='); sign != whole.npos; sign = whole.find('=', sign + 1)) {
    const Care care = assigned(whole.substr(0, sign + 1));
    size_t begin = whole.find_first_not_of(kBlanks, sign + 1);
    if (care == Care::kNone || begin == whole.npos) continue;
    size_t end;
    if (text[begin] == '\'') {
      end = end_of_quoted(whole, ++begin, '\'');
    } else {
      end = std::min(whole.find_first_of(" \t\r\n&;,'", begin), whole.size());
    }
    hide(text.subspan(begin, end - begin), care);
    sign = std::max(sign, end - 1);
  }
}

void hide_members(std::span<char> text, int depth);

// Masks the text of a JSON string, which may itself hold assignments and JSON.
void hide_string(std::span<char> string, Care care, int depth) {
  // JSON that is to be read is not wrapped this often.
  constexpr int kDeepest = 8;
  const std::string_view text(string.data(), string.size());
  if (care == Care::kNone && text.find_first_of("\\=\"") == text.npos) return;
  if (care != Care::kNone || depth > kDeepest) {
    hide(string, std::max(care, depth > kDeepest ? Care::kSecret : Care::kNone), Spelling::kJson);
    return;
  }
  const std::string plain = unescaped(text);
  const std::vector<size_t> begins = characters(text, Spelling::kJson);
  std::string hidden = plain;
  hide_members(hidden, depth + 1);
  for (size_t i = 0; i < plain.size(); ++i) {
    if (hidden[i] == plain[i]) continue;
    const auto character = string.subspan(begins[i], begins[i + 1] - begins[i]);
    std::fill(character.begin(), character.end(), hidden[i]);
  }
}

// Masks the members of JSON objects, "name": "value". When the value is an array or an object, the
// name also counts for everything in it. Masks assignments, too, in strings and between them.
void hide_members(std::span<char> text, int depth) {
  const std::string_view whole(text.data(), text.size());
  std::vector<Care> around;  // of each bracket that is open
  const auto inherited = [&around] { return around.empty() ? Care::kNone : around.back(); };
  Care care = Care::kNone;  // of the next value
  bool named = false;       // the name of that value has been read
  size_t gap = 0;           // the end of the last string
  size_t at = 0;
  while (at < text.size()) {
    const char c = text[at];
    if (c == '"') {
      hide_assignments(text.subspan(gap, at - gap));
      const size_t begin = at + 1, end = end_of_quoted(whole, begin, '"');
      const size_t next = std::min(whole.find_first_not_of(" \t\r\n", end + 1), whole.size());
      if (!named && next < whole.size() && text[next] == ':') {
        care = std::max(inherited(), care_of(unescaped(whole.substr(begin, end - begin))));
        named = true;
        gap = at = next + 1;
        continue;
      }
      const Care value_care = std::max(care, assigned(whole.substr(0, at)));
      // A quote without a second one begins no string.
      if (value_care == Care::kNone && around.empty() && end == text.size()) {
        gap = begin;
        break;
      }
      hide_string(text.subspan(begin, end - begin), value_care, depth);
      // Outside of brackets a quote need not be JSON's, so the closing one may open the next pair.
      gap = at = around.empty() ? end : std::min(end + 1, text.size());
    } else if (is_in(c, "{[")) {
      around.push_back(care);
      ++at;
    } else if (is_in(c, "}]")) {
      if (!around.empty()) around.pop_back();
      ++at;
    } else if (is_of_word(c) || is_in(c, "+-.")) {
      const size_t begin = at;
      while (at < text.size() && (is_of_word(text[at]) || is_in(text[at], "+-."))) ++at;
      if (care != Care::kNone) hide_number(text.subspan(begin, at - begin));
    } else {
      ++at;
      if (c != ',') continue;
    }
    care = inherited();
    named = false;
  }
  hide_assignments(text.subspan(gap));
}

void hide_text(std::span<char> bytes) {
  for_each_text(bytes, [](std::span<char> text) {
    hide_members(text, 0);
    hide_patterns(text);
  });
}

}  // namespace

Care care_of(std::string_view name) {
  constexpr std::array<std::string_view, 10> kSecret{
      "passw",  "passphrase", "secret",     "wepkey",        "token",
      "wpakey", "sharedkey",  "privatekey", "authorization", "cookie"};
  // These count only as the last word: "wifi_pin", but not "pinned".
  constexpr std::array<std::string_view, 5> kSecretEnd{"psk", "pin", "puk", "pwd", "pass"};
  constexpr std::array<std::string_view, 13> kPersonal{
      "ssid",  "account", "user", "login",       "serial",   "imei",      "imsi",
      "iccid", "msisdn",  "mail", "phonenumber", "hostname", "devicename"};
  std::string plain;
  for (const char c : name) {
    if (std::isalnum(static_cast<unsigned char>(c)) != 0) {
      plain += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
  }
  const auto in_name = [&plain](std::string_view word) { return plain.find(word) != plain.npos; };
  const auto at_end = [&plain](std::string_view word) { return plain.ends_with(word); };
  if (std::any_of(kSecret.begin(), kSecret.end(), in_name) ||
      std::any_of(kSecretEnd.begin(), kSecretEnd.end(), at_end)) {
    return Care::kSecret;
  }
  if (std::any_of(kPersonal.begin(), kPersonal.end(), in_name)) return Care::kPersonal;
  return Care::kNone;
}

void mask_body(std::span<char> body, bool cut) {
  constexpr size_t kDmHead = 24;
  if (body.size() >= kDmHead && word_at(body, 0) == ORP_DMMSG_MAGIC) {
    hide_items(body);
  }
  // An item may hold JSON, and so may a restful request after its fields.
  hide_text(body);
  if (cut) hide_cut_end(body);
}

std::string masked(std::string_view text) {
  std::string copy(text);
  hide_text(copy);
  return copy;
}

std::string masked_value(Care care, std::string_view value) {
  if (care == Care::kNone) return masked(value);
  std::string copy(value);
  hide(copy, care);
  return copy;
}

}  // namespace traffic
