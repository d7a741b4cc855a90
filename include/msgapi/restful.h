/*
 * Restful requests: an application offers handlers under a path, and the message server turns
 * resource requests into messages to it. docs/restful.md describes the messages.
 *
 * One thread owns all of this: the one that runs the loop.
 */
#ifndef MSGAPI_RESTFUL_H
#define MSGAPI_RESTFUL_H

#include <stdint.h>

#include "msgapi/export.h"
#include "msgapi/msg.h"

/* A path or handler name in a request: at most 63 characters and the NUL. */
#define ORP_MSG_RESTFUL_FIELD_SIZE 64

/* The body of a request, in front of its NUL-terminated text. */
typedef struct ORP_MSG_RESTFUL_REQ_ST {
  /* Two words whose meaning requester and handler agree on. */
  uint32_t ulCode;
  uint32_t ulSecond;
  char aucPath[ORP_MSG_RESTFUL_FIELD_SIZE];    /* selects the registration */
  char aucHandler[ORP_MSG_RESTFUL_FIELD_SIZE]; /* selects the row of its table */
} ORP_MSG_RESTFUL_REQ_ST;

/* The text of a request that a handler received; "" when there is none. */
#define ORP_MSG_RESTFUL_TEXT(request) ((const char *)((request) + 1))

/*
 * Answers a request. The handler may store a malloc'd NUL-terminated text in *responseOut, which is
 * null at the call; the library frees it. When the handler returns 0, the text is sent, or an empty
 * answer without one. After any other status nothing is sent, so the requester's wait ends by its
 * time-out. A path or handler name that the request did not terminate runs on into what follows it.
 */
typedef uint32_t (*ORP_MSG_RESTFUL_HANDLER)(const ORP_MSG_RESTFUL_REQ_ST *request,
                                            char **responseOut);

/* A row of a handler table. A row with a null name ends the table. */
typedef struct ORP_MSG_RESTFUL_ROW_ST {
  const char *pcName;                /* the handler name that a request must have */
  ORP_MSG_RESTFUL_HANDLER pfHandler; /* called for it */
} ORP_MSG_RESTFUL_ROW_ST;

/*
 * Registers `table` under `path` with the message server: the path itself or, with `expand`
 * non-zero, the list "path/row|path/row..." of its rows. The list has at most 4095 characters; rows
 * after that are not announced. A request reaches the first registration with exactly its path and
 * the first row with exactly its handler name. The table is not copied and must stay valid.
 *
 * The first registration also registers the message procedure for the three request types.
 *
 * Returns ORP_OK; ORP_ERR_ARGUMENT for null arguments; ORP_ERR_MEMORY without memory and, with
 * `expand`, when "path/row" has more than 127 characters; or the status of ORP_MSG_Send. After an
 * error nothing is registered in the process, though the server may have heard of the path.
 */
MSGAPI_EXPORT uint32_t ORP_MSG_RegRestfulProcEx(const char *path,
                                                const ORP_MSG_RESTFUL_ROW_ST *table,
                                                uint32_t expand);

/* The same without `expand`. */
MSGAPI_EXPORT uint32_t ORP_MSG_RegRestfulProc(const char *path,
                                              const ORP_MSG_RESTFUL_ROW_ST *table);

/*
 * A request message to the server, in a new block that the caller frees. `textLength` bytes are
 * reserved for `text` (null for none); a longer text is cut, a shorter one is followed by zeros.
 * Null `path` and `handlerName` are empty. Null when one of them has more than 63 characters, when
 * `textLength` is 0xFFFFFF4F or more, and without memory (blocks are at most 8 MiB).
 */
MSGAPI_EXPORT ORP_MSG_HEADER_ST *ORP_MSG_BuildRestfulReqMsg(uint32_t code, uint32_t second,
                                                            const char *path,
                                                            const char *handlerName,
                                                            const char *text, uint32_t textLength);

/*
 * ORP_MSG_SendMsgDataWithDataSeq for a body that must be there: ORP_ERR_ARGUMENT for a null body
 * and a length of 0xFFFFFFD7 or more.
 */
MSGAPI_EXPORT uint32_t ORP_MSG_SendRestfulResponseMsg(const char *dstApp, uint32_t type,
                                                      const void *body, uint32_t bodyLength,
                                                      uint32_t data, uint32_t seq);

#endif
