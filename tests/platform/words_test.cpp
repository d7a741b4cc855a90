#include <gmock/gmock.h>

#include <optional>
#include <string>
#include <vector>

#include "orputil.h"

namespace {

using Words = std::vector<std::string>;

// None when the text cannot be split.
std::optional<Words> split(const char *text) {
  char **args;
  uint32_t count;
  void *symbols;
  if (ORP_UTIL_ParseArgsEx(text, &args, &count, &symbols) != 0) {
    EXPECT_EQ(nullptr, args);
    return std::nullopt;
  }
  UtilFreeSymbols(symbols);
  Words words(args, args + count);
  EXPECT_EQ(nullptr, args[count]);
  ORP_UTIL_FreeArgs(args);
  return words;
}

TEST(ParseArgs, SplitsAsAShellDoes) {
  const struct {
    const char *text;
    Words words;
  } kCases[] = {
      {" \t\n ", {}},
      {"  ls\t-l  /var ", {"ls", "-l", "/var"}},
      {"a b c d e f g h", {"a", "b", "c", "d", "e", "f", "g", "h"}},
      {"'a b' \"c d\" e\\ f", {"a b", "c d", "e f"}},
      {"a'b'\"c\"\\d", {"abcd"}},
      {"'' \"\" x", {"", "", "x"}},
      {R"('\' "\"\\\$\`\n")", {"\\", R"("\$`\n)"}},
      {"a\\\nb \\\n c", {"ab", "c"}},
      {"\"a\\\nb\"", {"ab"}},
      {"echo #brctl showmacs result: >FILE", {"echo"}},
      {"# one\n# two\nword a#b '#c' # three", {"word", "a#b", "#c"}},
      {"$HOME * `id` > f & ; | a&b", {"$HOME", "*", "`id`", ">", "f", "&", ";", "|", "a&b"}},
  };

  for (const auto &[text, words] : kCases) {
    EXPECT_THAT(split(text), testing::Optional(words)) << text;
  }
  for (const char *unfinished : {"'a", "a \"b", "\"a\\\"", "a\\", "\\"}) {
    EXPECT_FALSE(split(unfinished)) << unfinished;
  }
}

}  // namespace
