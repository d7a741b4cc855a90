/*
 * Messages between the application processes of the device: the header record, the process's
 * connection to the message server, sending, receiving, synchronous and asynchronous requests, and
 * dispatch to message procedures.
 *
 * A message is one heap block: the 40-byte header, then `ulDataLen` body bytes. Whoever holds the
 * pointer owns it and releases it with free(), unless a function says otherwise.
 * docs/message-protocol.md describes what travels, docs/ownership.md who frees what.
 *
 * One thread owns the connection, the event loop and all callbacks; nothing here is locked.
 *
 * Functions that return a uint32_t without saying more return a status of msgapi/status.h. An
 * application name longer than 11 characters is cut to 11.
 */
#ifndef MSGAPI_MSG_H
#define MSGAPI_MSG_H

#include <stdint.h>
#include <stdio.h>

#include "msgapi/export.h"
#include "msgapi/messages.h"
#include "msgapi/status.h"

struct OrpUvMsg;
struct sockaddr;

/* ---- The message header ------------------------------------------------------------------ */

/* Wire and memory layout: 40 bytes without gaps, integers in host order. On a connection that the
 * server declared byte-swapped the four integers travel reversed; names and body never do. */
typedef struct ORP_MSG_HEADER_ST {
  uint32_t ulMsgType; /* ORP_MSG_TYPE_MASK: the type; the bits above belong to the transport */
  uint32_t ulSeqNum;  /* number of the request; its response carries it back */
  char aucSendApp[ORP_APP_NAME_SIZE]; /* sender; filled in by the send path */
  char aucRecvApp[ORP_APP_NAME_SIZE]; /* destination; empty for the message server itself */
  uint32_t ulMsgData;                 /* one inline word: a parameter, result, count or event */
  uint32_t ulDataLen;                 /* body bytes that follow the header */
} ORP_MSG_HEADER_ST;

/* Bytes of the header: the body begins at this offset. */
#define ORP_MSG_HEADER_SIZE 40u

/* The type proper: the only bits of ulMsgType by which types are compared. */
#define ORP_MSG_TYPE_MASK 0x000fffffu
/* The body on the wire is the path of the hand-over file that holds the real body. */
#define ORP_MSG_TYPE_BODY_IN_FILE 0x10000000u
/* The sender's board number, 0 to 7, in bits 29 to 31. */
#define ORP_MSG_TYPE_BOARD_SHIFT 29
#define ORP_MSG_TYPE_BOARD_MASK 0xe0000000u

/* Longer bodies travel in a hand-over file. */
#define ORP_MSG_MAX_INLINE_BODY 2048u
/* Longer bodies are refused on receipt. */
#define ORP_MSG_MAX_BODY 0x8000000u
/* Longer bodies are dropped by ORP_MSG_FilterProc. */
#define ORP_MSG_MAX_DISPATCHED_BODY 0x200000u
/* The body of a message whose real body is in a hand-over file: the file's path, which begins with
 * ORP_MSG_HAND_OVER_PREFIX, and zeros up to this size. */
#define ORP_MSG_HAND_OVER_PATH_SIZE 260u
#define ORP_MSG_HAND_OVER_PREFIX "/var/run/msg/msg_file_"
#define ORP_MSG_SERVER_PATH "/var/run/msgsvr"

/* ---- The message context ----------------------------------------------------------------- */

/* Takes a message or, where a function says so, null. The message stays the caller's; a procedure
 * copies what it keeps. */
typedef void (*ORP_MSG_PROC)(ORP_MSG_HEADER_ST *message);
/* Answers a message with a new block, which the caller frees, or null for no answer. */
typedef ORP_MSG_HEADER_ST *(*ORP_MSG_SYNC_PROC)(ORP_MSG_HEADER_ST *message);

