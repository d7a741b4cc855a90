#include "config.h"

#include <fmt/core.h>

#include <charconv>
#include <cstring>
#include <fstream>
#include <stdexcept>

#include "common/ini_file.h"
#include "line.h"
#include "msgapi/ringlog.h"

namespace mlogserver {
namespace {

// A file must hold a few lines of the longest kind.
constexpr uint32_t kSmallestFile = 4096;

using Item = servers::IniItem;

std::string one_value(const Item &item) {
  if (item.values.size() != 1 || item.values[0].empty()) {
    throw std::runtime_error(fmt::format("{} needs one value", item.name));
  }
  return item.values[0];
}

uint32_t number(const Item &item, uint32_t least, uint32_t most) {
  const std::string text = one_value(item);
  uint32_t value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size() || value < least || value > most) {
    throw std::runtime_error(
        fmt::format("{} = {}: not a number from {} to {}", item.name, text, least, most));
  }
  return value;
}

std::string absolute_path(const Item &item) {
  const std::string path = one_value(item);
  if (path.front() != '/') {
    throw std::runtime_error(fmt::format("{} = {}: not an absolute path", item.name, path));
  }
  return path;
}

uint32_t level(const Item &item) {
  const std::string name = one_value(item);
  const uint32_t value = MlogGetLogLevel(name.c_str());
  if (value == MLOG_LEVEL_NONE) {
    throw std::runtime_error(
        fmt::format("{} = {}: not one of FATL, ERRO, WARN, INFO", item.name, name));
  }
  return value;
}

void check_module(const std::string &module) {
  if (!is_module_name(module)) throw std::runtime_error(module + ": not a module's name");
}

// False for a key that a module cannot have.
bool set_limit(const Item &item, ModuleLimits *limits) {
  if (item.name == "max_size") {
    limits->max_size = number(item, kSmallestFile, MLOG_FILE_MAX_SIZE);
  } else if (item.name == "level") {
    limits->level = level(item);
  } else if (item.name == "rate_limit") {
    limits->rate_limit = number(item, 0, 1000000);
  } else if (item.name == "rate_interval") {
    limits->rate_interval_s = number(item, 1, 3600);
  } else {
    return false;
  }
  return true;
}

void set_key(const Item &item, Config *config) {
  if (item.name == "directory") {
    config->directory = absolute_path(item);
  } else if (item.name == "share_directory") {
    config->share_directory = absolute_path(item);
  } else if (item.name == "max_modules") {
    config->max_modules = number(item, 1, 1000);
  } else if (item.name == "modules") {
    for (const std::string &module : item.values) {
      check_module(module);
      config->modules.insert(module);
    }
  } else if (item.name == "sender_pids") {
    config->sender_pids = number(item, 0, 1) == 1;
  } else if (!set_limit(item, &config->defaults)) {
    throw std::runtime_error("unknown key " + item.name);
  }
}

}  // namespace

const ModuleLimits &Config::limits_of(const std::string &module) const {
  const auto own = limits.find(module);
  return own == limits.end() ? defaults : own->second;
}

Config read_config(const std::string &path) {
  std::ifstream file(path);
  if (!file) throw std::runtime_error(fmt::format("{}: {}", path, std::strerror(errno)));

  Config config;
  try {
    const std::vector<Item> items = servers::read_ini(file);
    // What a section leaves out is taken from the general keys, wherever they are in the file.
    for (const Item &item : items) {
      if (item.section.empty()) set_key(item, &config);
    }
    for (const Item &item : items) {
      if (item.section.empty()) continue;
      if (item.name.empty()) {
        check_module(item.section);
        config.limits.emplace(item.section, config.defaults);
      } else if (!set_limit(item, &config.limits.at(item.section))) {
        throw std::runtime_error(fmt::format("unknown key {} in [{}]", item.name, item.section));
      }
    }
  } catch (const std::exception &error) {
    throw std::runtime_error(fmt::format("{}: {}", path, error.what()));
  }
  return config;
}

}  // namespace mlogserver
