#include "support/trace_records.h"

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <utility>

namespace {

std::string_view g_part;
std::vector<std::string> g_records;

}  // namespace

// Replaces the library's function, which writes nothing: the linker redirects the calls to it.
extern "C" uint32_t __wrap_ORP_TRACE_PrintInfo(const char *function, uint32_t /*line*/,
                                               uint32_t /*reserved*/, const char *category,
                                               uint32_t level, const char *format, ...) {
  char text[400];
  va_list values;
  va_start(values, format);
  std::vsnprintf(text, sizeof text, format, values);
  va_end(values);
  if (g_part.empty() || std::string_view(text).find(g_part) == std::string_view::npos) return 0;
  g_records.push_back(std::string(function) + " " + category + " " + std::to_string(level) + ": " +
                      text);
  return 0;
}

namespace test {

std::vector<std::string> trace_records(std::string_view part, const std::function<void()> &action) {
  g_part = part;
  action();
  g_part = {};
  return std::exchange(g_records, {});
}

}  // namespace test
