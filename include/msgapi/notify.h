/*
 * The notify client: the process's connection to the notify server, over which modules with small
 * numbers (module ids) send each other notifications and synchronous requests.
 *
 * There is one client per process. Init starts it; the event loop's thread receives and delivers.
 * ORP_NOTIFYCLT_PostAsynNotify and ORP_NOTIFYCLT_PostSimpleAsynNotify may be called on any thread;
 * everything else belongs to the thread of the default loop. Procedures may register procedures,
 * send, make synchronous requests and destroy the client.
 *
 * docs/notify-protocol.md describes what travels.
 */
#ifndef MSGAPI_NOTIFY_H
#define MSGAPI_NOTIFY_H

#include <stdint.h>

#include "msgapi/export.h"

/* Results. They share numbers with the statuses of msgapi/status.h, not their meaning. */
#define ORP_NOTIFYCLT_OK 0u
#define ORP_NOTIFYCLT_ERR_SOCKET 0x10000u       /* no socket, or not bound or not connected */
#define ORP_NOTIFYCLT_ERR_ARGUMENT 0x10001u     /* bad argument, or not connected */
#define ORP_NOTIFYCLT_ERR_MODULE 0x10002u       /* module id out of range */
#define ORP_NOTIFYCLT_ERR_PEER_GONE 0x10003u    /* end of stream, or not registered */
#define ORP_NOTIFYCLT_ERR_TIMEOUT 0x10004u      /* nothing to read in time; EPIPE when writing */
#define ORP_NOTIFYCLT_ERR_MEMORY 0x10005u       /* no memory, too long, or not in the loop */
#define ORP_NOTIFYCLT_ERR_IO 0x10006u           /* another error of read or write */
#define ORP_NOTIFYCLT_ERR_NOT_WRITABLE 0x10007u /* the server took nothing for 10 seconds */

/* Module ids run from 1 to ORP_NOTIFYCLT_MODULES - 1. */
#define ORP_NOTIFYCLT_MODULES 110u
/* The notify server itself, and the type of the registration sent to it. */
#define ORP_NOTIFYCLT_SERVER 30u
#define ORP_NOTIFYCLT_REGISTER 0u

/* The server's socket, and a client's own, named after its process id. */
#define ORP_NOTIFYCLT_DIRECTORY "/var/run/notify"
#define ORP_NOTIFYCLT_SERVER_NAME "notifyserver"
#define ORP_NOTIFYCLT_CLIENT_PATH ORP_NOTIFYCLT_DIRECTORY "/client%05d"

/* NOTIFY_MSG.ack_tag. */
#define ORP_NOTIFYCLT_REQUEST 1u /* also in notifications */
#define ORP_NOTIFYCLT_REPLY 2u

/* Messages with more data are refused on receipt. */
#define ORP_NOTIFYCLT_MAX_DATA 0x800000u

/*
 * The head of a message, in memory and on the connection: 48 bytes in host byte order. data_len
 * bytes of data follow it.
 */
typedef struct NOTIFY_MSG {
  uint32_t msg_type;      /* selects the receiver's procedure */
  uint32_t seq_num;       /* the sender's running number, from 1; a reply carries its request's */
  uint32_t source_id;     /* module id of the sender */
  uint32_t des_id;        /* module id of the receiver */
  uint32_t sync_tag;      /* 1: synchronous request or its reply; 0: notification */
  uint32_t ack_tag;       /* ORP_NOTIFYCLT_REQUEST or ORP_NOTIFYCLT_REPLY */
  uint32_t data_len;      /* bytes of data that follow the head */
  uint32_t sub_data_len1; /* length of a notification's first item, at the start of the data */
  uint32_t sub_data_len2; /* length of the second, which follows the first */
  uint32_t sync_arg;      /* a synchronous request's optional argument, else 0 */
  uint32_t reserved;      /* 0 */
  uint32_t async_flag;    /* 1 in messages of ORP_NOTIFYCLT_PostAsynNotify, else 0 */
} NOTIFY_MSG;

