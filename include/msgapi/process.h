/*
 * Child processes: starting them from the event loop, with pipes to them and a procedure that
 * learns of their exit; running one to its end; running commands as the system user of their name.
 *
 * The first spawn installs a handler for SIGCHLD. It collects the exit of every child of the
 * process, also of those that other code started; that code waits with ORP_UTIL_WaitForPidEx. All
 * calls are made on the thread that runs the loops; a SIGCHLD that reaches another thread is handed
 * on to it. docs/processes.md describes how the pieces work together.
 */
#ifndef MSGAPI_PROCESS_H
#define MSGAPI_PROCESS_H

#include <stdint.h>
#include <sys/types.h>

#include "msgapi/export.h"
#include "msgapi/loop.h"
#include "msgapi/status.h"

/* Statuses of OrpUvProcessSpawnSync. */
#define ORP_ERR_SPAWN_RUNNING 0x10014u /* a synchronous spawn is running already */
#define ORP_ERR_SPAWN_OPTIONS 0x10015u /* the options cannot be copied; does not occur */

/* The two records of a spawn, below. */
typedef struct OrpUvProcess OrpUvProcess;
typedef struct OrpUvSpawnOptions OrpUvSpawnOptions;

/*
 * Called at once when the child has been reaped, possibly in the SIGCHLD handler: it may do only
 * what is async-signal-safe (signal-safety(7)). A child ended by a signal has exitCode 0, any other
 * one termSignal 0.
 */
typedef void (*ORP_UV_REAP_PROC)(OrpUvProcess *process, int32_t pid, uint32_t termSignal,
                                 uint32_t exitCode);
/* Called from the loop in a later iteration, after the child's output has been drained. Mind the
 * order of the last two arguments. The process watcher is deleted afterwards. */
typedef void (*ORP_UV_EXIT_PROC)(OrpUvProcess *process, int32_t pid, uint32_t exitCode,
                                 uint32_t termSignal);
/* Called in the child, between fork() and exec: it may make only async-signal-safe calls. Non-zero
 * keeps the descriptor (3 or above) open. */
typedef uint32_t (*ORP_UV_KEEP_FD_PROC)(const OrpUvSpawnOptions *options, int32_t fd);
/*
 * Reads from the child's output or error pipe, io->fd, a blocking descriptor: `which` is
 * ORP_UV_SPAWN_STDOUT or ORP_UV_SPAWN_STDERR. At the end of file it must remove the pipe with
 * OrpUvProcessDeleteRedirectIo: once the child has ended, it is called until it does.
 */
typedef void (*ORP_UV_OUTPUT_PROC)(OrpUvProcess *process, OrpUvIo *io, uint32_t which);
/* Writes to the child's input pipe, io->fd, and ends it with OrpUvProcessDeleteRedirectIo. The
 * process should ignore SIGPIPE. */
typedef void (*ORP_UV_STDIN_PROC)(OrpUvProcess *process, OrpUvIo *io);

/* Flags of a spawn. */
#define ORP_UV_SPAWN_SETUID 0x1u   /* setuid(uid) */
#define ORP_UV_SPAWN_SETEUID 0x2u  /* seteuid(uid) */
#define ORP_UV_SPAWN_SETGID 0x4u   /* setgid(gid), and the groups of the user with id uid */
#define ORP_UV_SPAWN_SETSID 0x8u   /* a session of its own */
#define ORP_UV_SPAWN_UMASK 0x10u   /* umask(umask) */
#define ORP_UV_SPAWN_NO_CORE 0x20u /* no core dumps */
#define ORP_UV_SPAWN_STDIN 0x40u   /* standard input is a pipe, served by stdinProc */
#define ORP_UV_SPAWN_STDOUT 0x80u  /* standard output is a pipe, read by outputProc */
#define ORP_UV_SPAWN_STDERR 0x100u /* standard error is a pipe, read by outputProc */

/* What to start and how. Everything pointed to must be valid during the call only. */
struct OrpUvSpawnOptions {
  ORP_UV_REAP_PROC reapProc;     /* may be null, as all procedures */
  ORP_UV_EXIT_PROC exitProc;     /* learns of the exit from the loop */
  ORP_UV_KEEP_FD_PROC keepFd;    /* null: no inherited descriptor is kept */
  const char *file;              /* looked up in PATH when it has no "/" */
  ORP_UV_OUTPUT_PROC outputProc; /* null: no pipes for output */
  ORP_UV_STDIN_PROC stdinProc;   /* null: no pipe for input */
  ORP_WORD data;                 /* becomes the data word of the process watcher */
  char *const *args;             /* null-terminated; args[0] must be there */
  char *const *env;              /* null-terminated environment; null: inherited */
  const char *cwd;               /* working directory; null: inherited */
  uint32_t flags;                /* ORP_UV_SPAWN_... */
  uint32_t uid;                  /* with SETUID, SETEUID and SETGID */
  uint32_t gid;                  /* with SETGID */
  uint32_t groupCount;           /* supplementary groups, set with SETUID or SETGID */
  const gid_t *groups;           /* groupCount of them */
  uint32_t umask;                /* with UMASK */
};

/* A child process; a watcher that belongs to its loop. */
struct OrpUvProcess {
  OrpUvWatcher head; /* what all watchers have */
  int32_t pid;       /* -1 once its exit has been reported */
  /* Of the options. */
  ORP_UV_EXIT_PROC exitProc;
  ORP_UV_REAP_PROC reapProc;
  ORP_UV_OUTPUT_PROC outputProc;
  ORP_UV_STDIN_PROC stdinProc;

