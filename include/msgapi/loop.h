/*
 * The event loop of a process: a single-threaded loop around select() with timers, idle
 * procedures, I/O watchers and message watchers. Child processes are in msgapi/process.h.
 *
 * One thread runs a loop and makes all calls on it and its watchers; nothing is locked.
 *
 * Watchers. Every watcher record begins with an OrpUvWatcher. Records come from the library's
 * constructors or from the caller's malloc(), never from static storage or the stack, because a
 * record belongs to its loop once it is initialised. Deleting a watcher only marks it; the loop
 * unlinks it and frees it with free() at the next safe point of a run. A callback may therefore
 * start, stop or delete any watcher, its own included, stop the loop, or run it again. Inside that
 * callback only such an inner run frees what is deleted, and it spares the callback's own watcher.
 * docs/loop.md describes the order of an iteration and when things are freed.
 *
 * Descriptors. A loop watches descriptors 0 to 1023. A watcher on any other descriptor is kept
 * but never waited for, as if it had none.
 *
 * Functions that take a loop use the process's default loop when it is null, except where they say
 * otherwise. Results are statuses of msgapi/status.h where nothing else is said.
 */
#ifndef MSGAPI_LOOP_H
#define MSGAPI_LOOP_H

#include <stdint.h>

#include "msgapi/export.h"
#include "msgapi/status.h"

struct ORP_MSG_HEADER_ST;

/* The loop and the watchers; their records are below. Forced events are the library's own. */
typedef struct OrpUvLoop OrpUvLoop;
typedef struct OrpUvWatcher OrpUvWatcher;
typedef struct OrpUvTimer OrpUvTimer;
typedef struct OrpUvIdle OrpUvIdle;
typedef struct OrpUvIo OrpUvIo;
typedef struct OrpUvMsg OrpUvMsg;
typedef struct OrpUvMsgPending OrpUvMsgPending;
typedef struct OrpUvForced OrpUvForced;

/* ---- Records ----------------------------------------------------------------------------- */

/* Watcher types, in OrpUvWatcher.status. */
#define ORP_UV_TIMER 0x01u
#define ORP_UV_IDLE 0x02u
#define ORP_UV_IO 0x04u
#define ORP_UV_PROCESS 0x08u
#define ORP_UV_SOCKBASE 0x10u /* with ORP_UV_IO: a socket base (msgapi/sockbase.h) */
#define ORP_UV_MSG 0x20u      /* with ORP_UV_IO: a message watcher */

/* Further bits of OrpUvWatcher.status. Other bits belong to the library. */
#define ORP_UV_MSG_RAW 0x40u   /* set by the user: whatever one read returns is a message */
#define ORP_UV_REDIRECT 0x800u /* with ORP_UV_IO: a pipe of a child process */
#define ORP_UV_DELETED 0x1000u /* waiting to be freed by the loop */
#define ORP_UV_COUNTED 0x2000u /* counts in the loop's activeCount while active */
#define ORP_UV_ACTIVE 0x4000u  /* started */

/* What every watcher record begins with. */
struct OrpUvWatcher {
  OrpUvWatcher *link; /* next watcher of the loop */
  OrpUvLoop *loop;    /* whose watcher it is */
  uint32_t status;    /* type and state, ORP_UV_* */
  ORP_WORD data;      /* the user's; a timer hands it to its procedure */
};

/* Descriptors that fit a loop's sets; a descriptor is bit fd%32 of word fd/32. */
#define ORP_UV_MAX_DESCRIPTORS 1024
typedef uint32_t OrpUvDescriptorSet[ORP_UV_MAX_DESCRIPTORS / 32];

/* OrpUvLoop.flags. Other bits belong to the library. */
#define ORP_UV_LOOP_INITIALISED 0x1u
#define ORP_UV_LOOP_STOP 0x2u
#define ORP_UV_LOOP_SKIP 0x4u /* ends the current dispatch pass, see OrpUvIoSkipLoop */

