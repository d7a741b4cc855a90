// Path patterns beside their definition, and paths that are encoded and decoded again.

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "msgapi/path.h"

namespace {

constexpr size_t kMaxForDefinition = 12;

void require(bool condition) {
  if (!condition) std::abort();
}

// Tries each run from the longest on, which takes exponential time.
bool matches(const char *pattern, const char *path) {
  if (*pattern == '\0') return *path == '\0';
  if (*pattern == '?') return *path != '\0' && matches(pattern + 1, path + 1);
  if (*pattern != '*') return *path == *pattern && matches(pattern + 1, path + 1);

  const bool any = pattern[1] == '*';
  const char *end = path;
  while (*end != '\0' && (any || *end != '/')) ++end;
  for (;; --end) {
    if (matches(pattern + (any ? 2 : 1), end)) return true;
    if (end == path) return false;
  }
}

bool any_matches(const std::string &patterns, const std::string &path) {
  for (size_t start = 0;;) {
    const size_t end = std::min(patterns.find('|', start), patterns.size());
    if (matches(patterns.substr(start, end - start).c_str(), path.c_str())) return true;
    if (end == patterns.size()) return false;
    start = end + 1;
  }
}

void code(const std::string &path, uint32_t size) {
  const std::unique_ptr<char[]> small(new char[size]);
  ORP_UTIL_EncodePath(path.c_str(), small.get(), size);
  ORP_UTIL_DecodePath(path.c_str(), small.get(), size);
  ORP_UTIL_RemoveSuffix(path.c_str(), small.get(), size, '.');
  require(size == 0 || std::memchr(small.get(), '\0', size) != nullptr);

  // Each piece of n bytes takes at most 4 * n + 1.
  std::string token(path.size() * 5 + 8, '\0'), back(token);
  if (ORP_UTIL_EncodePath(path.c_str(), token.data(), static_cast<uint32_t>(token.size())) !=
          ORP_OK ||
      token[0] != '-') {
    return;
  }
  require(ORP_UTIL_DecodePath(token.data(), back.data(), static_cast<uint32_t>(back.size())) ==
          ORP_OK);
  std::string rest = path;
  if (rest.find("/mnt") != std::string::npos) rest.erase(0, rest[4] == '/' ? 5 : 4);
  require("/mnt/" + rest == back.c_str());
}

}  // namespace

// Input: the patterns, a NUL and the path.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const std::string input(reinterpret_cast<const char *>(data), size);
  const std::string patterns = input.c_str();
  const std::string path = patterns.size() < size ? &input[patterns.size() + 1] : "";

  const bool matched = ORP_UTIL_MatchPrefixPath(patterns.c_str(), path.c_str()) == 1;
  if (patterns.size() <= kMaxForDefinition && path.size() <= kMaxForDefinition) {
    require(matched == any_matches(patterns, path));
  }
  code(patterns, static_cast<uint32_t>(size % 64));
  code(path, static_cast<uint32_t>(size % 64));
  return 0;
}
