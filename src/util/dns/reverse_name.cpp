// Reverse-lookup names (RFC 1035 section 3.5, RFC 3596 section 2.5) to addresses.

#include <arpa/inet.h>

#include <algorithm>
#include <cstring>
#include <span>
#include <string_view>

#include "base/cursor.h"
#include "msgapi/dns.h"

namespace msgapi::dns {
namespace {

constexpr size_t kMaxNameLength = 255;
constexpr size_t kShortestIpv4 = 7;       // 1.1.1.1
constexpr size_t kLongestIpv4 = 15;       // 255.255.255.255
constexpr size_t kIpv6PrefixLength = 63;  // 32 digits with dots between
constexpr size_t kIpv6TextLength = 39;

constexpr uint32_t kEmptyLabel = 1;

bool is_ipv4_prefix(std::string_view prefix) {
  return prefix.size() >= kShortestIpv4 && prefix.size() <= kLongestIpv4 &&
         std::count(prefix.begin(), prefix.end(), '.') == 3;
}

bool is_ipv6_prefix(std::string_view prefix) {
  return prefix.size() == kIpv6PrefixLength && std::count(prefix.begin(), prefix.end(), '.') == 31;
}

// Writes the labels of `prefix` in reverse order over the first prefix.size() bytes of `text`.
// False when one of them is empty.
bool reverse_labels(std::string_view prefix, std::span<char> text) {
  size_t end = prefix.size();
  for (;;) {
    const size_t length = std::min(prefix.find('.'), prefix.size());
    if (length == 0) return false;
    end -= length;
    TextWriter(text, end).put_text({prefix.data(), length});
    if (end == 0) return true;
    text[--end] = '.';
    prefix.remove_prefix(length + 1);
  }
}

// "1.2.3.4.5..." to "1234:5...", in place: digit j moves down from 2j to j + j/4.
void group_digits(std::span<char> text) {
  for (size_t digit = 0; digit < 32; ++digit) text[digit + digit / 4] = text[digit * 2];
  for (size_t colon = 4; colon < kIpv6TextLength; colon += 5) text[colon] = ':';
  std::fill(text.begin() + kIpv6TextLength, text.begin() + kIpv6PrefixLength, '\0');
}

uint32_t address_of(std::string_view name, std::span<char> text, uint32_t *is_ipv4) {
  const size_t ipv4_end = name.find(".in-addr.arpa");
  const size_t ipv6_end = name.find(".ip6.arpa");
  if ((ipv4_end == name.npos) == (ipv6_end == name.npos)) return ORP_DNS_ERR_ARGUMENT;

  const bool ipv4 = ipv6_end == name.npos;
  const std::string_view prefix(name.data(), ipv4 ? ipv4_end : ipv6_end);
  if (!(ipv4 ? is_ipv4_prefix(prefix) : is_ipv6_prefix(prefix))) return ORP_DNS_ERR_ARGUMENT;
  if (text.size() < 2 || prefix.size() > text.size() - 2) return ORP_DNS_ERR_ARGUMENT;

  if (!reverse_labels(prefix, text)) return kEmptyLabel;
  // One past the end: callers pass a zeroed buffer, so the byte between is the text's NUL.
  text[prefix.size() + 1] = '\0';
  if (!ipv4) group_digits(text);

  in6_addr ignored;
  if (::inet_pton(ipv4 ? AF_INET : AF_INET6, text.data(), &ignored) != 1) {
    return ORP_DNS_ERR_ARGUMENT;
  }
  *is_ipv4 = ipv4 ? 1 : 0;
  return ORP_DNS_OK;
}

}  // namespace
}  // namespace msgapi::dns

using namespace msgapi::dns;

extern "C" uint32_t ORP_DNS_PacketPTRName2Addr(const char *name, char *address, uint32_t size,
                                               uint32_t *is_ipv4) {
  uint32_t ignored;
  if (is_ipv4 == nullptr) is_ipv4 = &ignored;
  *is_ipv4 = 0;
  if (name == nullptr || address == nullptr) return ORP_DNS_ERR_ARGUMENT;

  const size_t length = strnlen(name, kMaxNameLength + 1);
  if (length > kMaxNameLength) return ORP_DNS_ERR_ARGUMENT;
  return address_of({name, length}, {address, size}, is_ipv4);
}
