// Reaping children: the SIGCHLD handler, and who learns of an exit status.
//
// A status is recorded in the child's process watcher, whatever its loop, or, for children without
// one, in a table of the last 64. Both happen in the handler as well as on the loop's thread.
#pragma once

#include <sys/types.h>

#include <optional>

#include "msgapi/process.h"

namespace msgapi::uv {

// How a child ended. A child that was ended by a signal has exit code 0.
struct ExitStatus {
  uint32_t exit_code;
  uint32_t term_signal;
};
ExitStatus decode_status(int status);

// Installs the handler. The calling thread is the one that runs the loops.
void install_child_handler();

// Reaps every child that has ended; see OrpUvProcessWaitpid.
pid_t reap_children(ORP_UV_WAIT_ST *record);

// What is known of a child, which is reaped if it has ended: its status, kRunning, or kUnknown.
enum class ChildState { kRunning, kEnded, kUnknown };
ChildState look_at_child(pid_t pid, int *status);

// A process is about to be made, with SIGCHLD blocked, under this number: what the table holds for
// an earlier one is void.
void forget_status(pid_t pid);

// A process watcher that a spawn has made. The handler finds those in a list of their own: it knows
// no loops but the default ones. Nothing else sees the link that follows the public record.
struct SpawnedProcess {
  OrpUvProcess process;
  SpawnedProcess *link;
};

// From now on the watcher gets the status of the child whose number it holds.
void enlist(SpawnedProcess *spawned);

// The watcher goes, with SIGCHLD blocked: a status that it has not reported stays known.
void delist(SpawnedProcess *spawned);

}  // namespace msgapi::uv
