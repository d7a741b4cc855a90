/* Sockets and addresses. */
#ifndef MSGAPI_NET_H
#define MSGAPI_NET_H

#include <stdint.h>

#include "msgapi/export.h"

/*
 * Clears O_NONBLOCK, shuts the socket down in both directions and closes the descriptor. errno is
 * that of close(); on Linux the descriptor is closed whatever the result. Works on descriptors that
 * are not sockets as well. Returns the result of close() (0, or 0xFFFFFFFF), and 0 for a negative
 * descriptor, which is ignored.
 */
MSGAPI_EXPORT uint32_t ORP_UTIL_SocketClose(int32_t fd);

#endif
