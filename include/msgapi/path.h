/*
 * Paths that come from outside: checks whether a path may be used, path patterns, and a coding of
 * storage paths as one word. Nothing here keeps state or logs.
 */
#ifndef MSGAPI_PATH_H
#define MSGAPI_PATH_H

#include <stdint.h>

#include "msgapi/export.h"
#include "msgapi/status.h"

/*
 * Whether `path`, with all links resolved, lies where `type` allows. The path must exist and be
 * shorter than 4096 characters.
 *
 *   0       below /mnt/                       10, 12  exactly /var/cfgtmp.cfg
 *   1       below /html/                      11      exactly /var/image.head.bin
 *   2 (a)   below /app/webroot/               14      exactly /var/image.bin
 *   3 (a)   below /app/html/                  15      below /var/run/web-static/
 *   4 (a)   below /app/webroot/WebApp/common/ 16      below /var/policy_custom/
 *   5       below /etc/api/                   20      begins with /var/run/msg/msg_file
 *   6 (a)   below /app/webroot/WebApp/        others  nothing
 *   7       begins with /var/crash.tar
 *   8       below /data/userdata/
 *   9 (a)   below /app/config/
 *
 * (a): the application tree. A path that does not begin with "/app" must lie below "/system", as in
 * "/system/app/webroot/".
 *
 * Returns 1 when allowed, else 0 (also for null). Only resolves names; opens and changes nothing.
 */
MSGAPI_EXPORT uint32_t ORP_UTIL_ValidatePath(const char *path, uint32_t type);

/* The same for the types of the application tree (a) only, always below "/system". */
MSGAPI_EXPORT uint32_t ORP_M2M_ValidatePath(const char *path, uint32_t type);

/* Statuses of ORP_UTIL_IsPathAllowAccessEx. */
#define ORP_PATH_ALLOWED 0u
#define ORP_PATH_ERR_ARGUMENT 0x1000eu
#define ORP_PATH_ERR_UNRESOLVED 0x1000fu
#define ORP_PATH_ERR_BASE_TOO_LONG 0x10010u
#define ORP_PATH_ERR_OUTSIDE 0x10011u

/* Modes of ORP_UTIL_IsPathAllowAccessEx; every other mode lets the path be missing. */
#define ORP_PATH_MUST_EXIST 1u

/*
 * Whether `path`, with all links resolved, is the directory `base` or lies below it. `base` is
 * compared as text: it should be canonical and not end in "/".
 *
 * With any mode but ORP_PATH_MUST_EXIST, a path that does not exist is judged as text, without
 * resolving links, unless it holds "../".
 *
 * Returns ORP_PATH_ALLOWED (also for a base of "/"); ORP_PATH_ERR_ARGUMENT for null, a path of 4096
 * characters or more or an empty base; ORP_PATH_ERR_UNRESOLVED for a path that cannot be resolved;
 * ORP_PATH_ERR_BASE_TOO_LONG for a base of 4096 characters or more; ORP_PATH_ERR_OUTSIDE.
 */
MSGAPI_EXPORT uint32_t ORP_UTIL_IsPathAllowAccessEx(const char *base, const char *path,
                                                    uint32_t mode);

/* The same with ORP_PATH_MUST_EXIST. */
MSGAPI_EXPORT uint32_t ORP_UTIL_IsPathAllowAccess(const char *base, const char *path);

/*
 * 1 when any of the patterns, separated by "|", matches the whole path, else 0 (also for null).
 *
 * "?" matches any one character, "*" any run of characters other than "/", "**" any run; a run may
 * be empty. Every other character matches itself. An empty pattern matches the empty path.
 *
 * The time is at most proportional to the length of the patterns times that of the path. A pattern
 * above 512 characters needs as many bytes of memory, and matches nothing without it.
 */
MSGAPI_EXPORT uint32_t ORP_UTIL_MatchPrefixPath(const char *patterns, const char *path);

/*
 * Copies `text` up to the first `separator` to `out` (`size` bytes); with a size of 1 the result is
 * empty. Returns 0; 1 for null, a size or separator of 0, text that does not fit, or empty text
 * without a separator. `out` is empty after a failure.
 */
MSGAPI_EXPORT uint32_t ORP_UTIL_RemoveSuffix(const char *text, char *out, uint32_t size,
                                             char separator);

/*
 * Codes the path of something below /mnt as one word of Base64 pieces (RFC 4648, section 4):
 * "/mnt/a/b" becomes "-YQ==-Yg==", "/mnt" stays. When a path holds "/mnt", its first four
 * characters and a "/" after them are not coded.
 *
 * Returns ORP_OK; ORP_ERR_ARGUMENT for null arguments, an empty piece ("//", "/" at the end), or
 * when `out` (`size` bytes) does not hold the result with its NUL. `out` is empty after a failure.
 */
MSGAPI_EXPORT uint32_t ORP_UTIL_EncodePath(const char *path, char *out, uint32_t size);

/*
 * Turns such a word, which must begin with "-", back into a path below /mnt. Spaces count as "+",
 * because form decoding has turned "+" into spaces.
 *
 * The pieces may hold anything, "/" and ".." included: judge the result with
 * ORP_UTIL_IsPathAllowAccess before it is used.
 *
 * Returns ORP_OK; ORP_ERR_ARGUMENT for null arguments, another form, an empty or undecodable piece,
 * one with a NUL in it, or when `out` (`size` bytes) does not hold the result; ORP_ERR_MEMORY.
 * `out` is empty after a failure.
 */
MSGAPI_EXPORT uint32_t ORP_UTIL_DecodePath(const char *token, char *out, uint32_t size);

#endif
