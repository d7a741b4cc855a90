// Prints entries as text or JSON.
#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "ring_reader.h"

namespace mlog {

struct PrintOptions {
  bool json = false;
  bool wall_time = false;  // the time of day instead of the uptime
  bool colour = false;
  bool is_terminal = false;
  uint32_t level = 8;             // less important entries are left out
  std::set<std::string> modules;  // empty: all
  int64_t boot_time_ms = 0;       // of the running system, in milliseconds since 1970
  int64_t uptime_ms = 0;          // of the running system
};

// Fills in the clocks of the running system. The time of the boot is the same in every call until
// somebody sets the time, so a line always has the same time of day.
void read_clocks(PrintOptions *options);

// The first entry of the running boot: behind the last place where the uptime went back, and not
// from the future. Only these have a known time of day.
size_t first_of_this_boot(const std::vector<Entry> &entries, int64_t uptime_ms);

class Printer {
 public:
  explicit Printer(PrintOptions options) : options_(std::move(options)) {}

  const PrintOptions &options() const { return options_; }

  bool wants(const Entry &entry) const;
  // Prints the entry to standard output if it is wanted. `this_boot` says whether its uptime is the
  // running system's.
  void print(const Entry &entry, bool this_boot) const;

 private:
  void print_json(const Entry &entry, bool this_boot) const;
  void print_text(const Entry &entry, bool this_boot) const;

  PrintOptions options_;
};

}  // namespace mlog
