// A limit of this process (setrlimit(2)).
#pragma once

#include <gtest/gtest.h>
#include <sys/resource.h>

namespace test {

// Holds as long as it lives. Afterwards the process may need more: one that counts coverage writes
// its files at its end.
class ResourceLimit {
 public:
  using Resource = decltype(RLIMIT_NOFILE);

  ResourceLimit(Resource resource, rlim_t limit) : resource_(resource) {
    EXPECT_EQ(0, ::getrlimit(resource_, &before_));
    set({limit, before_.rlim_max});
  }
  ~ResourceLimit() { set(before_); }
  ResourceLimit(const ResourceLimit &) = delete;
  ResourceLimit &operator=(const ResourceLimit &) = delete;

 private:
  void set(const rlimit &limit) const { EXPECT_EQ(0, ::setrlimit(resource_, &limit)); }

  const Resource resource_;
  rlimit before_{};
};

// While it lives, the process gets no descriptor of the number `first` or above.
struct DescriptorLimit : ResourceLimit {
  explicit DescriptorLimit(int first) : ResourceLimit(RLIMIT_NOFILE, static_cast<rlim_t>(first)) {}
};

}  // namespace test
