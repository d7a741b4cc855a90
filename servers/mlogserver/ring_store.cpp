// A failure to write is reported once, a full disk once for all files. Then nothing is tried for a
// second, or on a full disk until there is room again. Lines that are lost meanwhile are counted,
// and each module's file gets a line that says how many of its lines are missing. What a failed
// write has changed in the file is put back, so that no torn line and no hole stays.

#include "ring_store.h"

#include <fcntl.h>
#include <fmt/core.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>
#include <filesystem>
#include <utility>

#include "common/unique_fd.h"
#include "line.h"
#include "say.h"

namespace mlogserver {
namespace {

using std::chrono::steady_clock;

constexpr const char *kOther = "other";
constexpr std::chrono::seconds kRetryAfter(1);
// Bytes that must be free before writing is tried again.
constexpr uint64_t kRoom = 65536;

constexpr size_t kMaxLevels = 256;

// A line of the server's own in a module's file.
std::string notice(const std::string &module, const std::string &text) {
  timespec now{};
  ::clock_gettime(CLOCK_BOOTTIME, &now);
  return fmt::format("[{:011}][{}][WARN]:mlogserver: {}\n",
                     int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000, module, text);
}

const char *describe(int reason) {
  return reason != 0 ? std::strerror(reason) : "cannot be used as a log file";
}

}  // namespace

RingStore::RingStore(Config config) {
  reconfigure(std::move(config));
}

void RingStore::reconfigure(Config config) {
  tell_dropped(true);
  std::string directory = MlogUseSharePartion() != 0 ? config.share_directory : config.directory;
  std::map<std::string, Ring> rings;
  for (const auto &[module, ring] : rings_) {
    if (ring.lost == 0 && ring.dropped == 0) continue;
    const bool has_file = config.modules.empty() || config.modules.count(module) > 0;
    Ring &next = rings[has_file ? module : kOther];
    next.lost += ring.lost;
    next.dropped += ring.dropped;
  }

  complete_ = sync_files() && complete_;
  rings_ = std::move(rings);
  config_ = std::move(config);
  directory_ = std::move(directory);
  disk_full_ = {};
}

std::string RingStore::file_name_of(std::string_view module) {
  std::string name(module);
  if (!config_.modules.empty()) return config_.modules.count(name) > 0 ? name : kOther;
  const bool fits = rings_.count(name) > 0 || rings_.size() < config_.max_modules;
  return fits ? name : kOther;
}

void RingStore::append(std::string *line, pid_t sender) noexcept {
  try {
    append_line(line, sender);
    giving_up_ = false;
  } catch (const std::exception &error) {
    ++given_up_;
    complete_ = false;
    if (!std::exchange(giving_up_, true)) say("lines are given up: no memory");
  }
}

void RingStore::append_line(std::string *line, pid_t sender) {
  LineHead head{};
  const bool parsed = parse_line_head(*line, &head);
  const std::string name(parsed ? head.module : kOther);
  // The levels are bits, the more important the lower; "NONE" is 0.
  if (parsed && head.level > level_of(name)) {
    // Only modules with a file are counted by name, because anybody can invent names.
    ++counters_[rings_.count(name) > 0 ? name : kOther].below_level;
    return;
  }
  if (config_.sender_pids) {
    // In either place no sender can write such a thing for another one.
    if (parsed) {
      line->insert(head.end, fmt::format("[{}]", sender));
    } else {
      line->insert(0, fmt::format("from {}: ", sender));
    }
  }

  const std::string module = parsed ? file_name_of(name) : kOther;
  ModuleCounters &counters = counters_[module];
  Ring &ring = rings_[module];
  const ModuleLimits &limits = config_.limits_of(name);
  if (!is_within_limit(limits, module, &ring)) {
    ++counters.dropped;
    ++ring.dropped;
    return;
  }
  bool written = ready(module, &ring);
  if (written && ring.lost > 0) {
    std::string text = notice(module, fmt::format("{} lines before this one are lost", ring.lost));
    written = write(&ring, text);
    if (written) ring.lost = 0;
  }
  if (written && write(&ring, *line)) {
    ++counters.kept;
  } else {
    ++counters.lost;
    ++ring.lost;
    complete_ = false;
  }
}

bool RingStore::is_within_limit(const ModuleLimits &limits, const std::string &module, Ring *ring) {
  if (limits.rate_limit == 0) return true;
  const steady_clock::time_point now = steady_clock::now();
  if (now >= ring->interval_end) {
    tell_dropped(module, ring);
    ring->interval_end = now + std::chrono::seconds(limits.rate_interval_s);
    ring->interval_lines = 0;
  }
  return ring->interval_lines++ < limits.rate_limit;
}

bool RingStore::tell_dropped(const std::string &module, Ring *ring) {
  if (ring->dropped == 0) return true;
  std::string text = notice(module, fmt::format("{} lines dropped from {}", ring->dropped, module));
  if (!ready(module, ring) || !write(ring, text)) return false;
  ring->dropped = 0;
  return true;
}

void RingStore::tell_dropped(bool all) noexcept {
  const steady_clock::time_point now = steady_clock::now();
  for (auto &[module, ring] : rings_) {
    if (ring.dropped == 0 || (!all && now < ring.interval_end)) continue;
    try {
      if (tell_dropped(module, &ring)) continue;
    } catch (const std::exception &) {
      // A later line reports it.
    }
    ring.interval_end = now + kRetryAfter;
  }
}

std::optional<steady_clock::time_point> RingStore::next_notice() const {
  std::optional<steady_clock::time_point> next;
  for (const auto &[module, ring] : rings_) {
    if (ring.dropped > 0 && (!next || ring.interval_end < *next)) next = ring.interval_end;
  }
  return next;
}

bool RingStore::set_level(std::string_view module, std::optional<uint32_t> level) {
  const auto known = levels_.find(module);
  if (!level) {
    if (known != levels_.end()) levels_.erase(known);
    return true;
  }
  if (known != levels_.end()) {
    known->second = *level;
    return true;
  }
  if (levels_.size() >= kMaxLevels) return false;
  levels_.emplace(module, *level);
  return true;
}

uint32_t RingStore::level_of(std::string_view module) const {
  const auto set = levels_.find(module);
  return set != levels_.end() ? set->second : config_.limits_of(std::string(module)).level;
}

std::string RingStore::state() const {
  if (disk_full_.active) {
    return fmt::format("{}: {}: lines are lost until there is room again", directory_,
                       describe(disk_full_.reason));
  }
  for (const auto &[module, ring] : rings_) {
    if (!ring.outage.active) continue;
    return fmt::format("{}: {}: its lines are lost", ring.path, describe(ring.outage.reason));
  }
  return {};
}

bool RingStore::ready(const std::string &module, Ring *ring) {
  const auto may_try = [](const Outage &outage) {
    return !outage.active || steady_clock::now() >= outage.next_attempt;
  };
  if (!may_try(disk_full_) || !may_try(ring->outage) || !disk_has_room()) return false;
  if (ring->file != nullptr) {
    // Lines that go to a removed file are lost, so look whether it still has a name.
    struct stat status {};
    if (::fstat(::fileno(ring->file->stream), &status) == 0 && status.st_nlink > 0) return true;
    ring->file.reset();
    ring->dirty = false;
  }
  return open(module, ring);
}

bool RingStore::sync() noexcept {
  const bool complete = std::exchange(complete_, true);
  return sync_files() && complete;
}

bool RingStore::sync_files() noexcept {
  bool synced = true;
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
  const int fd = ::fileno(ring->file->stream);
  struct stat status {};
  if (::fstat(fd, &status) != 0) {
    report_failure(ring);
    ring->file.reset();
    return false;
  }
  ring->size = static_cast<size_t>(status.st_size);
  ::fchmod(fd, 0640);
  new_files_ = true;
  return true;
}

bool RingStore::write(Ring *ring, std::span<char> line) {
  const Before before = remember(*ring, line.size());
  MlogFile &file = *ring->file;
  MlogTarget target{ring->max_size, &file};
  // The header has three digits for the count of overturns: after 999 it goes on with 1.
  const size_t end = static_cast<size_t>(file.offset) + line.size();
  if (file.overturn >= 999 && end > ring->max_size) file.overturn = 0;
  errno = 0;
  if (MlogFileWrite(&target, line.data(), static_cast<uint32_t>(line.size())) != 0 ||
      std::ferror(file.stream) != 0) {
    report_failure(ring);
    take_back(*ring, before);
    // Dirty data goes to the disk now: after the file is closed nobody would sync it.
    complete_ = (!ring->dirty || ::fsync(::fileno(file.stream)) == 0) && complete_;
    ring->dirty = false;
    // Opened anew, the file goes on where its header says.
    ring->file.reset();
    return false;
  }
  ring->size = std::max(ring->size, static_cast<size_t>(file.offset));
  ring->dirty = true;
  if (ring->outage.active || disk_full_.active) report_success(ring);
  return true;
}

RingStore::Before RingStore::remember(const Ring &ring, size_t line_size) {
  const MlogFile &file = *ring.file;
  const auto offset = static_cast<size_t>(file.offset);
  const size_t begin = offset + line_size > ring.max_size ? MLOG_FILE_HEADER_SIZE : offset;
  size_t overwritten = 0;
  // In the first turn there is nothing yet where the line goes.
  if (begin < ring.size) {
    const size_t size = std::min({line_size, ring.size - begin, overwritten_.size()});
    const ssize_t got =
        ::pread(::fileno(file.stream), overwritten_.data(), size, static_cast<off_t>(begin));
    if (got > 0) overwritten = static_cast<size_t>(got);
  }
  return {file.overturn, file.offset, ring.size, begin, overwritten};
}

void RingStore::take_back(const Ring &ring, const Before &before) {
  const int fd = ::fileno(ring.file->stream);
  std::array<char, MLOG_FILE_HEADER_SIZE> header;
  fmt::format_to_n(header.data(), header.size(),
                   "[overturn={0:03}][offset={1:010}][uploadoffset={0:03}^{2:010}]\n",
                   before.overturn, before.offset, ring.file->uploadOffset);
  const auto put = [&](const char *bytes, size_t size, size_t at) {
    return ::pwrite(fd, bytes, size, static_cast<off_t>(at)) == static_cast<ssize_t>(size);
  };
  struct stat status {};
  const auto size = static_cast<off_t>(before.size);
  if (!put(header.data(), header.size(), 0) ||
      !put(overwritten_.data(), before.overwritten, before.begin) || ::fstat(fd, &status) != 0 ||
      (status.st_size > size && ::ftruncate(fd, size) != 0)) {
    say("{}: {}: the file may hold a part of a line", ring.path, std::strerror(errno));
  }
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
    say("{}: {}: lines are lost from now on", ring->path, describe(reason));
  }
  outage = {true, reason, steady_clock::now() + kRetryAfter};
}

void RingStore::report_success(Ring *ring) {
  say("{}: lines are written again", ring->path);
  ring->outage = {};
  disk_full_ = {};
}

}  // namespace mlogserver
