#include "base/memory.h"

#include <gtest/gtest.h>

#include "support/allocation.h"

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

TEST(GuardedAlloc, ServesTheBoundItself) {
  const Owned<char> block(static_cast<char *>(guarded_zalloc(0x800000)));

  ASSERT_TRUE(block);
  EXPECT_EQ(0, block.get()[0x7FFFFF]);
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

TEST(FailAllocation, FailsTheNthOnceOnly) {
  const uint32_t failures = test::fail_every_allocation([] {
    const Owned<char> first(static_cast<char *>(plain_alloc(1)));
    const Owned<char> second(static_cast<char *>(guarded_zalloc(1)));
    const Owned<char> third = duplicate_text("text");
    return first && second && third;
  });

  EXPECT_EQ(3u, failures);
}

}  // namespace
}  // namespace msgapi
