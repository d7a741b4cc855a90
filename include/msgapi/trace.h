/*
 * Trace control: which trace packages are enabled, at what level, and where trace text goes. The
 * library's own trace points produce no output. Nothing here is locked: set trace control up at
 * start-up and use it on one thread.
 */
#ifndef MSGAPI_TRACE_H
#define MSGAPI_TRACE_H

#include <stdint.h>
#include <stdio.h>

#include "msgapi/export.h"
#include "msgapi/status.h"

/* A trace package with a level, in a table of ORP_TRACE_CTX_ST. */
typedef struct ORP_TRACE_PACKAGE_ST {
  struct ORP_TRACE_PACKAGE_ST *link; /* null: the last one */
  char name[ORP_APP_NAME_SIZE];      /* "all": every package without a level of its own */
  uint32_t level;                    /* never 0 */
} ORP_TRACE_PACKAGE_ST;

/* A registered trace module. */
typedef struct ORP_TRACE_MODULE_ST {
  struct ORP_TRACE_MODULE_ST *link; /* null: the last one */
  char *name;                       /* the record's own copy */
} ORP_TRACE_MODULE_ST;

/* Settings of trace control. A zeroed record with outputFd -1 is an empty one. */
typedef struct ORP_TRACE_CTX_ST {
  ORP_TRACE_PACKAGE_ST *packages; /* those with a level */
  ORP_TRACE_MODULE_ST *modules;   /* those registered */
  FILE *output;                   /* null: not chosen yet */
  int32_t outputFd;               /* closed, when above 0, whenever the output changes */
} ORP_TRACE_CTX_ST;

/*
 * Sets the level of a package (null: "all"), or with level 0 removes it. Setting "all" first
 * removes every package. ORP_ERR_ARGUMENT for a null context, ORP_ERR_MEMORY.
 *
 * Stored names are cut to 11 characters; the name that is given is compared uncut. So a longer name
 * never matches its own entry: it adds another one each time, cannot be removed by name, and has no
 * level of its own.
 */
MSGAPI_EXPORT uint32_t TraceCtxSetPackageLevel(ORP_TRACE_CTX_ST *context, const char *package,
                                               uint32_t level);
/* The same on the process's own settings, which all the following functions use. */
MSGAPI_EXPORT uint32_t ORP_TRACE_SetPackageLevel(const char *package, uint32_t level);

/* 1 when the package (null: "all"), or "all" where the package has no level of its own, has at
 * least `level`; else 0. */
MSGAPI_EXPORT uint32_t ORP_TRACE_IsModuleEnabled(const char *package, uint32_t level);

/* The largest size of a trace file, 1024 at first. Sizes up to 1024 are ignored. */
MSGAPI_EXPORT void ORP_TRACE_SetFileMaxSize(uint64_t size);
MSGAPI_EXPORT uint64_t ORP_TRACE_GetFileMaxSize(void);

/* 0 when trace text goes to standard output (which becomes the output when none was chosen yet), 1
 * when it goes to a file. */
MSGAPI_EXPORT uint32_t ORP_TRACE_GetOutput(void);

/*
 * Closes the current output and sends trace text to standard output or, with `toFile` non-zero, to
 * the end of "/online/log/webapp.log". The directory is made first; a line is printed when that
 * fails, also because it exists. When the file cannot be opened there is no output.
 */
MSGAPI_EXPORT void ORP_TRACE_SetOutput(uint32_t toFile);

/* Registers a module by name; a name that is registered already is accepted. ORP_ERR_MEMORY without
 * memory and also for a null name. */
MSGAPI_EXPORT uint32_t ORP_TRACE_RegModule(const char *name);

/* A trace point: function name, source line, 0, category, level, then a printf-style text. Writes
 * nothing and returns 0. */
MSGAPI_EXPORT uint32_t ORP_TRACE_PrintInfo(const char *function, uint32_t line, uint32_t reserved,
                                           const char *category, uint32_t level, const char *format,
                                           ...) MSGAPI_PRINTF(6, 7);

/* The id of the process, read at the first call and then kept. A child made with fork() keeps it,
 * too, and so gets its parent's id. */
MSGAPI_EXPORT int32_t ORP_UTIL_GetCurPid(void);

/* Wall clock and monotonic clock as "<s>.<us> <s>.<us>", at least 8 digits for seconds and 6 for
 * microseconds, in a buffer that the next call overwrites; "" on failure. */
MSGAPI_EXPORT const char *ORP_UTIL_GetCurTimeStamp(void);

/* The process's application name, always NUL-terminated: the one it connects with, then the one
 * that the message server confirmed; "" without a connection. The library keeps it. */
MSGAPI_EXPORT_DATA char g_appName[ORP_APP_NAME_SIZE];
/* The address of g_appName. */
MSGAPI_EXPORT char *GetAucAppNamePointer(void);

#endif
