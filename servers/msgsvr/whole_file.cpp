#include "msgsvr/whole_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "common/unique_fd.h"

namespace msgsvr {

using servers::UniqueFd;

bool write_all(int fd, std::span<const char> bytes) {
  while (!bytes.empty()) {
    const ssize_t count = ::write(fd, bytes.data(), bytes.size());
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return false;
    bytes = bytes.subspan(static_cast<size_t>(count));
  }
  return true;
}

bool replace_file(const std::string &path, std::span<const char> content) {
  // What a killed process left behind, or somebody else put there, is not written into.
  const std::string fresh = path + ".new";
  ::unlink(fresh.c_str());
  const UniqueFd file(
      ::open(fresh.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
  if (!file) return false;
  // The content must be on the disk before the name is, or a loss of power leaves an empty file.
  if (!write_all(file.get(), content) || ::fsync(file.get()) != 0 ||
      ::rename(fresh.c_str(), path.c_str()) != 0) {
    const int reason = errno;
    ::unlink(fresh.c_str());
    errno = reason;
    return false;
  }
  // The new name, too, is to be on the disk when this returns.
  const UniqueFd directory(
      ::open(path.substr(0, path.rfind('/') + 1).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (directory) ::fsync(directory.get());
  return true;
}

}  // namespace msgsvr