/* A message put aside, in a queue that owns both the node and the message. */
typedef struct ORP_MSG_QUEUE_NODE_ST {
  struct ORP_MSG_QUEUE_NODE_ST *pstNext; /* null: the last one */
  ORP_MSG_HEADER_ST *pstMsg;             /* the queue's */
  ORP_WORD ulExtra;                      /* from ORP_MSG_AppendQueueEx, otherwise 0 */
} ORP_MSG_QUEUE_NODE_ST;

/* The process's message context: fourteen words on a 32-bit target. Programs may read it. */
typedef struct ORP_MSG_CTX_ST {
  char aucAppName[ORP_APP_NAME_SIZE]; /* as the server confirmed it; sender of every message */
  int32_t slSocket;                   /* connection to the message server; -1 without one */
  uint32_t ulReserved1;               /* 0 */
  ORP_MSG_PROC pfMsgProc;             /* set by ORP_MSG_RegisterMsgProc */
  uint32_t ulTraceEnabled;            /* non-zero: ORP_MSG_TraceProc keeps what it is handed */
  FILE *pstTraceStream;               /* opened by ORP_MSG_TraceProc */
  int32_t slTraceFd;                  /* the descriptor under it; -1 without one */
  ORP_MSG_QUEUE_NODE_ST *pstQueue;    /* messages put aside by synchronous waits */
  uint32_t ulReserved2;               /* 0 */
  uint32_t ulFlags;                   /* ORP_MSG_CTX_* */
  struct OrpUvMsg *pstWatcher;        /* the loop's message watcher, made by ORP_MSG_Init */
  uint32_t ulSeqNum;                  /* the last sequence number handed out */
} ORP_MSG_CTX_ST;

#define ORP_MSG_CTX_SWAP 0x2u           /* headers travel byte-swapped */
#define ORP_MSG_CTX_SEND_BOARD_SHIFT 26 /* bits 26 to 28: board number of what is sent */
#define ORP_MSG_CTX_RECV_BOARD_SHIFT 29 /* bits 29 to 31: board of the last received message */

/* The context of the process. The library keeps it; a program sets ulTraceEnabled and, on a
 * secondary board, the board number of what it sends. */
MSGAPI_EXPORT_DATA ORP_MSG_CTX_ST g_stMsgCtx;

/*
 * Connects the process to the message server as `appName` (null: without a name) and puts the
 * connection on the default event loop. From here on
 * - SIGPIPE is ignored;
 * - the name is registered (a server may confirm another one);
 * - messages reach ORP_MSG_FilterProc; those that were put aside do when the loop is idle;
 * - the notify client runs;
 * - a loop timer sends keep-alives for ever, if the registration reply asks for them.
 * When the process is connected already, nothing happens and the first name stays.
 *
 * Returns ORP_OK; ORP_ERR_SOCKET when the socket cannot be made or connected (no connection; a log
 * line of the module "msg" says why); ORP_ERR_MEMORY without memory for the watcher (the socket
 * stays open); otherwise the status of ORP_NOTIFYCLT_InitByName, and when that failed the context
 * is destroyed. A failed registration is not returned: it shows as a destroyed context, with
 * `g_stMsgCtx.slSocket` -1.
 */
MSGAPI_EXPORT uint32_t ORP_MSG_Init(const char *appName);

/*
 * The same without the event loop: the application receives by calling the receive functions, and
 * dispatches what was put aside with ORP_MSG_QueueClear.
 */
MSGAPI_EXPORT uint32_t ORP_MSG_InitWithoutHandle(const char *appName);

/*
 * Connects an application of a secondary board over TCP to the message server at `serverAddress`
 * (IPv4, dotted) and `port` (host order), and registers it. No event loop, no notify client; a
 * send waits at most a second in the kernel. An earlier connection is not looked at.
 *
 * Returns ORP_OK, ORP_ERR_ARGUMENT for a null address, ORP_ERR_SOCKET when the address does not
 * parse or the connection fails, or the status of a failed registration (the context is destroyed):
 * ORP_ERR_EMPTY_NAME, ORP_ERR_ARGUMENT for a reply without keep-alive words, or a status of
 * ORP_MSG_SendAndRecv.
 */