/* A loop. Programs may read it; its functions below change it. */
struct OrpUvLoop {
  uint32_t flags;          /* ORP_UV_LOOP_* */
  ORP_TIME_ST now;         /* monotonic clock at the start of the iteration */
  uint32_t activeCount;    /* started watchers that are counted */
  uint32_t idleTime;       /* ms without event after which a run ends; 0: never */
  OrpUvWatcher *watchers;  /* all watchers in order of initialisation */
  OrpUvIdle *deferredFree; /* null, or its data word holds the list of OrpUvLoopSafeFree */
  OrpUvIdle *reaper;       /* reaps child processes; null until the first spawn */
  OrpUvForced *forced;     /* forced events that wait for delivery */
  /* What is armed for reading, exceptional conditions and writing; a wait takes copies. */
  OrpUvDescriptorSet readSet;
  OrpUvDescriptorSet errorSet;
  OrpUvDescriptorSet writeSet;
  int32_t maxFd;             /* highest descriptor ever watched; never lowered */
  ORP_TIME_ST selectTimeout; /* of the next wait, set anew by every timer pass */
  uint64_t iteration;        /* completed iterations of the current run */
};

/* ---- The loop ---------------------------------------------------------------------------- */

/*
 * Makes `loop` an empty loop. The record is zeroed, so watchers and forced events of an earlier use
 * are forgotten, not freed. Null is ignored.
 */
MSGAPI_EXPORT void OrpUvLoopInit(OrpUvLoop *loop);

/* The process's default loop; never null. During a synchronous spawn it is the spawn's own loop. */
MSGAPI_EXPORT OrpUvLoop *OrpUvLoopGetDefault(void);

/*
 * Lowers the time-out of the coming wait to `time` when `time` is smaller. The timer pass at the
 * start of every iteration sets the time-out anew, so this is for idle procedures, which run
 * between that pass and the wait. Starting a timer lowers the time-out by itself. A null time is
 * ignored.
 */
MSGAPI_EXPORT void OrpUvLoopUpdateSelectTimeout(OrpUvLoop *loop, const ORP_TIME_ST *time);

/* The idle time in milliseconds (0: none), see OrpUvLoopRun, which sets it too. */
MSGAPI_EXPORT void OrpUvLoopSetIdleTime(OrpUvLoop *loop, uint32_t idleMs);
MSGAPI_EXPORT uint32_t OrpUvLoopGetIdleTime(OrpUvLoop *loop);

/* Ends the innermost run after the step that is under way. When no run is under way, the next one
 * ends at once. Null is ignored: it does not stand for the default loop here. */
MSGAPI_EXPORT void OrpUvLoopStop(OrpUvLoop *loop);

/*
 * Runs the loop until it is stopped: sets the idle time, resets the iteration counter and iterates.
 * A callback may run its own loop again. Such an inner run
 * - ends at the next stop, or at once when the loop is stopped already. Like every run it clears
 * the stop when it ends, so the run around it goes on;
 * - ends the pass over ready descriptors that called it: what is still ready is served in the next
 *   iteration; called by a timer or an idle procedure, it makes the wait of its iteration a look;
 * - frees deleted watchers, except those that the runs around it are calling or call next;
 * - does not fire the timer whose procedure it is in, unless that has been armed anew
 *   (OrpUvTimerStart, OrpUtilTimerChgPeriod);
 * - sets the idle time and the counter for the run around it, too.
 *
 * Returns ORP_OK after OrpUvLoopStop; ORP_ERR_SYSTEM when select() failed, which is printed;
 * ORP_ERR_TIMEOUT when `idleMs` is not 0 and a wait without event lasted at least the whole seconds
 * of `idleMs`. Such a wait is one of the idle time, or one up to the next timer, which then does
 * not fire. With `idleMs` below 1000 any wait without event ends the run. A forced event is an
 * event: while one is queued no idle time passes. A watched descriptor that turns out to be closed
 * does not end the run: its watcher loses it (fd -1), with a console line.
 */
MSGAPI_EXPORT uint32_t OrpUvLoopRun(OrpUvLoop *loop, uint32_t idleMs);
/* The same. */
MSGAPI_EXPORT uint32_t ORP_UV_LoopRun(OrpUvLoop *loop, uint32_t idleMs);

/* The highest descriptor ever watched by the loop. */
MSGAPI_EXPORT int32_t OrpUvLoopGetMaxFd(OrpUvLoop *loop);

