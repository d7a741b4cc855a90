#include "common/whole_file.h"

#include <fcntl.h>
#include <fmt/core.h>
#include <sys/random.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>

#include "common/unique_fd.h"
#include "common/write_all.h"

namespace servers {
namespace {

// `fresh` must not exist.
bool replace(int directory, const std::string &fresh, const std::string &name,
             std::span<const char> content) {
  const UniqueFd file(::openat(directory, fresh.c_str(),
                               O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
  if (!file) return false;
  // The content must be on the disk before the name is, or a loss of power leaves an empty file.
  if (!write_all(file.get(), content) || ::fsync(file.get()) != 0 ||
      ::renameat(directory, fresh.c_str(), directory, name.c_str()) != 0) {
    const int reason = errno;
    ::unlinkat(directory, fresh.c_str(), 0);
    errno = reason;
    return false;
  }
  // The new name must be on the disk, too, when this returns (fsync(2)).
  ::fsync(directory);
  return true;
}

}  // namespace

bool replace_file(const std::string &path, std::span<const char> content) {
  const size_t slash = path.rfind('/');
  const std::string parent = slash == std::string::npos ? "." : path.substr(0, slash + 1);
  const std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
  const UniqueFd directory(::open(parent.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!directory) return false;
  // A file that a killed process left, or that somebody else put there, is not written to.
  ::unlinkat(directory.get(), (name + ".new").c_str(), 0);
  return replace(directory.get(), name + ".new", name, content);
}

bool replace_file_in(int directory, const std::string &name, std::span<const char> content) {
  uint64_t number;
  if (::getrandom(&number, sizeof number, 0) != sizeof number) return false;
  return replace(directory, fmt::format(".{:016x}.new", number), name, content);
}

}  // namespace servers
