// Ring log files.
//
// The stream is unbuffered: a buffer of log data and the header that covers it reach the kernel in
// this order, in one write each. A process that is killed between the two leaves data that its
// header does not mention yet; what the header does mention is always there.

#include "msgapi/ringlog.h"

#include <fcntl.h>
#include <limits.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "base/memory.h"
#include "base/text.h"
#include "log/blur.h"
#include "os/fd.h"
#include "os/file.h"

extern "C" {
constexpr int32_t MLOG_NEW_FILE_FLAG = 1023;
}

namespace msgapi::log {
namespace {

constexpr size_t kHeaderSize = MLOG_FILE_HEADER_SIZE;

static_assert(sizeof(void *) != 4 || sizeof(MlogFile) == 16);

// The numbers appear in a console line.
enum class FileCheck {
  kUsable = 0,
  kNotResolved = 2,
  kNoStatus = 3,
  kNotRegular = 4,
  kAbsent = 5,
  kTooLarge = 6,
};

FileCheck check_file(const char *path, uint32_t max_size) {
  char canonical[PATH_MAX];
  if (::realpath(path, canonical) == nullptr) {
    return errno == ENOENT ? FileCheck::kAbsent : FileCheck::kNotResolved;
  }
  struct stat status {};
  if (::lstat(canonical, &status) != 0) return FileCheck::kNoStatus;
  if (!S_ISREG(status.st_mode)) return FileCheck::kNotRegular;
  return int64_t{status.st_size} > int64_t{max_size} ? FileCheck::kTooLarge : FileCheck::kUsable;
}

os::UniqueFile open_stream(const char *path, const char *mode) {
  os::UniqueFile stream(std::fopen(path, mode));
  if (stream) std::setvbuf(stream.get(), nullptr, _IONBF, 0);
  return stream;
}

bool write_header(const MlogFile &file) {
  if (std::fseek(file.stream, 0, SEEK_SET) != 0) {
    std::printf("[MLOG][ERROR][%d]: seek file header failed\n", __LINE__);
    return false;
  }
  char header[kHeaderSize + 1];
  if (!format_exact(header, "[overturn=%03ld][offset=%010ld][uploadoffset=%03ld^%010ld]\n",
                    file.overturn, file.offset, file.overturn, file.uploadOffset)) {
    return false;
  }
  const size_t size = std::strlen(header);
  if (std::fwrite(header, 1, size, file.stream) != size) {
    std::printf("[MLOG][ERROR][%d]: write file header failed\n", __LINE__);
    return false;
  }
  std::fflush(file.stream);
  return true;
}

// An unreadable header leaves zeroes; no ring is continued with those.
void read_header(MlogFile *file, uint32_t max_size) {
  if (std::fseek(file->stream, 0, SEEK_SET) != 0) {
    std::printf("[MLOG][ERROR][%d]: seek file header failed\n", __LINE__);
  }
  char header[kHeaderSize + 1] = {};
  if (std::fread(header, 1, kHeaderSize, file->stream) < kHeaderSize) {
    std::printf("[MLOG][ERROR][%d]: read log file failed\n", __LINE__);
    return;
  }

  long first_overturn = 0;
  const int numbers =
      std::sscanf(header, "[overturn=%3ld][offset=%10ld][uploadoffset=%3ld^%10ld]\n",
                  &first_overturn, &file->offset, &file->overturn, &file->uploadOffset);
  // The second overturn count replaces the first, if it is there.
  if (numbers < 3) file->overturn = first_overturn;
  if (numbers < 4 || first_overturn < 0 || file->overturn < 0 || file->uploadOffset < 0 ||
      file->offset < long{kHeaderSize} || int64_t{file->offset} > int64_t{max_size}) {
    std::printf("[MLOG][ERROR][%d]: parse file header failed\n", __LINE__);
    file->uploadOffset = 0;
  }
  std::printf("[MLOG][INFO][%d]: overturn = %ld, offset = %ld\n", __LINE__, file->overturn,
              file->offset);
}

bool create_fresh(MlogFile *file, const char *path) {
  os::UniqueFile(file->stream).reset();
  *file = {
      .stream = nullptr, .overturn = 0, .offset = kHeaderSize, .uploadOffset = MLOG_NEW_FILE_FLAG};

  char canonical[PATH_MAX];
  if (::realpath(path, canonical) == nullptr) {
    if (errno != ENOENT) return false;
  } else {
    path = canonical;
  }
  file->stream = open_stream(path, "w+e").release();
  if (file->stream == nullptr) return false;
  if (write_header(*file)) return true;
  os::UniqueFile(std::exchange(file->stream, nullptr)).reset();
  return false;
}

bool open_existing(MlogFile *file, const char *path, uint32_t max_size) {
  char canonical[PATH_MAX];
  if (::realpath(path, canonical) == nullptr) return false;
  file->stream = open_stream(canonical, "r+e").release();
  if (file->stream == nullptr) return false;

  read_header(file, max_size);
  return file->uploadOffset == MLOG_NEW_FILE_FLAG || create_fresh(file, canonical);
}

MlogFile *open_ring(const char *path, uint32_t max_size) {
  const FileCheck check = check_file(path, max_size);
  if (check != FileCheck::kUsable && check != FileCheck::kAbsent && check != FileCheck::kTooLarge) {
    std::printf("[MLOG][ERROR][%d]: check file stat failed, return value is %d\n", __LINE__,
                static_cast<int>(check));
    return nullptr;
  }

  Owned<MlogFile> file = make<MlogFile>();
  if (!file) return nullptr;
  const bool opened = check == FileCheck::kUsable ? open_existing(file.get(), path, max_size)
                                                  : create_fresh(file.get(), path);
  return opened ? file.release() : nullptr;
}

bool write_ring(MlogFile *file, uint32_t max_size, std::span<char> data) {
  blur::blur_log_text(data);

  const auto size = static_cast<int64_t>(data.size());
  if (int64_t{file->offset} + size > int64_t{max_size}) {
    file->offset = kHeaderSize;
    if (__builtin_add_overflow(file->overturn, 1, &file->overturn)) std::abort();
  }
  if (std::fseek(file->stream, file->offset, SEEK_SET) != 0) {
    std::printf("[MLOG][ERROR][%d]: seek file offset failed\n", __LINE__);
    return false;
  }
  // A short write shows in the stream's error flag; the ring goes on in either case.
  const size_t written = std::fwrite(data.data(), 1, data.size(), file->stream);
  static_cast<void>(written);
  file->offset += static_cast<long>(size);

  if (!write_header(*file)) {
    std::printf("[MLOG][ERROR][%d]: rewrite log file header failed\n", __LINE__);
  }
  return true;
}

}  // namespace
}  // namespace msgapi::log