/* The number of completed iterations of the current run. */
MSGAPI_EXPORT uint64_t OrpUvLoopGetCurIdx(OrpUvLoop *loop);

/*
 * Frees all watchers and forced events, and the blocks given to OrpUvLoopSafeFree, and makes the
 * loop empty again. Descriptors of I/O watchers are not closed. Pending requests whose time-out
 * timer dies here are freed without a call. When this is called inside a callback of a run of the
 * loop, the watchers are out of use at once and that run frees their memory. Null is ignored: it
 * does not stand for the default loop here.
 */
MSGAPI_EXPORT void ORP_UV_LoopDestroy(OrpUvLoop *loop);

/*
 * Hands a malloc'd block to the loop's deferred free. Returns ORP_OK; ORP_ERR_ARGUMENT when the
 * loop has no deferredFree watcher, which nothing in this library creates; ORP_ERR_MEMORY without
 * memory for the list entry. After an error the block stays the caller's.
 */
MSGAPI_EXPORT uint32_t OrpUvLoopSafeFree(OrpUvLoop *loop, void *data);

/* ---- All watchers ------------------------------------------------------------------------ */

/*
 * Fills in the head of a new watcher (type: ORP_UV_TIMER ...) and appends it to the loop, which
 * owns the record from now on. The watcher is counted and not started. ORP_ERR_ARGUMENT for a null
 * watcher.
 */
MSGAPI_EXPORT uint32_t OrpUvWatcherInit(OrpUvLoop *loop, OrpUvWatcher *watcher, uint32_t type);

/* Marks the watcher started, and not deleted. No effect on a started one. ORP_ERR_ARGUMENT for null
 * or a watcher without loop. */
MSGAPI_EXPORT uint32_t OrpUvWatcherStart(OrpUvWatcher *watcher);

/* Marks the watcher stopped and deleted: the loop frees it at its next safe point, unless it has
 * been started again by then. ORP_ERR_ARGUMENT for null or a watcher without loop. */
MSGAPI_EXPORT uint32_t OrpUvWatcherDelete(OrpUvWatcher *watcher);

/* Calls `procedure` on every watcher of the loop in order of initialisation; it may delete any.
 * ORP_ERR_SYSTEM for a null procedure. */
typedef void (*ORP_UV_ITERATE_PROC)(OrpUvWatcher *watcher, ORP_WORD argument);
MSGAPI_EXPORT uint32_t OrpUvWatcherIterateItem(OrpUvLoop *loop, ORP_WORD argument,
                                               ORP_UV_ITERATE_PROC procedure);

/* ---- Timers ------------------------------------------------------------------------------ */

/* Called at each expiry with the timer's data word; may end, change or create any timer. */
typedef void (*ORP_TIMER_PROC)(ORP_WORD data);

/* A timer. */
struct OrpUvTimer {
  OrpUvWatcher head; /* type ORP_UV_TIMER */
  /* Monotonic time of the next expiry. */
  int32_t expirySec;
  int32_t expiryUsec;

  uint32_t interval;       /* ms; 0: never fires */
  uint32_t count;          /* how often to fire; 0: for ever */
  ORP_TIMER_PROC callback; /* null: the timer ends with the next iteration */
  char name[16];           /* NUL-terminated; "" without one */
};

/*
 * Starts a timer on the default loop that calls callback(data) every `intervalMs` milliseconds,
 * `count` times or, with 0, for ever. With an interval of 0 it does not fire until
 * OrpUtilTimerChgPeriod gives it another. The first 15 characters of `name` (may be null) are kept
 * in the record.
 *
 * A timer that fires late does not catch up: its next expiry is one interval after the start of the
 * iteration that fired it. Timers due together fire in the order of their creation. A timer that is
 * started after the timer pass of an iteration shortens that iteration's wait.
 *
 * Returns the timer, or null for a null callback or without memory. The loop owns the timer, and
 * ends it by itself after `count` calls: the handle is valid until OrpUtilTimerDel or until the
 * last call has returned.
 */
