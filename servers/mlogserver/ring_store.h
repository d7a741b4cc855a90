// The modules' ring files.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "config.h"
#include "msgapi/ringlog.h"

namespace mlogserver {

struct ModuleCounters {
  uint64_t kept = 0;
  uint64_t below_level = 0;  // dropped by the configuration
  uint64_t dropped = 0;      // beyond the module's limit
  uint64_t lost = 0;         // could not be written
};

class RingStore {
 public:
  explicit RingStore(Config config);

  // Closes the files and goes on with another configuration. It keeps what sync() still has to
  // report, and the notices of lost and dropped lines that still have to be written. When it
  // throws, nothing has changed.
  void reconfigure(Config config);

  // Adds a line, which ends with a line feed, to the file of its module. On the way, in place, it
  // gets its sender if the configuration says so, and is blurred. A written line has left the
  // process when this returns. Lines that name no proper module, or one too many, go to the file
  // "other". A line for which there is no memory is lost and counted.
  void append(std::string *line, pid_t sender) noexcept;

  // False unless every line since the last call is on the disk.
  bool sync() noexcept;

  // The level of a module from now on, whatever the configuration says; nothing takes that back.
  // False when too many modules have one.
  bool set_level(std::string_view module, std::optional<uint32_t> level);
  uint32_t level_of(std::string_view module) const;

  // Writes into the files how many lines were dropped: in intervals that are over, or in all.
  void tell_dropped(bool all) noexcept;
  // When the next interval with dropped lines is over, if there is one.
  std::optional<std::chrono::steady_clock::time_point> next_notice() const;

  // Why lines cannot be written now, for the user; empty when they can.
  std::string state() const;

  const std::string &directory() const { return directory_; }
  const std::map<std::string, ModuleCounters> &counters() const { return counters_; }
  // Lines that were given up because something other than writing them failed.
  uint64_t given_up() const { return given_up_; }

  // No line may be longer.
  static constexpr size_t kLongestLine = 4096 - MLOG_FILE_HEADER_SIZE;

 private:
  struct FileDeleter {
    void operator()(MlogFile *file) const { MlogFileDestructor(file); }
  };
  // Since a failure, which was reported once, nothing can be written; it is tried again at times.
  struct Outage {
    bool active = false;
    int reason = 0;  // an errno, 0 for a file that is no log file
    std::chrono::steady_clock::time_point next_attempt;
  };
  struct Ring {
    std::string path;
    std::unique_ptr<MlogFile, FileDeleter> file;
    uint32_t max_size = 0;
    size_t size = 0;    // of the file
    uint64_t lost = 0;  // lines since the last that was written
    bool dirty = false;
    // The running interval of the limit.
    std::chrono::steady_clock::time_point interval_end;
    uint32_t interval_lines = 0;
    uint64_t dropped = 0;
    Outage outage;
  };

  // What is needed to undo a failed write.
  struct Before {
    long overturn;
    long offset;
    size_t size;         // of the file
    size_t begin;        // where the line goes
    size_t overwritten;  // bytes there; overwritten_ holds them
  };

  void append_line(std::string *line, pid_t sender);
  bool sync_files() noexcept;
  std::string file_name_of(std::string_view module);
  bool is_within_limit(const ModuleLimits &limits, const std::string &module, Ring *ring);
  bool tell_dropped(const std::string &module, Ring *ring);
  // Whether writing a line may be tried now.
  bool ready(const std::string &module, Ring *ring);
  bool open(const std::string &module, Ring *ring);
  bool write(Ring *ring, std::span<char> line);
  Before remember(const Ring &ring, size_t line_size);
  void take_back(const Ring &ring, const Before &before);
  bool disk_has_room() const;
  void report_failure(Ring *ring);
  void report_success(Ring *ring);

  Config config_;
  std::string directory_;
  std::map<std::string, Ring> rings_;
  std::map<std::string, ModuleCounters> counters_;
  std::map<std::string, uint32_t, std::less<>> levels_;  // set at run time
  bool new_files_ = false;
  bool complete_ = true;  // no line was lost since the last sync()
  Outage disk_full_;
  std::array<char, kLongestLine> overwritten_;
  uint64_t given_up_ = 0;
  bool giving_up_ = false;  // the last line was given up, which was reported
};

}  // namespace mlogserver
