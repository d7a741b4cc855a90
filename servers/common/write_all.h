// Writing to descriptors that wait.
#pragma once

#include <span>

namespace servers {

// False with errno set when not all could be written.
bool write_all(int fd, std::span<const char> bytes) noexcept;

}  // namespace servers