MSGAPI_EXPORT OrpUvTimer *ORP_TIMER_AddWithName(uint32_t intervalMs, uint32_t count,
                                                ORP_TIMER_PROC callback, const char *name,
                                                ORP_WORD data);
/* The same. */
MSGAPI_EXPORT OrpUvTimer *OrpTimerAddWithName(uint32_t intervalMs, uint32_t count,
                                              ORP_TIMER_PROC callback, const char *name,
                                              ORP_WORD data);
/* The same without a name. */
MSGAPI_EXPORT OrpUvTimer *ORP_UTIL_TimerAdd(uint32_t intervalMs, uint32_t count,
                                            ORP_TIMER_PROC callback, ORP_WORD data);
MSGAPI_EXPORT OrpUvTimer *OrpUtilTimerAdd(uint32_t intervalMs, uint32_t count,
                                          ORP_TIMER_PROC callback, ORP_WORD data);

/* Ends the timer: it does not fire again, and the handle must not be used any more. Null is
 * ignored. */
MSGAPI_EXPORT void OrpUtilTimerDel(OrpUvTimer *timer);
/* OrpUtilTimerDel on the handle (may be null), which is then set to null. Null is ignored. */
MSGAPI_EXPORT void OrpTimerSafeDel(OrpUvTimer **timer);

/*
 * Gives the timer a new interval that begins now. An interval below 10 ms takes effect as 10 ms the
 * first time and as given afterwards; 0 puts the timer to sleep until the next change.
 * Null is ignored. The result carries no meaning.
 */
MSGAPI_EXPORT uint32_t OrpUtilTimerChgPeriod(OrpUvTimer *timer, uint32_t intervalMs);

/*
 * The time from `earlier` to `later`, never negative. The seconds are 0 when `later` is not in a
 * later second. The microseconds are 0 when they would have to borrow from seconds that are 0.
 * Nothing happens for a null argument.
 */
MSGAPI_EXPORT void OrpUtilTimerGetIntv(const ORP_TIME_ST *later, const ORP_TIME_ST *earlier,
                                       ORP_TIME_ST *result);

/* Initialises a timer in a record of the caller (no callback, interval 0, not started).
 * ORP_ERR_ARGUMENT for a null timer. */
MSGAPI_EXPORT uint32_t OrpUvTimerInit(OrpUvLoop *loop, OrpUvTimer *timer);
/* Starts it as ORP_TIMER_AddWithName describes. ORP_ERR_ARGUMENT for null or a timer without loop.
 */
MSGAPI_EXPORT uint32_t OrpUvTimerStart(OrpUvTimer *timer, uint32_t intervalMs, uint32_t count,
                                       ORP_TIMER_PROC callback, ORP_WORD data);
/* OrpUvWatcherDelete. A deleted timer does not fire, even when it is due and not yet freed. */
MSGAPI_EXPORT uint32_t OrpUvTimerDelete(OrpUvTimer *timer);

/* ---- Idle procedures --------------------------------------------------------------------- */

/* An idle procedure; it may stop its own watcher. */
typedef void (*ORP_UV_IDLE_PROC)(OrpUvIdle *watcher);

/* An idle watcher. */
struct OrpUvIdle {
  OrpUvWatcher head;     /* type ORP_UV_IDLE; the data word is the user's */
  ORP_UV_IDLE_PROC proc; /* called once in every iteration, before the loop waits; may be null */
};

/* Initialises an idle watcher in a record of the caller, without a procedure. ORP_ERR_ARGUMENT for
 * a null watcher. */
MSGAPI_EXPORT uint32_t ORP_UV_IdleInit(OrpUvLoop *loop, OrpUvIdle *watcher);

/* A new, started idle watcher; null for a null procedure or without memory. */
MSGAPI_EXPORT OrpUvIdle *ORP_UV_IdleStart(OrpUvLoop *loop, ORP_UV_IDLE_PROC proc);
/* The same. */
MSGAPI_EXPORT OrpUvIdle *OrpUvIdleStart(OrpUvLoop *loop, ORP_UV_IDLE_PROC proc);

/*
 * Deletes the watcher. Its procedure may still be called in every iteration until the loop has
 * freed the record: a procedure that must do nothing after this has to check its own state.
 * ORP_ERR_ARGUMENT for null.
 */
