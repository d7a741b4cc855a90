// Socket options that are plain values.
#pragma once

#include <sys/socket.h>

namespace msgapi::net {

// False, with errno set, when the kernel refuses.
template <typename T>
bool set_option(int fd, int level, int option, const T &value) {
  return ::setsockopt(fd, level, option, &value, sizeof value) == 0;
}

}  // namespace msgapi::net
