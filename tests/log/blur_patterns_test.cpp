#include "log/blur_patterns.h"

#include <gtest/gtest.h>

#include <random>
#include <string>

#include "log/blur.h"
#include "log/posix_blur.h"
#include "support/soak.h"

namespace {

using namespace msgapi::blur;

// Makes texts of values with some faults.
class TextMaker {
 public:
  explicit TextMaker(uint32_t seed) : random_(seed) {}

  std::string make() {
    constexpr std::string_view kValues[] = {"00:1a-22:3B-44:f5",
                                            "00:11:22:33:44:55:66:77",
                                            "10.200.3.47",
                                            "1.20.300.4.56.7",
                                            "A1BC2DEF3GHI4JKZ",
                                            "A1BC2DEF3GHI4JKLA1BC2DEF3GHI4JKLMN",
                                            "01234567-89ab-cdef-0123-456789ABCDEF",
                                            "hwaddr: 0011aabbCCDD",
                                            "2001:db8:3:44:f:6:0777:8",
                                            "::1:22:fe80:4444:5:6:7",
                                            "fe80:1::22:b:444"};
    std::string text(below(4) == 0 ? below(70) : 0, ' ');  // other places within a block
    for (uint32_t pieces = 1 + below(3); pieces > 0; --pieces) {
      std::string_view value = kValues[below(std::size(kValues))];
      if (below(4) == 0) value.remove_prefix(below(value.size()));
      const uint32_t rarity = 4u << below(6);
      for (const char part : value) {
        const uint32_t fault = below(rarity);
        if (fault == 0) text += any("09AFGZafgz:.-* \n\xC3\x7F");
        text.append(fault == 1 ? 2 : fault == 2 ? 0 : 1, part);
      }
      if (below(3) == 0) text += any(" x*.:-\n");
    }
    return text;
  }

 private:
  uint32_t below(size_t bound) { return static_cast<uint32_t>(random_() % bound); }
  char any(std::string_view set) { return set[below(set.size())]; }

  std::mt19937 random_;
};

TEST(Find, AgreesWithRegexecOfTheExpressions) {
  const test::PosixPatterns posix;
  TextMaker maker(test::seed());
  uint64_t matches[std::size(test::kExpressions)] = {};
  const uint64_t texts = uint64_t{20000} * test::soak_factor();
  for (uint64_t i = 0; i < texts; ++i) {
    const std::string text = maker.make();
    const bool equal =
        posix.all_searches(text, [&](Pattern pattern, size_t from, const Match &theirs) {
          const Match ours = find(pattern, text, from);
          matches[static_cast<size_t>(pattern)] += ours.length != 0;
          return ours.length == theirs.length && (ours.length == 0 || ours.start == theirs.start);
        });
    ASSERT_TRUE(equal) << '"' << text << '"';

    std::string blurred = text;
    blur_log_text(blurred);
    ASSERT_EQ(posix.blur_log_text(text), blurred) << text;
  }
  for (const uint64_t count : matches) EXPECT_GT(count, texts / 50) << "the texts prove little";
}

TEST(Find, LooksAtNothingBeyondTheText) {
  TextMaker maker(test::seed() + 1);
  for (size_t i = 0; i < 4000; ++i) {
    const std::string text = maker.make();
    const std::string_view beginning = std::string_view(text).substr(0, i % (text.size() + 1));
    const std::string alone(beginning);
    for (size_t which = 0; which < std::size(test::kExpressions); ++which) {
      const auto pattern = static_cast<Pattern>(which);
      const Match within = find(pattern, beginning, 0), right = find(pattern, alone, 0);
      ASSERT_EQ(right.length, within.length) << '"' << alone << "\" of \"" << text << '"';
      ASSERT_EQ(right.start, within.start) << alone;
    }
  }
}

}  // namespace
