#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "msgapi/path.h"

namespace {

namespace fs = std::filesystem;

struct AccessCase {
  const char *base;
  std::string path;
  uint32_t must_exist;  // the two results
  uint32_t may_be_missing;
};

TEST(PathAccess, IsJudgedByTheResolvedPath) {
  fs::create_directories("/mnt/usb/dir");
  fs::create_directories("/mnt/usb1");
  std::ofstream("/mnt/usb/dir/file") << "x";
  std::ofstream("/var/secret") << "x";
  fs::create_symlink("/var/secret", "/mnt/usb/out");
  fs::create_symlink("/mnt/usb/dir", "/var/in");
  fs::create_symlink("/mnt/loop", "/mnt/loop");
  const std::string long_name(4096, 'x');
  const AccessCase kCases[] = {
      {"/mnt/usb", "/mnt/usb/dir/file", ORP_PATH_ALLOWED, ORP_PATH_ALLOWED},
      {"/mnt/usb", "/mnt/usb", ORP_PATH_ALLOWED, ORP_PATH_ALLOWED},
      {"/mnt/usb", "/var/in/file", ORP_PATH_ALLOWED, ORP_PATH_ALLOWED},
      {"/mnt/usb", "/mnt/usb/../usb/dir", ORP_PATH_ALLOWED, ORP_PATH_ALLOWED},
      {"/", "/var/secret", ORP_PATH_ALLOWED, ORP_PATH_ALLOWED},
      {"/mnt/usb", "/mnt/usb1", ORP_PATH_ERR_OUTSIDE, ORP_PATH_ERR_OUTSIDE},
      {"/mnt/usb", "/mnt/usb/out", ORP_PATH_ERR_OUTSIDE, ORP_PATH_ERR_OUTSIDE},
      {"/mnt/usb", "/mnt/usb/../../var/secret", ORP_PATH_ERR_OUTSIDE, ORP_PATH_ERR_OUTSIDE},
      {"/mnt/usb/", "/mnt/usb/dir", ORP_PATH_ERR_OUTSIDE, ORP_PATH_ERR_OUTSIDE},
      {"/mnt/usb", "/mnt/usb/none", ORP_PATH_ERR_UNRESOLVED, ORP_PATH_ALLOWED},
      {"/mnt/usb", "/mnt/none", ORP_PATH_ERR_UNRESOLVED, ORP_PATH_ERR_OUTSIDE},
      {"/mnt/usb", "/mnt/usb/none/../x", ORP_PATH_ERR_UNRESOLVED, ORP_PATH_ERR_UNRESOLVED},
      {"/mnt/usb", "/mnt/loop", ORP_PATH_ERR_UNRESOLVED, ORP_PATH_ERR_UNRESOLVED},
      {"", "/mnt/usb", ORP_PATH_ERR_ARGUMENT, ORP_PATH_ERR_ARGUMENT},
      {"", "/mnt/none", ORP_PATH_ERR_UNRESOLVED, ORP_PATH_ERR_ARGUMENT},
      {"/mnt", "/" + long_name.substr(1), ORP_PATH_ERR_ARGUMENT, ORP_PATH_ERR_ARGUMENT},
      {long_name.c_str(), "/mnt/usb", ORP_PATH_ERR_BASE_TOO_LONG, ORP_PATH_ERR_BASE_TOO_LONG},
  };

  for (const AccessCase &expected : kCases) {
    SCOPED_TRACE(expected.path.substr(0, 40) + " below " +
                 std::string(expected.base).substr(0, 40));
    EXPECT_EQ(expected.must_exist,
              ORP_UTIL_IsPathAllowAccess(expected.base, expected.path.c_str()));
    EXPECT_EQ(expected.may_be_missing,
              ORP_UTIL_IsPathAllowAccessEx(expected.base, expected.path.c_str(), 0));
  }
}

}  // namespace
