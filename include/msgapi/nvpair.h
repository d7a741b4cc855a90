/*
 * Lists of named text values. A list is held by a pointer to its first node, null when empty; it
 * owns its nodes and their texts. Names are compared byte by byte and occur once; the order is that
 * of insertion.
 */
#ifndef MSGAPI_NVPAIR_H
#define MSGAPI_NVPAIR_H

#include "msgapi/export.h"

/* One node. Chained by the platform's list functions, so the link comes first. */
typedef struct ORP_UTIL_NV_PAIR_ST {
  struct ORP_UTIL_NV_PAIR_ST *pstNext; /* null: the last node */
  char *pcName;                        /* never changes */
  char *pcValue;                       /* replaced when the name is set anew */
} ORP_UTIL_NV_PAIR_ST;

/*
 * Gives `name` a copy of `value`: in its node when the list has one, otherwise in a new node at the
 * end. `head` is the address of the list's pointer. Returns the node, or null (the list is
 * unchanged) for a null argument and without memory.
 */
MSGAPI_EXPORT ORP_UTIL_NV_PAIR_ST *ORP_UTIL_NvPairSet(ORP_UTIL_NV_PAIR_ST **head, const char *name,
                                                      const char *value);

/* The node of that name, or null when there is none or `name` is null. */
MSGAPI_EXPORT ORP_UTIL_NV_PAIR_ST *ORP_UTIL_NvPairFindByName(ORP_UTIL_NV_PAIR_ST *head,
                                                             const char *name);

/* The value of that name, which lives until it is set or deleted; null when there is none. */
MSGAPI_EXPORT char *ORP_UTIL_NvPairGetValue(ORP_UTIL_NV_PAIR_ST *head, const char *name);

/* Removes and frees the node of that name. No effect when there is none or `head` is null. */
MSGAPI_EXPORT void ORP_UTIL_NvPairDelByName(ORP_UTIL_NV_PAIR_ST **head, const char *name);

/* Frees all nodes; *head becomes null. No effect when `head` is null. */
MSGAPI_EXPORT void ORP_UTIL_NvPairDelAll(ORP_UTIL_NV_PAIR_ST **head);

#endif
