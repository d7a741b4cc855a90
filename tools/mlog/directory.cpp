#include "directory.h"

#include <filesystem>

#include "mlogserver/config.h"
#include "msgapi/log.h"

namespace mlog {
namespace {

constexpr const char *kConfigFile = "/etc/mlogserver.conf";

}  // namespace

std::string server_directory() {
  mlogserver::Config config;
  if (std::filesystem::exists(kConfigFile)) config = mlogserver::read_config(kConfigFile);
  return MlogUseSharePartion() != 0 ? config.share_directory : config.directory;
}

}  // namespace mlog
