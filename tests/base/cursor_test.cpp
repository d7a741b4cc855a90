#include "base/cursor.h"

#include <gtest/gtest.h>

#include <array>

namespace msgapi {
namespace {

TEST(Reader, ReadsZeroBeyondItsEndAndRemembersIt) {
  const uint8_t bytes[] = {0x12, 0x34, 0x56, 0x78, 0x9A};
  ByteReader in(bytes);

  EXPECT_EQ(0x12345678u, in.be32());
  EXPECT_TRUE(in.ok());
  EXPECT_EQ(0u, in.be16());
  EXPECT_FALSE(in.ok());
  // What is left can still be read, but the whole stays failed.
  EXPECT_EQ(0x9A, in.next());
  EXPECT_EQ(0, in.next());
  EXPECT_FALSE(in.ok());
}

TEST(Writer, KeepsAShortPieceWithinItsBound) {
  const char piece[4] = {'a', 'b', 'c', 'd'};
  std::array<char, 6> bytes = {};
  TextWriter out({bytes.data(), 5});

  EXPECT_TRUE(out.put_first(piece, 2));
  EXPECT_TRUE(out.put_first(piece, 3));
  EXPECT_FALSE(out.put_first(piece, 1));
  EXPECT_FALSE(out.advance(1));
  EXPECT_EQ(5u, out.offset());
  EXPECT_STREQ("ababc", bytes.data());
}

}  // namespace
}  // namespace msgapi