MSGAPI_EXPORT uint32_t OrpUvIdleStop(OrpUvIdle *watcher);

/* ---- I/O watchers ------------------------------------------------------------------------ */

/* Events. */
#define ORP_UV_READABLE 1u
#define ORP_UV_WRITABLE 2u
#define ORP_UV_EXCEPTION 4u

/* Called once for each ready event; forced events are passed as they were queued. */
typedef void (*ORP_UV_IO_PROC)(OrpUvIo *watcher, uint32_t event);

/* A watcher of one descriptor. */
struct OrpUvIo {
  OrpUvWatcher head;       /* type ORP_UV_IO; the data word is the user's */
  int32_t fd;              /* -1 once closed or found closed */
  uint32_t armed;          /* ORP_UV_READABLE ... */
  ORP_UV_IO_PROC callback; /* may be null */
};

/* Initialises an I/O watcher in a record of the caller (28 bytes or more, beginning with an
 * OrpUvIo) on `fd`, with nothing armed and not started. The descriptor becomes the watcher's: it is
 * closed by OrpUvIoDelete. ORP_ERR_ARGUMENT for a null watcher. */
MSGAPI_EXPORT uint32_t OrpUvIoInit(OrpUvLoop *loop, OrpUvIo *watcher, int32_t fd,
                                   ORP_UV_IO_PROC callback);

/* Starts the watcher and arms further events; no effect when all of `events` are armed or it names
 * none. ORP_ERR_ARGUMENT for null or a watcher without loop. */
MSGAPI_EXPORT uint32_t OrpUvIoStart(OrpUvIo *watcher, uint32_t events);

/* Disarms events; no effect when none of `events` is armed. The watcher stays started.
 * ORP_ERR_ARGUMENT for null or a watcher without loop. */
MSGAPI_EXPORT uint32_t OrpUvIoStop(OrpUvIo *watcher, uint32_t events);

/* Disarms everything, closes the descriptor (ORP_UTIL_SocketClose) and deletes the watcher.
 * ORP_ERR_ARGUMENT for null or a watcher without loop. */
MSGAPI_EXPORT uint32_t OrpUvIoDelete(OrpUvIo *watcher);

/*
 * Queues a call of the watcher's callback with `events` for the next iteration. That iteration does
 * not wait, and delivers forced events, in the order in which they were queued, instead of ready
 * descriptors. What is queued while forced events are being delivered waits for the iteration
 * after. What is queued for a watcher dies with it.
 *
 * ORP_ERR_ARGUMENT for null or a watcher without loop, ORP_ERR_MEMORY.
 */
MSGAPI_EXPORT uint32_t OrpUvIoForcedLoop(OrpUvIo *watcher, uint32_t events);

/*
 * With `on` non-zero the pass that is under way ends when the current callback returns. This is for
 * callbacks that close or replace descriptors: a ready bit might belong to another descriptor by
 * then. ORP_ERR_ARGUMENT for null or a watcher without loop.
 */
MSGAPI_EXPORT uint32_t OrpUvIoSkipLoop(OrpUvIo *watcher, uint32_t on);

/* The loop's first I/O watcher on `fd`, even one that is deleted but not yet freed; or null. */
MSGAPI_EXPORT OrpUvIo *OrpUvIoFindByFd(OrpUvLoop *loop, int32_t fd);

/* ---- Message watchers -------------------------------------------------------------------- */

/*
 * A message watcher reads whole messages from a connected socket. A framed message is a header of
 * headerSize bytes followed by as many body bytes as lengthProc says; with ORP_UV_MSG_RAW set in
 * the status a message is whatever one read of up to 1024 bytes returns. A message goes to the
 * first pending entry that it answers, otherwise to msgProc. The procedure copies what it wants to
 * keep, because the message is freed when it returns. At least 16 zero bytes follow the message; no
 * length mentions them.
 *
 * A message is read within one callback. It is dropped when a second passes without more of it,
 * when it is longer than 0x8000000 bytes, and when there is no memory for it. The stream is then
 * out of step, and the user has to notice that. At the end of the stream the watcher stays armed,
 * but its descriptor is not waited for until reading is armed anew.
 */

