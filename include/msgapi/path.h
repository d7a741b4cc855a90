/*
 * Paths that come from outside: checks that a path may be used.
 */
#ifndef MSGAPI_PATH_H
#define MSGAPI_PATH_H

#include <stdint.h>

#include "msgapi/export.h"

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
 * (a): the application tree; a path that does not begin with "/app" is looked for below "/system"
 * instead ("/system/app/webroot/").
 *
 * Returns 1 when allowed, else 0 (also for null). Touches nothing but the file system's names.
 */
MSGAPI_EXPORT uint32_t ORP_UTIL_ValidatePath(const char *path, uint32_t type);

/* The same for the types of the application tree (a) only, always below "/system". */
MSGAPI_EXPORT uint32_t ORP_M2M_ValidatePath(const char *path, uint32_t type);

#endif
