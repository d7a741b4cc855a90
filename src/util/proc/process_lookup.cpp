// Finding processes by name in /proc.
//
// Processes come and go while /proc is read: what can no longer be opened or read is passed over.

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "base/memory.h"
#include "base/text.h"
#include "msgapi/proc.h"
#include "os/fd.h"

namespace msgapi::proc {
namespace {

constexpr uint32_t kNotFound = 0xFFFFFFFF;
constexpr size_t kNameSize = 240;
constexpr size_t kCommandLine = 237;  // characters that are looked at
constexpr size_t kStatusLine = 125;

struct DirCloser {
  void operator()(DIR *directory) const { ::closedir(directory); }
};
using UniqueDir = std::unique_ptr<DIR, DirCloser>;

UniqueDir open_proc() {
  return UniqueDir(::opendir("/proc"));
}

// The next entry of a process, or null.
const char *next_process(DIR *proc) {
  while (const dirent *entry = ::readdir(proc)) {
    if (entry->d_name[0] >= '0' && entry->d_name[0] <= '9') return entry->d_name;
  }
  return nullptr;
}

uint32_t number_of(const char *process) {
  return static_cast<uint32_t>(std::strtoul(process, nullptr, 10));
}

// The first line of a file in /proc, without the single NULs that separate the arguments of a
// command line, up to the first two NULs in a row.
class Line {
 public:
  // Empty when the file cannot be read.
  Line(const char *path, size_t max_length) {
    const os::UniqueFd file(::open(path, O_RDONLY | O_CLOEXEC));
    if (!file) return;
    char raw[kNameSize] = {};
    size_t size = 0;
    while (size < max_length) {
      const ssize_t count = ::read(file.get(), raw + size, max_length - size);
      if (count < 0 && errno == EINTR) continue;
      if (count <= 0) break;
      size += static_cast<size_t>(count);
    }
    const char *end = std::find(raw, raw + size, '\n');

    char *out = text_;
    for (const char *in = raw; in < end; ++in) {
      if (*in != '\0') {
        *out++ = *in;
      } else if (in[1] == '\0') {
        break;
      }
    }
    *out = '\0';
  }

  bool contains(const char *name) const {
    return text_[0] != '\0' && std::strstr(text_, name) != nullptr;
  }

 private:
  char text_[kNameSize] = {};
};

// Appends to the list, which keeps room for its end.
bool append(Owned<uint32_t> *list, size_t *count, uint32_t pid) {
  const size_t old_size = *count == 0 ? 0 : (*count + 1) * sizeof pid;
  void *grown = grow(list->get(), old_size, (*count + 2) * sizeof pid, "HandlePid", __LINE__);
  if (grown == nullptr) return false;
  (void)list->release();
  list->reset(static_cast<uint32_t *>(grown));
  list->get()[(*count)++] = pid;
  return true;
}

uint32_t *no_match(const char *name) {
  const bool is_init = std::strcmp(name, "init") == 0;
  auto *list = static_cast<uint32_t *>(plain_alloc((is_init ? 2 : 1) * sizeof(uint32_t)));
  if (list == nullptr) return nullptr;
  list[0] = is_init ? 1 : kNotFound;
  if (is_init) list[1] = 0;  // the other form has no end mark, on purpose
  return list;
}

uint32_t *find_processes(const char *name) {
  const UniqueDir proc = open_proc();
  if (!proc) return nullptr;

  Owned<uint32_t> list;
  size_t count = 0;
  while (const char *process = next_process(proc.get())) {
    char path[kNameSize];
    if (!format_exact(path, "/proc/%s/cmdline", process)) continue;
    if (!Line(path, kCommandLine).contains(name)) continue;
    if (!append(&list, &count, number_of(process))) return nullptr;
  }
  if (count == 0) return no_match(name);
  list.get()[count] = 0;
  return list.release();
}

uint32_t find_first(const char *name) {
  char joined[kNameSize];
  const size_t length = std::strlen(name);
  if (length >= sizeof joined) return 0;
  *std::remove_copy(name, name + length, joined, ' ') = '\0';

  const Owned<uint32_t> list(find_processes(joined));
  return list ? *list : 0;
}

uint32_t find_kernel_process(const char *name) {
  const UniqueDir proc = open_proc();
  if (!proc) return kNotFound;

  while (const char *process = next_process(proc.get())) {
    char path[kNameSize];
    if (!format_exact(path, "/proc/%s/status", process)) break;
    if (Line(path, kStatusLine).contains(name)) return number_of(process);
  }
  return kNotFound;
}

}  // namespace
}  // namespace msgapi::proc

using namespace msgapi;
using namespace msgapi::proc;

extern "C" uint32_t *ORP_UTIL_FindPidByName(const char *name) {
  return name == nullptr ? nullptr : find_processes(name);
}

extern "C" uint32_t ORP_UTIL_GetPid(const char *name) {
  return name == nullptr ? 0 : find_first(name);
}

extern "C" uint32_t ORP_UTIL_FindKernelPidByName(const char *name) {
  return name == nullptr ? kNotFound : find_kernel_process(name);
}