MSGAPI_EXPORT uint32_t ORP_MSG_InitSlaveApp(const char *appName, const char *serverAddress,
                                            uint16_t port);

/*
 * Closes the connection (never descriptor 0) and clears the context; a new ORP_MSG_Init may follow.
 * The message watcher stays in its loop, without a descriptor and without messages. Messages that
 * were put aside are given up unread.
 */
MSGAPI_EXPORT void ORP_MSG_Destroy(void);

/* Runs the process's event loop, in normal operation without end. When the loop ends, returns its
 * status (see ORP_UTIL_SockBaseStart). */
MSGAPI_EXPORT uint32_t ORP_MSG_GetAndDispatch(void);

/* Sets the one procedure that ORP_MSG_FilterProc calls; null clears it. */
MSGAPI_EXPORT void ORP_MSG_RegisterMsgProc(ORP_MSG_PROC procedure);

/*
 * Replaces the trace stream; the former one is closed. `descriptor` is taken over: it is kept in
 * the context when tracing is enabled (g_stMsgCtx.ulTraceEnabled) and a stream can be opened on it,
 * otherwise it is closed.
 */
MSGAPI_EXPORT void ORP_MSG_TraceProc(int32_t descriptor);

/* ---- Building messages ------------------------------------------------------------------- */

/* Clears `header` (null: ignored) and fills in type, data, the next sequence number and, when
 * given, the destination. */
MSGAPI_EXPORT void ORP_MSG_SimpleBuilder(ORP_MSG_HEADER_ST *header, const char *dstApp,
                                         uint32_t type, uint32_t data);

/*
 * The answer to `request`, in a new block that the caller frees: same type and sequence number,
 * addressed to the request's sender, with ulMsgData `data` and, when `body` is not null, a copy of
 * its `bodyLen` bytes. Null when `request` is null, `bodyLen` is 0x7FFFFFD7 or more, or without
 * memory (blocks are at most 8 MiB).
 */
MSGAPI_EXPORT ORP_MSG_HEADER_ST *ORP_MSG_MsgRespBuilder(const ORP_MSG_HEADER_ST *request,
                                                        uint32_t data, const void *body,
                                                        uint32_t bodyLen);

/* A new message with a cleared header and room for `bodyLen` bytes (not cleared). Returns its body,
 * or null without memory (blocks are at most 8 MiB). Free it by its header, ORP_MSG_GetMsgHead. */
MSGAPI_EXPORT void *ORP_MSG_GetMsgBlock(uint32_t bodyLen);

/* Makes a message of the caller's `buffer`: clears the header and gives the rest to the body.
 * Returns the body's address; null when `buffer` is null or smaller than 40 bytes. */
MSGAPI_EXPORT void *ORP_MSG_GetMsgBlockEx(void *buffer, uint32_t bufferLen);

/* The header in front of a message body; null for null. */
MSGAPI_EXPORT ORP_MSG_HEADER_ST *ORP_MSG_GetMsgHead(void *body);

/* The body after a header; null for null and when ulDataLen is 0. */
MSGAPI_EXPORT void *ORP_MSG_GetMsgByHeader(ORP_MSG_HEADER_ST *header);

/* A copy of header and body in a new block that the caller frees. Null for null, for a ulDataLen
 * above 0xFFFFFFD6, and without memory (blocks are at most 8 MiB). */
MSGAPI_EXPORT ORP_MSG_HEADER_ST *ORP_MSG_Duplicate(const ORP_MSG_HEADER_ST *message);

/* Reverses the bytes of the four integers in place; null is ignored. */
MSGAPI_EXPORT void ORP_MSG_HeadEndianSwap(ORP_MSG_HEADER_ST *header);

/* Always 0: bodies travel in the sender's byte order, and the application converts them. */
MSGAPI_EXPORT uint32_t ORP_MSG_BodyNeedEndianSwap(const ORP_MSG_HEADER_ST *message);

