// What is printed when a text or a record does not fit its field. Functions whose interface names
// another line, or none (DNS packets, paths, bridges), do not use it.
#pragma once

#include <cstdint>
#include <cstdio>
#include <span>
#include <string_view>

#include "base/text.h"

namespace msgapi {

// One line on standard output that names the place of the call, the bounded function that refused,
// and its error: -1 from a formatting function, an errno from a copying one.
inline void print_copy_failure(const char *function, int error, const char *file = __builtin_FILE(),
                               uint32_t line = __builtin_LINE()) {
  std::printf("file %s, line %u: %s failed, err = %d\n", file, line, function, error);
}

// copy_exact() into a text field; a text that does not fit is printed as a failed format.
inline bool copy_or_report(std::span<char> out, std::string_view text,
                           const char *file = __builtin_FILE(), uint32_t line = __builtin_LINE()) {
  const bool fits = copy_exact(out, text);
  if (!fits) print_copy_failure("snprintf_s", -1, file, line);
  return fits;
}

}  // namespace msgapi
