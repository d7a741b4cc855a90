#include "traffic/mask.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <vector>

#include "msgapi/blur.h"
#include "msgapi/dmmsg.h"

namespace traffic {
namespace {

enum class Care { kNone, kPersonal, kSecret };

// What a name says about its value. Names are compared without case, by the words in them.
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

void hide(std::span<char> value, Care care) {
  if (care == Care::kNone) return;
  while (!value.empty() && value.back() == '\0') value = value.first(value.size() - 1);
  const bool ends_shown = care == Care::kPersonal && value.size() > 2;
  if (ends_shown) value = value.subspan(1, value.size() - 2);
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

// The members of JSON objects whose value is a text or a number: "name": "value".
void hide_members(std::span<char> text) {
  const auto end_of_string = [text](size_t at) {
    while (at < text.size() && text[at] != '"') at += text[at] == '\\' ? 2 : 1;
    return std::min(at, text.size());
  };
  const auto skip_space = [text](size_t at) {
    while (at < text.size() && std::strchr(" \t\r\n", text[at]) != nullptr && text[at] != '\0')
      ++at;
    return at;
  };
  size_t at = 0;
  while (at < text.size()) {
    if (text[at] != '"') {
      ++at;
      continue;
    }
    const size_t name_begin = at + 1;
    const size_t name_end = end_of_string(name_begin);
    at = skip_space(std::min(name_end + 1, text.size()));
    if (at >= text.size() || text[at] != ':') continue;
    at = skip_space(at + 1);
    const Care care = care_of({text.data() + name_begin, name_end - name_begin});
    if (at < text.size() && text[at] == '"') {
      const size_t value_end = end_of_string(at + 1);
      hide(text.subspan(at + 1, value_end - at - 1), care);
      at = std::min(value_end + 1, text.size());
    } else {
      const size_t begin = at;
      while (at < text.size() &&
             (std::isalnum(static_cast<unsigned char>(text[at])) != 0 ||
              std::strchr("+-.", text[at]) != nullptr) &&
             text[at] != '\0') {
        ++at;
      }
      // A number that stays a number for whoever reads the JSON.
      if (care != Care::kNone)
        std::fill(text.begin() + static_cast<ptrdiff_t>(begin),
                  text.begin() + static_cast<ptrdiff_t>(at), '0');
    }
  }
}

}  // namespace

void mask_body(std::span<char> body, bool cut) {
  constexpr size_t kDmHead = 24;
  if (body.size() >= kDmHead && word_at(body, 0) == ORP_DMMSG_MAGIC) {
    hide_items(body);
  }
  // JSON may stand in an item or after the fields of a restful request.
  for_each_text(body, hide_members);
  for_each_text(body, hide_patterns);
  if (cut) hide_cut_end(body);
}

std::string masked(std::string_view text) {
  std::string copy(text);
  for_each_text(copy, hide_patterns);
  return copy;
}

std::string masked_value(std::string_view name, std::string_view value) {
  const Care care = care_of(name);
  if (care == Care::kNone) return masked(value);
  // Where its characters begin.
  std::vector<size_t> begins;
  for (size_t i = 0; i < value.size(); ++i) {
    if ((static_cast<unsigned char>(value[i]) & 0xc0) != 0x80) begins.push_back(i);
  }
  if (care == Care::kSecret || begins.size() < 3) return std::string(begins.size(), '*');
  std::string text(value.substr(0, begins[1]));
  text.append(begins.size() - 2, '*');
  return text.append(value.substr(begins.back()));
}

}  // namespace traffic