/* The fixed text "V1.01". */
MSGAPI_EXPORT const char *ORP_MSG_GetVersion(void);

/* ---- Sending ----------------------------------------------------------------------------- */

/*
 * A send hook sees every message before it is written. *handled is 0 at the call. When the hook
 * sets it, nothing is written and the hook's return value is the status of the send. Otherwise the
 * message goes to *descriptor, which the hook may have changed.
 */
typedef uint32_t (*ORP_MSG_SEND_HOOK)(ORP_MSG_HEADER_ST *message, uint32_t *handled,
                                      int32_t *descriptor);

/* The process's send hook; null for none. */
MSGAPI_EXPORT_DATA ORP_MSG_SEND_HOOK g_pfMsgSendHook;

/*
 * Sends `message` to the message server on the process's connection, with the process's name as
 * sender. The caller keeps the message; its type is reduced to the 20 bits of the type proper. A
 * body above 2048 bytes travels in a hand-over file; the message itself still holds it afterwards.
 *
 * Waits up to 10 s until the connection can be written. Returns ORP_OK;
 *   ORP_ERR_ARGUMENT      null message
 *   ORP_ERR_NOT_CONNECTED no connection
 *   ORP_ERR_PEER_GONE     the server closed the connection (the header is restored)
 *   ORP_ERR_NOT_WRITABLE  not writable within 10 s, the wait failed, or no memory for the message
 *                         that replaces a large body
 *   ORP_ERR_HAND_OVER     the file of a large body could not be written
 *   ORP_ERR_SYSTEM        another write error; only here the header is left as it was sent, with
 *                         the board bits and, on a swapped connection, byte-swapped
 */
MSGAPI_EXPORT uint32_t ORP_MSG_Send(ORP_MSG_HEADER_ST *message);

/* Sends on a given descriptor: offers the message, even a null one, to the send hook, then calls
 * ORP_MSG_SendTo. Leaves aucSendApp as it is. Statuses of ORP_MSG_SendTo or of the hook. */
MSGAPI_EXPORT uint32_t ORP_MSG_SendEx(int32_t descriptor, ORP_MSG_HEADER_ST *message);

/*
 * Writes the message to the descriptor, past the hook. `address` (null for a connected socket) and
 * its length are handed to the kernel as they are. Statuses as ORP_MSG_Send; ORP_ERR_ARGUMENT also
 * for a negative descriptor.
 */
MSGAPI_EXPORT uint32_t ORP_MSG_SendTo(int32_t descriptor, ORP_MSG_HEADER_ST *message,
                                      const struct sockaddr *address, uint32_t addressLength);

/* Sends a header-only message to `dstApp` (null or empty: the server) with a fresh sequence number.
 * This and the following functions return the status of ORP_MSG_Send. */
MSGAPI_EXPORT uint32_t ORP_MSG_SendSimpleMsg(const char *dstApp, uint32_t type, uint32_t data);

/* The same with the given sequence number. */
MSGAPI_EXPORT uint32_t ORP_MSG_SendSimpleMsgWithSeqNum(const char *dstApp, uint32_t type,
                                                       uint32_t data, uint32_t seq);

/* Sends a copy of `body`, with sequence number 0 and data 0; with a null `body` does what
 * ORP_MSG_SendSimpleMsg does. Also ORP_ERR_MEMORY, for a bodyLen of 0xFFFFFFD7 or more and without
 * memory (blocks are at most 8 MiB). */
MSGAPI_EXPORT uint32_t ORP_MSG_SendMsgData(const char *dstApp, uint32_t type, const void *body,
                                           uint32_t bodyLen);

/* The same with `data`. With a body the sequence number is 0; without one it is a fresh number. */
MSGAPI_EXPORT uint32_t ORP_MSG_SendMsgDataWithData(const char *dstApp, uint32_t type,
                                                   const void *body, uint32_t bodyLen,
                                                   uint32_t data);

