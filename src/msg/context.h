// The process's message context: one connection, one name, one sequence counter.
//
// g_stMsgCtx is part of the interface and applications read it, so it is the state itself and not a
// view of it. Used on the thread that owns the connection.
#pragma once

#include <cstdint>
#include <string_view>

#include "base/text.h"
#include "msgapi/loop.h"
#include "msgapi/msg.h"

namespace msgapi::msg {

// The first number is 1; the counter wraps.
uint32_t next_sequence_number();

inline std::string_view own_name() {
  return field_text(g_stMsgCtx.aucAppName);
}

// Also keeps g_appName, which the layers below show, equal to it.
void set_own_name(std::string_view name);

inline bool headers_swapped() {
  return (g_stMsgCtx.ulFlags & ORP_MSG_CTX_SWAP) != 0;
}

// The board number of what this process sends.
inline uint32_t send_board() {
  return g_stMsgCtx.ulFlags >> ORP_MSG_CTX_SEND_BOARD_SHIFT & 7;
}

// The board of the sender of the last message, as trace records show it.
inline uint32_t receive_board() {
  return g_stMsgCtx.ulFlags >> ORP_MSG_CTX_RECV_BOARD_SHIFT;
}

// Whether `fd` is the connection to the server on this machine, a Unix socket, and not the one to
// another board.
bool is_local_connection(int fd);
// From now on, until the context is cleared, its socket leads to another board.
void set_remote_connection();

// The context's message watcher, or null when there is none or its loop has let it go.
OrpUvMsg *running_watcher();

// Clears everything but the socket, which becomes -1. Closes nothing but the trace stream.
void clear_context();

}  // namespace msgapi::msg
