/*
 * What nearly every daemon needs beside the library: staying connected when the servers are
 * restarted, signals as events of the loop, texts of statuses, and all of these in one call.
 *
 * These functions are not in libmsgapi: they are a small static library, libmsgapi-kit, made of
 * what libmsgapi exports (`pkg-config --libs libmsgapi-kit`, in CMake msgapi::kit).
 *
 * One thread owns all of this: the one that runs the default loop. Functions that return a uint32_t
 * without saying more return a status of msgapi/status.h.
 */
#ifndef MSGAPI_KIT_H
#define MSGAPI_KIT_H

#include <stdint.h>

#include "msgapi/event.h"
#include "msgapi/export.h"
#include "msgapi/msg.h"
#include "msgapi/notify.h"
#include "msgapi/restful.h"

/* ---- Staying connected ------------------------------------------------------------------- */

/* The servers that a process is connected to. */
#define MSGKIT_MESSAGE_SERVER 0u
#define MSGKIT_NOTIFY_SERVER 1u /* "cms" and "web" only, see ORP_NOTIFYCLT_InitByName */

/* Learns that the connection to `server` has been made (1, also the first time) or has ended (0).
 * It may make requests and may call msgkit_disconnect(). */
typedef void (*MSGKIT_CHANGED_PROC)(uint32_t server, uint32_t connected);

/*
 * Connects to the message server as `name` (at most 11 characters) and keeps that connection. The
 * first attempt is made inside this call. While attempts fail, more follow on the default loop:
 * after 50 ms, then after twice as long each time up to 2 s, less a random part of up to a half.
 * `changed` (may be null) learns of every connection and of every end.
 *
 * The end of a connection is noticed at once; this costs nothing per message. What arrived before
 * is dispatched first. Pending requests are then answered as timed out, because their answers can
 * no longer come. The next connection is made as the first was: the name is registered, and what
 * msgkit_subscribe, msgkit_serve_path and msgkit_on_notification were given is made known. These go
 * on as they were: procedures registered by type, the message procedure (ORP_MSG_DefaultMsgProc,
 * unless another one was set before this call or since), the sequence numbers, ulTraceEnabled and
 * the board number of what is sent. Meanwhile sends return ORP_ERR_NOT_CONNECTED. Ends, attempts
 * and connections are logged as module `name`.
 *
 * An attempt waits for the server's answer as ORP_MSG_Init does. "cms" and "web" do not connect to
 * the message server while the notify server is missing; once made, the two connections are kept
 * independently. The application must not call ORP_MSG_Destroy or ORP_NOTIFYCLT_Destroy meanwhile.
 *
 * Returns ORP_OK, connected or not; ORP_ERR_ARGUMENT for a name that is null, empty or too long,
 * and when a connection is kept already; ORP_ERR_SYSTEM when there is no descriptor below 1024 for
 * noticing the end; ORP_ERR_MEMORY.
 */
MSGAPI_EXTERN_C uint32_t msgkit_stay_connected(const char *name, MSGKIT_CHANGED_PROC changed);

/* Ends the connections and every attempt. What was subscribed and served is kept for the next
 * msgkit_stay_connected(). No effect when no connection is kept. */
MSGAPI_EXTERN_C void msgkit_disconnect(void);

/* 1 while the connection to `server` is there, as far as that has been noticed; else 0. */
MSGAPI_EXTERN_C uint32_t msgkit_is_connected(uint32_t server);

/*
 * Has `callback` called for events of the type `event`, or for all events with ORP_MSG_ALL_EVENTS,
 * which replaces an earlier callback for all. Subscribes on this and every later connection. May be
 * called before connecting. It cannot be undone, because callbacks cannot be removed.
 *
 * Returns ORP_OK, ORP_ERR_ARGUMENT for a null callback or a type that is no event, ORP_ERR_MEMORY.
 */
MSGAPI_EXTERN_C uint32_t msgkit_subscribe(uint32_t event, ORP_EVT_CALLBACK callback);

/*
 * Serves `table` under `path` as ORP_MSG_RegRestfulProcEx does, on this and every later connection.
 * May be called before connecting. Path and table are not copied and must stay valid.
 *
 * Returns ORP_OK, ORP_ERR_ARGUMENT for null arguments, ORP_ERR_MEMORY. What the registration itself
 * refuses (a row with too long a name, say) is logged when it is tried.
 */
MSGAPI_EXTERN_C uint32_t msgkit_serve_path(const char *path, const ORP_MSG_RESTFUL_ROW_ST *table,
                                           uint32_t expand);

/*
 * Sets the procedures (null: none) for notifications and for synchronous requests of the type
 * `type` to this module, on this and every later connection to the notify server. What
 * ORP_NOTIFYCLT_RegAsyncMsgProc sets is forgotten when a connection ends. Returns ORP_OK or
 * ORP_ERR_MEMORY.
 */
