#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <span>
#include <string>

#include "msgapi/path.h"

namespace {

using Coder = uint32_t (*)(const char *text, char *out, uint32_t size);
using Coded = std::pair<uint32_t, std::string>;

Coded code(Coder coder, const char *text, uint32_t size = 100) {
  // A block of exactly this size, for the memory checker.
  const std::unique_ptr<char[]> out(new char[size]);
  std::memset(out.get(), 'o', size);
  const uint32_t status = coder(text, out.get(), size);
  return {status, size == 0 ? "" : std::string(out.get())};
}

struct PathCase {
  const char *why;
  const char *input;
  uint32_t status;
  const char *output;
};

const PathCase kEncodings[] = {
    {"pieces", "/mnt/a/b", ORP_OK, "-YQ==-Yg=="},
    {"the root", "/mnt", ORP_OK, "/mnt"},
    {"the root with a slash", "/mnt/", ORP_OK, "/mnt"},
    {"no storage path", "a/b", ORP_OK, "-YQ==-Yg=="},
    {"the first four characters go", "abc/mnt/x", ORP_OK, "-bW50-eA=="},
    {"doubled slash", "/mnt/a//b", ORP_ERR_ARGUMENT, ""},
    {"slash at the end", "/mnt/a/", ORP_ERR_ARGUMENT, ""},
    {"absolute path elsewhere", "/var/a", ORP_ERR_ARGUMENT, ""},
};

const PathCase kDecodings[] = {
    {"pieces", "-YQ==-Yg==", ORP_OK, "/mnt/a/b"},
    {"a space was a plus", "-Pj4 ", ORP_OK, "/mnt/>>>"},
    {"pieces may hold anything", "-Li4=-L2V0Yw==", ORP_OK, "/mnt/..//etc"},
    {"no dash in front", "YQ==", ORP_ERR_ARGUMENT, ""},
    {"only a dash", "-", ORP_ERR_ARGUMENT, ""},
    {"empty piece", "-YQ==--Yg==", ORP_ERR_ARGUMENT, ""},
    {"empty piece at the end", "-YQ==-", ORP_ERR_ARGUMENT, ""},
    {"no padding", "-YQ", ORP_ERR_ARGUMENT, ""},
    {"a NUL inside", "-YQBi", ORP_ERR_ARGUMENT, ""},
};

void expect_codings(Coder coder, std::span<const PathCase> cases) {
  for (const PathCase &expected : cases) {
    EXPECT_EQ(Coded(expected.status, expected.output), code(coder, expected.input)) << expected.why;
  }
}

TEST(CodePath, CodesThePiecesBelowTheRoot) {
  expect_codings(ORP_UTIL_EncodePath, kEncodings);
}

TEST(CodePath, TurnsTheWordBackOrRefusesIt) {
  expect_codings(ORP_UTIL_DecodePath, kDecodings);
}

TEST(CodePath, WritesNothingBeyondTheBuffer) {
  for (uint32_t size = 0; size <= 11; ++size) {
    EXPECT_EQ(size < 11 ? ORP_ERR_ARGUMENT : ORP_OK,
              code(ORP_UTIL_EncodePath, "/mnt/a/b", size).first);
    EXPECT_EQ(size < 9 ? ORP_ERR_ARGUMENT : ORP_OK,
              code(ORP_UTIL_DecodePath, "-YQ==-Yg==", size).first);
  }
  EXPECT_EQ(ORP_ERR_ARGUMENT, code(ORP_UTIL_EncodePath, "/mnt", 4).first);
  EXPECT_EQ(ORP_OK, code(ORP_UTIL_EncodePath, "/mnt", 5).first);
}

const struct {
  const char *text;
  uint32_t size;
  uint32_t status;
  const char *output;
} kSuffixes[] = {
    {"file.tar.gz", 5, 0, "file"},
    {"file.tar.gz", 4, 1, ""},
    {"file", 4, 1, ""},
    {".hidden", 5, 0, ""},
    {"", 5, 1, ""},
    {"", 1, 0, ""},
    {"file.x", 1, 0, ""},
};

TEST(RemoveSuffix, CopiesUpToTheFirstSeparator) {
  for (const auto &[text, size, status, output] : kSuffixes) {
    const std::unique_ptr<char[]> out(new char[size]);
    EXPECT_EQ(status, ORP_UTIL_RemoveSuffix(text, out.get(), size, '.')) << text;
    EXPECT_STREQ(output, out.get()) << text;
  }
  char out[4];
  EXPECT_EQ(1u, ORP_UTIL_RemoveSuffix("a", out, 4, '\0'));
}

}  // namespace
