#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "msgapi/path.h"

namespace {

std::string make_file(const std::string &path) {
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  std::ofstream(path) << "content";
  return path;
}

bool allowed(const std::string &path, uint32_t type) {
  return ORP_UTIL_ValidatePath(path.c_str(), type) == 1;
}

// The sandbox provides these trees; the others need directories it does not have.
const struct {
  uint32_t type;
  const char *inside;
  const char *outside;
} kPlaces[] = {
    {0, "/mnt/usb/film", "/var/film"},
    {2, "/app/webroot/page", "/app/webrooted/page"},
    {3, "/app/html/page", "/app/page"},
    {4, "/app/webroot/WebApp/common/a.js", "/app/webroot/WebApp/a.js"},
    {6, "/app/webroot/WebApp/a.js", "/app/webroot/a.js"},
    {7, "/var/crash.tar.gz", "/var/crash"},
    {9, "/app/config/a.xml", "/app/a.xml"},
    {10, "/var/cfgtmp.cfg", "/var/cfgtmp.cfg2"},
    {11, "/var/image.head.bin", "/var/image.bin"},
    {12, "/var/cfgtmp.cfg", "/var/cfgtmp.cf"},
    {14, "/var/image.bin", "/var/image.bin2"},
    {15, "/var/run/web-static/x", "/var/run/x"},
    {16, "/var/policy_custom/x", "/var/policy_custom2/x"},
    {20, "/var/run/msg/msg_file_7", "/var/run/msg/other"},
};

TEST(ValidatePath, AllowsEachTypeItsPlaceOnly) {
  for (const auto &[type, inside, outside] : kPlaces) {
    EXPECT_TRUE(allowed(make_file(inside), type)) << inside;
    EXPECT_FALSE(allowed(make_file(outside), type)) << outside;
  }
  for (const uint32_t nothing : {13u, 17u, 18u, 19u, 21u, 0xffffffffu}) {
    EXPECT_FALSE(allowed("/mnt/usb/film", nothing)) << nothing;
  }
}

TEST(ValidatePath, JudgesTheResolvedPathOfAnExistingFile) {
  make_file("/var/secret");
  make_file("/mnt/inside/file");
  std::filesystem::create_symlink("/var/secret", "/mnt/link");
  std::filesystem::create_symlink("/mnt/inside", "/var/way-in");

  EXPECT_FALSE(allowed("/mnt/link", 0));
  EXPECT_FALSE(allowed("/mnt/../var/secret", 0));
  EXPECT_FALSE(allowed("/mnt/missing", 0));
  EXPECT_TRUE(allowed("/var/way-in/file", 0));
  EXPECT_TRUE(allowed("/mnt/inside/../inside//./file", 0));

  const std::string longest = "/mnt/inside/" + std::string(4095 - 16, '/') + "file";
  EXPECT_TRUE(allowed(longest, 0));
  EXPECT_FALSE(allowed("/" + longest, 0));
}

TEST(ValidateM2mPath, KnowsOnlyTheApplicationTreeBelowSystem) {
  make_file("/app/webroot/page");

  EXPECT_EQ(0u, ORP_M2M_ValidatePath("/app/webroot/page", 2));
  EXPECT_EQ(0u, ORP_M2M_ValidatePath(make_file("/mnt/f").c_str(), 0));
}

}  // namespace
