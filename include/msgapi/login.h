/*
 * Login failure control: what a front end asks the service that counts failed logins. The message
 * server passes it on. The records belong to the service and are copied whole.
 */
#ifndef MSGAPI_LOGIN_H
#define MSGAPI_LOGIN_H

#include <stdint.h>

#include "msgapi/export.h"
#include "msgapi/messages.h"

/* Bytes of the records that travel: a login or check, its result, a limit, a query, its answer.
 * msgapi/login_records.h has the records of the reference service. */
#define ORP_LCTRL_REQUEST_SIZE 200u
#define ORP_LCTRL_RESULT_SIZE 20u
#define ORP_LCTRL_LIMIT_SIZE 8u
#define ORP_LCTRL_QUERY_SIZE 12u
#define ORP_LCTRL_ROUND_SIZE 8u

/* Statuses beside those of ORP_MSG_SendAndRecv. */
#define ORP_LCTRL_OK 0u
#define ORP_LCTRL_ERR_ARGUMENT 0x2cf0000u /* a null argument */
#define ORP_LCTRL_ERR_REPLY 0x2cf0001u    /* a reply shorter than the record */

/*
 * Login reports a login attempt, Check asks whether a client may try. `request` is a record of
 * ORP_LCTRL_REQUEST_SIZE bytes, `result` one of ORP_LCTRL_RESULT_SIZE; `result` is untouched on
 * failure. Waits up to 4 s; after a time-out a line is printed on standard output and the request
 * is repeated once. Returns one of the statuses above, or that of ORP_MSG_SendAndRecv.
 */
MSGAPI_EXPORT uint32_t ORP_LCTRLAPI_Login(const void *request, void *result);
MSGAPI_EXPORT uint32_t ORP_LCTRLAPI_Check(const void *request, void *result);

/* Sends a record of ORP_LCTRL_LIMIT_SIZE bytes without waiting: ORP_LCTRL_ERR_ARGUMENT, or the
 * status of ORP_MSG_Send. */
MSGAPI_EXPORT uint32_t ORP_LCTRLAPI_SetMaxFailedTimes(const void *limit);

/* Sends `value` without waiting; the status of ORP_MSG_Send. */
MSGAPI_EXPORT uint32_t ORP_LCTRLAPI_ClearForbiddenList(uint32_t value);

/* As ORP_LCTRLAPI_Login with records of ORP_LCTRL_QUERY_SIZE and ORP_LCTRL_ROUND_SIZE bytes. */
MSGAPI_EXPORT uint32_t ORP_LCTRLAPI_GetForbiddenRound(const void *query, void *round);

/* The configured wait between logins in seconds, 0 to 10; 0 when it cannot be read or is more. */
MSGAPI_EXPORT uint32_t ORP_LCTRLAPI_LoginWaitTime(void);

#endif
