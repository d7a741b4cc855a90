#include "support/fd_check.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

namespace test {

std::set<int> open_descriptors() {
  std::set<int> open;
  for (const auto &entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    open.insert(std::stoi(entry.path().filename()));
  }
  // The directory's own descriptor was among them and is closed again.
  std::erase_if(open, [](int fd) { return ::fcntl(fd, F_GETFD) < 0; });
  return open;
}

FdCheck::~FdCheck() {
  EXPECT_EQ(before_, open_descriptors());
}

}  // namespace test
