#include "msgsvr/hand_over.h"

#include <fcntl.h>
#include <sys/random.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string_view>
#include <utility>

#include "common/log_line.h"
#include "common/unique_fd.h"
#include "msgsvr/wire.h"

namespace msgsvr {
namespace {

bool is_of(const struct stat &file, uid_t sender) {
  return S_ISREG(file.st_mode) && (sender == 0 || file.st_uid == sender);
}

// Null unless the body is the path of a file directly in the directory for such files.
const char *checked_path(std::span<const char> body) {
  const size_t size = std::min<size_t>(body.size(), ORP_MSG_HAND_OVER_PATH_SIZE);
  const void *end = size == 0 ? nullptr : std::memchr(body.data(), 0, size);
  if (end == nullptr) return nullptr;
  const std::string_view path(body.data());
  constexpr std::string_view kPrefix = ORP_MSG_HAND_OVER_PREFIX;
  if (!path.starts_with(kPrefix) || path.size() == kPrefix.size()) return nullptr;
  if (path.find('/', kPrefix.size()) != std::string_view::npos) return nullptr;
  return body.data();
}

std::string path_of(uint32_t number) {
  return ORP_MSG_HAND_OVER_PREFIX + std::to_string(number);
}

// Receivers run as other users and read by the bit for others; the mode is the library's.
constexpr mode_t kFileMode = 01204;
// The mode of a file that was given to its receiver.
constexpr mode_t kFileModeOfReceiver = 0600;

// Random, and not 0; 0 when there is no randomness.
uint32_t fresh_number() {
  uint32_t number = 0;
  while (number == 0) {
    if (::getrandom(&number, sizeof number, 0) != sizeof number) return 0;
  }
  return number;
}

// Whether the receiver must own the file, and the server can give it. An ordinary user removes only
// its own files from a sticky directory, and the mode 01204 lets a file's own user and group not
// read it, only others.
bool must_own(uid_t receiver) {
  return receiver != kUnknownUser && receiver != 0 && ::geteuid() == 0;
}

// A path that leads to the open file whatever its name is now (proc(5), /proc/PID/fd).
std::string path_by_descriptor(const servers::UniqueFd &file) {
  return "/proc/self/fd/" + std::to_string(file.get());
}

// The bits for others are removed first, so that the former owner cannot open the file to more
// users. When the owner cannot be changed, the receiver reads the file as one of the others, as
// before.
void give(const servers::UniqueFd &file, uid_t receiver) {
  const std::string path = path_by_descriptor(file);
  if (::chmod(path.c_str(), kFileModeOfReceiver) != 0) return;
  if (::fchownat(file.get(), "", receiver, static_cast<gid_t>(-1), AT_EMPTY_PATH) == 0) return;
  // The server has lost the right to, or never had it: each file would say the same.
  static bool told = false;
  if (!std::exchange(told, true)) {
    servers::log_line("hand-over files stay their senders', because they cannot be given away: {}",
                      std::strerror(errno));
  }
  ::chmod(path.c_str(), kFileMode);
}

uint32_t copy_for(const servers::UniqueFd &file, off_t size, uid_t receiver) {
  // No application is given a longer body. The copy takes real memory, while the publisher's file
  // may be all holes.
  if (size > off_t{ORP_MSG_MAX_DISPATCHED_BODY}) {
    errno = EFBIG;
    return 0;
  }
  uint32_t number = 0;
  const servers::UniqueFd copy = create_hand_over(&number);
  if (!copy) return 0;
  off_t at = 0;
  while (at < size) {
    const ssize_t count = ::sendfile(copy.get(), file.get(), &at, static_cast<size_t>(size - at));
    if (count < 0 && errno == EINTR) continue;
    if (count > 0) continue;
    const int reason = count == 0 ? EIO : errno;  // it has become shorter
    remove_hand_over(number);
    errno = reason;
    return 0;
  }
  give(copy, receiver);
  return number;
}

}  // namespace

std::optional<std::string> hand_over_path(std::span<const char> body) {
  const char *path = checked_path(body);
  if (path == nullptr) return std::nullopt;
  return path;
}

servers::UniqueFd open_hand_over(const std::string &path, uid_t sender) {
  servers::UniqueFd file(
      ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY));
  struct stat status {};
  if (!file || ::fstat(file.get(), &status) != 0) return {};
  if (!S_ISREG(status.st_mode) || (sender != kUnknownUser && !is_of(status, sender))) return {};
  return file;
}

