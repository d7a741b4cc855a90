// Shows the output page by page.
#pragma once

#include <sys/types.h>

namespace mlog {

// While it lives, standard output goes to the program that PAGER names, or to less without PAGER.
// Standard output stays as it is when that cannot be run, or when PAGER is empty or "cat".
class Pager {
 public:
  Pager();
  Pager(const Pager &) = delete;
  Pager &operator=(const Pager &) = delete;
  // Waits until the user leaves the pager.
  ~Pager();

 private:
  pid_t pid_ = -1;
};

}  // namespace mlog
