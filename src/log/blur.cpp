// The rules of blurring: which patterns are masked, in which order, and how.

#include "log/blur.h"

#include <arpa/inet.h>
#include <stdlib.h>

#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "base/copy_failure.h"
#include "base/text.h"
#include "log/blur_patterns.h"
#include "msgapi/blur.h"
#include "os/file.h"
#include "util/mac/mac_text.h"

extern "C" {
constexpr int32_t g_macAddressBlurPos[7] = {3, 4, 6, 7, 12, 13, -1};
constexpr int32_t g_uuidBlurPos[7] = {26, 27, 28, 29, 32, 33, -1};
constexpr int32_t g_hwAddressBlurPos[7] = {10, 11, 12, 13, 16, 17, -1};
}

namespace msgapi::blur {
namespace {

// The characters of one match and of the text after it.
struct Found {
  std::span<char> match;
  std::span<char> rest;
};

using Mask = void (*)(const Found &found);

void mask_all_but(std::span<char> text, char kept) {
  for (char &c : text) {
    if (c != kept) c = '*';
  }
}

void mask_positions(std::span<char> match, const int32_t (&positions)[7]) {
  for (const int32_t position : positions) {
    if (position < 0) return;
    if (static_cast<size_t>(position) < match.size()) match[static_cast<size_t>(position)] = '*';
  }
}

void mask_mac_positions(const Found &found) {
  mask_positions(found.match, g_macAddressBlurPos);
}

void mask_uuid_positions(const Found &found) {
  mask_positions(found.match, g_uuidBlurPos);
}

void mask_hwaddr_positions(const Found &found) {
  mask_positions(found.match, g_hwAddressBlurPos);
}

// The second and the third number of an IPv4 address.
void mask_middle_numbers(const Found &found) {
  int dots = 0;
  for (char &c : found.match) {
    if (c == '.') {
      ++dots;
    } else if (dots == 1 || dots == 2) {
      c = '*';
    }
  }
}

void mask_every_second(const Found &found) {
  for (size_t i = 1; i < found.match.size(); i += 2) found.match[i] = '*';
}

void mask_uuid_tail(const Found &found) {
  for (char &c : found.match.last(12)) c = '*';
}

// The text of a single value ends with the value, so nothing after the address stays readable.
void mask_mac_and_rest(const Found &found) {
  mask_all_but(found.match, ':');
  mask_all_but(found.rest, ':');
}

void mask_all_but_dots(const Found &found) {
  mask_all_but(found.match, '.');
}

void mask_all(const Found &found) {
  mask_all_but(found.match, '*');
}

struct Rule {
  Pattern pattern;
  Mask mask;
};

constexpr Rule kLogRules[] = {
    {Pattern::kMac, mask_mac_positions},       {Pattern::kIpv4, mask_middle_numbers},
    {Pattern::kSerial, mask_every_second},     {Pattern::kUuid, mask_uuid_positions},
    {Pattern::kHwaddr, mask_hwaddr_positions},
};
constexpr Rule kLogIpv6Rule[] = {{Pattern::kIpv6, mask_all}};

// A bit mask selects rows: bit n stands for row n.
constexpr Rule kValueRules[] = {
    {Pattern::kMac, mask_mac_positions},  {Pattern::kIpv4, mask_middle_numbers},
    {Pattern::kUuidTail, mask_uuid_tail}, {Pattern::kMac, mask_mac_and_rest},
    {Pattern::kIpv4, mask_all_but_dots},  {Pattern::kIpv6, mask_all},
};
constexpr uint32_t kUuidRows = 0x04;
constexpr uint32_t kMacRows = 0x08;
constexpr uint32_t kIpv6Rows = 0x20;
constexpr uint32_t kIpRows = 0x30;
constexpr uint32_t kAllRows = 0x3F;

// Masks the matches of one rule; no search begins after position `limit`.
void apply(const Rule &rule, std::span<char> text, size_t limit) {
  for (size_t from = 0; from <= limit;) {
    const Match found = find(rule.pattern, {text.data(), text.size()}, from);
    if (found.length == 0) return;
    from = found.start + found.length;
    rule.mask({text.subspan(found.start, found.length), text.subspan(from)});
  }
}

int32_t blur_terminated(std::span<const Rule> rules, char *text, uint32_t limit) {
  if (text == nullptr || limit == 0) return -1;
  const size_t length = std::strlen(text);
  for (const Rule &rule : rules) apply(rule, {text, length}, limit);
  return 0;
}

void apply_rows(uint32_t rows, std::span<char> text) {
  for (size_t row = 0; row < std::size(kValueRules); ++row) {
    if ((rows >> row & 1) != 0) apply(kValueRules[row], text, text.size());
  }
}

// The shared buffer of the value functions.
char g_value[260];

const char *blur_value(const char *text, uint32_t rows) {
  // A value that does not fit is not shown, not even in part.
  if (text == nullptr) return "";
  if (!copy_exact(g_value, text)) {
    print_copy_failure("snprintf_s", -1);
    return "";
  }
  apply_rows(rows, {g_value, std::strlen(g_value)});
  return g_value;
}

uint32_t blur_file(std::FILE *file) {
  constexpr size_t kBlockSize = 2048;
  char block[kBlockSize];
  for (;;) {
    const size_t size = std::fread(block, 1, sizeof block, file);
    if (size == 0) return 0;
    apply_rows(kAllRows, {block, ::strnlen(block, size)});
    if (std::fseek(file, -static_cast<long>(size), SEEK_CUR) != 0) return ORP_BLUR_ERR_SEEK;
    if (std::fwrite(block, 1, size, file) != size || std::fflush(file) != 0) {
      return ORP_BLUR_ERR_WRITE;
    }
    // A stream must be positioned between writing and reading.
    if (std::fseek(file, 0, SEEK_CUR) != 0) return ORP_BLUR_ERR_SEEK;
    if (size < sizeof block) return 0;
  }
}

uint32_t blur_file_at(const char *path) {
  if (::strnlen(path, PATH_MAX + 1) > PATH_MAX) return ORP_BLUR_ERR_TOO_LONG;
  char canonical[PATH_MAX];
  if (::realpath(path, canonical) == nullptr) return ORP_BLUR_ERR_PATH;
  const os::UniqueFile file(std::fopen(canonical, "r+e"));
  return file ? blur_file(file.get()) : ORP_BLUR_ERR_ARGUMENT;
}

}  // namespace

void blur_log_text(std::span<char> text) {
  const std::span<char> characters = text.first(::strnlen(text.data(), text.size()));
  for (const Rule &rule : kLogRules) apply(rule, characters, characters.size());
  for (const Rule &rule : kLogIpv6Rule) apply(rule, characters, characters.size());
}

}  // namespace msgapi::blur