/* The number of body bytes after the header. A non-zero *flag asks for completeProc. */
typedef uint32_t (*ORP_UV_MSG_LENGTH_PROC)(struct ORP_MSG_HEADER_ST *header, uint32_t *flag);
/* Takes a message, which stays the watcher's. */
typedef void (*ORP_UV_MSG_PROC)(struct ORP_MSG_HEADER_ST *message);
/* Non-zero when the message answers the pending entry with these keys. */
typedef uint32_t (*ORP_UV_MSG_MATCH_PROC)(const struct ORP_MSG_HEADER_ST *message, uint32_t key1,
                                          uint32_t key2);
/*
 * Completes a message whose body has been read. It may free *message and store another malloc'd
 * block, or null, in its place. Returns ORP_OK; after any other status the message is dropped, and
 * the watcher frees what *message holds.
 */
typedef uint32_t (*ORP_UV_MSG_COMPLETE_PROC)(struct ORP_MSG_HEADER_ST **message);
/* Takes the answer to a request; with `timedOut` 1 there is none and `message` is null. */
typedef void (*ORP_UV_MSG_ANSWER_PROC)(struct ORP_MSG_HEADER_ST *message, uint32_t timedOut,
                                       ORP_WORD data);

/* A message watcher. */
struct OrpUvMsg {
  OrpUvIo io;                            /* on the connection; type ORP_UV_IO | ORP_UV_MSG */
  uint32_t headerSize;                   /* bytes read before lengthProc is asked */
  ORP_UV_MSG_LENGTH_PROC lengthProc;     /* how long the body after a header is */
  ORP_UV_MSG_PROC msgProc;               /* may be null: messages are dropped */
  ORP_UV_MSG_MATCH_PROC matchProc;       /* null: pending entries are never answered */
  ORP_UV_MSG_COMPLETE_PROC completeProc; /* may be null */
  OrpUvMsgPending *pending;              /* requests that wait for their answer, oldest first */
};

/*
 * A request that waits for its answer: a malloc'd record that the requester appends to a watcher's
 * `pending`. Its timer has count 1, calls UvMsgWatcherTimeout and has the entry as its data. From
 * then on the entry belongs to the watcher. It is taken out of the list and its timer is ended
 * before answerProc is called; it is freed when answerProc returns. When the watcher is freed
 * first, an entry with a running timer lives on until that times it out; any other entry is freed
 * with the watcher, without a call.
 */
struct OrpUvMsgPending {
  OrpUvMsgPending *link;             /* null: the last one */
  uint32_t key1;                     /* first word of the request's header: its type */
  uint32_t key2;                     /* second word of the request's header: its sequence number */
  ORP_WORD data;                     /* the requester's */
  ORP_UV_MSG_ANSWER_PROC answerProc; /* called once */
  OrpUvMsg *watcher;                 /* null once the watcher has been freed */
  OrpUvTimer *timer;                 /* may be null: no time-out */
};

/*
 * Initialises a message watcher in a malloc'd record of the caller on the connected socket `fd`,
 * with `msgProc` (may be null) and no pending entries. The caller fills in headerSize, lengthProc,
 * matchProc and completeProc, before or after this call, which leaves them alone.
 * ORP_ERR_ARGUMENT for a null watcher.
 */
MSGAPI_EXPORT uint32_t OrpUvMsgInit(OrpUvLoop *loop, OrpUvMsg *watcher, int32_t fd,
                                    ORP_UV_MSG_PROC msgProc);
/* OrpUvIoStart for reading. */
MSGAPI_EXPORT uint32_t OrpUvMsgStart(OrpUvMsg *watcher);
/* OrpUvIoDelete: closes the socket. Entries that are still pending are timed out by their timers;
 * those without a time-out end without a call. */
MSGAPI_EXPORT uint32_t OrpUvMsgDelete(OrpUvMsg *watcher);

/* The timer procedure of a pending entry, whose address is `entry`: takes it out of its watcher's
 * list, calls answerProc(null, 1, data) and frees the entry. 0 is ignored. */
MSGAPI_EXPORT void UvMsgWatcherTimeout(ORP_WORD entry);

#endif
