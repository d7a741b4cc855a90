// Blurring by its rules as they are stated: regcomp() and regexec() of the plain expressions. Slow,
// but the measure for the library's own finders.
#pragma once

#include <regex.h>

#include <cstddef>
#include <cstdlib>
#include <string>

#include "log/blur_patterns.h"

namespace test {

using msgapi::blur::Match;
using msgapi::blur::Pattern;

// In the order of the patterns' values.
constexpr const char *kExpressions[] = {
    "([0-9A-Fa-f]{2}[:-]){5}([0-9A-Fa-f]{2})",
    "([0-9]{1,3}[.]){3}[0-9]{1,3}",
    "([0-9A-Z]{16})",
    "([0-9A-Fa-f]{8}[-])([0-9A-Fa-f]{4}[-]){3}([0-9A-Fa-f]{12})",
    "(hwaddr: )([0-9A-Fa-f]{12})",
    "(([0-9A-Fa-f]{4}[-]){3})([0-9A-Fa-f]{12})",
    "(([0-9A-Fa-f]{1,4}:){7}([0-9A-Fa-f]{1,4}|:))|"
    "(([0-9A-Fa-f]{1,4}:){6}(:[0-9A-Fa-f]{1,4}|:?))|"
    "(([0-9A-Fa-f]{1,4}:){5}(((:[0-9A-Fa-f]{1,4}){1,2})|::?))|"
    "(([0-9A-Fa-f]{1,4}:){4}(((:[0-9A-Fa-f]{1,4}){1,3})|((:[0-9A-Fa-f]{1,4})?:)|:))|"
    "(([0-9A-Fa-f]{1,4}:){3}(((:[0-9A-Fa-f]{1,4}){1,4})|((:[0-9A-Fa-f]{1,4}){0,2}:)|:))|"
    "(([0-9A-Fa-f]{1,4}:){2}(((:[0-9A-Fa-f]{1,4}){1,5})|((:[0-9A-Fa-f]{1,4}){0,3}:)|:))|"
    "(([0-9A-Fa-f]{1,4}:){1}(((:[0-9A-Fa-f]{1,4}){1,6})|((:[0-9A-Fa-f]{1,4}){0,4}:)|:))|"
    "(:(((:[0-9A-Fa-f]{1,4}){1,7})|((:[0-9A-Fa-f]{1,4}){0,5}:)|:))"};

inline const char *expression_of(Pattern pattern) {
  return kExpressions[static_cast<size_t>(pattern)];
}

class PosixPatterns {
 public:
  PosixPatterns() {
    for (size_t i = 0; i < std::size(kExpressions); ++i) {
      if (::regcomp(&compiled_[i], kExpressions[i], REG_EXTENDED) != 0) std::abort();
    }
  }
  PosixPatterns(const PosixPatterns &) = delete;
  PosixPatterns &operator=(const PosixPatterns &) = delete;
  ~PosixPatterns() {
    for (regex_t &expression : compiled_) ::regfree(&expression);
  }

  Match find(Pattern pattern, const std::string &text, size_t from) const {
    regmatch_t match;
    if (::regexec(&compiled_[static_cast<size_t>(pattern)], text.c_str() + from, 1, &match,
                  from == 0 ? 0 : REG_NOTBOL) != 0) {
      return {};
    }
    return {from + static_cast<size_t>(match.rm_so),
            static_cast<size_t>(match.rm_eo - match.rm_so)};
  }

  // Calls found(pattern, start of the search, match) for every search of every pattern, also for
  // the one that finds nothing, until it returns false.
  template <typename Found>
  bool all_searches(const std::string &text, Found found) const {
    for (size_t i = 0; i < std::size(kExpressions); ++i) {
      const auto pattern = static_cast<Pattern>(i);
      for (size_t from = 0;;) {
        const Match match = find(pattern, text, from);
        if (!found(pattern, from, match)) return false;
        if (match.length == 0) break;
        from = match.start + match.length;
      }
    }
    return true;
  }

  // The rules for log files, in their order.
  std::string blur_log_text(std::string text) const {
    each(Pattern::kMac, text, {3, 4, 6, 7, 12, 13});
    for (Match m = find(Pattern::kIpv4, text, 0); m.length != 0;
         m = find(Pattern::kIpv4, text, m.start + m.length)) {
      size_t at = text.find('.', m.start);
      for (int dots = 0; dots < 2; ++at) {
        if (text[at + 1] == '.') {
          ++dots;
        } else {
          text[at + 1] = '*';
        }
      }
    }
    each(Pattern::kSerial, text, {1, 3, 5, 7, 9, 11, 13, 15});
    each(Pattern::kUuid, text, {26, 27, 28, 29, 32, 33});
    each(Pattern::kHwaddr, text, {10, 11, 12, 13, 16, 17});
    each(Pattern::kIpv6, text, {});
    return text;
  }

 private:
  // Masks these positions of every match, all of it without positions.
  void each(Pattern pattern, std::string &text, std::initializer_list<size_t> positions) const {
    for (Match m = find(pattern, text, 0); m.length != 0;
         m = find(pattern, text, m.start + m.length)) {
      for (const size_t position : positions) text[m.start + position] = '*';
      if (positions.size() == 0) text.replace(m.start, m.length, m.length, '*');
    }
  }

  regex_t compiled_[std::size(kExpressions)];
};

}  // namespace test
