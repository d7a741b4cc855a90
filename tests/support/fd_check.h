// Checks that a test leaves no descriptor open.
#pragma once

#include <set>

namespace test {

// The descriptors that this process has open.
std::set<int> open_descriptors();

// Fails the test when, at the end of its scope, other descriptors are open than at its start.
class FdCheck {
 public:
  FdCheck() : before_(open_descriptors()) {}
  FdCheck(const FdCheck &) = delete;
  FdCheck &operator=(const FdCheck &) = delete;
  ~FdCheck();

 private:
  std::set<int> before_;
};

}  // namespace test
