/*
 * Events: messages of the types 0x2DA00 to 0x2DAFF that the message server passes from a publisher
 * to the subscribers.
 *
 * An event is published as a DM message of named items or as JSON text. Events of the types 0x2DA01
 * to 0x2DA63 reach subscribers as the bytes that were published. The others, published as DM
 * messages, reach them as one JSON object:
 *
 *   {"Method": "notify", "Module": ..., "EventType": ..., "Timestamp": ..., "Payload": {...}}
 *
 * docs/events.md describes both forms. One thread owns all of this: the one that runs the loop.
 */
#ifndef MSGAPI_EVENT_H
#define MSGAPI_EVENT_H

#include <stdint.h>

#include "msgapi/export.h"
#include "msgapi/msg.h"
#include "msgapi/nvpair.h"

/* cJSON's object type; include <cjson/cJSON.h> to work with one. */
struct cJSON;

/* The statuses of this family beside those of ORP_DMMSG_* (0x300xx) and ORP_MSG_* (0x100xx). */
#define ORP_EVT_OK 0u
#define ORP_EVT_ERR 1u /* a missing argument, or the event could not be built or converted */

/* ---- Publishing -------------------------------------------------------------------------- */

/*
 * Publishes an event of type `msgType` as a DM message with the items EventType = `eventType` and,
 * when both are given, `name` = `value`. Returns ORP_EVT_OK, ORP_EVT_ERR for a null eventType, the
 * first DM status that is not 0, or the status of the send.
 */
MSGAPI_EXPORT uint32_t ORP_EVT_PublishEvent(uint32_t msgType, const char *eventType,
                                            const char *name, const char *value);

/*
 * The same with an item for every pair of the list that has a name and a value. Of the statuses of
 * these items only the last counts: one that could not be appended does not stop the others.
 */
MSGAPI_EXPORT uint32_t ORP_EVT_PublishEventWithNVPair(uint32_t msgType, const char *eventType,
                                                      const ORP_UTIL_NV_PAIR_ST *pairs);

/*
 * Publishes the JSON object above, on one line, with a copy of `payload`, which stays the caller's.
 * Returns ORP_EVT_OK, ORP_EVT_ERR for a null argument, without a time stamp or memory, or the
 * status of the send.
 */
MSGAPI_EXPORT uint32_t ORP_EVT_PublishEventWithJson(const char *moduleName, const char *eventType,
                                                    uint32_t msgType, const struct cJSON *payload);

/* ---- Subscribing ------------------------------------------------------------------------- */

/* Receives an event's bytes: JSON text of `length` characters and a NUL, or for the raw
 * types the body (never null, also when its length is 0). They live until the call returns. 0 means
 * handled; any other value is printed and changes nothing. */
typedef uint32_t (*ORP_EVT_CALLBACK)(uint32_t eventType, const void *data, uint32_t length);

/* Asks the server for all events. Status of ORP_MSG_Send. For a single type see
 * ORP_MSG_SubscribeEventForOtherApp. */
MSGAPI_EXPORT uint32_t ORP_EVT_SubscribeAllEvent(void);

/*
 * Adds a callback for events of exactly `eventType`; the callbacks of a type are called in the
 * order in which they were added. Types below 0x2DA00 and null callbacks are ignored. Without
 * memory the callback is not added, and nobody is told. Nothing is sent to the server.
 */
MSGAPI_EXPORT void ORP_EVT_SubscribeSingelEventCallBack(uint32_t eventType,
                                                        ORP_EVT_CALLBACK callback);

/* Sets the one callback that is called for every event, after those of its type; null clears it. */
MSGAPI_EXPORT void ORP_EVT_SubscribeAllEventCallBack(ORP_EVT_CALLBACK callback);

/* Hands an event to the callbacks. ORP_MSG_DefaultMsgProcs does so for events that no procedure
 * took. An event that cannot be converted reaches nobody. Null is ignored; the message stays the
 * caller's. */
MSGAPI_EXPORT void ORP_Evt_SubMsgProc(ORP_MSG_HEADER_ST *message);

/* ---- Reading events ---------------------------------------------------------------------- */

/*
 * Converts a DM event into the JSON object above, indented. What *textOut holds is freed with
 * free() first, so it must be null or an earlier text; the new text belongs to the caller, who
 * frees it with free(). *lengthOut, which may be null, receives its length.
 *
 * Returns ORP_EVT_OK; ORP_EVT_ERR for null arguments, a type without a module, a body that is not a
 * whole DM body, an item without a name or value, an event without an EventType or without any
 * other item, and without memory: *textOut is then null and *lengthOut 0.
 */
MSGAPI_EXPORT uint32_t ORP_EVT_GetEventContent(const ORP_MSG_HEADER_ST *message, char **textOut,
                                               uint32_t *lengthOut);

/* Stores the address of the message's body in *bodyOut; no effect for null arguments. */
MSGAPI_EXPORT void ORP_EVT_GetEventBody(ORP_MSG_HEADER_ST *message, void **bodyOut);

/* The module that raises events of that type, or null. */
MSGAPI_EXPORT const char *ORP_EVT_GetEventModuleNameByEventType(uint32_t type);

/* The event type of that module; 0x2DA00 for null and for a name that is not exactly a module's. */
MSGAPI_EXPORT uint32_t ORP_EVT_GetMsgTypeByEventModuleName(const char *name);

/* ---- Steps of building the JSON object ---------------------------------------------------- */

/* Adds a text member to `object`. ORP_EVT_OK, or ORP_EVT_ERR for a null argument or without
 * memory. */
MSGAPI_EXPORT uint32_t ORP_GenerateJsonItem(struct cJSON *object, const char *name,
                                            const char *value);

/*
 * Deletes the object in *objectInOut (null for none) and puts a new one there, with everything but
 * the payload. ORP_EVT_OK; ORP_EVT_ERR for a null argument (*objectInOut is left as it was), or
 * without a time stamp or memory (*objectInOut is null).
 */
MSGAPI_EXPORT uint32_t ORP_EVT_JsonBeginProc(struct cJSON **objectInOut, const char *module,
                                             const char *eventType);

/* Adds a text member to the object in *payloadHolder, which is made when it is null. ORP_EVT_OK, or
 * ORP_EVT_ERR for a null argument or without memory. */
MSGAPI_EXPORT uint32_t ORP_EVT_BuiderJsonProc(struct cJSON **payloadHolder, const char *name,
                                              const char *value);

/*
 * Completes the object in *objectInOut with `payload` and replaces it with its text, indented. The
 * caller frees the text with free(); the object and the payload are gone.
 *
 * ORP_EVT_OK; ORP_EVT_ERR for a null argument or object (both stay the caller's), or without memory
 * (both are gone and *objectInOut is null).
 */
MSGAPI_EXPORT uint32_t ORP_EVT_EndJsonEndProc(void **objectInOut, struct cJSON *payload);

#endif
