// The loop's own diagnostics on standard output.
#pragma once

namespace msgapi::uv {

// Prints one diagnostic with its own fixed number in place of a source line.
__attribute__((format(printf, 2, 3))) void print_debug(int line, const char *format, ...);

}  // namespace msgapi::uv
