// Whether a path lies below a base directory.

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "base/text.h"
#include "msgapi/path.h"

namespace msgapi::path {
namespace {

constexpr size_t kMaxLength = 4096;

bool too_long(const char *path) {
  return ::strnlen(path, kMaxLength) >= kMaxLength;
}

bool is_below(std::string_view path, std::string_view base) {
  if (!begins_with(path, base)) return false;
  path.remove_prefix(base.size());
  // The base /mnt/usb does not admit /mnt/usb1.
  return path.empty() || path[0] == '/';
}

uint32_t check_access(const char *base, const char *path, bool must_exist) {
  if (too_long(path)) return ORP_PATH_ERR_ARGUMENT;

  char resolved[PATH_MAX + 1];
  if (::realpath(path, resolved) != nullptr) {
    path = resolved;
  } else if (must_exist || errno != ENOENT || std::strstr(path, "../") != nullptr) {
    return ORP_PATH_ERR_UNRESOLVED;
  }

  if (*base == '\0') return ORP_PATH_ERR_ARGUMENT;
  if (std::strcmp(base, "/") == 0) return ORP_PATH_ALLOWED;
  if (too_long(base)) return ORP_PATH_ERR_BASE_TOO_LONG;
  return is_below(path, base) ? ORP_PATH_ALLOWED : ORP_PATH_ERR_OUTSIDE;
}

}  // namespace
}  // namespace msgapi::path

extern "C" uint32_t ORP_UTIL_IsPathAllowAccessEx(const char *base, const char *path,
                                                 uint32_t mode) {
  if (base == nullptr || path == nullptr) return ORP_PATH_ERR_ARGUMENT;
  return msgapi::path::check_access(base, path, mode == ORP_PATH_MUST_EXIST);
}

extern "C" uint32_t ORP_UTIL_IsPathAllowAccess(const char *base, const char *path) {
  return ORP_UTIL_IsPathAllowAccessEx(base, path, ORP_PATH_MUST_EXIST);
}
