// Blurring as its rules are stated: with regcomp() and regexec() of the plain expressions. Slow;
// what the library's own finders are compared with.
#pragma once

#include <regex.h>

#include <cstddef>
#include <cstdlib>
#include <string>

#include "log/blur_patterns.h"

namespace test {

using msgapi::blur::Match;
using msgapi::blur::Pattern;

constexpr Pattern kAllPatterns[] = {Pattern::kMac,  Pattern::kIpv4,   Pattern::kSerial,
                                    Pattern::kUuid, Pattern::kHwaddr, Pattern::kUuidTail,
                                    Pattern::kIpv6};

inline const char *expression_of(Pattern pattern) {
  switch (pattern) {
    case Pattern::kMac:
      return "([0-9A-Fa-f]{2}[:-]){5}([0-9A-Fa-f]{2})";
    case Pattern::kIpv4:
      return "([0-9]{1,3}[.]){3}[0-9]{1,3}";
    case Pattern::kSerial:
      return "([0-9A-Z]{16})";
    case Pattern::kUuid:
      return "([0-9A-Fa-f]{8}[-])([0-9A-Fa-f]{4}[-]){3}([0-9A-Fa-f]{12})";
    case Pattern::kHwaddr:
      return "(hwaddr: )([0-9A-Fa-f]{12})";
    case Pattern::kUuidTail:
      return "(([0-9A-Fa-f]{4}[-]){3})([0-9A-Fa-f]{12})";
    case Pattern::kIpv6:
      return "(([0-9A-Fa-f]{1,4}:){7}([0-9A-Fa-f]{1,4}|:))|"
             "(([0-9A-Fa-f]{1,4}:){6}(:[0-9A-Fa-f]{1,4}|:?))|"
             "(([0-9A-Fa-f]{1,4}:){5}(((:[0-9A-Fa-f]{1,4}){1,2})|::?))|"
             "(([0-9A-Fa-f]{1,4}:){4}(((:[0-9A-Fa-f]{1,4}){1,3})|((:[0-9A-Fa-f]{1,4})?:)|:))|"
             "(([0-9A-Fa-f]{1,4}:){3}(((:[0-9A-Fa-f]{1,4}){1,4})|((:[0-9A-Fa-f]{1,4}){0,2}:)|:))|"
             "(([0-9A-Fa-f]{1,4}:){2}(((:[0-9A-Fa-f]{1,4}){1,5})|((:[0-9A-Fa-f]{1,4}){0,3}:)|:))|"
             "(([0-9A-Fa-f]{1,4}:){1}(((:[0-9A-Fa-f]{1,4}){1,6})|((:[0-9A-Fa-f]{1,4}){0,4}:)|:))|"
             "(:(((:[0-9A-Fa-f]{1,4}){1,7})|((:[0-9A-Fa-f]{1,4}){0,5}:)|:))";
  }
  return "";
}

class PosixPatterns {
 public:
  PosixPatterns() {
    for (const Pattern pattern : kAllPatterns) {
      if (::regcomp(&compiled(pattern), expression_of(pattern), REG_EXTENDED) != 0) std::abort();
    }
  }
  PosixPatterns(const PosixPatterns &) = delete;
  PosixPatterns &operator=(const PosixPatterns &) = delete;
  ~PosixPatterns() {
    for (regex_t &expression : compiled_) ::regfree(&expression);
  }

  Match find(Pattern pattern, const std::string &text, size_t from) {
    regmatch_t match;
    if (::regexec(&compiled(pattern), text.c_str() + from, 1, &match, from == 0 ? 0 : REG_NOTBOL) !=
        0) {
      return {};
    }
    return {from + static_cast<size_t>(match.rm_so),
            static_cast<size_t>(match.rm_eo - match.rm_so)};
  }

  // The rules for log files, in their order.
  std::string blur_log_text(std::string text) {
    each(Pattern::kMac, text, [&](Match m) { stars(text, m, {3, 4, 6, 7, 12, 13}); });
    each(Pattern::kIpv4, text, [&](Match m) {
      size_t at = text.find('.', m.start);
      for (int dots = 0; dots < 2; ++at) {
        if (text[at + 1] == '.') {
          ++dots;
        } else {
          text[at + 1] = '*';
        }
      }
    });
    each(Pattern::kSerial, text, [&](Match m) { stars(text, m, {1, 3, 5, 7, 9, 11, 13, 15}); });
    each(Pattern::kUuid, text, [&](Match m) { stars(text, m, {26, 27, 28, 29, 32, 33}); });
    each(Pattern::kHwaddr, text, [&](Match m) { stars(text, m, {10, 11, 12, 13, 16, 17}); });
    each(Pattern::kIpv6, text, [&](Match m) { text.replace(m.start, m.length, m.length, '*'); });
    return text;
  }

 private:
  regex_t &compiled(Pattern pattern) { return compiled_[static_cast<size_t>(pattern)]; }

  template <typename Rule>
  void each(Pattern pattern, const std::string &text, Rule rule) {
    for (size_t from = 0;;) {
      const Match match = find(pattern, text, from);
      if (match.length == 0) return;
      rule(match);
      from = match.start + match.length;
    }
  }

  static void stars(std::string &text, Match match, std::initializer_list<size_t> positions) {
    for (const size_t position : positions) text[match.start + position] = '*';
  }

  regex_t compiled_[std::size(kAllPatterns)];
};

}  // namespace test
