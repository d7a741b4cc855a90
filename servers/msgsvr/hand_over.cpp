#include "msgsvr/hand_over.h"

#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string_view>

#include "common/unique_fd.h"
#include "msgsvr/wire.h"

namespace msgsvr {
namespace {

constexpr uid_t kUnknown = static_cast<uid_t>(-1);

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

// Random, and not 0; 0 when there is no randomness.
uint32_t fresh_number() {
  uint32_t number = 0;
  while (number == 0) {
    if (::getrandom(&number, sizeof number, 0) != sizeof number) return 0;
  }
  return number;
}

}  // namespace

std::optional<std::string> hand_over_path(std::span<const char> body) {
  const char *path = checked_path(body);
  if (path == nullptr) return std::nullopt;
  return path;
}

bool may_hand_over(const std::string &path, uid_t sender) {
  struct stat status {};
  return ::lstat(path.c_str(), &status) == 0 && (sender == kUnknown || is_of(status, sender));
}

void remove_sent_file(std::span<const char> frame, bool swapped, uid_t sender) noexcept {
  if (frame.size() < kHeaderSize || sender == kUnknown) return;
  if ((load_header(frame.data(), swapped).ulMsgType & ORP_MSG_TYPE_BODY_IN_FILE) == 0) return;
  const char *path = checked_path(frame.subspan(kHeaderSize));
  struct stat status {};
  if (path != nullptr && ::lstat(path, &status) == 0 && is_of(status, sender)) ::unlink(path);
}

bool read_hand_over(std::span<const char> body, size_t limit, uid_t sender, std::string *out) {
  const std::optional<std::string> path = hand_over_path(body);
  if (!path) return false;
  const servers::UniqueFd file(
      ::open(path->c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
  struct stat status {};
  if (!file || ::fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode)) return false;
  if (sender != kUnknown && !is_of(status, sender)) return false;
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

uint32_t link_hand_over(const std::string &path) {
  struct stat status {};
  if (::lstat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) return 0;
  while (const uint32_t number = fresh_number()) {
    if (::link(path.c_str(), path_of(number).c_str()) == 0) return number;
    if (errno != EEXIST) return 0;
  }
  return 0;
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

std::array<char, ORP_MSG_HAND_OVER_PATH_SIZE> hand_over_body(uint32_t number) {
  std::array<char, ORP_MSG_HAND_OVER_PATH_SIZE> body{};
  path_of(number).copy(body.data(), body.size() - 1);
  return body;
}

void remove_hand_over(uint32_t number) {
  ::unlink(path_of(number).c_str());
}

}  // namespace msgsvr
