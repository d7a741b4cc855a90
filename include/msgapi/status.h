/*
 * Statuses of the loop and the message layer. Families with codes of their own (DM messages, DNS,
 * codecs, login control, notify, log) define them in their headers.
 */
#ifndef MSGAPI_STATUS_H
#define MSGAPI_STATUS_H

/* 0 is success; everything else says what went wrong. */
#define ORP_OK 0u
#define ORP_ERR_SOCKET 0x10000u        /* socket not created or not connected */
#define ORP_ERR_ARGUMENT 0x10001u      /* bad argument, or no loop */
#define ORP_ERR_EMPTY_NAME 0x10002u    /* the server registered an empty name */
#define ORP_ERR_NOT_CONNECTED 0x10003u /* used before connecting */
#define ORP_ERR_PEER_GONE 0x10004u     /* the peer closed, or the receiver does not exist */
#define ORP_ERR_TIMEOUT 0x10005u       /* what was waited for did not come in time */
#define ORP_ERR_MEMORY 0x10006u        /* no memory, or a length beyond its limit */
#define ORP_ERR_SYSTEM 0x10007u        /* a system call or a bounded copy failed */
#define ORP_ERR_NOT_WRITABLE 0x10008u  /* not writable within 10 s; watcher: message too long */
#define ORP_ERR_HAND_OVER 0x1000du     /* the hand-over file of a large body was not written */

#endif
