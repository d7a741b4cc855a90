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

// Where the characters of a text begin, and its end. In the text of a JSON string an escape
// sequence is one character.
enum class Form { kPlain, kJson };
std::vector<size_t> characters(std::string_view text, Form form) {
  constexpr size_t kEscape = 2, kUnicodeEscape = 6;
  std::vector<size_t> begins;
  for (size_t at = 0; at < text.size();) {
    begins.push_back(at);
    if (form == Form::kJson && text[at] == '\\') {
      at += at + 1 < text.size() && text[at + 1] == 'u' ? kUnicodeEscape : kEscape;
      continue;
    }
    ++at;
    while (at < text.size() && (static_cast<unsigned char>(text[at]) & 0xc0) == 0x80) ++at;
  }
  begins.push_back(text.size());
  return begins;
}

// One * for each byte; personal values keep their first and last character.
void hide(std::span<char> value, Care care, Form form = Form::kPlain) {
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

// As the library masks a text in a log.
void hide_patterns(std::span<char> bytes) {
  std::string text(bytes.begin(), bytes.end());
  MlogBlurString(text.data(), static_cast<uint32_t>(text.size()));
  MlogBlurIpv6String(text.data(), static_cast<uint32_t>(text.size()));
  std::copy(text.begin(), text.end(), bytes.begin());
}

// The beginning of a value that the end of the bytes cuts off is not found by a pattern.
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

// docs/events.md has the layout. What is left of a cut body is enough.
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

// The text of a JSON string. What is no ASCII character does not matter here.
std::string unescaped(std::string_view text) {
  constexpr size_t kUnicodeEscape = 6;
  const std::vector<size_t> begins = characters(text, Form::kJson);
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

// What stands there instead is a number for whoever reads the JSON: without zeros before it.
void hide_number(std::span<char> digits) {
  std::fill(digits.begin(), digits.end(), ' ');
  digits.back() = '0';
}

void hide_members(std::span<char> text);

// The text of a JSON string, which may hold JSON itself.
void hide_string(std::span<char> string, Care care) {
  hide(string, care, Form::kJson);
  if (care != Care::kNone) return;
  // A name within would have quotes, and these their escapes.
  const std::string_view text(string.data(), string.size());
  if (text.find('\\') == std::string_view::npos) return;
  const std::string plain = unescaped(text);
  const std::vector<size_t> begins = characters(text, Form::kJson);
  std::string hidden = plain;
  hide_members(hidden);
  for (size_t i = 0; i < plain.size(); ++i) {
    if (hidden[i] == plain[i]) continue;
    const auto character = string.subspan(begins[i], begins[i + 1] - begins[i]);
    std::fill(character.begin(), character.end(), hidden[i]);
  }
}

// The members of JSON objects: "name": "value". A name also speaks for what is in the array or the
// object that is its value.
void hide_members(std::span<char> text) {
  const auto end_of_string = [text](size_t at) {
    while (at < text.size() && text[at] != '"') at += text[at] == '\\' ? 2 : 1;
    return std::min(at, text.size());
  };
  const auto skip_space = [text](size_t at) {
    while (at < text.size() && is_in(text[at], " \t\r\n")) ++at;
    return at;
  };
  std::vector<Care> around;  // of each bracket that is open
  const auto inherited = [&around] { return around.empty() ? Care::kNone : around.back(); };
  Care care = Care::kNone;  // of the value that comes
  bool named = false;       // its name has been read
  for (size_t at = 0; at < text.size();) {
    const char c = text[at];
    if (c == '"') {
      const size_t begin = at + 1, end = end_of_string(begin);
      const std::span<char> string = text.subspan(begin, end - begin);
      at = skip_space(std::min(end + 1, text.size()));
      if (!named && at < text.size() && text[at] == ':') {
        const std::string_view name(string.data(), string.size());
        care = std::max(inherited(), care_of(unescaped(name)));
        named = true;
        ++at;
        continue;
      }
      hide_string(string, care);
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
}

// name=value, as command lines, addresses of the web and settings have it.
void hide_assignments(std::span<char> text) {
  constexpr std::string_view kSpaces = " \t";
  const std::string_view whole(text.data(), text.size());
  for (size_t sign = 1; sign + 1 < text.size(); ++sign) {
    if (text[sign] != '=') continue;
    size_t name_end = sign;
    while (name_end > 0 && is_in(text[name_end - 1], kSpaces)) --name_end;
    size_t name_begin = name_end;
    while (name_begin > 0 &&
           (is_of_word(text[name_begin - 1]) || is_in(text[name_begin - 1], "-_.")))
      --name_begin;
    const Care care = care_of({text.data() + name_begin, name_end - name_begin});
    if (care == Care::kNone) continue;
    size_t begin = std::min(whole.find_first_not_of(kSpaces, sign + 1), text.size());
    // In the text of a JSON string a quote is escaped.
    const bool escaped = whole.substr(begin).starts_with('\\');
    const size_t quote = begin + (escaped ? 1 : 0);
    size_t end;
    if (quote < text.size() && is_in(text[quote], "\"'")) {
      begin = quote + 1;
      end = whole.find_first_of(escaped ? '\\' : text[quote], begin);
      // The JSON string ends here, and has no value.
      if (!escaped && (begin == text.size() || is_in(text[begin], ",:}]"))) continue;
    } else {
      end = begin;
      while (end < text.size() && !is_in(text[end], " \t\r\n&;,\"'"))
        end += text[end] == '\\' ? 2 : 1;
    }
    end = std::min(end, text.size());
    hide(text.subspan(begin, end - begin), care, Form::kJson);
    sign = std::max(sign, end - 1);
  }
}

void hide_text(std::span<char> bytes) {
  for_each_text(bytes, hide_members);
  for_each_text(bytes, hide_assignments);
  for_each_text(bytes, hide_patterns);
}

}  // namespace

Care care_of(std::string_view name) {
  constexpr std::array<std::string_view, 11> kSecret{"passw",  "passphrase", "pwd",       "psk",
                                                     "secret", "wepkey",     "token",     "wpakey",
                                                     "pin",    "puk",        "privatekey"};
  constexpr std::array<std::string_view, 13> kPersonal{
      "ssid",  "account", "user", "login",       "serial",   "imei",      "imsi",
      "iccid", "msisdn",  "mail", "phonenumber", "hostname", "devicename"};
  std::string plain;
  for (const char c : name) {
    if (std::isalnum(static_cast<unsigned char>(c)) != 0) {
      plain += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
  }
  const auto in_name = [&plain](std::string_view word) {
    // Three letters are a word only at the end ("wifi_pin", but not "pinned").
    return word.size() == 3 ? plain.ends_with(word) : plain.find(word) != std::string::npos;
  };
  if (std::any_of(kSecret.begin(), kSecret.end(), in_name)) return Care::kSecret;
  if (std::any_of(kPersonal.begin(), kPersonal.end(), in_name)) return Care::kPersonal;
  return Care::kNone;
}

void mask_body(std::span<char> body, bool cut) {
  constexpr size_t kDmHead = 24;
  if (body.size() >= kDmHead && word_at(body, 0) == ORP_DMMSG_MAGIC) {
    hide_items(body);
  }
  // JSON may stand in an item or after the fields of a restful request.
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
