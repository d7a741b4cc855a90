#include "store.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "common/log_line.h"
#include "line.h"

namespace mlogserver {

void Store::append(std::string_view line) {
  LineHead head{};
  const int fd = file_of(parse_line_head(line, &head) ? std::string(head.module) : "other");
  while (fd >= 0 && !line.empty()) {
    const ssize_t written = ::write(fd, line.data(), line.size());
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) {
      servers::log_line("a line is lost: {}", std::strerror(errno));
      return;
    }
    line.remove_prefix(static_cast<size_t>(written));
  }
}

bool Store::sync() {
  bool synced = true;
  for (const auto &[module, fd] : files_) synced = ::fdatasync(fd.get()) == 0 && synced;
  return synced;
}

int Store::file_of(const std::string &module) {
  if (const auto known = files_.find(module); known != files_.end()) return known->second.get();

  std::error_code ignored;
  std::filesystem::create_directories(directory_, ignored);
  const std::string path = directory_ + "/" + module + ".log";
  servers::UniqueFd fd(
      ::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0640));
  if (!fd) {
    servers::log_line("{}: {}", path, std::strerror(errno));
    return -1;
  }
  return files_.emplace(module, std::move(fd)).first->second.get();
}

}  // namespace mlogserver
