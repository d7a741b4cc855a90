// Removing substrings, splitting request paths, copying files.

#include <cstring>
#include <string_view>

#include "base/copy_failure.h"
#include "base/cursor.h"
#include "msgapi/str.h"
#include "orputil.h"

namespace msgapi::str {
namespace {

constexpr std::string_view kApiPrefix = "/api/";

// Puts `text` without any `part` (not empty), as far as it fits. Returns how often `part` occurs.
uint32_t put_without(TextWriter *out, std::string_view text, std::string_view part) {
  uint32_t count = 0;
  while (!text.empty()) {
    if (begins_with(text, part)) {
      ++count;
      text.remove_prefix(part.size());
    } else {
      out->put(text[0]);
      text.remove_prefix(1);
    }
  }
  return count;
}

}  // namespace
}  // namespace msgapi::str

using namespace msgapi;
using namespace msgapi::str;

extern "C" uint32_t ORP_UTIL_DeleteSubStr(const char *text, const char *part, char *out,
                                          uint32_t size) {
  if (text == nullptr || part == nullptr || out == nullptr || size == 0) return 0;
  if (*part == '\0') {
    copy_cut({out, size}, text);
    return 0;
  }
  TextWriter writer({out, size - 1});
  const uint32_t count = put_without(&writer, text, part);
  out[writer.offset()] = '\0';
  return count;
}

extern "C" uint32_t ORP_UTIL_FindModuleAndFuncByUri(const char *uri, char *module,
                                                    uint32_t module_size, char *function,
                                                    uint32_t function_size) {
  if (uri == nullptr) return 1;
  std::string_view path = uri;
  if (!begins_with(path, kApiPrefix)) return 1;
  path.remove_prefix(kApiPrefix.size());
  const size_t slash = path.find('/');
  if (slash == path.npos) return 1;

  if (module != nullptr && module_size > slash) {
    copy_cut({module, module_size}, {path.data(), slash});
  }

  path.remove_prefix(slash + 1);
  if (function == nullptr) return 0;
  if (function_size < 2) {
    copy_cut({function, function_size}, "");
    return 0;
  }
  return copy_or_report({function, function_size}, path) && !path.empty() ? 0 : 1;
}

extern "C" void ORP_UTIL_CopyFile(const char *source, const char *target) {
  if (source == nullptr || target == nullptr) return;
  if (ORP_VALID_CmdArgs(source) == 0 || ORP_VALID_CmdArgs(target) == 0) return;
  ORP_UTIL_VExecCmdNoHang(__func__, __LINE__, "cp -pf %s %s", source, target);
}
