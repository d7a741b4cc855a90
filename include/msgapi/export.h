/* What every public header needs: the export marker and the word type. */
#ifndef MSGAPI_EXPORT_H
#define MSGAPI_EXPORT_H

#include <stdint.h>

/* Linkage of C in C++, nothing in C. */
#ifdef __cplusplus
#define MSGAPI_EXTERN_C extern "C"
#else
#define MSGAPI_EXTERN_C
#endif

/* Marks a name that leaves the shared library; the linkage is C in both languages. */
#define MSGAPI_EXPORT MSGAPI_EXTERN_C __attribute__((visibility("default")))

/* Declares an exported object. */
#ifdef __cplusplus
#define MSGAPI_EXPORT_DATA MSGAPI_EXPORT
#else
#define MSGAPI_EXPORT_DATA extern MSGAPI_EXPORT
#endif

/* Lets the compiler check a printf-style call. */
#define MSGAPI_PRINTF(format_index, first_argument) \
  __attribute__((format(printf, format_index, first_argument)))

/*
 * A 32-bit word of the device that may carry a pointer (user data, handles). It is as wide as a
 * pointer, so 64-bit hosts keep the field order of every record and 32-bit targets its size.
 */
typedef uintptr_t ORP_WORD;

/* An application's name: at most 11 characters and the NUL. */
#define ORP_APP_NAME_SIZE 12

/* A moment or span of the monotonic clock. */
typedef struct ORP_TIME_ST {
  int32_t seconds;      /* since an unspecified start, or of the span */
  int32_t microseconds; /* 0 to 999999 */
} ORP_TIME_ST;

#endif
