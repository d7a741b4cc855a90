/*
 * The records of the reference login control service, which the functions of msgapi/login.h copy
 * whole. On a product the product's own service defines them. C99.
 *
 * The service counts failed logins for each client and account. When the limit is reached, the
 * client is forbidden that account for a while: the first round lasts the configured time, each
 * further one twice as long, up to a day. A successful login, or a day without an attempt, makes
 * the service forget. Time during which the service is down does not count.
 *
 * Integers are in the host's byte order, texts NUL-terminated.
 */
#ifndef MSGAPI_LOGIN_RECORDS_H
#define MSGAPI_LOGIN_RECORDS_H

#include <stdint.h>

/* A text field: at most 63 characters and the NUL. */
#define ORP_LCTRL_TEXT_SIZE 64

/* ulOutcome of a login attempt. */
#define ORP_LCTRL_FAILED 0u
#define ORP_LCTRL_SUCCEEDED 1u

/* ORP_LCTRLAPI_Login: how an attempt ended. ORP_LCTRLAPI_Check: who wants to try. */
typedef struct ORP_LCTRL_REQUEST_ST {
  uint32_t ulOutcome;  /* ORP_LCTRL_FAILED or ORP_LCTRL_SUCCEEDED; a check ignores it */
  uint32_t ulReserved; /* 0 */
  char aucClient[ORP_LCTRL_TEXT_SIZE];  /* the client's address as text */
  char aucAccount[ORP_LCTRL_TEXT_SIZE]; /* the account's name */
  uint8_t aucReserved[64];              /* 0 */
} ORP_LCTRL_REQUEST_ST;

/* ulVerdict. */
#define ORP_LCTRL_ALLOWED 0u
#define ORP_LCTRL_FORBIDDEN 1u

/* The answer to both: how things stand now. An attempt while forbidden is answered, not counted. */
typedef struct ORP_LCTRL_RESULT_ST {
  uint32_t ulVerdict;       /* ORP_LCTRL_ALLOWED or ORP_LCTRL_FORBIDDEN */
  uint32_t ulFailedTimes;   /* since the last success or round */
  uint32_t ulTimesLeft;     /* failures until the client is forbidden */
  uint32_t ulForbiddenTime; /* seconds until it is allowed again; 0 when allowed */
  uint32_t ulRound;         /* how often it was forbidden in a row */
} ORP_LCTRL_RESULT_ST;

/* ORP_LCTRLAPI_SetMaxFailedTimes. 0 leaves a value as it is. */
typedef struct ORP_LCTRL_LIMIT_ST {
  uint32_t ulMaxFailedTimes; /* 1 to 1000; 5 at first */
  uint32_t ulForbiddenTime;  /* seconds of the first round, 1 to 86400; 60 at first */
} ORP_LCTRL_LIMIT_ST;

/* ORP_LCTRLAPI_ClearForbiddenList takes 0 to forget everybody, or the IPv4 address (network order)
 * of the client to forget. */
#define ORP_LCTRL_CLEAR_ALL 0u

/* ORP_LCTRLAPI_GetForbiddenRound: asks for one client, over all its accounts. */
typedef struct ORP_LCTRL_QUERY_ST {
  uint32_t ulClient;      /* IPv4 address, network order; 0 for any client */
  uint32_t ulReserved[2]; /* 0 */
} ORP_LCTRL_QUERY_ST;

/* The highest round that is running, and the longest time that is left. */
typedef struct ORP_LCTRL_ROUND_ST {
  uint32_t ulRound;         /* 0: not forbidden */
  uint32_t ulForbiddenTime; /* seconds */
} ORP_LCTRL_ROUND_ST;

#endif
