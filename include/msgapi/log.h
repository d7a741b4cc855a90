/*
 * Module log: the client of the log server "mlogServer", and the transport below it.
 *
 * A log line is one Unix datagram to "/var/mlog/mlogServer". Nothing is kept between calls and
 * every function may be called from any thread; two calls at the same moment that use the same
 * client name (one module, or the statistics requests of one process) share one socket path and may
 * unlink each other's socket. No call of the log client blocks for longer than 2 seconds. Failures
 * are also reported on standard output in lines that begin with "[MLOG][ERROR][<source line>]: ".
 *
 * A line that the log server does not get goes to standard error instead, as
 * "mlog: [<uptime in ms>][<module>][<level name>]:<text>" with control characters shown as "?". The
 * reason is given there at most once a minute.
 */
#ifndef MSGAPI_LOG_H
#define MSGAPI_LOG_H

#include <stdint.h>

#include "msgapi/export.h"

/* The directory of all sockets, and the server's socket in it. */
#define MLOG_IPC_PATH "/var/mlog/"
#define MLOG_SERVER_NAME "mlogServer"

/* Log levels. */
#define MLOG_LEVEL_NONE 0u
#define MLOG_LEVEL_FATAL 1u
#define MLOG_LEVEL_ERROR 2u
#define MLOG_LEVEL_WARN 4u
#define MLOG_LEVEL_INFO 8u

/* Message types. */
#define MLOG_TYPE_LOG 1u      /* payload: a text line with its NUL; no reply */
#define MLOG_TYPE_SET_STAT 2u /* payload: MlogStat; no reply */
#define MLOG_TYPE_GET_STAT 4u /* payload: MlogStat; the reply is the same with its info filled */
#define MLOG_TYPE_FLUSH 10u   /* no payload; the reply is a head without payload */

/* Bytes of a datagram: the longest payload, and the head (type and length). */
#define MLOG_MAX_PAYLOAD 1016u
#define MLOG_HEAD_SIZE 8u

/* Results: 0, or one of these. */
#define MLOG_ERR (-1)         /* bad argument, text that does not fit, failed exchange */
#define MLOG_ERR_SOCKET (-2)  /* transport failure, a receive time-out included */
#define MLOG_ERR_NETLINK (-4) /* netlink failure */

/* One datagram: the first 8 + length bytes of this record. Both numbers are in host byte order. */
typedef struct MlogMsg {
  uint32_t type;                  /* MLOG_TYPE_* */
  uint32_t length;                /* payload bytes */
  char payload[MLOG_MAX_PAYLOAD]; /* what the type says, not terminated by itself */
} MlogMsg;

/* Payload of the statistics messages. Both texts are NUL-terminated. */
typedef struct MlogStat {
  char module[256];  /* whose statistics */
  char info[256];    /* their text */
  uint32_t reserved; /* 0; included in the length field, which is 516 */
} MlogStat;

/* The name of `level`: "NONE", "FATL", "ERRO", "WARN" or "INFO"; "NONE" for any other number. */
MSGAPI_EXPORT const char *MlogGetLogLevelString(uint32_t level);

/*
 * The level whose name ("NONE", "FATL", "FATAL", "ERRO", "ERROR", "WARN", "INFO", in any case)
 * begins with `name`. 0 for null, for "" and for a name that matches nothing.
 */
MSGAPI_EXPORT uint32_t MlogGetLogLevel(const char *name);

/*
 * Sends one line "[<uptime in ms>][<module>][<level name>]:<text>" to the log server and ends it
 * with a line feed when it has none. A text of more than 255 characters is refused. Lines of the
 * levels 0 and 1 are also printed on standard output. Does nothing for a null `module` or `format`.
 * errno is kept.
 *
 * The client's socket is named after the module. So a module cannot log when its name holds "/", is
 * or begins like one of the server's own files ("mlogServer", "mlogcfg"), or does not fit a socket
 * address.
 */
MSGAPI_EXPORT void MlogPrint(const char *module, uint32_t level, const char *format, ...)
    MSGAPI_PRINTF(3, 4);

/* MlogPrint() of the text cut to 255 characters. */
MSGAPI_EXPORT void mlog_print(const char *module, uint32_t level, const char *format, ...)
    MSGAPI_PRINTF(3, 4);

/* mlog_print() for the print types 1 and 3; any other type drops the line. */
MSGAPI_EXPORT void MlogPrintWithType(uint32_t printType, const char *module, uint32_t level,
                                     const char *format, ...) MSGAPI_PRINTF(4, 5);

/*
 * Asks the server to keep `info` as the statistics of `module` (at most 255 characters each); there
 * is no reply.
 *
 * Returns 0; MLOG_ERR for a null argument, a text that does not fit or a failed send;
 * MLOG_ERR_SOCKET when the client socket cannot be opened.
 */
MSGAPI_EXPORT int32_t MlogSetStatInfo(const char *module, const char *info);