using namespace msgapi;

extern "C" MlogFile *MlogFileConstructor(const char *path, uint32_t maxFileSize) {
  if (path == nullptr || maxFileSize == 0 || maxFileSize > MLOG_FILE_MAX_SIZE) return nullptr;
  return log::open_ring(path, maxFileSize);
}

extern "C" void MlogFileDestructor(MlogFile *file) {
  if (file == nullptr) return;
  os::UniqueFile(file->stream).reset();
  Owned<MlogFile>(file).reset();
}

extern "C" int32_t MlogFileWrite(MlogTarget *target, char *buf, uint32_t size) {
  if (target == nullptr || target->file == nullptr || target->file->stream == nullptr ||
      buf == nullptr || size == 0 ||
      uint64_t{target->maxFileSize} < uint64_t{size} + MLOG_FILE_HEADER_SIZE) {
    return -1;
  }
  return log::write_ring(target->file, target->maxFileSize, {buf, size}) ? 0 : -1;
}

extern "C" int32_t MlogFileOpen(const char *path) {
  char canonical[PATH_MAX];
  if (path == nullptr || ::realpath(path, canonical) == nullptr) return -1;
  return ::open(canonical, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
}

extern "C" void MlogFileClose(int32_t fd) {
  os::UniqueFd(fd).reset();
}
