// The state of the notify client: the process's one connection and who takes its messages.
#pragma once

#include <cstdint>

#include "msgapi/loop.h"
#include "msgapi/notify.h"
#include "msgapi/sockbase.h"
#include "notify/connection.h"

namespace msgapi::notify {

constexpr uint32_t kReceiveWait_ms = 20000;

// The procedures of one message type.
struct TypeEntry {
  TypeEntry *link;
  uint32_t msg_type;
  ORP_NOTIFYCLT_SYNC_PROC sync;
  ORP_NOTIFYCLT_ASYNC_PROC async;
};
static_assert(sizeof(void *) != 4 || sizeof(TypeEntry) == 16);

struct Client {
  uint32_t module_id = 0;
  int fd = -1;
  TypeEntry *entries = nullptr; /* in order of first registration */
  ORP_NOTIFYCLT_SYNC_ANY_PROC any_sync = nullptr;
  ORP_NOTIFYCLT_ASYNC_ANY_PROC any_async = nullptr;
  Received *put_aside = nullptr;
  // What Init gave to the loop. The loop may free them unnoticed, so these pointers are compared
  // and looked up, never followed.
  ORP_UTIL_SOCKBASE_ST *sock_base = nullptr;
  int watched_fd = -1;
  OrpUvIdle *idle = nullptr;
};

extern Client g_client;

// The number of the next message that this process begins; the first is 1.
uint32_t next_sequence();

// Hands the message to the procedure that is registered for it, and sends the answer to a request.
Status deliver(NOTIFY_MSG *message);

// ORP_NOTIFYCLT_InitByName: starts the client, if the application of that name is one.
Status start_client_named(const char *name);

// An item of data as an application gives it; a null pointer is no data.
inline Bytes item(const void *data, uint32_t length) {
  return data == nullptr ? Bytes() : Bytes(static_cast<const char *>(data), length);
}

}  // namespace msgapi::notify
