/*
 * DM messages: messages whose body is a list of named, typed items (events and requests to the
 * configuration manager), and the fixed requests to the configuration manager.
 *
 * Body layout, all words uint32_t in host order, at these offsets: 0 the magic 0xFEBF, 4 capacity,
 * 8 free bytes, 12 error code, 16 configuration user, 20 sub type, 24 the items without gaps or
 * alignment: item type, name length with its NUL (0 without a name), value length, name, value.
 * The first free byte is at capacity - free. Sending seals the body: capacity becomes the bytes in
 * use and free 0. docs/events.md shows a message byte by byte.
 *
 * The functions work on body pointers and go by the lengths in the body. Only ORP_DMMSG_AppendItem,
 * ORP_DMMSG_Send and ORP_DMMSG_Free need the whole message: its block starts 40 bytes before the
 * body, with the header. The other functions also read a copy of a body.
 *
 * On receipt, a body of type 0x209 or of an event is checked against the length that arrived. A
 * body that claims to use more loses its magic; one that claims free room beyond its end is sealed.
 * One thread at a time works on a message.
 */
#ifndef MSGAPI_DMMSG_H
#define MSGAPI_DMMSG_H

#include <stdint.h>

#include "msgapi/export.h"
#include "msgapi/messages.h"

/* The first word of every DM body. */
#define ORP_DMMSG_MAGIC 0xFEBFu

/* Statuses of the functions on DM messages. */
#define ORP_DMMSG_ERR 0x30000u        /* bad argument, wrong magic, damaged body, no further item */
#define ORP_DMMSG_ERR_MEMORY 0x30007u /* no memory for a new message */
#define ORP_DMMSG_ERR_GROW 0x30009u   /* no memory to grow the message, or beyond 32-bit lengths */

/* An item as the reader hands it out; its pointers point into the body. */
typedef struct ORP_DMMSG_ITEM_ST {
  uint32_t ulType;     /* the sender's word; the library gives it no meaning */
  uint32_t ulNameLen;  /* with the NUL; 0 without a name */
  uint32_t ulValueLen; /* bytes at pValue; texts are stored with their NUL, but need not be */
  const char *pcName;  /* null without a name */
  const void *pValue;  /* null when ulValueLen is 0; not aligned */
} ORP_DMMSG_ITEM_ST;

/*
 * Makes an empty DM message of type 0x209 to `dstApp` (cut to 11 characters; empty is the server)
 * with 1000 bytes free for items, on behalf of the current configuration user.
 *
 * Stores its body in *bodyOut, null on failure; release it with ORP_DMMSG_Free. Returns 0,
 * ORP_DMMSG_ERR for a null argument, or ORP_DMMSG_ERR_MEMORY.
 */
MSGAPI_EXPORT uint32_t ORP_DMMSG_Builder(void **bodyOut, const char *dstApp, uint32_t subType);

/*
 * Appends an item with a copy of `name` (null or empty: without a name) and of the `valueLength`
 * bytes at `value`. The body may move: go on with *bodyInOut.
 *
 * Returns 0; ORP_DMMSG_ERR for null arguments (`value` may be null when its length is 0) or a body
 * that is not a sound DM body, which stays as it is; ORP_DMMSG_ERR_GROW: the message has been freed
 * and *bodyInOut is null.
 */
MSGAPI_EXPORT uint32_t ORP_DMMSG_AppendItem(void **bodyInOut, uint32_t itemType, const char *name,
                                            const void *value, uint32_t valueLength);

/*
 * Reads the item at *cursorInOut, null for the first, and moves the cursor past it. Take any
 * status but 0 as the end; *itemOut and the cursor are untouched then.
 *
 * A last item may end up to 12 bytes beyond the used area; in a message that was received these are
 * zeros.
 *
 * Returns 0, or ORP_DMMSG_ERR at the end, for a null argument, a wrong magic, a cursor that is not
 * in the body, an item that ends further on, or a name without a NUL.
 */
MSGAPI_EXPORT uint32_t ORP_DMMSG_GetItemEx(const void *body, ORP_DMMSG_ITEM_ST *itemOut,
                                           const void **cursorInOut);

