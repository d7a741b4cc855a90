#include <gtest/gtest.h>

#include <string>

#include "msgapi/path.h"
#include "support/allocation.h"

namespace {

bool match(const std::string &patterns, const std::string &path) {
  return ORP_UTIL_MatchPrefixPath(patterns.c_str(), path.c_str()) == 1;
}

TEST(MatchPath, KnowsWildcardsAndAlternatives) {
  const struct {
    const char *patterns, *path;
    bool matches;
  } kCases[] = {
      {"/api/*/status", "/api/wan/status", true},
      {"/api/*/status", "/api/wan/x/status", false},
      {"/api/**/status", "/api/wan/x/status", true},
      {"a/*.txt", "a/b/c.txt", false},
      {"a/**.txt", "a/b/c.txt", true},
      {"/a|/b", "/b", true},
      {"/a|/b", "/a|/b", false},
      {"/a", "/ab", false},
      {"?", "/", true},
      {"?", "", false},
      {"a||b", "", true},
      // "?" may match the "/" at which the shortest first run would end.
      {"*?a*z", "xa/az", true},
      {"***", "a/b", true},
      {"*/**", "a", false},
      {"a*b*c", "abbc", true},
      {"a*b*c", "ab/c", false},
  };
  for (const auto &[patterns, path, matches] : kCases) {
    EXPECT_EQ(matches, match(patterns, path)) << patterns << " on " << path;
  }
}

TEST(MatchPath, IsQuickOnHostilePatterns) {
  std::string pattern;
  for (int i = 0; i < 500; ++i) pattern += i % 2 ? "**a" : "*?";
  const std::string path(4000, 'a');

  // Two million steps each. Trying all combinations of runs would never end.
  EXPECT_FALSE(match(pattern + "b", path));
  EXPECT_TRUE(match(pattern, path));
}

TEST(MatchPath, NeedsMemoryForLongPatternsOnly) {
  const std::string at_most(512, 'a'), longer(513, 'a');

  EXPECT_EQ(0u, test::fail_every_allocation([&] { return match(at_most, at_most); }));
  EXPECT_EQ(1u, test::fail_every_allocation([&] { return match(longer, longer); }));
  EXPECT_FALSE(match(longer, at_most));
}

}  // namespace
