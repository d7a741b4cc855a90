// What one thread hands to another that waits in an event loop.
#pragma once

#include <sys/eventfd.h>

#include <cerrno>
#include <cstdint>
#include <mutex>
#include <system_error>
#include <utility>
#include <vector>

#include "common/unique_fd.h"

namespace msgsvr {

template <typename T>
class Mailbox {
 public:
  Mailbox() : event_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (!event_) throw std::system_error(errno, std::generic_category(), "eventfd");
  }

  // Readable when there is something to take, or somebody rang.
  int fd() const { return event_.get(); }

  void post(T item) {
    {
      const std::lock_guard lock(mutex_);
      items_.push_back(std::move(item));
    }
    ring();
  }

  // Wakes the reader. Allocates nothing and cannot fail.
  void ring() {
    const uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = ::write(event_.get(), &one, sizeof one);
  }

  std::vector<T> take() {
    uint64_t count;
    [[maybe_unused]] const ssize_t got = ::read(event_.get(), &count, sizeof count);
    const std::lock_guard lock(mutex_);
    return std::exchange(items_, {});
  }

 private:
  servers::UniqueFd event_;
  std::mutex mutex_;
  std::vector<T> items_;
};

}  // namespace msgsvr