/* The error code and the sub type of a body; 0 for null and without the magic. */
MSGAPI_EXPORT uint32_t ORP_DMMSG_GetErrCode(const void *body);
MSGAPI_EXPORT uint32_t ORP_DMMSG_GetSubType(const void *body);

/* Frees the message that `body` belongs to; no effect for null and without the magic. */
MSGAPI_EXPORT void ORP_DMMSG_Free(void *body);

/* Seals the body and sends the message, which stays the caller's. ORP_DMMSG_ERR for null and a body
 * that is not a sound DM body, otherwise the status of ORP_MSG_Send. */
MSGAPI_EXPORT uint32_t ORP_DMMSG_Send(void *body);

/*
 * Requests to the configuration manager, through the message server. "No wait" functions return the
 * status of ORP_MSG_Send. The others wait for the reply and return its ulMsgData, or the status of
 * ORP_MSG_SendAndRecv when there is none; the two share one range, so 0 alone means success.
 */

/* Asks to save the store, on behalf of the current configuration user; no wait. */
MSGAPI_EXPORT uint32_t ORP_DB_SaveFunc(void);
/* Saves the store; waits up to 5 s. */
MSGAPI_EXPORT uint32_t ORP_DB_SaveSyncFunc(void);
/* Saves application data; waits up to 1 s. */
MSGAPI_EXPORT uint32_t ORP_AppSaveSyncFunc(void);
/* Asks to save the store to the application partition, for the current user; no wait. */
MSGAPI_EXPORT uint32_t ORP_DB_SaveToAppFunc(void);
/* The same; waits up to 1 s. */
MSGAPI_EXPORT uint32_t ORP_DB_SaveToAppSyncFunc(void);

/*
 * File requests wait up to 15 s. A null path sends the request without one. A path of more than 255
 * characters is refused with a console line and ORP_ERR_ARGUMENT.
 */

/* Replies of the file requests about the file itself; the others are the store's (cfmapi.h). */
#define ORP_CFM_ERR_FILE_PLACE 0x31001u   /* configuration files may not lie there */
#define ORP_CFM_ERR_FILE_KEY 0x31002u     /* the key cannot be read or made */
#define ORP_CFM_ERR_FILE_WRITE 0x31003u   /* not written */
#define ORP_CFM_ERR_FILE_READ 0x31004u    /* not read */
#define ORP_CFM_ERR_FILE_FOREIGN 0x31005u /* damaged, cut off or not written by this device */
#define ORP_CFM_ERR_FILE_TAKEN 0x31006u   /* something else has that name */

/* Writes the store to an encrypted file. */
MSGAPI_EXPORT uint32_t ORP_CFM_ExtExportEncryptedCfgFile(const char *path);
/* The same after telling the manager which user's part to export; that outcome is ignored. */
MSGAPI_EXPORT uint32_t ORP_CFM_ExtExportEncCfgFileByUser(const char *path, uint32_t user);
/* Replaces the store with an encrypted file; prints the path on standard output first. */
MSGAPI_EXPORT uint32_t ORP_CFM_ExtImportEncryptedCfgFile(const char *path);
/* Checks whether a file could be imported. */
MSGAPI_EXPORT uint32_t ORP_DB_CheckFile(const char *path);
/* Deletes the application data. */
MSGAPI_EXPORT uint32_t ORP_CFM_DelAppdata(void);

/* Asks to restore the defaults in the way that `mode` names, for the current user; no wait. */
MSGAPI_EXPORT uint32_t ORP_CFM_ExtRestoreDft(uint32_t mode);
/* ORP_UTIL_Reboot(mode). */
MSGAPI_EXPORT uint32_t ORP_CFM_ExtReboot(uint32_t mode);

/* Second names of the functions above. */
MSGAPI_EXPORT uint32_t ORP_DBSaveFunc(void);
MSGAPI_EXPORT uint32_t ORP_DBSaveSyncFunc(void);
MSGAPI_EXPORT uint32_t ORP_DBSaveToAppFunc(void);
MSGAPI_EXPORT uint32_t ORP_DBSaveToAppSyncFunc(void);
MSGAPI_EXPORT uint32_t ORP_DBCheckFile(const char *path);

#endif
