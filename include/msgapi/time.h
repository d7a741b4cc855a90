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

/*
 * The current time as text. The UTC functions share one buffer and ORP_UTIL_GetLocalTimeStamp has
 * another: a text lives until the next call that uses the same buffer, on any thread. The text is
 * empty when the clock cannot be read, as after 19 January 2038 with a 32-bit time_t.
 * Names of days and months are those of the process's locale.
 */
MSGAPI_EXPORT const char *ORP_UTIL_GetCurrTime(void);          /* UTC, "%H:%M:%S" */
MSGAPI_EXPORT const char *ORP_UTIL_GetCurrUTCTime(void);       /* UTC, "%Y-%m-%dT%H:%M:%S" */
MSGAPI_EXPORT const char *ORP_UTIL_GetCurrSpecUtcTime(void);   /* UTC, "%Y/%m/%dT%H:%M:%S" */
MSGAPI_EXPORT const char *ORP_UTIL_GetCurrTimeStamp(void);     /* UTC, "%Y-%m-%d:%H:%M:%S" */
MSGAPI_EXPORT const char *ORP_UTIL_GetCurrTimeWithSpace(void); /* UTC, "%Y-%m-%d %H:%M:%S" */
MSGAPI_EXPORT const char *ORP_UTIL_GetCurrGMTTime(void);    /* UTC, "%a, %d %b %Y %H:%M:%S GMT" */
MSGAPI_EXPORT const char *ORP_UTIL_GetLocalTimeStamp(void); /* local time, "%m%d%H%M%S" */

/* The current UTC time as the platform formats it ("%Y-%m-%dT%H:%M:%SZ" in the host port), in the
 * platform's buffer; null when there is none. */
MSGAPI_EXPORT const char *ORP_UTIL_GetCurrUTCTimeStamp(void);

/* Milliseconds of the monotonic clock; 0 when it cannot be read. */
MSGAPI_EXPORT uint64_t ORP_UTIL_GetMsecondAfterStart(void);

/* Writes the library's release date, "2021-06-04", cut to size - 1 characters. No effect for a
 * null buffer and a size below 2. */
MSGAPI_EXPORT void ORP_UTIL_GetReleaseDate(char *buffer, uint32_t size);

/*
 * 0 when the fields make a time, otherwise 1, in most cases with a line on standard output. Month
 * 0, day 0 and 30 February pass; all fields 0 do not.
 */
MSGAPI_EXPORT uint32_t ORP_UTIL_CheckTimeValid(uint32_t year, uint32_t month, uint32_t day,
                                               uint32_t hour, uint32_t minute, uint32_t second);

/* The numbers of a date as a text gave them; none is checked against the calendar. */
typedef struct ORP_UTIL_DATE_TIME_ST {
  uint32_t ulYear;  /* all four digits */
  uint32_t ulMonth; /* 1 to 12 */
  uint32_t ulDay;   /* of the month, from 1 */
  /* Hour (0 to 23), minute and second of the day. */
  uint32_t ulHour;
  uint32_t ulMinute;
  uint32_t ulSecond;
} ORP_UTIL_DATE_TIME_ST;

/*
 * Reads "2021-06-04T10:10:10" or "20210604T10:10:10", 17 to 40 characters, optionally followed by a
 * zone ("Z", or a sign and an offset such as "+08:00") or by a fraction that ends in a zone
 * (".250Z"). The offset is checked and not applied, and the values are not checked against the
 * calendar; see ORP_UTIL_CheckTimeValid. A zone without a fraction must end the text; anything may
 * follow the "Z" of a fraction.
 *
 * Returns 0 with *out filled; 0 with *out untouched for an empty text; 1 for null arguments and
 * other texts; ORP_ERR_ARGUMENT for one of more than 43 characters. *out is untouched on failure.
 */
MSGAPI_EXPORT uint32_t ORP_UTIL_UCTTimeFormatCheck(const char *text, ORP_UTIL_DATE_TIME_ST *out);

/*
 * Compares two such times. *order becomes 0 when the first is earlier, 1 when it is later. *order
 * is also 0, and *seconds untouched, when they are equal (with a line on standard output) or 51 or
 * more years apart. Otherwise *seconds becomes the seconds between them, but only when both lie in
 * the first 49710 days of the calendar; for today's years it stays untouched.
 *
 * Only the first time is checked with ORP_UTIL_CheckTimeValid. Returns 0, 1 for null arguments, or
 * the status of the check or of ORP_UTIL_UCTTimeFormatCheck; nothing is written then.
 */
MSGAPI_EXPORT uint32_t ORP_UTIL_GetDifTime(const char *text1, const char *text2, uint32_t *seconds,
                                           uint32_t *order);

/*
 * How long to wait for a boundary of `period`: the time from `now` to the next one, or with `align`
 * the time since the last one; the whole period instead of 0. No effect for a null pointer or a
 * period of 0.
 */
MSGAPI_EXPORT void ORP_UTIL_GetDelayTime(uint32_t now, uint32_t period, uint32_t align,
                                         uint32_t *delay);

/* Does nothing; kept for the programs that call it. */
MSGAPI_EXPORT void ORP_BASE_Init(const char *appName);

#endif
