// Shows what is printed page by page.
#pragma once

#include <sys/types.h>

namespace mlog {

// From its construction to its end standard output goes to the program that PAGER names, or to
// less; when neither can be run, or PAGER is empty or "cat", it stays as it is.
class Pager {
 public:
  Pager();
  Pager(const Pager &) = delete;
  Pager &operator=(const Pager &) = delete;
  // Waits until the user is done.
  ~Pager();

 private:
  pid_t pid_ = -1;
};

}  // namespace mlog
