// Validation of a path by type: an allow-list of places, compared with the canonical path, so that
// neither ".." nor a symbolic link leads out of them.

#include "util/path/validate_path.h"

#include <cstdlib>
#include <cstring>
#include <string_view>

#include "base/text.h"
#include "msgapi/path.h"

namespace msgapi::path {
namespace {

constexpr size_t kMaxPathSize = 4096;

enum class Match : uint8_t {
  kNothing,
  kPrefix,
  kFile,
  kApplication,  // a prefix in the application tree
};

struct Rule {
  Match match;
  std::string_view place;
};

constexpr Rule kRules[] = {
    {Match::kPrefix, "/mnt/"},
    {Match::kPrefix, "/html/"},
    {Match::kApplication, "/app/webroot/"},
    {Match::kApplication, "/app/html/"},
    {Match::kApplication, "/app/webroot/WebApp/common/"},
    {Match::kPrefix, "/etc/api/"},
    {Match::kApplication, "/app/webroot/WebApp/"},
    {Match::kPrefix, "/var/crash.tar"},
    {Match::kPrefix, "/data/userdata/"},
    {Match::kApplication, "/app/config/"},
    {Match::kFile, "/var/cfgtmp.cfg"},
    {Match::kFile, "/var/image.head.bin"},
    {Match::kFile, "/var/cfgtmp.cfg"},
    {Match::kNothing, ""},
    {Match::kFile, "/var/image.bin"},
    {Match::kPrefix, "/var/run/web-static/"},
    {Match::kPrefix, "/var/policy_custom/"},
    {Match::kNothing, ""},
    {Match::kNothing, ""},
    {Match::kNothing, ""},
    {Match::kPrefix, "/var/run/msg/msg_file"},
};
static_assert(std::size(kRules) == kHandOverType + 1);

constexpr std::string_view kSystemRoot = "/system";

bool below_system(std::string_view canonical, std::string_view place) {
  if (!begins_with(canonical, kSystemRoot)) return false;
  canonical.remove_prefix(kSystemRoot.size());
  return begins_with(canonical, place);
}

bool allows(const Rule &rule, std::string_view canonical) {
  switch (rule.match) {
    case Match::kNothing:
      return false;
    case Match::kPrefix:
      return begins_with(canonical, rule.place);
    case Match::kFile:
      return canonical == rule.place;
    case Match::kApplication:
      return begins_with(canonical, "/app") ? begins_with(canonical, rule.place)
                                            : below_system(canonical, rule.place);
  }
  return false;
}

bool resolve(const char *path, Resolved *resolved) {
  return ::strnlen(path, kMaxPathSize) < kMaxPathSize &&
         ::realpath(path, resolved->text) != nullptr;
}

}  // namespace

bool validate(const char *path, uint32_t type, Resolved *resolved) {
  return type < std::size(kRules) && resolve(path, resolved) &&
         allows(kRules[type], resolved->text);
}

}  // namespace msgapi::path

using namespace msgapi::path;

extern "C" uint32_t ORP_UTIL_ValidatePath(const char *path, uint32_t type) {
  Resolved resolved;
  return path != nullptr && validate(path, type, &resolved) ? 1 : 0;
}

extern "C" uint32_t ORP_M2M_ValidatePath(const char *path, uint32_t type) {
  Resolved resolved;
  if (path == nullptr || type >= std::size(kRules) || kRules[type].match != Match::kApplication ||
      !resolve(path, &resolved)) {
    return 0;
  }
  return below_system(resolved.text, kRules[type].place) ? 1 : 0;
}
