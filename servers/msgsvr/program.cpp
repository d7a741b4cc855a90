#include "msgsvr/program.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>

#include "common/unique_fd.h"

namespace msgsvr {

std::string_view program_of(pid_t pid, std::span<char> buffer) noexcept {
  std::array<char, 32> path{};
  std::snprintf(path.data(), path.size(), "/proc/%d/exe", pid);
  const ssize_t link = ::readlink(path.data(), buffer.data(), buffer.size());
  if (link > 0) return {buffer.data(), static_cast<size_t>(link)};
  std::snprintf(path.data(), path.size(), "/proc/%d/cmdline", pid);
  const servers::UniqueFd file(::open(path.data(), O_RDONLY | O_CLOEXEC));
  const ssize_t size = file ? ::read(file.get(), buffer.data(), buffer.size()) : 0;
  const std::string_view line(buffer.data(), static_cast<size_t>(std::max<ssize_t>(size, 0)));
  return line.substr(0, line.find('\0'));
}

}  // namespace msgsvr
