// The finders are written by hand, because log servers blur every line and a regular expression
// engine takes a hundred times longer.
//
// Every pattern but the serial number has separators at known distances. The text is read in blocks
// of 64 characters. Each block becomes a machine word, with a bit set for each separator. Shifting
// and combining the words leaves bits only where the distances are right. The few places that are
// left (almost none in text without personal data) are decided character by character. Serial
// numbers are runs of 16 characters of one class; the same shifts find them.
//
// The groups of an IP address are looked at once, because separators delimit them. Only the first
// group may be the end of a longer run of digits. Leftmost matching takes as many of the run's last
// digits as a group may have.

#include "log/blur_patterns.h"

#include <bit>
#include <cstring>

#include "base/bytes.h"

#ifdef __SSE2__
#include <emmintrin.h>
#endif

namespace msgapi::blur {
namespace {

constexpr bool is_digit(char c) {
  return c >= '0' && c <= '9';
}

constexpr bool is_hex(char c) {
  return is_digit(c) || (c >= 'A' && c <= 'F') || (c >= 'a' && c <= 'f');
}

constexpr bool is_capital(char c) {
  return is_digit(c) || (c >= 'A' && c <= 'Z');
}

// How many characters from `from` on, at most `most`, satisfy the predicate.
template <typename Predicate>
size_t run_length(std::string_view text, size_t from, size_t most, Predicate predicate) {
  size_t length = 0;
  while (length < most && from + length < text.size() && predicate(text[from + length])) ++length;
  return length;
}

// The same for the characters that end before `end`, back to `from`.
template <typename Predicate>
size_t run_length_before(std::string_view text, size_t from, size_t end, size_t most,
                         Predicate predicate) {
  size_t length = 0;
  while (length < most && end - length > from && predicate(text[end - length - 1])) ++length;
  return length;
}

// The IPv4 address whose first dot is at `dot`.
Match ipv4_around(std::string_view text, size_t from, size_t dot) {
  const size_t start = dot - run_length_before(text, from, dot, 3, is_digit);
  if (start == dot) return {};
  size_t end = dot + 1;
  for (int further_dots = 2;; --further_dots) {
    const size_t digits = run_length(text, end, 3, is_digit);
    if (digits == 0) return {};
    end += digits;
    if (further_dots == 0) return {start, end - start};
    if (end == text.size() || text[end] != '.') return {};
    ++end;
  }
}

// The end of an address that has `groups` groups, each with its colon, before a second colon at
// `colon`.
size_t end_of_compressed(std::string_view text, size_t colon, size_t groups) {
  size_t end = colon + 1;
  const auto is_colon = [&](size_t at) { return at < text.size() && text[at] == ':'; };
  // The expression admits three colons here, and nowhere else.
  if (groups == 5 && is_colon(end)) return end + 1;

  const size_t most_groups = 7 - groups;
  const size_t most_before_colon = groups < 5 ? 5 - groups : 0;
  size_t next = colon;
  for (size_t more = 1; more <= most_groups && is_colon(next); ++more) {
    const size_t digits = run_length(text, next + 1, 4, is_hex);
    if (digits == 0) break;
    next += 1 + digits;
    end = next;
    if (more <= most_before_colon && is_colon(next)) end = next + 1;
  }
  return end;
}

// The IPv6 address whose first colon is at `colon`.
Match ipv6_around(std::string_view text, size_t from, size_t colon) {
  const auto is_colon = [&](size_t at) { return at < text.size() && text[at] == ':'; };
  const size_t start = colon - run_length_before(text, from, colon, 4, is_hex);
  size_t next = colon + 1;  // after the last group and its colon
  if (start == colon) {
    if (!is_colon(next)) return {};
    return {start, end_of_compressed(text, next, 0) - start};
  }

  size_t groups = 1;
  size_t end_of_six = 0;
  while (groups < 7) {
    const size_t digits = run_length(text, next, 4, is_hex);
    if (digits == 0 || !is_colon(next + digits)) break;
    next += digits + 1;
    if (++groups == 6) end_of_six = next;
  }
  if (is_colon(next)) return {start, end_of_compressed(text, next, groups) - start};
  if (groups == 7) {
    const size_t digits = run_length(text, next, 4, is_hex);
    if (digits > 0) return {start, next + digits - start};
  }
  // Six groups need nothing after them.
  if (groups >= 6) return {start, end_of_six - start};
  return {};
}

constexpr size_t kBlock = 64;

// The characters that are looked for in blocks.
enum class Class { kColon, kDash, kDot, kSeparator, kCapital };

// Bit i of the result is set when character i of the block is of the class. Separators are those of
// MAC addresses, colons and dashes; capitals include digits.
#ifdef __SSE2__
template <Class kClass>
uint64_t read_block(const char *block) {
  uint64_t found = 0;
  for (size_t i = 0; i < kBlock; i += 16) {
    const __m128i part = _mm_loadu_si128(reinterpret_cast<const __m128i *>(block + i));
    const auto equal = [&](char c) { return _mm_cmpeq_epi8(part, _mm_set1_epi8(c)); };
    // Shifted so that the range begins at the lowest signed value.
    const auto within = [&](char first, char last) {
      const __m128i shifted = _mm_sub_epi8(part, _mm_set1_epi8(static_cast<char>(first - 128)));
      return _mm_cmplt_epi8(shifted, _mm_set1_epi8(static_cast<char>(last - first + 1 - 128)));
    };
    __m128i is_member;
    if constexpr (kClass == Class::kColon) {
      is_member = equal(':');
    } else if constexpr (kClass == Class::kDash) {
      is_member = equal('-');
    } else if constexpr (kClass == Class::kDot) {
      is_member = equal('.');
    } else if constexpr (kClass == Class::kSeparator) {
      is_member = _mm_or_si128(equal(':'), equal('-'));
    } else {
      is_member = _mm_or_si128(within('0', '9'), within('A', 'Z'));
    }
    found |= uint64_t{static_cast<uint16_t>(_mm_movemask_epi8(is_member))} << i;
  }
  return found;
}
#else
// Eight characters at a time: sets the highest bit of every byte of `word` that holds a member. No
// byte carries into the next.
constexpr uint64_t kOnes = 0x0101010101010101;
constexpr uint64_t kHighBits = 0x80 * kOnes;

constexpr uint64_t equal(uint64_t word, char c) {
  const uint64_t difference = word ^ (kOnes * static_cast<uint8_t>(c));
  return ~((((difference & ~kHighBits) + ~kHighBits) | difference) | ~kHighBits);
}

constexpr uint64_t within(uint64_t word, char first, char last) {
  const uint64_t low_bits = word & ~kHighBits;
  const uint64_t at_least_first = low_bits + kOnes * static_cast<uint8_t>(0x80 - first);
  const uint64_t above_last = low_bits + kOnes * static_cast<uint8_t>(0x7F - last);
  return at_least_first & ~above_last & ~word & kHighBits;
}

static_assert(std::endian::native == std::endian::little);

template <Class kClass>
uint64_t read_block(const char *block) {
  uint64_t found = 0;
  for (size_t i = 0; i < kBlock; i += 8) {
    const uint64_t word = load<uint64_t>(block + i);
    uint64_t members;
    if constexpr (kClass == Class::kColon) {
      members = equal(word, ':');
    } else if constexpr (kClass == Class::kDash) {
      members = equal(word, '-');
    } else if constexpr (kClass == Class::kDot) {
      members = equal(word, '.');
    } else if constexpr (kClass == Class::kSeparator) {
      members = equal(word, ':') | equal(word, '-');
    } else {
      members = within(word, '0', '9') | within(word, 'A', 'Z');
    }
    // Gathers the eight bits: no two of the products fall on the same bit.
    found |= ((members >> 7) * 0x0102040810204080 >> 56) << i;
  }
  return found;
}
#endif

// The same for the rest of the text from `at` on; there are no members beyond its end.
template <Class kClass>
uint64_t read_at(std::string_view text, size_t at) {
  if (at >= text.size()) return 0;
  if (text.size() - at >= kBlock) return read_block<kClass>(text.data() + at);
  char padded[kBlock] = {};
  std::memcpy(padded, text.data() + at, text.size() - at);
  return read_block<kClass>(padded);
}

// The bits of a block and of the next one.
struct Window {
  uint64_t here;
  uint64_t next;