/* The same with `data` and the sequence number `seq`, with or without a body. */
MSGAPI_EXPORT uint32_t ORP_MSG_SendMsgDataWithDataSeq(const char *dstApp, uint32_t type,
                                                      const void *body, uint32_t bodyLen,
                                                      uint32_t data, uint32_t seq);

/* Accepted and ignored: ORP_OK, and nothing is sent or freed. */
MSGAPI_EXPORT uint32_t ORP_MSG_SendRealTimeMsg(ORP_MSG_HEADER_ST *message);

/* Subscribes `appName` to `event` at the server, or cancels that subscription. For a null name
 * nothing is sent and ORP_OK is returned. */
MSGAPI_EXPORT uint32_t ORP_MSG_SubscribeEventForOtherApp(uint32_t event, const char *appName);
MSGAPI_EXPORT uint32_t ORP_MSG_UnSubscribeEventForOtherApp(uint32_t event, const char *appName);

/* ---- Receiving --------------------------------------------------------------------------- */

/*
 * Reads one message from `descriptor` into a new block, stored in *messageOut; the caller frees it.
 * 16 zero bytes, which no length mentions, follow the body, so text may be read as a string.
 * `timeoutMs` bounds the wait for the header and for each further piece of the body. With 0 the
 * header may take 20 s and the body is read without a bound.
 *
 * With `convert` 0 the message stays as it arrived: flags in the type, foreign byte order, a large
 * body still in its hand-over file. Otherwise the header is brought to host order, the type is
 * reduced to its 20 bits, the sender's board is recorded in the context, and a large body is
 * fetched from its file, which is deleted.
 *
 * On failure *messageOut is null and the stream may be out of step: give the connection up.
 * Returns ORP_OK;
 *
 *   ORP_ERR_ARGUMENT   negative descriptor, null messageOut, a hand-over file outside its place, or
 *                      one longer than ORP_MSG_MAX_BODY (it is deleted)
 *   ORP_ERR_PEER_GONE  the peer closed the connection
 *   ORP_ERR_TIMEOUT    nothing came in time, or the descriptor is not open
 *   ORP_ERR_MEMORY     no memory, or a body longer than ORP_MSG_MAX_BODY (it is not read)
 *   ORP_ERR_SYSTEM     a read failed, fewer than 40 bytes came as a header, or the hand-over file
 *                      cannot be read or is no regular file
 */
MSGAPI_EXPORT uint32_t ORP_MSG_ReceiveWithEndian(int32_t descriptor, ORP_MSG_HEADER_ST **messageOut,
                                                 uint32_t timeoutMs, uint32_t convert);

/* ORP_MSG_ReceiveWithEndian with conversion. */
MSGAPI_EXPORT uint32_t ORP_MSG_Recv(int32_t descriptor, ORP_MSG_HEADER_ST **messageOut,
                                    uint32_t timeoutMs);

/* ORP_MSG_Recv on the process's connection. Do not mix with a running event loop, which reads the
 * same socket. */
MSGAPI_EXPORT uint32_t ORP_MSG_ReceiveManual(ORP_MSG_HEADER_ST **messageOut, uint32_t timeoutMs);

/* ---- Requests, and the messages put aside ------------------------------------------------- */

/*
 * Sends `request` with a fresh sequence number and waits for the answer: the first message of the
 * request's type (20 bits), from any sender and with any sequence number. The answer is stored in
 * *responseOut and the caller frees it; on failure *responseOut is null. Every other message that
 * arrives meanwhile is put aside and dispatched later, in order. `timeoutMs` 0 means 60 s.
 *
 * A request addressed to the process itself is handed straight to ORP_MSG_FilterProc; its answer
 * still comes through the server.
 *
 * While the process has no name or is named "mic", a send hook does not see the request, unless it
 * is the registration.
 *
 * Returns ORP_OK; ORP_ERR_ARGUMENT for null arguments; ORP_ERR_PEER_GONE when the server reports
 * that the request cannot be delivered or the connection ends; ORP_ERR_TIMEOUT after the time-out
 * or 1000 other messages; or the status of the send or the receive.
 */
