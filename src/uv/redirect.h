// The pipes between a process watcher and its child: who points to whom.
//
// A redirect is an I/O watcher. Its data word points to its process watcher, one of whose three
// slots points back. Either of the two may be freed first.
#pragma once

#include "msgapi/process.h"

namespace msgapi::uv {

inline OrpUvProcess *process_of(const OrpUvIo *redirect) {
  return reinterpret_cast<OrpUvProcess *>(redirect->head.data);
}

// The slot of `process` that holds `redirect`, or null.
inline OrpUvIo **find_slot(OrpUvProcess *process, const OrpUvIo *redirect) {
  for (OrpUvIo *&slot : process->redirects) {
    if (slot == redirect) return &slot;
  }
  return nullptr;
}

// Cuts the connection from both sides.
inline void disconnect(OrpUvIo *redirect) {
  OrpUvProcess *process = process_of(redirect);
  redirect->head.data = 0;
  if (process == nullptr) return;
  if (OrpUvIo **slot = find_slot(process, redirect)) *slot = nullptr;
}

// The process watcher is about to be freed. Its redirects close themselves at their next event.
inline void disconnect_all(OrpUvProcess *process) {
  for (OrpUvIo *&slot : process->redirects) {
    if (slot != nullptr) slot->head.data = 0;
    slot = nullptr;
  }
}

}  // namespace msgapi::uv
