// The time of day as text.

#include <ctime>

#include "orputil.h"

extern "C" const char *ORP_UTIL_GetUtcTimeWithFormat(void) {
  static char text[32];

  const time_t now = ::time(nullptr);
  tm utc;
  if (::gmtime_r(&now, &utc) == nullptr) return nullptr;
  return std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc) == 0 ? nullptr : text;
}
