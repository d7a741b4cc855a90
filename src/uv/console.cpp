#include "uv/console.h"

#include <cstdarg>
#include <cstdio>

namespace msgapi::uv {

void print_debug(int line, const char *format, ...) {
  std::fprintf(stdout, "[%6s]|%6s|%s|%4d|", "msglo", "DEBUG", "", line);
  va_list arguments;
  va_start(arguments, format);
  std::vfprintf(stdout, format, arguments);
  va_end(arguments);
  std::fputs("\r\n", stdout);
}

}  // namespace msgapi::uv