MSGAPI_EXPORT uint32_t ORP_MSG_SendAndRecv(ORP_MSG_HEADER_ST *request,
                                           ORP_MSG_HEADER_ST **responseOut, uint32_t timeoutMs);

/* The same, but only a message from the application that the request is addressed to is the
 * answer, and a send hook always sees the request. */
MSGAPI_EXPORT uint32_t ORP_MSG_SendAndReceiveWithAppName(ORP_MSG_HEADER_ST *request,
                                                         ORP_MSG_HEADER_ST **responseOut,
                                                         uint32_t timeoutMs);

/* The waiting half of ORP_MSG_SendAndRecv: `request` has been sent already. Here and below,
 * *responseOut is null on failure. */
MSGAPI_EXPORT uint32_t ORP_MSG_RecvResp(const ORP_MSG_HEADER_ST *request,
                                        ORP_MSG_HEADER_ST **responseOut, uint32_t timeoutMs);

/* The waiting half of ORP_MSG_SendAndReceiveWithAppName. */
MSGAPI_EXPORT uint32_t ORP_MSG_RecvResWithAppName(const ORP_MSG_HEADER_ST *request,
                                                  ORP_MSG_HEADER_ST **responseOut,
                                                  uint32_t timeoutMs);

/* Waits in the same way for the next message of `type`. */
MSGAPI_EXPORT uint32_t ORP_MSG_ReceiveWithType(uint32_t type, ORP_MSG_HEADER_ST **messageOut,
                                               uint32_t timeoutMs);

/* A header-only request; stores the answer's ulMsgData in *resultOut, which is 0 on failure.
 * Statuses of ORP_MSG_SendAndRecv. */
MSGAPI_EXPORT uint32_t ORP_MSG_SendAndRecvMsgData(const char *dstApp, uint32_t type, uint32_t data,
                                                  uint32_t timeoutMs, uint32_t *resultOut);

/*
 * Called once for an asynchronous request: with the answer and `timedOut` 0, or with a null message
 * and `timedOut` 1. The message is freed when the procedure returns. The procedure may start the
 * next request and may destroy the context.
 */
typedef void (*ORP_MSG_ANSWER_PROC)(ORP_MSG_HEADER_ST *message, uint32_t timedOut,
                                    ORP_WORD userData);

/*
 * Sends `request` with a fresh sequence number and returns. The event loop calls `callback` with
 * the message that has the same type (20 bits) and sequence number, or after `timeoutMs` without
 * one. A `timeoutMs` of 0 waits without end. An answer that a synchronous wait puts aside has come
 * in time, and reaches the callback when the loop goes on.
 *
 * Needs ORP_MSG_Init. Returns ORP_OK; ORP_ERR_ARGUMENT for a null argument or without a message
 * watcher; ORP_ERR_MEMORY (the request has been sent, the callback will not be called); or the
 * status of ORP_MSG_Send.
 */
MSGAPI_EXPORT uint32_t ORP_MSG_AsyncSendAndReceive(ORP_MSG_HEADER_ST *request, uint32_t timeoutMs,
                                                   ORP_WORD userData, ORP_MSG_ANSWER_PROC callback);

/* Asks the server how many processes are registered under `appName`; 0 for null and after any
 * failure. Waits up to 5 s. */
MSGAPI_EXPORT uint32_t ORP_MSG_GetNumOfProcesses(const char *appName);

/* Asks `appName` to exit, waits up to 5 s for its acknowledgement, then tells the server. Returns
 * the bitwise OR of the two statuses. For null nothing is done and ORP_OK is returned. */
MSGAPI_EXPORT uint32_t ORP_MSG_SafeExitProcesses(const char *appName);

/* Appends a message to the queue at `head` (the address of the pointer to its first node). The
 * queue owns the message from then on. ORP_OK, ORP_ERR_ARGUMENT for null arguments, or
 * ORP_ERR_MEMORY (the message stays the caller's). */
