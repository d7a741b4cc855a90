/*
 * Small requests to the message server and the web application: for dynamic applications (the
 * server starts them when their listening socket sees traffic), synchronisation points and scripts;
 * and two queries of the system.
 *
 * Functions that send without waiting return the status of ORP_MSG_Send. Application names are cut
 * to 11 characters.
 */
#ifndef MSGAPI_DYNAPP_H
#define MSGAPI_DYNAPP_H

#include <stdint.h>

#include "msgapi/export.h"

/* What the server is to do. ON: listen in the application's place and start it when there is
 * traffic. OFF: stop it and listen no more. RESTART: end it and start it at once. */
#define ORP_DYNAPP_ON 0u
#define ORP_DYNAPP_OFF 1u
#define ORP_DYNAPP_RESTART 2u

/* How long ORP_UTIL_UpdateDynAppListenFd waits for the application to exit, in ms; 5000. */
MSGAPI_EXPORT_DATA uint32_t g_ulSafeExitMsgTimeout;

/*
 * Tells the server what to do with a dynamic application: `value` is ORP_DYNAPP_*. With anything
 * but ORP_DYNAPP_ON, the application is first asked to exit, unless it is this process. A line on
 * standard output says so, and its answer is awaited; when none comes a second line says that, and
 * the server is told all the same. Returns 1 for null, else the status of the send.
 */
MSGAPI_EXPORT uint32_t ORP_UTIL_UpdateDynAppListenFd(const char *appName, uint32_t value);
/* ORP_DYNAPP_ON for a `status` that is not 0, else ORP_DYNAPP_OFF. */
MSGAPI_EXPORT uint32_t ORP_UTIL_UpdateDynAppStatus(const char *appName, uint32_t status);
/* ORP_DYNAPP_RESTART. */
MSGAPI_EXPORT uint32_t ORP_UTIL_RestartDynApp(const char *appName);

/* Stops all dynamic applications; waits up to 20 s. The reply's ulMsgData, or the status of
 * ORP_MSG_SendAndRecv. */
MSGAPI_EXPORT uint32_t ORP_UTIL_KillAllDynApp(void);

/* The wait at a named synchronisation point is not available: always ORP_ERR_ARGUMENT, or
 * ORP_ERR_SYSTEM for a name of more than 11 characters. Nothing is sent. */
MSGAPI_EXPORT uint32_t ORP_MSG_OrpSyncWait(const char *name, uint32_t timeoutMs);
/* Releases a synchronisation point. 1 for a null or empty name. */
MSGAPI_EXPORT uint32_t ORP_MSG_OrpSyncPost(const char *name);

/* Posts a script with its first argument (null: empty) to the web application. Status of the send;
 * 1 for a null script, one that is too long (messages are at most 8 MiB), a first argument of more
 * than 255 characters, and without memory. */
MSGAPI_EXPORT uint32_t ORP_UTIL_PostLua(const char *first, const char *script);

/* Seconds since the system started; 0 when that cannot be read. */
MSGAPI_EXPORT uint32_t ORP_UTIL_GetSysUpTime(void);

/* From the kernel's release text: 0 when it contains "2.6.21", 2 when it contains "2.6.36", else
 * 1. */
MSGAPI_EXPORT uint32_t ORP_UTIL_GetLinuxVersion(void);

#endif
