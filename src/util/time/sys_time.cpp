#include "msgapi/time.h"
#include "os/clock.h"

extern "C" uint32_t ORP_UTIL_GetSysTime(ORP_TIME_ST *timeOut) {
  if (timeOut == nullptr) return 1;

  return msgapi::os::read_monotonic(timeOut) ? 0 : 1;
}
