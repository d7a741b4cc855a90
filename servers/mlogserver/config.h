// The server's configuration file.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>

#include "msgapi/log.h"

namespace mlogserver {

// How the lines of a module are kept.
struct ModuleLimits {
  uint32_t max_size = 256 * 1024;    // of the module's file, in bytes
  uint32_t level = MLOG_LEVEL_INFO;  // less important lines are dropped
  // Lines beyond rate_limit in rate_interval_s seconds are dropped; 0: no limit.
  uint32_t rate_limit = 0;
  uint32_t rate_interval_s = 30;
};

struct Config {
  std::string directory = "/var/mlogfile";
  std::string share_directory = "/mnt/mlog";
  uint32_t max_modules = 64;
  std::set<std::string> modules;  // those with a file of their own; empty: any
  bool sender_pids = false;       // lines say which process has sent them
  ModuleLimits defaults;
  std::map<std::string, ModuleLimits> limits;  // where they differ from the defaults

  const ModuleLimits &limits_of(const std::string &module) const;
};

// Reads the configuration file; mlogserver.conf explains its keys. Throws std::runtime_error with a
// text for the user when the file cannot be read or has a mistake.
Config read_config(const std::string &path);

}  // namespace mlogserver
