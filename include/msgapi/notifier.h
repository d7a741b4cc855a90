/*
 * Notifiers: ordered lists of procedures. Different parts of an application register them, and one
 * notification calls them all in order. For one thread.
 */
#ifndef MSGAPI_NOTIFIER_H
#define MSGAPI_NOTIFIER_H

#include <stdint.h>

#include "msgapi/export.h"
#include "msgapi/status.h"

/* `context` is the notifier's, `data` the entry's. */
typedef uint32_t (*ORP_UTIL_NOTIFIER_PROC)(ORP_WORD context, ORP_WORD data);

/* A registered procedure; belongs to its notifier. */
typedef struct ORP_UTIL_NOTIFIER_ENTRY_ST {
  struct ORP_UTIL_NOTIFIER_ENTRY_ST *link; /* the next one */
  ORP_UTIL_NOTIFIER_PROC proc;             /* what is called */
  uint32_t priority;                       /* the lowest number is called first */
  ORP_WORD data;                           /* the second argument of proc */
  const char *name;                        /* "" for none */
} ORP_UTIL_NOTIFIER_ENTRY_ST;

/* A list of procedures. */
typedef struct ORP_UTIL_NOTIFIER_ST {
  ORP_WORD reserved;                   /* 0 when made; the library's */
  ORP_WORD context;                    /* the first argument of every procedure */
  ORP_UTIL_NOTIFIER_ENTRY_ST *entries; /* in the order of their calls */
} ORP_UTIL_NOTIFIER_ST;

/* A procedure with its name. The name is not copied: it must live as long as the entry. */
typedef struct ORP_UTIL_NOTIFIER_PAIR_ST {
  ORP_UTIL_NOTIFIER_PROC proc; /* what is called */
  const char *name;            /* may be null */
} ORP_UTIL_NOTIFIER_PAIR_ST;

/* What a notification does around each call; each may be null. */
typedef struct ORP_UTIL_NOTIFIER_HOOKS_ST {
  /* Before a call. */
  void (*pre)(ORP_WORD context, ORP_UTIL_NOTIFIER_ENTRY_ST *entry);
  /* After a call, with its result. */
  void (*post)(ORP_WORD context, ORP_UTIL_NOTIFIER_ENTRY_ST *entry, uint32_t result);
  /* 0: the entry is left out. */
  uint32_t (*filter)(ORP_WORD context, ORP_UTIL_NOTIFIER_ENTRY_ST *entry, ORP_WORD argument);

  ORP_WORD filterArgument; /* the last argument of filter */
} ORP_UTIL_NOTIFIER_HOOKS_ST;

/*
 * Makes an empty notifier whose procedures get `context`. It is meant to live as long as the
 * process, so no function frees it; outside a notification, one without entries may be freed with
 * free(). *notifierOut is null on failure. ORP_OK, ORP_ERR_ARGUMENT for a null address, or
 * ORP_ERR_MEMORY.
 */
MSGAPI_EXPORT uint32_t ORP_UTIL_NotifierInitEx(ORP_WORD context,
                                               ORP_UTIL_NOTIFIER_ST **notifierOut);

/*
 * Registers a procedure in front of the first entry with a greater priority number: lower numbers
 * are called first, equal ones in the order of registration. A notification that is under way also
 * calls a new procedure if its place is after the next entry.
 *
 * *entryOut (may be null) receives the entry, or null on failure. ORP_OK; ORP_ERR_ARGUMENT without
 * notifier, pair or procedure; ORP_ERR_MEMORY.
 */
MSGAPI_EXPORT uint32_t ORP_UTIL_NotifierRegEx(ORP_UTIL_NOTIFIER_ST *notifier,
                                              const ORP_UTIL_NOTIFIER_PAIR_ST *pair,
                                              uint32_t priority, ORP_WORD data,
                                              ORP_UTIL_NOTIFIER_ENTRY_ST **entryOut);
/* The same without a name. */
MSGAPI_EXPORT uint32_t ORP_UTIL_NotifierReg(ORP_UTIL_NOTIFIER_ST *notifier,
                                            ORP_UTIL_NOTIFIER_PROC proc, uint32_t priority,
                                            ORP_WORD data, ORP_UTIL_NOTIFIER_ENTRY_ST **entryOut);
/* The same in front of the first entry with a lower or equal priority number: higher numbers
 * first, of equal ones the newest first. Each registration looks at the list as it stands. */
MSGAPI_EXPORT uint32_t ORP_UTIL_NotifierReverseReg(ORP_UTIL_NOTIFIER_ST *notifier,
                                                   ORP_UTIL_NOTIFIER_PROC proc, uint32_t priority,
                                                   ORP_WORD data,
                                                   ORP_UTIL_NOTIFIER_ENTRY_ST **entryOut);

/*
 * Removes an entry: it is not called any more, and freed at once or, during a notification, when
 * the outermost one ends. A procedure may remove any entry, its own included. Null arguments and
 * entries of other notifiers are ignored.
 */
MSGAPI_EXPORT void ORP_UTIL_NotifierUnReg(ORP_UTIL_NOTIFIER_ST *notifier,
                                          ORP_UTIL_NOTIFIER_ENTRY_ST *entry);

/*
 * Calls the procedures in order. With `stop` non-zero the first result that is not 0 ends the
 * notification. Returns the last result, 0 when nothing was called, or ORP_ERR_ARGUMENT for a null
 * notifier. `further` plays no part.
 */
MSGAPI_EXPORT uint32_t ORP_UTIL_NotifierDoNotifyWithCmsInit(ORP_UTIL_NOTIFIER_ST *notifier,
                                                            uint32_t stop,
                                                            const ORP_UTIL_NOTIFIER_HOOKS_ST *hooks,
                                                            ORP_WORD further);
/* The same. */
MSGAPI_EXPORT uint32_t ORP_UTIL_NotifierDoNotifyExtend(ORP_UTIL_NOTIFIER_ST *notifier,
                                                       uint32_t stop,
                                                       const ORP_UTIL_NOTIFIER_HOOKS_ST *hooks);
/* The same without hooks, between two trace records that show `caller` (may be null). */
MSGAPI_EXPORT uint32_t ORP_UTIL_NotifierDoNotifyWrapEx(const char *caller, ORP_WORD ignored,
                                                       ORP_UTIL_NOTIFIER_ST *notifier,
                                                       uint32_t stop);

#endif