  int32_t waitStatus;    /* as waitpid() gave it, once the child has been reaped */
  uint32_t exited;       /* reaped and not yet reported */
  OrpUvIo *redirects[3]; /* pipes to standard input, output, error; null where there is none */
  char *name;            /* the arguments, joined by blanks */
};

/*
 * Starts a child. The child does, in this order: make a session; close inherited descriptors from 3
 * to the loop's highest (to 50 on a loop that has watched none above 3); set working directory;
 * groups, group and user; environment; umask; core limit; pipes; exec. Signals are as after an
 * exec: those that this process catches have their default action, blocked and ignored ones stay
 * so. When the program cannot be executed, or the working directory, user or group cannot be set,
 * the child ends with exit code 127; that is not an error of this call.
 *
 * The exit is reported when `loop` runs (null: the default loop).
 *
 * *processOut (may be null) receives the process watcher, or null on failure. Returns ORP_OK;
 * ORP_ERR_ARGUMENT without options, file, args or args[0]; ORP_ERR_MEMORY; ORP_ERR_SYSTEM when the
 * pipes, the reaper or the process cannot be made. A redirect whose pipe cannot be made is left
 * out, without an error.
 */
MSGAPI_EXPORT uint32_t OrpUvProcessSpawn(OrpUvLoop *loop, OrpUvProcess **processOut,
                                         const OrpUvSpawnOptions *options);

/*
 * Starts a child and returns when it has ended. Meanwhile the call runs a loop of its own, which is
 * the default loop. Without redirects that loop turns without pause until the child has ended, and
 * the time-out plays no part. With redirects the call also ends after `timeoutMs` (0: never)
 * without any event; it then closes its pipes and leaves the child running. A callback may run the
 * default loop, which is now the spawn's: that run ends at the latest when the child's exit is
 * reported.
 *
 * Returns the child's exit code; 0 after the time-out and when a signal other than 9 ended the
 * child; ORP_ERR_TIMEOUT when signal 9 did; ORP_ERR_SPAWN_RUNNING inside another synchronous spawn;
 * or a status of OrpUvProcessSpawn.
 */
MSGAPI_EXPORT uint32_t OrpUvProcessSpawnSync(const OrpUvSpawnOptions *options, uint32_t timeoutMs);

/* Sends a signal to a child, unless it has been reaped. 0, also when there is nothing to do, or
 * 0xFFFFFFFF with errno set. */
MSGAPI_EXPORT uint32_t OrpUvProcessKill(OrpUvProcess *process, int32_t signal);

/* A child and how it ended. */
typedef struct ORP_UV_WAIT_ST {
  int32_t pid;    /* which child is meant */
  int32_t status; /* as waitpid() gives it */
} ORP_UV_WAIT_ST;

/*
 * Reaps every child that has ended: its process watcher learns of it, whatever its loop, and
 * reapProc is called. When a child without a process watcher has the id record->pid, its status is
 * stored in `record` (may be null). Returns the last result of waitpid(): 0 while children are
 * running, else -1.
 */
MSGAPI_EXPORT int32_t OrpUvProcessWaitpid(ORP_UV_WAIT_ST *record);

/* Closes and removes a pipe of the process; nothing when `io` is none of its pipes, or for null. */
MSGAPI_EXPORT void OrpUvProcessDeleteRedirectIo(OrpUvProcess *process, OrpUvIo *io);

/*
 * Runs a command line on the default loop without waiting for it. The line is split into words as a
 * shell does (quotes and backslash), but nothing is expanded and no shell is involved; one trailing
 * "&" is dropped. If a system user has the program's name as it stands in the command, the child
 * runs with that user's id and groups. For "/bin/sh" the name is that of the script in the first
 * argument, without its directory and up to its first ".". Where there is no such user it runs with
 * this process's rights. Returns the child's pid; or -1, and nothing runs, for a command line above
 * 511 characters, an unknown program, and when the user cannot be looked up.
 */
MSGAPI_EXPORT int32_t ORP_UTIL_ExecCmdWithPermissions(const char *command);

/* Runs the null-terminated argument vector as the system user named args[0], if there is one, and
 * waits for its end. Returns the result of ORP_UTIL_WaitForPidEx; -1 for a bad argument, an unknown
 * program or when the user cannot be looked up; 0x10007 when the process cannot be made. */
MSGAPI_EXPORT int32_t ORP_UTIL_ExecCmdWithPermissionsMorePara(char *const *args, uint32_t timeoutMs,
                                                              uint32_t pollMs,
                                                              uint32_t killOnTimeout);
/* The same for a command line, split and bounded as ORP_UTIL_ExecCmdWithPermissions does. */
MSGAPI_EXPORT int32_t ORP_UTIL_ExecCmdWithPermissionsFullEx(const char *command, uint32_t timeoutMs,
                                                            uint32_t pollMs,
                                                            uint32_t killOnTimeout);

/*
 * Waits for the end of the child `pid`, looking every `pollMs` milliseconds (0: 10) and at every
 * SIGCHLD, for at most `timeoutMs` (0: without limit). It does not matter whether this call or the
 * SIGCHLD handler collects the status: the library keeps the last 64 statuses of processes that
 * have no watcher or whose watcher went without reporting it. A process watcher of the child still
 * reports its exit.
 *
 * Returns the exit code; 128 + the number of the signal that ended the child; 0x10005 after the
 * time-out (with `killOnTimeout` non-zero the child has then been killed and reaped); or -1 when
 * `pid` is not positive, is no child, or its status is no longer known.
 */
MSGAPI_EXPORT int32_t ORP_UTIL_WaitForPidEx(int32_t pid, uint32_t timeoutMs, uint32_t pollMs,
                                            uint32_t killOnTimeout);

#endif