/*
 * Procedures. Data and items are valid until the procedure returns. At least 16 zero bytes, which
 * no length mentions, follow them.
 *
 * A synchronous procedure takes a request and hands over its reply: a malloc'd block, which the
 * client frees, in *reply, and its length in *replyLen. Both are preset to "no data". The procedure
 * is also called for a reply that nobody waits for (any more); both pointers are then null.
 */
typedef void (*ORP_NOTIFYCLT_SYNC_PROC)(void *data, uint32_t *replyLen, void **reply);
/* The same for every type without such a procedure. Mind the order of the arguments. */
typedef void (*ORP_NOTIFYCLT_SYNC_ANY_PROC)(uint32_t msgType, void *data, void **reply,
                                            uint32_t *replyLen);
/*
 * Takes a notification. `first` is null when there is no data, `second` when its length is 0. An
 * item whose stated length runs past the data is null, too.
 */
typedef void (*ORP_NOTIFYCLT_ASYNC_PROC)(void *first, void *second);
/* The same for every type without such a procedure. */
typedef void (*ORP_NOTIFYCLT_ASYNC_ANY_PROC)(uint32_t msgType, void *first, void *second);

/*
 * Connects to the notify server as module `moduleId`, registers it there and receives through the
 * default loop from then on. No effect when connected. The client's own socket is bound to
 * ORP_NOTIFYCLT_CLIENT_PATH with the process id, replacing what is there.
 *
 * Returns ORP_NOTIFYCLT_OK (also when already connected); ORP_NOTIFYCLT_ERR_MODULE for an id out
 * of range; ORP_NOTIFYCLT_ERR_SOCKET; ORP_NOTIFYCLT_ERR_PEER_GONE, printed, when the registration
 * cannot be sent; ORP_NOTIFYCLT_ERR_MEMORY when the loop does not take the connection. A failure
 * once there is a socket leaves the client as ORP_NOTIFYCLT_Destroy does.
 *
 * When the server ends the connection, a line is printed once, the loop stops reading and sends
 * fail. After ORP_NOTIFYCLT_Destroy a new Init is possible.
 */
MSGAPI_EXPORT uint32_t ORP_NOTIFYCLT_Init(uint32_t moduleId);

/* ORP_NOTIFYCLT_Init with the id of an application that has one: "cms" or "web". For every other
 * name (also null) ORP_NOTIFYCLT_OK without a connection. */
MSGAPI_EXPORT uint32_t ORP_NOTIFYCLT_InitByName(const char *name);

/* Closes the connection and forgets everything: module id, sequence number, procedures, messages
 * that were put aside. Only the count of sends that failed in a row is kept. The process that made
 * the client's own socket removes it from the file system, here or in exit(). */
MSGAPI_EXPORT void ORP_NOTIFYCLT_Destroy(void);

/*
 * Uses the connected stream socket `fd` (-1: none) for all further traffic and for
 * ORP_NOTIFYCLT_Destroy, which closes it when it is above 0. Nothing else changes: the loop goes on
 * watching the connection of ORP_NOTIFYCLT_Init, where the module is registered. When that one is
 * ready, a message is read from `fd`. The former descriptor is not closed.
 */
MSGAPI_EXPORT void ORP_NOTIFYCLT_SwitchSock(int32_t fd);

/* The id of a module by its name ("cms", "web", "sms", ...), 0 when there is none. */
MSGAPI_EXPORT uint32_t ORP_NOTIFYCLT_GetMIDByName(const char *name);
/* The name of a module by its id, null when there is none. */
MSGAPI_EXPORT const char *ORP_NOTIFYCLT_GetNameByMID(uint32_t moduleId);

/*
 * Set the procedure (null: none) for synchronous requests, or for notifications, of one type, in
 * place of an earlier one. They may be called before ORP_NOTIFYCLT_Init, which keeps the procedures
 * unless it fails. Return ORP_NOTIFYCLT_OK or ORP_NOTIFYCLT_ERR_MEMORY.
 */
