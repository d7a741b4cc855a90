// Making a child process: everything between the decision and exec.
//
// What a child needs is prepared before the fork. Between fork and exec it makes only
// async-signal-safe calls on what was prepared: a look-up or an allocation could hang on a lock
// that another thread held at the fork.
#pragma once

#include <sys/types.h>

#include <csignal>
#include <cstddef>

#include "base/memory.h"
#include "base/status.h"
#include "msgapi/process.h"
#include "os/fd.h"

namespace msgapi::uv {

// For the texts of one entry of the user database.
inline constexpr size_t kUserBuffer = 1 << 14;

struct Pipe {
  os::UniqueFd read, write;
};

// Close-on-exec, with both ends above the standard descriptors: moving an end onto one of those
// then never hits another end. No ends when the pipe cannot be made.
Pipe make_pipe();

class Child {
 public:
  // `options` outlives this.
  explicit Child(const OrpUvSpawnOptions &options) : options_(options) {}

  // Looks up what the options name, and makes the start pipe.
  Status prepare();

  // The child's end of the pipe that becomes the standard descriptor `target`.
  void set_standard(int target, os::UniqueFd fd) { standard_[target] = std::move(fd); }

  // Makes the child, which closes inherited descriptors up to `highest_fd` (50 when that is below
  // 4), gets ready and waits. *pid is set before any signal is handled, that of the child's own end
  // included.
  Status make(int highest_fd, int32_t *pid);

  // Lets the child go on to exec, and closes this side's copies of its ends.
  void start();

 private:
  Status find_user_groups();
  [[noreturn]] void run(const sigset_t &mask);
  bool set_up();
  void close_inherited() const;
  bool is_kept(int fd) const;
  bool set_ids() const;
  void wait_for_start() const;
  void move_standard() const;

  const OrpUvSpawnOptions &options_;
  int close_bound_ = 0;
  Pipe start_;
  os::UniqueFd standard_[3];

  // The groups of the user with id options.uid, for ORP_UV_SPAWN_SETGID.
  bool has_user_ = false;
  Owned<gid_t> user_groups_;  // null when they could not be read
  int user_group_count_ = 0;
};

}  // namespace msgapi::uv
