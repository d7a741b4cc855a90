// Whole files and their permissions.

#include "fd.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cstdlib>

#include "orputil.h"

namespace {

using orputil::Fd;

constexpr uint32_t kOk = 0;
constexpr uint32_t kBadArgument = 0x10001;
constexpr uint32_t kNoMemory = 0x10006;
constexpr uint32_t kSystem = 0x10007;

// The size is only a first guess: files of the kernel report 0, others grow while they are read.
constexpr size_t kLeastCapacity = 4096;

struct Buffer {
  char *bytes = nullptr;
  size_t capacity = 0;
  size_t size = 0;

  Buffer() = default;
  Buffer(const Buffer &) = delete;
  Buffer &operator=(const Buffer &) = delete;
  ~Buffer() { std::free(bytes); }

  bool reserve(uint64_t wanted) {
    if (wanted > UINT32_MAX || wanted > SIZE_MAX) return false;
    void *grown = std::realloc(bytes, static_cast<size_t>(wanted));
    if (grown == nullptr) return false;
    bytes = static_cast<char *>(grown);
    capacity = static_cast<size_t>(wanted);
    return true;
  }
};

// Reads to the end of the file; one byte of the buffer always stays free for the NUL.
uint32_t read_all(int fd, Buffer &buffer) {
  for (;;) {
    if (buffer.size + 1 == buffer.capacity && !buffer.reserve(uint64_t{buffer.capacity} * 2)) {
      return kNoMemory;
    }
    const ssize_t count = ::read(fd, buffer.bytes + buffer.size, buffer.capacity - 1 - buffer.size);
    if (count == 0) return kOk;
    if (count < 0 && errno != EINTR) return kSystem;
    if (count > 0) buffer.size += static_cast<size_t>(count);
  }
}

bool write_all(int fd, const char *bytes, size_t size) {
  while (size > 0) {
    const ssize_t count = ::write(fd, bytes, size);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return false;
    bytes += count;
    size -= static_cast<size_t>(count);
  }
  return true;
}

bool parse_mode(const char *text, mode_t *mode) {
  mode_t value = 0;
  const char *at = text;
  for (; *at >= '0' && *at <= '7' && at - text < 4; ++at) {
    value = value << 3 | static_cast<mode_t>(*at - '0');
  }
  *mode = value;
  return at != text && *at == '\0';
}

}  // namespace

extern "C" uint32_t ORP_UTIL_ReadFileToBuf(const char *path, char **out, uint32_t *size) {
  if (path == nullptr || out == nullptr || size == nullptr) return kBadArgument;
  *out = nullptr;
  *size = 0;

  // Without blocking, so that a pipe in the file's place does not hold the caller up.
  const Fd file(::open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  struct stat info;
  if (!file || ::fstat(file.get(), &info) != 0 || !S_ISREG(info.st_mode)) return kSystem;

  Buffer buffer;
  const auto expected = static_cast<uint64_t>(info.st_size);
  if (!buffer.reserve(expected < kLeastCapacity ? kLeastCapacity : expected + 2)) return kNoMemory;
  const uint32_t status = read_all(file.get(), buffer);
  if (status != kOk) return status;

  buffer.bytes[buffer.size] = '\0';
  *size = static_cast<uint32_t>(buffer.size);
  *out = buffer.bytes;
  buffer.bytes = nullptr;
  return kOk;
}

extern "C" uint32_t ORP_UTIL_WriteBufToFile(const char *path, const void *data, uint32_t size) {
  if (path == nullptr || data == nullptr) return kBadArgument;

  Fd file(::open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOCTTY, 0644));
  if (!file || !write_all(file.get(), static_cast<const char *>(data), size)) return kSystem;
  // Some file systems report a full disk only here.
  return ::close(file.release()) == 0 ? kOk : kSystem;
}

extern "C" uint32_t ORP_UTIL_RemoveAndroidWPerm(const char *path, const char * /*mode*/,
                                                const char *mode_for_others) {
  mode_t mode;
  if (path == nullptr || mode_for_others == nullptr || !parse_mode(mode_for_others, &mode))
    return 1;
  return ::chmod(path, mode) == 0 ? 0 : 1;
}
