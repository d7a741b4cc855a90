#include "base/text.h"

#include <gtest/gtest.h>

namespace msgapi {
namespace {

TEST(CopyExact, FailsWhenTheTextDoesNotFitWithItsNul) {
  char out[4] = "old";

  EXPECT_TRUE(copy_exact(out, "abc"));
  EXPECT_STREQ("abc", out);
  EXPECT_FALSE(copy_exact(out, "abcd"));
  EXPECT_STREQ("", out);
}

TEST(CopyCut, ShortensToTheField) {
  char out[4] = "";

  copy_cut(out, "abcdef");
  EXPECT_STREQ("abc", out);

  // A text as long as the field leaves no room for the NUL.
  char field_and_next[] = "wxyz!";
  copy_cut(std::span(field_and_next, 4), "defg");
  EXPECT_STREQ("def", field_and_next);
  EXPECT_EQ('!', field_and_next[4]);
}

TEST(CopyPrintable, ShowsWhatIsNoPrintableTextAsQuestionMarks) {
  char out[6] = "";

  copy_printable(out, "a\n\x7f\xc3~longer");

  EXPECT_STREQ("a???~", out);
}

TEST(Format, ExactFailsWhereCutShortens) {
  char out[4] = "old";

  EXPECT_FALSE(format_exact(out, "%d", 1234));
  EXPECT_STREQ("", out);
  format_cut(out, "%d", 1234);
  EXPECT_STREQ("123", out);
}

TEST(BeginsWith, ComparesTheWholePrefix) {
  EXPECT_TRUE(begins_with("abc", "abc"));
  EXPECT_TRUE(begins_with({}, {}));
  EXPECT_FALSE(begins_with("ab", "abc"));
  EXPECT_FALSE(begins_with("abc", "abd"));
}

TEST(FieldText, EndsAtTheFieldWhenThereIsNoNul) {
  const char field[3] = {'a', 'b', 'c'};

  EXPECT_EQ("abc", field_text(field));
  EXPECT_FALSE(is_terminated(field));
  EXPECT_TRUE(is_terminated("ab"));
}

}  // namespace
}  // namespace msgapi