using namespace msgapi;

extern "C" int32_t MlogBlurString(char *buf, uint32_t len) {
  return blur::blur_terminated(blur::kLogRules, buf, len);
}

extern "C" int32_t MlogBlurIpv6String(char *buf, uint32_t len) {
  return blur::blur_terminated(blur::kLogIpv6Rule, buf, len);
}

extern "C" uint32_t ORP_BLUR_File(const char *path) {
  return path == nullptr ? ORP_BLUR_ERR_ARGUMENT : blur::blur_file_at(path);
}

extern "C" const char *ORP_BLUR_Mac(const char *str) {
  return blur::blur_value(str, blur::kMacRows);
}

extern "C" const char *ORP_BLUR_Ipv6(const char *str) {
  return blur::blur_value(str, blur::kIpv6Rows);
}

extern "C" const char *ORP_BLUR_Ip(const char *str) {
  return blur::blur_value(str, blur::kIpRows);
}

extern "C" const char *ORP_BLUR_Uuid(const char *str) {
  return blur::blur_value(str, blur::kUuidRows);
}

extern "C" const char *ORP_BLUR_MacByte(const uint8_t *bytes) {
  if (bytes == nullptr) return "";
  char text[ORP_MAC_TEXT_SIZE];
  mac::format_mac(std::span<const uint8_t, ORP_MAC_SIZE>(bytes, ORP_MAC_SIZE), mac::HexCase::kLower,
                  text);
  return blur::blur_value(text, blur::kMacRows);
}

extern "C" const char *ORP_BLUR_Ipv4Byte(struct in_addr addr) {
  char text[INET_ADDRSTRLEN];
  return blur::blur_value(::inet_ntop(AF_INET, &addr, text, sizeof text), blur::kIpRows);
}

extern "C" const char *ORP_BLUR_UsbAccount(const char *name) {
  static char shown[10];
  if (name == nullptr || name[0] == '\0') return "";
  // Read before writing: `name` may be the last result.
  const char first = name[0];
  const size_t length = std::strlen(name);
  const char last = length > 1 ? name[length - 1] : '\0';
  format_cut(shown, "%c%s%c", first, "******", last);
  return shown;
}

extern "C" const char *ORP_BLUR_Ssid(const char *ssid) {
  static char shown[36];
  if (ssid == nullptr) return "";
  copy_cut(shown, {ssid, ::strnlen(ssid, sizeof shown)});
  const size_t length = std::strlen(shown);
  if (length > 2) std::memset(shown + 1, '*', length - 2);
  return shown;
}
