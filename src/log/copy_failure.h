// What is printed when a text or record does not fit its field.
#pragma once

#include <cstdio>

namespace msgapi::log {

// One line on standard output that names the place of the call, the bounded function that refused
// and its error: -1 of a formatting one, an errno of a copying one.
inline void print_copy_failure(const char *function, int error, const char *file = __builtin_FILE(),
                               int line = __builtin_LINE()) {
  std::printf("file %s, line %d: %s failed, err = %d\n", file, line, function, error);
}

}  // namespace msgapi::log
