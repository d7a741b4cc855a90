#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <memory>

#include "msgapi/str.h"
#include "support/file.h"

namespace {

TEST(Validators, JudgeTheirTexts) {
  for (const uint32_t port : {0u, 1u, 65535u, 65536u}) {
    EXPECT_EQ(port == 1 || port == 65535 ? 1u : 0u, ORP_UTIL_ValidatePort(port)) << port;
  }
  EXPECT_EQ(1u, ORP_UTIL_ValidateNumber("0123456789"));
  for (const char *text : {"", "-1", "1 ", "/", ":"}) {
    EXPECT_EQ(0u, ORP_UTIL_ValidateNumber(text)) << text;
  }
  EXPECT_EQ(1u, ORP_UTIL_ValidateLength("abc", 3));
  EXPECT_EQ(0u, ORP_UTIL_ValidateLength("abc", 2));
  EXPECT_EQ(0u, ORP_UTIL_ValidateLength("", 3));

  for (const char *text : {"", " ~\x7f"}) EXPECT_EQ(1u, ORP_UTIL_ValidStr(text)) << text;
  for (const char *text : {"\t", "a\x1f", "\x80", "\xff"}) {
    EXPECT_EQ(0u, ORP_UTIL_ValidStr(text)) << text;
  }
  EXPECT_EQ(1u, ORP_UTIL_CheckStringTerminated("ab", 3));
  EXPECT_EQ(0u, ORP_UTIL_CheckStringTerminated("ab", 2));
}

const struct {
  const char *text, *part;
  uint32_t size;
  const char *out;
  uint32_t count;
} kDeletes[] = {
    {"aXbXc", "X", 4, "abc", 2}, {"aaaaa", "aa", 8, "a", 2}, {"ababc", "abc", 8, "ab", 1},
    {"", "X", 4, "", 0},         {"XX", "X", 1, "", 2},      {"abc", "abcd", 8, "abc", 0},
    {"abc", "", 3, "ab", 0},     {"aXbXc", "X", 3, "ab", 2}, {"aXbcXdX", "X", 2, "a", 3},
};

TEST(DeleteSubStr, RemovesFromTheLeftAndCutsToTheBuffer) {
  for (const auto &[text, part, size, expected, count] : kDeletes) {
    const std::unique_ptr<char[]> out(new char[size]);
    EXPECT_EQ(count, ORP_UTIL_DeleteSubStr(text, part, out.get(), size)) << text;
    EXPECT_STREQ(expected, out.get()) << text;
  }
}

TEST(FindModuleAndFunc, SplitsRequestPaths) {
  char module[5] = "old", function[8] = "old";

  EXPECT_EQ(0u, ORP_UTIL_FindModuleAndFuncByUri("/api/ntwk/wan/a", module, 5, function, 8));
  EXPECT_STREQ("ntwk", module);
  EXPECT_STREQ("wan/a", function);
  // A module that does not fit is left out, a function that does not fit is an error.
  EXPECT_EQ(1u, ORP_UTIL_FindModuleAndFuncByUri("/api/device/settings", module, 5, function, 8));
  EXPECT_STREQ("ntwk", module);
  EXPECT_STREQ("", function);
  EXPECT_EQ(0u, ORP_UTIL_FindModuleAndFuncByUri("/api/a/settings", module, 5, function, 1));
  EXPECT_STREQ("", function);
  EXPECT_EQ(1u, ORP_UTIL_FindModuleAndFuncByUri("/api/a/", nullptr, 0, function, 8));
  for (const char *path : {"/api/ntwk", "/api/", "api/a/b", "/API/a/b", ""}) {
    EXPECT_EQ(1u, ORP_UTIL_FindModuleAndFuncByUri(path, module, 5, function, 8)) << path;
  }
}

TEST(CopyFile, CopiesWithoutLettingAShellSeeHostileNames) {
  std::ofstream("/var/source") << "content";

  ORP_UTIL_CopyFile("/var/source", "/var/target");
  for (const char *hostile :
       {"/var/x;touch${IFS}/var/owned", "$(touch /var/owned)", "`touch /var/owned`", "/var/a b",
        "/var/x&touch", "/var/x|touch", "/var/x>owned", "-t/var", "", "/var/x\n", "/var/*", "~"}) {
    ORP_UTIL_CopyFile("/var/source", hostile);
    ORP_UTIL_CopyFile(hostile, "/var/hostile");
  }
  ORP_UTIL_CopyFile("/var/source", nullptr);

  EXPECT_EQ("content", test::contents("/var/target"));
  for (const char *path : {"/var/owned", "/var/x", "/var/a", "/var/hostile"}) {
    EXPECT_FALSE(std::filesystem::exists(path)) << path;
  }
}

}  // namespace