/*
 * Fetches the statistics of `module` into `buf` of `bufSize` bytes; `buf` holds "" after a failure.
 *
 * Returns 0; MLOG_ERR for a null argument, size 0, a module or answer that does not fit, or no
 * proper answer within 2 seconds; MLOG_ERR_SOCKET when the client socket cannot be opened.
 */
MSGAPI_EXPORT int32_t MlogGetStatInfo(const char *module, char *buf, uint32_t bufSize);

/*
 * Has the server write out what it holds, and waits up to 2 seconds for its answer.
 *
 * Returns 0; MLOG_ERR without a proper answer; MLOG_ERR_SOCKET when the client socket cannot be
 * opened.
 */
MSGAPI_EXPORT int32_t MlogFlushLog(void);

/* 1 when "/var/mlog/mlogcfg" says that logs go to the shared partition ("[SHARE]=1"), else 0. */
MSGAPI_EXPORT int32_t MlogUseSharePartion(void);

/*
 * Opens the client socket "/var/mlog/<name>" with mode 0660, replacing a file of that name. A
 * missing directory is created with mode 0770, whatever the umask. Close the descriptor in *fdOut
 * with MlogSocketClose().
 *
 * Returns 0, or MLOG_ERR_SOCKET with *fdOut -1 for a null argument, a system call that failed, or a
 * name that holds "/", is or begins like one of the server's own files ("mlogServer", "mlogcfg"),
 * or does not fit.
 */
MSGAPI_EXPORT int32_t MlogSocketOpen(const char *name, int32_t *fdOut);

/*
 * Closes `fd` when it is not negative and removes the socket file "/var/mlog/<name>".
 *
 * Returns 0, also when there is no such file; MLOG_ERR_SOCKET when `name` is null, longer than 117
 * characters or one that MlogSocketOpen() refuses for its text. The descriptor is closed either
 * way.
 */
MSGAPI_EXPORT int32_t MlogSocketClose(int32_t fd, const char *name);

/*
 * Sends 8 + length bytes of `msg` to the socket `serverName`, a name in "/var/mlog/" or a path that
 * begins with it. While the receiver's queue is full the call waits, up to 2 seconds in all. The
 * length is not limited here, but receivers of this library take at most 1016; for more, the
 * caller's block must be larger than an MlogMsg.
 *
 * Returns 0, or MLOG_ERR_SOCKET: negative `fd`, null argument, a name that does not fit, or a send
 * that failed.
 */
MSGAPI_EXPORT int32_t MlogSendMsg(int32_t fd, const MlogMsg *msg, const char *serverName);

/*
 * Receives one message. `msg->length` must hold the payload capacity of the block at `msg` (at most
 * 1016): nothing is written beyond 8 + capacity bytes. Waits for `timeoutSec` seconds, at most 30;
 * 0 waits for ever. When `peerNameBuf` is not null and `peerNameSize` is positive, the path of the
 * sender's socket is stored there ("" for a sender without one).
 *
 * Returns 0 for a message whose length field agrees with its size; otherwise MLOG_ERR_SOCKET:
 * negative `fd`, null `msg`, a capacity above 1016, time-out, a failed receive, a sender path that
 * does not fit, a message shorter than 8 bytes or with a wrong length. `*msg` then holds whatever
 * came.
 */
MSGAPI_EXPORT int32_t MlogRecvMsg(int32_t fd, MlogMsg *msg, uint32_t timeoutSec, char *peerNameBuf,
                                  uint32_t peerNameSize);

/*
 * MlogSendMsg() and then MlogRecvMsg(); the two messages may be one block.
 *
 * Returns 0, or MLOG_ERR_SOCKET as those two do. A capacity above 1016 is refused before anything
 * is sent.
 */
MSGAPI_EXPORT int32_t MlogSendRecvMsg(int32_t fd, const MlogMsg *sendMsg, MlogMsg *recvMsg,
                                      uint32_t timeoutSec, const char *serverName);

/*
 * Opens the log channel to the kernel: a raw netlink socket of protocol 28 whose port id is the
 * process id. The caller closes *fdOut with close().
 *
 * Returns 0, or MLOG_ERR_NETLINK with *fdOut -1.
 */
MSGAPI_EXPORT int32_t MlogNetlinkOpen(int32_t *fdOut);

/*
 * Sends `size` bytes to the kernel in one netlink message (netlink(7)) of type 3, padded to a
 * multiple of 4.
 *
 * Returns 0, or MLOG_ERR_NETLINK: negative `fd`, null `data`, size 0 or above 8 MiB, no memory, or
 * a failed send.
 */
MSGAPI_EXPORT int32_t MlogNetlinkSend(int32_t fd, const void *data, uint32_t size);

/*
 * Receives one netlink message, waiting for it as the descriptor does, and stores its payload in
 * `buf`. Messages of up to 532 bytes, head included, can be received.
 *
 * Returns 0, or MLOG_ERR_NETLINK: negative `fd`, null `buf`, size 0, a failed receive, a message
 * without payload, one that is shorter than its head says, or a payload above `bufSize`.
 */
MSGAPI_EXPORT int32_t MlogNetlinkReceive(int32_t fd, void *buf, uint32_t bufSize);

#endif
