// Checks that a test leaves no descriptor open.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <set>
#include <string>

namespace test {

// The descriptors that this process has open.
inline std::set<int> open_descriptors() {
  std::set<int> open;
  for (const auto &entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    open.insert(std::stoi(entry.path().filename()));
  }
  // The directory's own descriptor was among them and is closed again.
  std::erase_if(open, [](int fd) { return ::fcntl(fd, F_GETFD) < 0; });
  return open;
}

// Fails the test when, at the end of its scope, other descriptors are open than at its start.
class FdCheck {
 public:
  FdCheck() = default;
  FdCheck(const FdCheck &) = delete;
  FdCheck &operator=(const FdCheck &) = delete;
  ~FdCheck() { EXPECT_EQ(before_, open_descriptors()); }

 private:
  const std::set<int> before_ = open_descriptors();
};

}  // namespace test
