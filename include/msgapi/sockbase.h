/*
 * Socket bases: I/O watchers on the default loop for an application's own sockets, and waits for
 * one response with a time-out. Everything happens on the thread that runs the default loop.
 */
#ifndef MSGAPI_SOCKBASE_H
#define MSGAPI_SOCKBASE_H

#include <stdint.h>

#include "msgapi/export.h"
#include "msgapi/loop.h"

/* A socket base; the record is below. */
typedef struct ORP_UTIL_SOCKBASE_ST ORP_UTIL_SOCKBASE_ST;

/* `event` is ORP_UV_READABLE, ORP_UV_WRITABLE or ORP_UV_EXCEPTION. */
typedef void (*ORP_UTIL_SOCKBASE_PROC)(ORP_UTIL_SOCKBASE_ST *sockBase, uint32_t event);

/* An I/O watcher whose data word (io.head.data) is the user's. Owned by the loop. */
struct ORP_UTIL_SOCKBASE_ST {
  OrpUvIo io;                  /* the watcher, which comes first */
  ORP_UTIL_SOCKBASE_PROC proc; /* called for each ready or forced event; may be null */
};

/* Modes. Any other value watches for exceptional conditions. */
#define ORP_UTIL_SOCKBASE_NONE 0u
#define ORP_UTIL_SOCKBASE_READ 1u
#define ORP_UTIL_SOCKBASE_WRITE 10u

/*
 * Registers the descriptor `fd` with `proc` (may be null) on the default loop, watching for what
 * `mode` says. The socket base owns the descriptor and closes it when it is deleted. `ignored`
 * plays no part. Returns null without memory; the descriptor stays the caller's then.
 */
MSGAPI_EXPORT ORP_UTIL_SOCKBASE_ST *ORP_UTIL_SockBaseRegNew(int32_t fd, ORP_WORD ignored,
                                                            ORP_UTIL_SOCKBASE_PROC proc,
                                                            uint32_t mode, ORP_WORD data);
/* The same; the socket base, or null, is stored in *sockBaseOut (may be null). ORP_OK, or
 * ORP_ERR_ARGUMENT when none was made. */
MSGAPI_EXPORT uint32_t ORP_UTIL_SockBaseReg(int32_t fd, ORP_WORD ignored,
                                            ORP_UTIL_SOCKBASE_PROC proc, uint32_t mode,
                                            ORP_WORD data, ORP_UTIL_SOCKBASE_ST **sockBaseOut);

/* Watches for reading (mode 1) or writing (mode 10) only, or for nothing (any other). Null and a
 * socket base without descriptor are ignored. */
MSGAPI_EXPORT void ORP_UTIL_SocketBaseListen(ORP_UTIL_SOCKBASE_ST *sockBase, uint32_t mode);

/* Switches the interest in writing on and off, beside what else is watched. ORP_ERR_ARGUMENT for
 * null. */
MSGAPI_EXPORT uint32_t ORP_UTIL_SetWriteFd(ORP_UTIL_SOCKBASE_ST *sockBase);
MSGAPI_EXPORT uint32_t ORP_UTIL_ClearWriteFd(ORP_UTIL_SOCKBASE_ST *sockBase);

/* Makes the loop call the procedure with ORP_UV_READABLE in its next iteration (see
 * OrpUvIoForcedLoop). ORP_OK without effect when there is no descriptor; ORP_ERR_ARGUMENT for null;
 * ORP_ERR_MEMORY. */
MSGAPI_EXPORT uint32_t ORP_UTIL_SocketBaseForceLoop(ORP_UTIL_SOCKBASE_ST *sockBase);
/* The same, also without a descriptor; null is ignored. */
MSGAPI_EXPORT void ORP_UTIL_SocketBaseDirectDo(ORP_UTIL_SOCKBASE_ST *sockBase);

/* Ends watching, closes the socket and has the loop free the record; also ends the pass that is
 * under way. Safe inside any callback. Null is ignored. */
MSGAPI_EXPORT void ORP_UTIL_SocketBaseDelete(ORP_UTIL_SOCKBASE_ST *sockBase);
/* The same for the socket base on `fd`; nothing when the loop's first watcher on that descriptor
 * is not a socket base. */
MSGAPI_EXPORT void ORP_UTIL_SockBaseDeleteNew(int32_t fd);

/* Runs the default loop; it ends with ORP_ERR_TIMEOUT after `seconds` (0: no limit) without any
 * event, otherwise as OrpUvLoopRun says. The milliseconds wrap beyond 4294967 seconds. */
MSGAPI_EXPORT uint32_t ORP_UTIL_SockBaseStart(uint32_t seconds);

/* Kept for old callers: does nothing. */
MSGAPI_EXPORT void ORP_UTIL_SockBaseDestroy(ORP_UTIL_SOCKBASE_ST *sockBase);
/* Kept for old callers: ORP_OK. */
MSGAPI_EXPORT uint32_t ORP_UTIL_SockBaseRegEvtProc(void);

/* A wait for one response. The socket base's data word holds this record's address: leave it
 * alone. */
typedef struct ORP_UTIL_SOCK_RESP_ST {
  ORP_UTIL_SOCKBASE_ST *sockBase; /* on the descriptor that is waited for; null once it was freed */
  OrpUvTimer *timer;              /* of the time-out; null after it, or once the timer was freed */
  uint32_t timedOut;              /* 1 when the procedure is called because of the time-out */
  ORP_WORD userValue;             /* as it was given */
  ORP_WORD reserved;              /* 0 */
} ORP_UTIL_SOCK_RESP_ST;

/*
 * Calls `proc` whenever `fd` can be read, and once after `timeoutMs` (0: no time-out), that time
 * with timedOut set and an event argument that means nothing. The procedure is expected to end the
 * wait. The descriptor belongs to the wait. Returns null without memory; the descriptor then stays
 * the caller's.
 *
 * When the socket base is deleted in another way, or the loop is destroyed, the procedure is no
 * longer called, not even by the time-out. The record stays the caller's until it ends the wait.
 */
MSGAPI_EXPORT ORP_UTIL_SOCK_RESP_ST *ORP_UTIL_SockbaseWaitSockRespAsync(
    int32_t fd, ORP_WORD ignored, uint32_t timeoutMs, ORP_WORD userValue,
    ORP_UTIL_SOCKBASE_PROC proc);
/* Ends the wait: no further call, the socket is closed, the record freed. Null is ignored. */
MSGAPI_EXPORT void ORP_UTIL_SocketbaseAsyncEvtDestroy(ORP_UTIL_SOCK_RESP_ST *response);

#endif
