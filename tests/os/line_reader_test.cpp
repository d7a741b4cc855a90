#include "os/line_reader.h"

#include <gmock/gmock.h>

#include <string>
#include <vector>

#include "support/network.h"

namespace {

using testing::ElementsAre;

std::vector<std::string> lines_of(const std::string &text, size_t size) {
  msgapi::os::LineReader reader(test::readable(text));
  std::vector<char> buffer(size);
  std::vector<std::string> lines;
  while (const auto line = reader.next(buffer)) {
    EXPECT_EQ('\0', buffer[line->size()]);
    lines.emplace_back(*line);
  }
  return lines;
}

TEST(LineReader, GivesLinesAsFgetsDoes) {
  EXPECT_THAT(lines_of("", 8), ElementsAre());
  EXPECT_THAT(lines_of("a\n\nlast", 8), ElementsAre("a\n", "\n", "last"));
  EXPECT_THAT(lines_of("1234567\nx\n", 9), ElementsAre("1234567\n", "x\n"));
  EXPECT_THAT(lines_of("1234567\nx\n", 8), ElementsAre("1234567", "\n", "x\n")) << "newline late";
  EXPECT_THAT(lines_of("123456789\n", 4), ElementsAre("123", "456", "789", "\n"));
  EXPECT_THAT(lines_of(std::string("a\0b\n", 4), 8), ElementsAre(std::string("a\0b\n", 4)));
}

TEST(LineReader, JoinsLinesThatTwoReadsBring) {
  const std::string text = std::string(4090, 'x') + "\nacross the block\nend\n";
  EXPECT_THAT(lines_of(text, 5000),
              ElementsAre(std::string(4090, 'x') + "\n", "across the block\n", "end\n"));
}

}  // namespace
