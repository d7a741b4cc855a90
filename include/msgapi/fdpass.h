/*
 * Passing an open descriptor over the process's connection to the message server.
 *
 * On the wire it is two zero bytes with one SCM_RIGHTS record that holds one descriptor (unix(7)),
 * outside the message format. Both sides agree beforehand, by a message, that one comes next.
 */
#ifndef MSGAPI_FDPASS_H
#define MSGAPI_FDPASS_H

#include <stdint.h>

#include "msgapi/export.h"
#include "msgapi/status.h"

/*
 * Sends `descriptor`, which stays the caller's. Neither waits nor repeats. ORP_OK;
 * ORP_ERR_NOT_CONNECTED; ORP_ERR_MEMORY; or ORP_ERR_SYSTEM when the two bytes were not sent.
 */
MSGAPI_EXPORT uint32_t ORP_MSG_SendFd(int32_t descriptor);

/*
 * Waits up to `timeoutMs` (0: 20 s) for a descriptor and stores it, close-on-exec, in
 * *descriptorOut; the caller closes it. On failure *descriptorOut is 0, which is nothing to close.
 *
 * Returns ORP_OK; ORP_ERR_ARGUMENT for null; ORP_ERR_NOT_CONNECTED; ORP_ERR_TIMEOUT;
 * ORP_ERR_MEMORY; ORP_ERR_PEER_GONE at the end of the stream; ORP_ERR_SYSTEM when the receive
 * failed or was interrupted, or when something else arrived. Up to 4096 bytes of that are consumed,
 * and all its descriptors are closed.
 */
MSGAPI_EXPORT uint32_t ORP_MSG_RecvFd(int32_t *descriptorOut, uint32_t timeoutMs);

#endif