MSGAPI_EXPORT uint32_t ORP_NOTIFYCLT_RegSyncMsgProc(uint32_t msgType, ORP_NOTIFYCLT_SYNC_PROC proc);
MSGAPI_EXPORT uint32_t ORP_NOTIFYCLT_RegAsyncMsgProc(uint32_t msgType,
                                                     ORP_NOTIFYCLT_ASYNC_PROC proc);
/* Sets the two procedures (null: none) for the types without one of their own. The name is exported
 * with this spelling. */
MSGAPI_EXPORT void ORP_NOTIYCLT_RegMsgProc(ORP_NOTIFYCLT_SYNC_ANY_PROC syncProc,
                                           ORP_NOTIFYCLT_ASYNC_ANY_PROC asyncProc);

/*
 * Sends a synchronous request with `dataLen` bytes of `data` to module `desId` and waits for the
 * reply: the message with the same type and sequence number. Messages that arrive meanwhile are
 * delivered by a later iteration of the loop. `syncArg` (may be null) is sent along.
 *
 * On success *respData is the reply's data, a malloc'd block that the caller frees (null for a
 * reply without data), and *respLen its length. Either pointer may be null. On failure they are set
 * to null and 0.
 *
 * Returns ORP_NOTIFYCLT_OK; ORP_NOTIFYCLT_ERR_ARGUMENT when not connected or for null data with a
 * length; ORP_NOTIFYCLT_ERR_TIMEOUT when nothing at all arrives for 20 seconds, or for EPIPE;
 * ORP_NOTIFYCLT_ERR_PEER_GONE at the end of the stream; ORP_NOTIFYCLT_ERR_MEMORY, also for
 * data that does not fit 8 MiB together with its head of 48 bytes; ORP_NOTIFYCLT_ERR_IO;
 * ORP_NOTIFYCLT_ERR_NOT_WRITABLE. What fails on the connection is printed.
 */
MSGAPI_EXPORT uint32_t ORP_NOTIFYCLT_SendSynNotify(uint32_t desId, uint32_t msgType,
                                                   const void *data, uint32_t dataLen,
                                                   void **respData, uint32_t *respLen,
                                                   const uint32_t *syncArg);

/*
 * Sends a notification with two items to module `desId`; a null item counts as empty. May be called
 * on any thread. Blocks while the server takes nothing.
 *
 * Returns ORP_NOTIFYCLT_OK; ORP_NOTIFYCLT_ERR_ARGUMENT when not connected;
 * ORP_NOTIFYCLT_ERR_MEMORY as above; ORP_NOTIFYCLT_ERR_TIMEOUT for EPIPE; ORP_NOTIFYCLT_ERR_IO;
 * ORP_NOTIFYCLT_ERR_NOT_WRITABLE when the connection cannot be written to for 10 seconds. Once ten
 * sends in a row have returned that, every further send first reboots the device
 * ("busybox reboot -f"). A send that succeeds begins a new count.
 */
MSGAPI_EXPORT uint32_t ORP_NOTIFYCLT_PostAsynNotify(uint32_t desId, uint32_t msgType,
                                                    const void *data1, uint32_t len1,
                                                    const void *data2, uint32_t len2);
/* The same with two 32-bit values as items. */
MSGAPI_EXPORT uint32_t ORP_NOTIFYCLT_PostSimpleAsynNotify(uint32_t desId, uint32_t msgType,
                                                          uint32_t value1, uint32_t value2);

/*
 * Delivers one message to the procedure of its type: a notification, a synchronous request, or a
 * reply that nobody waits for. Head and data are one block, which stays the caller's. A request is
 * answered unless it comes from the server; one that no procedure takes is answered without data.
 *
 * Returns ORP_NOTIFYCLT_OK; ORP_NOTIFYCLT_ERR_ARGUMENT for null; the result of sending the reply;
 * EINVAL, printed, when a procedure states a length but hands over no reply.
 */
MSGAPI_EXPORT uint32_t ORP_NOTIFYCLT_MsgFilterProc(NOTIFY_MSG *message);

#endif
