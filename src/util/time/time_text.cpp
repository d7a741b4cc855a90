// The current time as text, and two clocks.
//
// The interface promises two process-wide buffers, one for UTC and one for local time: a text lives
// until the next call. A C library with a 32-bit time_t has no time, and so no text, after 19
// January 2038.

#include <ctime>
#include <span>

#include "base/text.h"
#include "msgapi/time.h"
#include "orputil.h"
#include "os/clock.h"

namespace msgapi::time {
namespace {

constexpr size_t kNowSize = 64;
char g_utc_text[kNowSize];
char g_local_text[kNowSize];

// gcc wants every strftime format at the call itself; these are the literals below.
#pragma GCC diagnostic ignored "-Wformat-nonliteral"

// Empty when there is no time, it cannot be broken down or the text does not fit.
const char *format_now(std::span<char, kNowSize> out, tm *(*break_down)(const time_t *, tm *),
                       const char *format) {
  out[0] = '\0';
  const time_t now = ::time(nullptr);
  tm fields;
  if (now == -1 || break_down(&now, &fields) == nullptr ||
      std::strftime(out.data(), out.size(), format, &fields) == 0) {
    out[0] = '\0';
  }
  return out.data();
}

const char *utc_now(const char *format) {
  return format_now(g_utc_text, ::gmtime_r, format);
}

}  // namespace
}  // namespace msgapi::time

using namespace msgapi;
using namespace msgapi::time;

extern "C" const char *ORP_UTIL_GetCurrTime() {
  return utc_now("%H:%M:%S");
}

extern "C" const char *ORP_UTIL_GetCurrUTCTime() {
  return utc_now("%Y-%m-%dT%H:%M:%S");
}

extern "C" const char *ORP_UTIL_GetCurrSpecUtcTime() {
  return utc_now("%Y/%m/%dT%H:%M:%S");
}

extern "C" const char *ORP_UTIL_GetCurrTimeStamp() {
  return utc_now("%Y-%m-%d:%H:%M:%S");
}

extern "C" const char *ORP_UTIL_GetCurrTimeWithSpace() {
  return utc_now("%Y-%m-%d %H:%M:%S");
}

extern "C" const char *ORP_UTIL_GetCurrGMTTime() {
  return utc_now("%a, %d %b %Y %H:%M:%S GMT");
}

extern "C" const char *ORP_UTIL_GetLocalTimeStamp() {
  return format_now(g_local_text, ::localtime_r, "%m%d%H%M%S");
}

extern "C" const char *ORP_UTIL_GetCurrUTCTimeStamp() {
  return ORP_UTIL_GetUtcTimeWithFormat();
}

extern "C" uint64_t ORP_UTIL_GetMsecondAfterStart() {
  ORP_TIME_ST now;
  os::read_monotonic(&now);
  return static_cast<uint64_t>(now.seconds) * 1000 + static_cast<uint64_t>(now.microseconds) / 1000;
}

extern "C" void ORP_UTIL_GetReleaseDate(char *buffer, uint32_t size) {
  if (buffer != nullptr && size > 1) copy_cut({buffer, size}, "2021-06-04");
}

extern "C" void ORP_BASE_Init(const char * /*appName*/) {}
