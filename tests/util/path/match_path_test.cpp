#include <gtest/gtest.h>

#include <chrono>
#include <random>
#include <string>

#include "msgapi/path.h"
#include "support/allocation.h"

namespace {

bool match(const std::string &patterns, const std::string &path) {
  return ORP_UTIL_MatchPrefixPath(patterns.c_str(), path.c_str()) == 1;
}

// The definition itself: each run is tried from the longest on.
bool backtrack(const char *pattern, const char *path) {
  if (*pattern == '\0') return *path == '\0';
  if (*pattern == '?') return *path != '\0' && backtrack(pattern + 1, path + 1);
  if (*pattern != '*') return *path == *pattern && backtrack(pattern + 1, path + 1);

  const bool any = pattern[1] == '*';
  const char *end = path;
  while (*end != '\0' && (any || *end != '/')) ++end;
  for (;; --end) {
    if (backtrack(pattern + (any ? 2 : 1), end)) return true;
    if (end == path) return false;
  }
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
  };
  for (const auto &[patterns, path, matches] : kCases) {
    EXPECT_EQ(matches, match(patterns, path)) << patterns << " on " << path;
  }
}

TEST(MatchPath, AnswersAsTheDefinitionDoes) {
  std::mt19937 random(1);
  const auto text = [&](const std::string &letters, size_t max_length) {
    std::string result(random() % (max_length + 1), ' ');
    for (char &letter : result) letter = letters[random() % letters.size()];
    return result;
  };

  size_t matched = 0;
  for (int i = 0; i < 200000; ++i) {
    const std::string pattern = text("**?ab/", 8), path = text("aab/", 8);
    const bool expected = backtrack(pattern.c_str(), path.c_str());
    matched += expected;
    ASSERT_EQ(expected, match(pattern, path)) << pattern << " on " << path;
  }
  EXPECT_GT(matched, 10000u);
}

TEST(MatchPath, IsQuickOnHostilePatterns) {
  std::string pattern;
  for (int i = 0; i < 500; ++i) pattern += i % 2 ? "**a" : "*?";
  const std::string path(4000, 'a');

  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(match(pattern + "b", path));
  EXPECT_TRUE(match(pattern, path));

  // Two million steps each; trying the runs one after another would outlast the machine.
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20));
}

TEST(MatchPath, NeedsMemoryForLongPatternsOnly) {
  const std::string at_most(512, 'a'), longer(513, 'a');

  EXPECT_EQ(0u, test::fail_every_allocation([&] { return match(at_most, at_most); }));
  EXPECT_EQ(1u, test::fail_every_allocation([&] { return match(longer, longer); }));
  EXPECT_FALSE(match(longer, at_most));
}

}  // namespace