MSGAPI_EXPORT uint32_t ORP_MSG_AppendQueue(ORP_MSG_QUEUE_NODE_ST **head,
                                           ORP_MSG_HEADER_ST *message);
/* The same with a word kept beside the message. */
MSGAPI_EXPORT uint32_t ORP_MSG_AppendQueueEx(ORP_MSG_QUEUE_NODE_ST **head,
                                             ORP_MSG_HEADER_ST *message, ORP_WORD extra);

/* Frees all nodes of the queue with their messages; null is ignored. */
MSGAPI_EXPORT void ORP_MSG_DestroyQueue(ORP_MSG_QUEUE_NODE_ST **head);

/* Dispatches everything in the context's queue of messages put aside, in order, and what is added
 * meanwhile. */
MSGAPI_EXPORT void ORP_MSG_QueueClear(void);

/* ---- Dispatch ---------------------------------------------------------------------------- */

/*
 * The gate through which every message enters the application: calls the procedure that
 * ORP_MSG_RegisterMsgProc set, even with a null message. A message whose sender or destination has
 * no NUL is refused with a console line; one with a body above 0x200000 bytes is dropped. The
 * message stays the caller's.
 */
MSGAPI_EXPORT void ORP_MSG_FilterProc(ORP_MSG_HEADER_ST *message);

/* A registered procedure. */
typedef struct ORP_MSG_REGISTRATION_ST *ORP_MSG_REG_HANDLE;

/*
 * Registers procedures for messages of exactly `type`, called by ORP_MSG_DefaultMsgProcs in the
 * order of ascending `priority` and, where that is equal, of registration. Either procedure may be
 * null; with both null the registration never matches. The answer of the sync procedure is sent
 * back to the sender with the type of the request; its sequence number, data and body are the
 * procedure's (see ORP_MSG_MsgRespBuilder).
 *
 * *handleOut (when given) receives the handle for ORP_MSG_UnRegisterMsgProc, or null on failure.
 * Returns ORP_OK or ORP_ERR_MEMORY.
 */
MSGAPI_EXPORT uint32_t ORP_MSG_RegMsgProcEx(uint32_t type, ORP_MSG_PROC messageProcedure,
                                            ORP_MSG_SYNC_PROC syncProcedure, uint32_t priority,
                                            ORP_MSG_REG_HANDLE *handleOut);
/* ORP_MSG_RegMsgProcEx with a message procedure only. */
MSGAPI_EXPORT uint32_t ORP_MSG_RegMsgProc(uint32_t type, ORP_MSG_PROC messageProcedure,
                                          uint32_t priority, ORP_MSG_REG_HANDLE *handleOut);
/* ORP_MSG_RegMsgProcEx with a sync procedure only. */
MSGAPI_EXPORT uint32_t ORP_MSG_RegisterSyncMsgProc(uint32_t type, ORP_MSG_SYNC_PROC syncProcedure,
                                                   uint32_t priority,
                                                   ORP_MSG_REG_HANDLE *handleOut);

/* Removes and frees a registration. A procedure may remove any, its own included. Null and handles
 * that are not registered are ignored. */
MSGAPI_EXPORT void ORP_MSG_UnRegisterMsgProc(ORP_MSG_REG_HANDLE handle);

/*
 * Calls every registered procedure of the message's type. When there is none, an event (types
 * 0x2DA00 to 0x2DAFF) goes to the event subscriptions, and a request to exit (0x706) addressed to
 * one of the daemons dhcps, ssdpd, ntwksync, kobridge, devmngr, coapclient and datacli is
 * acknowledged and ends the process with exit status 0. Null is ignored. The message stays the
 * caller's.
 */
MSGAPI_EXPORT void ORP_MSG_DefaultMsgProcs(ORP_MSG_HEADER_ST *message);

/* The same; pass it to ORP_MSG_RegisterMsgProc. */
MSGAPI_EXPORT void ORP_MSG_DefaultMsgProc(ORP_MSG_HEADER_ST *message);

#endif
