/* Time: clocks, time stamps and checks. */
#ifndef MSGAPI_TIME_H
#define MSGAPI_TIME_H

#include <stdint.h>

#include "msgapi/export.h"

/*
 * The monotonic clock, read through the system call. 0; 1 for null; 1 when the clock cannot be
 * read, which is reported through perror and leaves {0, 0}.
 */
MSGAPI_EXPORT uint32_t ORP_UTIL_GetSysTime(ORP_TIME_ST *timeOut);

#endif
