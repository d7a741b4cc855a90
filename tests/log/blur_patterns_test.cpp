#include "log/blur_patterns.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "log/blur.h"
#include "log/posix_blur.h"
#include "support/soak.h"

namespace {

using namespace msgapi::blur;

TEST(FindIpv6, FormsAtTheEdgeOfTheExpression) {
  struct {
    const char *text;
    const char *match;
  } const cases[] = {
      {"::", "::"},
      {":::", "::"},
      {":", ""},
      {"::1", "::1"},
      {"1::", "1::"},
      {"fe80::1:2%eth0", "fe80::1:2"},
      {"12345::67890", "2345::6789"},  // a group has four digits
      {"1:2:3:4:5:6:7:8", "1:2:3:4:5:6:7:8"},
      {"1:2:3:4:5:6:7::", "1:2:3:4:5:6:7::"},
      {"1:2:3:4:5:6::8", "1:2:3:4:5:6::8"},
      {"1:2:3:4:5:6:7", "1:2:3:4:5:6:"},  // six groups need nothing behind them
      {"1:2:3:4:5:6:7:", "1:2:3:4:5:6:"},
      {"1:2:3:4:5:6:7:8:9", "1:2:3:4:5:6:7:8"},
      {"1:2:3:4:5:::8", "1:2:3:4:5:::"},  // three colons, after five groups only
      {"1:2:3:4:::8", "1:2:3:4::"},
      {"1:2:3:4::5:", "1:2:3:4::5:"},
      {"1:2:3:4::5:6:", "1:2:3:4::5:6"},
      {"::1:2:3:4:5:6:7:8", "::1:2:3:4:5:6:7"},
      {"::1:2:3:4:5:", "::1:2:3:4:5:"},
      {"::1:2:3:4:5:6:", "::1:2:3:4:5:6"},
      {"1::2::3", "1::2:"},
      {"12:30:45", ""},
      {"00:11:22:33:44:55", ""},
      {"99999:1:2:3:4:5:6", "9999:1:2:3:4:5:"},
      {"1:22222::3", "2222::3"},
      {"abc:x::", "::"},
  };
  for (const auto &c : cases) {
    const std::string text(c.text);
    const Match match = find(Pattern::kIpv6, text, 0);
    EXPECT_EQ(c.match, text.substr(match.start, match.length)) << text;
  }
}

TEST(Find, LooksAtNothingBeforeItsStart) {
  EXPECT_EQ(5u, find(Pattern::kIpv4, "12345.1.1.1", 4).start + 1);
  EXPECT_EQ(0u, find(Pattern::kIpv6, "a::1", 1).length - 3);
  EXPECT_EQ(0u, find(Pattern::kMac, "00:11:22:33:44:55", 1).length);
  EXPECT_EQ(0u, find(Pattern::kSerial, "ABCDEFGHIJKLMNOP", 1).length);
  for (const Pattern pattern : test::kAllPatterns) {
    EXPECT_EQ(0u, find(pattern, "", 0).length);
    EXPECT_EQ(0u, find(pattern, "x", 2).length);
  }
}

// Texts of the pieces that the patterns are made of, mostly almost right.
class TextMaker {
 public:
  explicit TextMaker(uint32_t seed) : random_(seed) {}

  std::string make() {
    std::string text;
    if (below(4) == 0) text.assign(below(70), ' ');  // other places within a block
    for (uint32_t pieces = 1 + below(3); pieces > 0; --pieces) {
      add_piece(&text);
      if (below(3) == 0) text += any(" x*.:-\n");
    }
    for (uint32_t faults = below(3); faults > 0 && !text.empty(); --faults) {
      const size_t at = below(static_cast<uint32_t>(text.size()));
      switch (below(4)) {
        case 0:
          text.erase(at, 1);
          break;
        case 1:
          text.insert(at, 1, any("0Aa9Ff:.-"));
          break;
        case 2:
          text[at] = any("09AFGZafgz:.-* \n\xC3\x7F");
          break;
        default:
          break;
      }
    }
    return text;
  }

 private:
  uint32_t below(uint32_t bound) { return static_cast<uint32_t>(random_() % bound); }
  char any(std::string_view set) { return set[below(static_cast<uint32_t>(set.size()))]; }

  void run(std::string *text, std::string_view set, size_t length) {
    while (length-- > 0) *text += any(set);
  }

  void add_piece(std::string *text) {
    constexpr std::string_view kHex = "0123456789abcdefABCDEF";
    constexpr std::string_view kDigits = "0123456789";
    switch (below(8)) {
      case 0:
        for (uint32_t i = 0, octets = 4 + below(5); i < octets; ++i) {
          run(text, kHex, 2);
          if (i + 1 < octets) *text += any(":::-");
        }
        return;
      case 1:
        for (uint32_t i = 0, numbers = 3 + below(3); i < numbers; ++i) {
          run(text, kDigits, 1 + below(4));
          if (i + 1 < numbers) *text += '.';
        }
        return;
      case 2:
        return run(text, "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZ", 13 + below(22));
      case 3:
        run(text, kHex, 4 + below(6));
        for (uint32_t i = 0, groups = 2 + below(3); i < groups; ++i) {
          *text += '-';
          run(text, kHex, 4);
        }
        *text += '-';
        return run(text, kHex, 11 + below(3));
      case 4:
        *text += "hwaddr: ";
        return run(text, kHex, 11 + below(3));
      case 5:
        return run(text, "0aF:.-", 4 + below(16));
      default:
        // Groups of an IPv6 address, compressed here and there.
        for (uint32_t i = 0, groups = 1 + below(10); i < groups; ++i) {
          run(text, kHex, below(12) == 0 ? 5 : 1 + below(4));
          *text += below(6) == 0 ? "::" : ":";
          if (below(24) == 0) *text += ':';
        }
        if (below(2) == 0) run(text, kHex, 1 + below(5));
        if (below(6) == 0) text->insert(0, below(2) == 0 ? "::" : ":");
        return;
    }
  }

  std::mt19937 random_;
};

TEST(Find, AgreesWithRegexecOfTheExpressions) {
  test::PosixPatterns posix;
  TextMaker maker(test::seed());
  uint64_t matches = 0;
  const uint64_t texts = uint64_t{20000} * test::soak_factor();
  for (uint64_t i = 0; i < texts; ++i) {
    const std::string text = maker.make();
    for (const Pattern pattern : test::kAllPatterns) {
      for (size_t from = 0;;) {
        const Match ours = find(pattern, text, from);
        const Match theirs = posix.find(pattern, text, from);
        ASSERT_TRUE(ours.length == theirs.length &&
                    (ours.length == 0 || ours.start == theirs.start))
            << '"' << text << "\" from " << from << ' ' << test::expression_of(pattern);
        if (ours.length == 0) break;
        from = ours.start + ours.length;
        ++matches;
      }
    }

    std::string blurred = text;
    blur_log_text(blurred);
    ASSERT_EQ(posix.blur_log_text(text), blurred) << text;
  }
  EXPECT_GT(matches, texts / 2) << "the texts prove little";
  RecordProperty("texts", std::to_string(texts));
  RecordProperty("matches", std::to_string(matches));
}

}  // namespace