MSGAPI_EXTERN_C uint32_t msgkit_on_notification(uint32_t type, ORP_NOTIFYCLT_ASYNC_PROC procedure,
                                                ORP_NOTIFYCLT_SYNC_PROC requestProcedure);

/* ---- Signals ----------------------------------------------------------------------------- */

/* Called by the loop, not in a signal handler: it may do anything. */
typedef void (*MSGKIT_SIGNAL_PROC)(int32_t signal);

/*
 * Has the default loop call `procedure` after `signal` has arrived, once however often it arrived
 * meanwhile; null gives the signal its former action back.
 *
 * The signal is caught, not blocked, so every child has its default action, whoever starts it. It
 * does not matter which thread gets the signal. System calls that it interrupts are restarted where
 * the kernel does that (signal(7) lists those that are not).
 *
 * Returns ORP_OK; ORP_ERR_ARGUMENT for a signal that cannot be caught, that reports a fault of the
 * program (SIGSEGV, SIGBUS, SIGFPE, SIGILL), and for SIGCHLD, which msgapi/process.h needs;
 * ORP_ERR_SYSTEM without a descriptor below 1024; ORP_ERR_MEMORY.
 */
MSGAPI_EXTERN_C uint32_t msgkit_on_signal(int32_t signal, MSGKIT_SIGNAL_PROC procedure);

/* ---- Texts of statuses ------------------------------------------------------------------- */

/* Families of functions give the same numbers different meanings. */
#define MSGKIT_STATUS_MESSAGES 0u      /* the loop and the message layer (msgapi/status.h) */
#define MSGKIT_STATUS_STORE 1u         /* the configuration store */
#define MSGKIT_STATUS_CONFIGURATION 2u /* requests to the configuration manager */
#define MSGKIT_STATUS_ITEMS 3u         /* DM messages */
#define MSGKIT_STATUS_EVENTS 4u
#define MSGKIT_STATUS_LOGIN 5u
#define MSGKIT_STATUS_PROCESSES 6u
#define MSGKIT_STATUS_PATHS 7u
#define MSGKIT_STATUS_BLUR 8u
#define MSGKIT_STATUS_BRIDGES 9u
#define MSGKIT_STATUS_NOTIFY 10u
#define MSGKIT_STATUS_DNS 11u
#define MSGKIT_STATUS_CHARSET 12u
#define MSGKIT_STATUS_LOG 13u
#define MSGKIT_STATUS_SOCKETS 14u

/*
 * The name of the constant ("ORP_ERR_TIMEOUT") and a sentence ("what was waited for did not come in
 * time") for a number that a function of the family returned. Families that hand on statuses of the
 * message layer or the store know those, too. Never null: "?" and "unknown status" for a number
 * that it does not know. docs/statuses.md lists them. Numbers of the log client are negative.
 */
MSGAPI_EXTERN_C const char *msgkit_status_name(uint32_t family, int64_t status);
MSGAPI_EXTERN_C const char *msgkit_status_sentence(uint32_t family, int64_t status);

/* ---- A whole daemon ---------------------------------------------------------------------- */

/* Called at the start of a daemon; returns a status. */
typedef uint32_t (*MSGKIT_START_PROC)(void);
/* Called for one of the occasions below. */
typedef void (*MSGKIT_PROC)(void);

/*
 * A daemon. Procedures may be null. pfStart registers procedures, paths and subscriptions; any
 * status but ORP_OK ends the daemon. pfStop is called before the connection is given up.
 */
typedef struct MSGKIT_DAEMON_ST {
  const char *pcName;            /* application and log module; at most 11 characters */
  MSGKIT_START_PROC pfStart;     /* called before connecting */
  MSGKIT_CHANGED_PROC pfChanged; /* as for msgkit_stay_connected() */
  MSGKIT_PROC pfReload;          /* called on SIGHUP */
  MSGKIT_PROC pfStop;            /* called before the daemon ends */
} MSGKIT_DAEMON_ST;

/*
 * A daemon's main program: calls pfStart, connects and stays connected, and runs the default loop
 * until SIGTERM, SIGINT, a request to exit (ORP_MSG_EXIT) or OrpUvLoopStop. Then calls pfStop,
 * acknowledges the request, and disconnects. SIGHUP calls pfReload and is ignored without one.
 * Start, end and the reason are logged.
 *
 * Whoever asks it to exit waits 5 s for the acknowledgement (ORP_MSG_SafeExitProcesses): pfStop
 * should be done by then.
 *
 * Returns the exit status of the process: 0 after an orderly end, 1 when the daemon could not start
 * or the loop failed; the log says why.
 */
MSGAPI_EXTERN_C int msgkit_run_daemon(const MSGKIT_DAEMON_ST *daemon);

#endif
