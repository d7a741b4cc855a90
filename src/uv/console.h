// The loop's own diagnostics on standard output.
#pragma once

namespace msgapi::uv {

// Prints one diagnostic, which carries the fixed number by which it is known instead of its place
// in the source.
__attribute__((format(printf, 2, 3))) void print_debug(int line, const char *format, ...);

}  // namespace msgapi::uv
