#include "base/memory.h"

#include <gtest/gtest.h>

namespace msgapi {
namespace {

TEST(GuardedAlloc, RefusesNothingAndWhatIsBeyondTheBound) {
  testing::internal::CaptureStdout();

  EXPECT_EQ(nullptr, guarded_alloc(0));
  EXPECT_EQ(nullptr, guarded_alloc(0x800001));
  EXPECT_EQ(nullptr, guarded_alloc(40 + uint64_t{0xFFFFFFFF}));

  EXPECT_EQ(
      "error: not host tool, but malloc 4M, return NULL, malloc len=8388609\n"
      "error: not host tool, but malloc 4M, return NULL, malloc len=4294967295\n",
      testing::internal::GetCapturedStdout());
}

TEST(Grow, ReachesBeyondTheBoundAndKeepsTheBlockOnFailure) {
  Owned<char> block(static_cast<char *>(guarded_alloc(4)));
  block.get()[3] = 'x';

  fail_allocation(1);
  EXPECT_EQ(nullptr, grow(block.get(), 4, 16, "test", 1));
  block.reset(static_cast<char *>(grow(block.release(), 4, 0x1000000, "test", 1)));

  ASSERT_TRUE(block);
  EXPECT_EQ('x', block.get()[3]);
}

}  // namespace
}  // namespace msgapi
