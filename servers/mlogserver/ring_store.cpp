// A failure to write is reported once, a full disk once for all files. Nothing is tried for a
// second then, and on a full disk not before there is room again. What is lost meanwhile is
// counted, and each module's file gets a line that says how many of its lines are missing.

#include "ring_store.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "common/log_line.h"
#include "common/unique_fd.h"
#include "line.h"

namespace mlogserver {
namespace {

using std::chrono::steady_clock;

constexpr const char *kOther = "other";
constexpr std::chrono::seconds kRetryAfter(1);
// What must be free before writing is tried again.
constexpr uint64_t kRoom = 65536;

std::string notice(const std::string &module, uint64_t lost) {
  timespec now{};
  ::clock_gettime(CLOCK_BOOTTIME, &now);
  return fmt::format("[{:011}][{}][WARN]:mlogserver: {} lines before this one are lost\n",
                     int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000, module, lost);
}

}  // namespace

RingStore::RingStore(Config config) {
  reconfigure(std::move(config));
}

void RingStore::reconfigure(Config config) {
  rings_.clear();
  config_ = std::move(config);
  directory_ = MlogUseSharePartion() != 0 ? config_.share_directory : config_.directory;
  disk_full_ = {};
}

std::string RingStore::file_name_of(std::string_view module) {
  std::string name(module);
  if (!config_.modules.empty()) return config_.modules.count(name) > 0 ? name : kOther;
  const bool fits = rings_.count(name) > 0 || rings_.size() < config_.max_modules;
  return fits ? name : kOther;
}

void RingStore::append(std::span<char> line) {
  LineHead head{};
  const bool parsed = parse_line_head({line.data(), line.size()}, &head);
  const std::string module = parsed ? file_name_of(head.module) : kOther;
  ModuleCounters &counters = counters_[module];
  // The levels are bits, the more important the lower; "NONE" is 0.
  if (parsed && head.level > config_.limits_of(std::string(head.module)).level) {
    ++counters.below_level;
    return;
  }

  Ring &ring = rings_[module];
  const auto may_try = [](const Outage &outage) {
    return !outage.active || steady_clock::now() >= outage.next_attempt;
  };
  bool written = may_try(disk_full_) && may_try(ring.outage) && disk_has_room() &&
                 (ring.file != nullptr || open(module, &ring));
  if (written && ring.lost > 0) {
    std::string text = notice(module, ring.lost);
    written = write(&ring, text);
    if (written) ring.lost = 0;
  }
  if (written && write(&ring, line)) {
    ++counters.kept;
  } else {
    ++counters.lost;
    ++ring.lost;
    complete_ = false;
  }
}

bool RingStore::sync() {
  bool synced = complete_;
  complete_ = true;
  for (auto &[module, ring] : rings_) {
    if (!ring.dirty || ring.file == nullptr) continue;
    synced = ::fsync(::fileno(ring.file->stream)) == 0 && synced;
    ring.dirty = false;
  }
  if (new_files_) {
    const servers::UniqueFd fd(::open(directory_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    synced = ::fsync(fd.get()) == 0 && synced;
    new_files_ = false;
  }
  return synced;
}

bool RingStore::open(const std::string &module, Ring *ring) {
  std::error_code error;
  std::filesystem::create_directories(directory_, error);
  ring->path = directory_ + "/" + module + ".log";
  ring->max_size = config_.limits_of(module).max_size;
  errno = 0;
  ring->file.reset(MlogFileConstructor(ring->path.c_str(), ring->max_size));
  if (ring->file == nullptr) {
    report_failure(ring);
    return false;
  }
  ::fchmod(::fileno(ring->file->stream), 0640);
  new_files_ = true;
  return true;
}

bool RingStore::write(Ring *ring, std::span<char> line) {
  MlogFile &file = *ring->file;
  MlogTarget target{ring->max_size, &file};
  // The header has three digits for the count of overturns: behind 999 it goes on with 1.
  const size_t end = static_cast<size_t>(file.offset) + line.size();
  if (file.overturn >= 999 && end > ring->max_size) file.overturn = 0;
  errno = 0;
  if (MlogFileWrite(&target, line.data(), static_cast<uint32_t>(line.size())) != 0 ||
      std::ferror(file.stream) != 0) {
    report_failure(ring);
    // Opened anew, the file goes on behind what its header holds.
    ring->file.reset();
    return false;
  }
  ring->dirty = true;
  if (ring->outage.active || disk_full_.active) report_success(ring);
  return true;
}

bool RingStore::disk_has_room() const {
  if (!disk_full_.active) return true;
  struct statvfs disk {};
  return ::statvfs(directory_.c_str(), &disk) != 0 ||
         uint64_t{disk.f_bavail} * disk.f_frsize >= kRoom;
}

void RingStore::report_failure(Ring *ring) {
  const int reason = errno;
  Outage &outage = reason == ENOSPC || reason == EDQUOT ? disk_full_ : ring->outage;
  if (!outage.active) {
    servers::log_line("{}: {}: lines are lost from now on", ring->path,
                      reason != 0 ? std::strerror(reason) : "cannot be used as a log file");
  }
  outage = {true, steady_clock::now() + kRetryAfter};
}

void RingStore::report_success(Ring *ring) {
  servers::log_line("{}: lines are written again", ring->path);
  ring->outage = {};
  disk_full_ = {};
}

}  // namespace mlogserver
