/* Finding processes in /proc, and an interface's address. */
#ifndef MSGAPI_PROC_H
#define MSGAPI_PROC_H

#include <stdint.h>

#include "msgapi/export.h"

struct sockaddr_in;

/*
 * The ids of the processes whose command line contains `name`, in the order of /proc. The arguments
 * of a command line are joined without separators, and the line is cut to 237 characters. Returns a
 * new array, ended by a 0, that the caller frees with free().
 *
 * Mind the two arrays for no match: {1, 0} for the name "init", and for any other name an array of
 * one element, 0xFFFFFFFF, WITHOUT a 0 after it. Look at the first element before going on.
 *
 * Null for a null name, without memory, and when /proc cannot be read.
 */
MSGAPI_EXPORT uint32_t *ORP_UTIL_FindPidByName(const char *name);

/* The first id of that array for `name` without its blanks; 0xFFFFFFFF when there is none (1 for
 * "init"); 0 for null, a name of 240 characters or more, and on failure. */
MSGAPI_EXPORT uint32_t ORP_UTIL_GetPid(const char *name);

/* The id of the first process, kernel threads included, whose line "Name:" in /proc/PID/status
 * contains `name`; 0xFFFFFFFF when there is none and on failure. */
MSGAPI_EXPORT uint32_t ORP_UTIL_FindKernelPidByName(const char *name);

/* Stores the IPv4 address of the interface `name` (at most 15 characters) in *address: family and
 * address are filled in. Returns 0; 1 for null arguments; 1, with *address cleared, when there is
 * no address. */
MSGAPI_EXPORT uint32_t ORP_UTIL_GetIpByName(const char *name, struct sockaddr_in *address);

#endif
