// A ring file that is found on the disk in any state and then written to, beside a model of the
// ring.
//
// Input: two bytes of size limit, one byte of content length, the content; then a byte for each
// write, its size (0 means: close the file and open it again).

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>

#include "base/bytes.h"
#include "msgapi/ringlog.h"

namespace {

constexpr size_t kHeaderSize = MLOG_FILE_HEADER_SIZE;

void require(bool holds) {
  if (!holds) std::abort();
}

struct Setup {
  Setup() {
    path = "/dev/shm/ring_file_fuzz." + std::to_string(::getpid());
    std::atexit([] { ::unlink(path.c_str()); });
    // Without the diagnostics of damaged headers.
    require(std::freopen("/dev/null", "w", stdout) != nullptr);
  }
  static inline std::string path;
};

std::string content() {
  std::ifstream file(Setup::path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

std::string header_of(const MlogFile &file) {
  char header[80];
  std::snprintf(header, sizeof header,
                "[overturn=%03ld][offset=%010ld][uploadoffset=%03ld^%010ld]\n", file.overturn,
                file.offset, file.overturn, file.uploadOffset);
  return header;
}

// The file as it must be.
struct Model {
  std::string bytes;
  long offset;
  long overturn;

  void write(const std::string &data, size_t limit) {
    if (static_cast<size_t>(offset) + data.size() > limit) {
      offset = kHeaderSize;
      ++overturn;
    }
    const size_t end = static_cast<size_t>(offset) + data.size();
    if (bytes.size() < end) bytes.resize(end);
    bytes.replace(static_cast<size_t>(offset), data.size(), data);
    offset = static_cast<long>(end);
  }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static const Setup setup;
  if (size < 3) return 0;
  const uint32_t limit = msgapi::load<uint16_t>(data) % 600;
  const size_t content_size = std::min<size_t>(data[2], size - 3);
  data += 3;
  size -= 3;
  {
    std::ofstream file(Setup::path, std::ios::binary | std::ios::trunc);
    file.write(reinterpret_cast<const char *>(data), static_cast<std::streamsize>(content_size));
  }
  const std::string before = content();
  data += content_size;
  size -= content_size;

  MlogTarget target{limit, MlogFileConstructor(Setup::path.c_str(), limit)};
  require((target.file != nullptr) == (limit > 0));
  if (target.file == nullptr) return 0;
  require(target.file->offset >= long{kHeaderSize} && target.file->overturn >= 0 &&
          target.file->overturn <= 999 && target.file->uploadOffset == MLOG_NEW_FILE_FLAG);
  Model model{content(), target.file->offset, target.file->overturn};
  // The file either goes on as it was, or is an empty ring.
  require(model.bytes == before ||
          (model.bytes == header_of(*target.file) && model.offset == long{kHeaderSize}));

  for (size_t i = 0; i < size; ++i) {
    if (data[i] == 0) {
      MlogFileDestructor(target.file);
      target.file = MlogFileConstructor(Setup::path.c_str(), limit);
      require(target.file != nullptr);
      if (content() != model.bytes || target.file->offset != model.offset ||
          target.file->overturn != model.overturn) {
        // The ring may begin anew only when its numbers no longer fit the header, or when the limit
        // has no room for a header.
        require(model.overturn > 999 || limit < kHeaderSize);
        model = {content(), target.file->offset, target.file->overturn};
      }
      continue;
    }
    std::string bytes(data[i], static_cast<char>('a' + i % 26));
    const bool must_fit = bytes.size() + kHeaderSize <= limit;
    require(MlogFileWrite(&target, bytes.data(), data[i]) == (must_fit ? 0 : -1));
    if (!must_fit) continue;
    model.write(bytes, limit);
    if (model.overturn <= 999) {
      model.bytes.replace(0, kHeaderSize, header_of(*target.file));
    }
    require(content() == model.bytes && target.file->offset == model.offset &&
            target.file->overturn == model.overturn && model.bytes.size() <= limit);
  }
  MlogFileDestructor(target.file);
  return 0;
}