  // The bits of the characters `distance` (1 to 63) further on.
  uint64_t ahead(int distance) const { return here >> distance | next << (64 - distance); }

  // If this window marks where runs of some length begin, the result marks where runs begin that
  // are `distance` (1 to 63) longer.
  Window longer(int distance) const { return {here & ahead(distance), next & next >> distance}; }
};

// Where a MAC address may have its first separator.
uint64_t mac_separators(const Window &separators) {
  return separators.here & separators.ahead(3) & separators.ahead(6) & separators.ahead(9) &
         separators.ahead(12);
}

// Where an IPv4 address may have its first dot.
uint64_t ipv4_dots(const Window &dots) {
  return dots.here & (dots.ahead(2) | dots.ahead(3) | dots.ahead(4));
}

// Where an IPv6 address may have its first colon.
uint64_t ipv6_colons(const Window &colons) {
  return colons.here &
         (colons.ahead(1) | colons.ahead(2) | colons.ahead(3) | colons.ahead(4) | colons.ahead(5));
}

// Where three dashes of a UUID may begin.
uint64_t uuid_dashes(const Window &dashes) {
  return dashes.here & dashes.ahead(5) & dashes.ahead(10);
}

// Where 16 capitals begin.
uint64_t serial_starts(const Window &capitals) {
  return capitals.longer(1).longer(2).longer(4).longer(8).here;
}

uint64_t any_colon(const Window &colons) {
  return colons.here;
}

// Walks over the characters of the class, from `at` on, that pick(window) chooses, until
// decide(position) gives a match.
template <Class kClass, typename Pick, typename Decide>
Match find_first(std::string_view text, size_t at, Pick pick, Decide decide) {
  uint64_t here = read_at<kClass>(text, at);
  for (; at < text.size(); at += kBlock) {
    const uint64_t next = read_at<kClass>(text, at + kBlock);
    for (uint64_t bits = pick(Window{here, next}); bits != 0; bits &= bits - 1) {
      const Match match = decide(at + static_cast<size_t>(std::countr_zero(bits)));
      if (match.length > 0) return match;
    }
    here = next;
  }
  return {};
}

// Compares text with a picture of fixed size: "X" stands for a hex digit, "S" for a separator of
// MAC addresses, "U" for a digit or capital, any other character for itself.
bool fits(std::string_view picture, std::string_view text, size_t at) {
  if (text.size() - at < picture.size()) return false;
  for (size_t i = 0; i < picture.size(); ++i) {
    const char c = text[at + i];
    const bool is_member = picture[i] == 'X'   ? is_hex(c)
                           : picture[i] == 'S' ? c == ':' || c == '-'
                           : picture[i] == 'U' ? is_capital(c)
                                               : c == picture[i];
    if (!is_member) return false;
  }
  return true;
}

// `lead` is the distance of the picked character from the start of the picture.
template <Class kClass, typename Pick>
Match find_picture(std::string_view picture, size_t lead, std::string_view text, size_t from,
                   Pick pick) {
  return find_first<kClass>(text, from + lead, pick, [=](size_t at) {
    return fits(picture, text, at - lead) ? Match{at - lead, picture.size()} : Match{};
  });
}

}  // namespace

Match find(Pattern pattern, std::string_view text, size_t from) {
  if (from > text.size()) return {};
  switch (pattern) {
    case Pattern::kMac:
      return find_picture<Class::kSeparator>("XXSXXSXXSXXSXXSXX", 2, text, from, mac_separators);
    case Pattern::kIpv4:
      return find_first<Class::kDot>(text, from, ipv4_dots,
                                     [=](size_t dot) { return ipv4_around(text, from, dot); });
    case Pattern::kSerial:
      return find_picture<Class::kCapital>("UUUUUUUUUUUUUUUU", 0, text, from, serial_starts);
    case Pattern::kUuid:
      return find_picture<Class::kDash>("XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX", 8, text, from,
                                        uuid_dashes);
    case Pattern::kHwaddr:
      return find_picture<Class::kColon>("hwaddr: XXXXXXXXXXXX", 6, text, from, any_colon);
    case Pattern::kUuidTail:
      return find_picture<Class::kDash>("XXXX-XXXX-XXXX-XXXXXXXXXXXX", 4, text, from, uuid_dashes);
    case Pattern::kIpv6:
      return find_first<Class::kColon>(
          text, from, ipv6_colons, [=](size_t colon) { return ipv6_around(text, from, colon); });
  }
  return {};
}

}  // namespace msgapi::blur
