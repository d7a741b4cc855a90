// Hand-over files.
//
// Applications that do not trust each other may share the directory. So the sender creates a file
// exclusively. The receiver opens it once, at the resolved path that was checked, without following
// a link, and does everything else on that descriptor. A path may also be a link from anywhere to a
// file in the directory; removing it then removes the link.

#include "msg/hand_over.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>
#if __has_include(<linux/openat2.h>)
#include <linux/openat2.h>
#endif

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <string_view>
#include <utility>

#include "base/copy_failure.h"
#include "log/client.h"
#include "orputil.h"
#include "os/fd.h"
#include "util/path/validate_path.h"

namespace msgapi::msg {
namespace {

// Decimal, that is octal 01204: long-standing, and receivers of other users depend on the read bit.
constexpr mode_t kFileMode = 644;

constexpr int kMaxCollisions = 100;

bool write_all(int fd, const char *data, size_t size) {
  while (size > 0) {
    const ssize_t written = ::write(fd, data, size);
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return false;
    data += written;
    size -= static_cast<size_t>(written);
  }
  return true;
}

// Creates a file under a fresh number.
os::UniqueFd create_file(HandOverPath *path) {
  for (int collisions = 0; collisions < kMaxCollisions; ++collisions) {
    *path = {};  // the path travels zero-filled, whatever number was tried before
    uint32_t number;
    if (ORP_UTIL_GetRandomNumber(&number) != 0) break;
    format_cut(path->text, ORP_MSG_HAND_OVER_PREFIX "%u", number);

    os::UniqueFd file(::open(path->text, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                             S_IRUSR | S_IWUSR));
    if (file || errno != EEXIST) return file;
  }
  return os::UniqueFd();
}

bool write_file(const Header &message, HandOverPath *path) {
  os::UniqueFd file = create_file(path);
  if (!file) return false;

  if (write_all(file.get(), body(&message), message.ulDataLen) &&
      ::fchmod(file.get(), kFileMode) == 0 && ::close(file.release()) == 0) {
    return true;
  }
  ::unlink(path->text);
  return false;
}

constexpr std::string_view kDirectory = "/var/run/msg/";

constexpr int kReadFlags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
constexpr int kDirectoryFlags = O_PATH | O_DIRECTORY | O_CLOEXEC;

// Opens a path of the form that senders write, unless a part of it is a link; such a path is its
// own resolved form. One step, openat2(2), where the kernel has it (5.6). Nothing when the kernel
// cannot tell.
os::UniqueFd open_plain(const char *path) {
#ifdef RESOLVE_NO_SYMLINKS
  if (begins_with(path, ORP_MSG_HAND_OVER_PREFIX) &&
      std::strchr(path + kDirectory.size(), '/') == nullptr) {
    open_how how = {};
    how.flags = kReadFlags;
    how.resolve = RESOLVE_NO_SYMLINKS;
    return os::UniqueFd(static_cast<int>(::syscall(SYS_openat2, AT_FDCWD, path, &how, sizeof how)));
  }
#endif
  (void)path;
  return os::UniqueFd();
}

// Opens a resolved path below the directory, one part after another, following no link: a part may
// have been replaced with a link since the path was resolved.
os::UniqueFd open_resolved(std::string_view path) {
  os::UniqueFd place(::open(kDirectory.data(), kDirectoryFlags));
  path.remove_prefix(kDirectory.size());
  while (place && path.data() != nullptr) {
    char part[NAME_MAX + 1];
    copy_cut(part, cut_piece(&path, '/'));
    const int flags = path.data() == nullptr ? kReadFlags : kDirectoryFlags | O_NOFOLLOW;
    place = os::UniqueFd(::openat(place.get(), part, flags));
  }
  return place;
}

// The name that a message gives for its file, and the directory of that name, held open because the
// path to it may change.
struct Named {
  os::UniqueFd directory;
  const char *name = nullptr;
};

Named open_parent(char *path) {
  char *slash = std::strrchr(path, '/');
  if (slash == nullptr) return {os::UniqueFd(::open(".", kDirectoryFlags)), path};

  // The parent's path keeps its slash: it may be the root.
  const char kept = std::exchange(slash[1], '\0');
  Named named{os::UniqueFd(::open(path, kDirectoryFlags)), slash + 1};
  slash[1] = kept;
  return named;
}

// The file with the body, open, and the name to remove.
struct BodyFile {
  char path[ORP_MSG_HAND_OVER_PATH_SIZE];
  os::UniqueFd fd;
  struct stat info;
  Named named;
  const char *refusal = nullptr;  // why it is refused, where errno does not say it
};

Status open_body_file(const Header &message, BodyFile *file) {
  const size_t size = std::min<size_t>(message.ulDataLen, sizeof file->path);
  if (!copy_or_report(file->path, field_text({body(&message), size}))) {
    file->refusal = "path without an end";
    return Status::kBadArgument;
  }

  file->fd = open_plain(file->path);
  if (!file->fd) {
    path::Resolved place;
    if (!path::validate(file->path, path::kHandOverType, &place)) {
      if (::access(file->path, F_OK) == 0) file->refusal = "not a place of body files";
      return Status::kBadArgument;
    }
    file->named = open_parent(file->path);
    file->fd = open_resolved(place.text);
  }

  if (!file->fd || ::fstat(file->fd.get(), &file->info) != 0) return Status::kSystem;
  if (!S_ISREG(file->info.st_mode)) {
    file->refusal = "not a regular file";
    return Status::kSystem;
  }
  return Status::kOk;
}

// Removes what the message names; if that is a link, the link. Only while the name leads to the
// file that was opened, so that nobody can make us remove another file.
int remove_named(const BodyFile &file) {
  const int directory = file.named.directory.get();
  if (file.named.name == nullptr) return ::unlink(file.path);
  struct stat now;
  if (::fstatat(directory, file.named.name, &now, 0) != 0) return -1;
  if (now.st_dev != file.info.st_dev || now.st_ino != file.info.st_ino) {
    errno = ESTALE;
    return -1;
  }
  return ::unlinkat(directory, file.named.name, 0);
}

// Path and sender come from outside, so control characters are shown as "?". The path comes last
// because the log cuts long lines.
void log_failure(const char *what, int error, const Header &message, const BodyFile &file) {
  char path[sizeof file.path];
  char from[ORP_APP_NAME_SIZE];
  copy_printable(path, file.path);
  copy_printable(from, sender(message));
  log::print("msg", MLOG_LEVEL_ERROR, "Body file of msg:[0x%x] src:[%s] %s: %s (errno %d): %s\n",
             message.ulMsgType, from, what,
             file.refusal != nullptr ? file.refusal : std::strerror(error), error, path);
}

void remove_body_file(const Header &message, const BodyFile &file) {
  if (remove_named(file) == 0 || errno == ENOENT) return;
  log_failure("cannot be removed and stays", errno, message, file);
}

// Reads up to `size` bytes, fewer if the file has become shorter. -1 on failure.
ssize_t read_up_to(int fd, char *out, size_t size) {
  size_t done = 0;
  while (done < size) {
    const ssize_t count = ::read(fd, out + done, size - done);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return -1;
    if (count == 0) break;
    done += static_cast<size_t>(count);
  }
  return static_cast<ssize_t>(done);
}

Status take_over(Header **message, BodyFile *file) {
  const Status opened = open_body_file(**message, file);
  if (opened != Status::kOk) return opened;
  const auto size = static_cast<uint64_t>(file->info.st_size);
  if (size > ORP_MSG_MAX_BODY) {
    remove_body_file(**message, *file);
    file->refusal = "too long";
    return Status::kBadArgument;
  }

  // The file is read straight into the message: a second buffer would double a large body's cost.
  void *grown = grow(*message, block_size(**message), ORP_MSG_HEADER_SIZE + size + kZeroTail,
                     __func__, __LINE__);
  if (grown == nullptr) {
    remove_body_file(**message, *file);
    file->refusal = "no memory";
    return Status::kNoMemory;
  }
  *message = static_cast<Header *>(grown);

  const ssize_t count = read_up_to(file->fd.get(), body(*message), static_cast<size_t>(size));
  if (count < 0) return Status::kSystem;
  remove_body_file(**message, *file);

  (*message)->ulDataLen = static_cast<uint32_t>(count);
  std::memset(body(*message) + count, 0, kZeroTail);
  return Status::kOk;
}

}  // namespace

Result<HandOverPath> store_body(const Header &message) {
  HandOverPath path;
  if (write_file(message, &path)) return path;

  std::printf("\n----------------msg write file failed--------------------");
  return Status::kNoHandOver;
}

Status complete_hand_over(Header **message) {
  if (message == nullptr || *message == nullptr) return Status::kBadArgument;
  BodyFile file;
  const Status status = take_over(message, &file);
  if (status != Status::kOk) {
    log_failure("cannot be read, the message is dropped", file.refusal == nullptr ? errno : 0,
                **message, file);
  }
  if (status == Status::kNoMemory) {
    std::free(*message);
    *message = nullptr;
  }
  return status;
}

}  // namespace msgapi::msg