bool pass_hand_over(std::span<const char> body, uid_t sender, uid_t receiver) {
  // The receiver refuses any other path.
  const char *path = checked_path(body);
  if (path == nullptr || sender == kUnknownUser) return true;
  const servers::UniqueFd file(::open(path, O_PATH | O_CLOEXEC | O_NOFOLLOW));
  // When there is no such file, the receiver sees that. Without free descriptors nobody knows whose
  // file it is, so the message is refused.
  if (!file) return errno != EMFILE && errno != ENFILE && errno != ENOMEM;
  struct stat status {};
  if (::fstat(file.get(), &status) != 0) return false;
  if (sender != 0 && !is_of(status, sender)) return false;
  if (S_ISREG(status.st_mode) && must_own(receiver)) give(file, receiver);
  return true;
}

void give_hand_over(uint32_t number, uid_t receiver) {
  if (!must_own(receiver)) return;
  const servers::UniqueFd file(::open(path_of(number).c_str(), O_PATH | O_CLOEXEC | O_NOFOLLOW));
  if (file) give(file, receiver);
}

void remove_sent_file(std::span<const char> frame, bool swapped, uid_t sender,
                      uid_t receiver) noexcept {
  if (frame.size() < kHeaderSize || sender == kUnknownUser) return;
  if ((load_header(frame.data(), swapped).ulMsgType & ORP_MSG_TYPE_BODY_IN_FILE) == 0) return;
  const char *path = checked_path(frame.subspan(kHeaderSize));
  struct stat status {};
  if (path == nullptr || ::lstat(path, &status) != 0 || !S_ISREG(status.st_mode)) return;
  if (is_of(status, sender) || status.st_uid == receiver) ::unlink(path);
}

bool read_hand_over(std::span<const char> body, size_t limit, uid_t sender, std::string *out) {
  const std::optional<std::string> path = hand_over_path(body);
  if (!path) return false;
  const servers::UniqueFd file(
      ::open(path->c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
  struct stat status {};
  if (!file || ::fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) return false;
  if (sender != kUnknownUser && !is_of(status, sender)) return false;
  ::unlink(path->c_str());
  if (static_cast<uint64_t>(status.st_size) > limit) return false;

  out->resize(static_cast<size_t>(status.st_size));
  size_t have = 0;
  while (have < out->size()) {
    const ssize_t count = ::read(file.get(), out->data() + have, out->size() - have);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return false;
    have += static_cast<size_t>(count);
  }
  return true;
}

servers::UniqueFd create_hand_over(uint32_t *number) {
  while (const uint32_t fresh = fresh_number()) {
    servers::UniqueFd file(
        ::open(path_of(fresh).c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (file && ::fchmod(file.get(), kFileMode) == 0) {
      *number = fresh;
      return file;
    }
    const int reason = errno;
    if (file) ::unlink(path_of(fresh).c_str());
    if (reason != EEXIST) {
      errno = reason;
      break;
    }
  }
  return {};
}

uint32_t share_hand_over(const servers::UniqueFd &file, uid_t receiver) {
  struct stat status {};
  if (::fstat(file.get(), &status) != 0) return 0;
  if (must_own(receiver)) return copy_for(file, status.st_size, receiver);
  const std::string path = path_by_descriptor(file);
  while (const uint32_t number = fresh_number()) {
    if (::linkat(AT_FDCWD, path.c_str(), AT_FDCWD, path_of(number).c_str(), AT_SYMLINK_FOLLOW) ==
        0) {
      return number;
    }
    if (errno != EEXIST) return 0;
  }
  return 0;
}

std::array<char, ORP_MSG_HAND_OVER_PATH_SIZE> hand_over_body(uint32_t number) {
  std::array<char, ORP_MSG_HAND_OVER_PATH_SIZE> body{};
  path_of(number).copy(body.data(), body.size() - 1);
  return body;
}

void remove_hand_over(uint32_t number) {
  ::unlink(path_of(number).c_str());
}

}  // namespace msgsvr
