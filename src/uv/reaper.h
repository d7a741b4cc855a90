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

// Looks at a child, and reaps it if it has ended. Only kEnded sets *status.
enum class ChildState { kRunning, kEnded, kUnknown };
ChildState look_at_child(pid_t pid, int *status);

// Call with SIGCHLD blocked when a process gets this number: forgets the status that the table
// holds for an earlier process of the same number.
void forget_status(pid_t pid);

// A process watcher that a spawn has made. The handler finds these in a list of their own, because
// it knows only the default loops. Nothing else sees the link that follows the public record.
struct SpawnedProcess {
  OrpUvProcess process;
  SpawnedProcess *link;
};

// From now on the watcher gets the status of the child whose number it holds.
void enlist(SpawnedProcess *spawned);

// Call with SIGCHLD blocked before the watcher is freed: a status that it has not reported stays
// known.
void delist(SpawnedProcess *spawned);

}  // namespace msgapi::uv
