#include "base/text.h"

#include <gtest/gtest.h>

namespace msgapi {
namespace {

TEST(CopyPrintable, ShowsWhatIsNoPrintableTextAsQuestionMarks) {
  char out[6] = "";

  copy_printable(out, "a\n\x7f\xc3~longer");

  EXPECT_STREQ("a???~", out);
}

}  // namespace
}  // namespace msgapi
