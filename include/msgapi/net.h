/* Sockets and addresses. */
#ifndef MSGAPI_NET_H
#define MSGAPI_NET_H

#include <stdint.h>

#include "msgapi/export.h"

/*
 * Clears O_NONBLOCK, shuts the socket down in both directions and closes the descriptor; other
 * kinds of descriptors are closed too. Returns 0, also for an interrupted close, after which the
 * descriptor is gone on Linux, and for a negative descriptor, which is ignored; otherwise
 * 0xFFFFFFFF with errno set.
 */
MSGAPI_EXPORT uint32_t ORP_UTIL_SocketClose(int32_t fd);

#endif
