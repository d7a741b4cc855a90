// Path patterns.
//
// Matching keeps the set of places in the pattern to which the path read so far can have led; each
// character of the path moves the whole set at once. Trying one run length after another gives the
// same answers, but takes exponential time for patterns like "*a*a*a*b", and patterns come from
// other processes. Remembering only the last "*" is not enough: because "?" may match "/", a longer
// run of an earlier "*" can succeed where the shortest one leads into a "/".

#include <algorithm>
#include <array>
#include <cstring>
#include <span>
#include <string_view>

#include "base/memory.h"
#include "msgapi/path.h"

namespace msgapi::path {
namespace {

constexpr size_t kShortPattern = 512;

// Length of the element of `pattern` at `at`: "**" is one.
size_t element_length(std::string_view pattern, size_t at) {
  return pattern[at] == '*' && at + 1 < pattern.size() && pattern[at + 1] == '*' ? 2 : 1;
}

// Moves the set `reached` of places in `pattern` over one character of the path.
void advance(std::string_view pattern, std::span<bool> reached, char character) {
  bool arrives = false;  // at place `at`, by the element before it
  for (size_t at = 0; at < pattern.size();) {
    const size_t length = element_length(pattern, at);
    const bool was_here = reached[at];
    const bool is_run = pattern[at] == '*';
    const bool matches =
        is_run ? length == 2 || character != '/' : pattern[at] == '?' || pattern[at] == character;
    const bool stays = is_run && was_here && matches;
    reached[at] = arrives || stays;
    // A run may be empty: the place where it begins is also one where it ends.
    arrives = is_run ? reached[at] : was_here && matches;
    at += length;
  }
  reached[pattern.size()] = arrives;
}

// `reached` has a place for each character of the pattern and one for its end.
bool matches(std::string_view pattern, std::string_view path, std::span<bool> reached) {
  std::fill(reached.begin(), reached.end(), false);
  reached[0] = true;
  for (size_t at = 0; at < pattern.size() && pattern[at] == '*';) {
    at += element_length(pattern, at);
    reached[at] = true;
  }
  for (const char character : path) advance(pattern, reached, character);
  return reached[pattern.size()];
}

bool matches(std::string_view pattern, std::string_view path) {
  if (pattern.size() <= kShortPattern) {
    std::array<bool, kShortPattern + 1> reached;
    return matches(pattern, path, std::span(reached).first(pattern.size() + 1));
  }
  const Owned<bool> reached(static_cast<bool *>(plain_alloc(uint64_t{pattern.size()} + 1)));
  return reached && matches(pattern, path, {reached.get(), pattern.size() + 1});
}

}  // namespace
}  // namespace msgapi::path

extern "C" uint32_t ORP_UTIL_MatchPrefixPath(const char *patterns, const char *path) {
  if (patterns == nullptr || path == nullptr) return 0;
  for (;;) {
    const std::string_view pattern(patterns, std::strcspn(patterns, "|"));
    if (msgapi::path::matches(pattern, path)) return 1;
    patterns += pattern.size();
    if (*patterns == '\0') return 0;
    ++patterns;
  }
}
