/*
 * Looking after the host port's configuration store: what the configuration manager and cfmctl need
 * beyond cfmapi.h. Not part of the product's configuration library. C99; statuses, threads and
 * processes as in cfmapi.h.
 */
#ifndef CFMSTORE_H
#define CFMSTORE_H

#include <stdint.h>

#include "cfmapi.h"

/* What an identifier stands for: parameters, items of application data, items of equipment data. */
#define CFM_AREA_PARAMETER 0u
#define CFM_AREA_APP_DATA 1u
#define CFM_AREA_EQUIPMENT 2u

/* Types of values: a uint32_t, characters up to a NUL, bytes. */
#define CFM_TYPE_NUMBER 0u
#define CFM_TYPE_TEXT 1u
#define CFM_TYPE_BYTES 2u

/* The largest size that a value may be defined with. */
#define CFM_MAX_VALUE_SIZE 65536u

/* One stored value. */
typedef struct CFM_VALUE {
  uint32_t area;     /* CFM_AREA_... */
  uint32_t object;   /* parameters of an instance: the object, otherwise 0 */
  uint32_t instance; /* parameters of an instance: its number from 1, otherwise 0 */
  uint32_t id;       /* within its area, and for parameters within the instance */
  uint32_t type;     /* CFM_TYPE_... */
  uint32_t size;     /* the most bytes a value may have; 4 for numbers; texts with their NUL */
  const void *data;  /* a number as uint32_t; a text's bytes, NUL-terminated */
  uint32_t length;   /* bytes at `data`; a text's NUL is not counted */
} CFM_VALUE;

/* Called for one value, which lives until the call returns. Non-zero ends the walk. */
typedef uint32_t (*CFM_VALUE_PROC)(const CFM_VALUE *value, void *user);

/* Makes CFM_StoreDefine write the values as defaults, too: CFM_StoreRestoreDefaults restores them.
 */
#define CFM_DEFINE_DEFAULT 1u

/*
 * Writes `count` values, all or none. Replaces what is there under their identifiers, types and
 * sizes included, and creates missing instances. Creates the store when there is none. `flags` is 0
 * or CFM_DEFINE_DEFAULT.
 *
 * Returns CFM_OK, CFM_ERR_ARGUMENT (null data, unknown area or type, size 0 or beyond
 * CFM_MAX_VALUE_SIZE, object without instance or the reverse, object outside the parameters),
 * CFM_ERR_TYPE, CFM_ERR_TOO_LONG, CFM_ERR_DAMAGED, CFM_ERR_BUSY, CFM_ERR_UNAVAILABLE,
 * CFM_ERR_MEMORY or CFM_ERR_VERSION.
 */
CFMAPI_EXPORT uint32_t CFM_StoreDefine(const CFM_VALUE *values, uint32_t count, uint32_t flags);

/*
 * Removes a value, or with `id` 0 the whole instance with its parameters; its default stays.
 * CFM_OK, CFM_ERR_NOT_FOUND or the statuses of CFM_StoreDefine.
 */
CFMAPI_EXPORT uint32_t CFM_StoreRemove(uint32_t area, uint32_t object, uint32_t instance,
                                       uint32_t id);

/*
 * Creates an instance of `object` without parameters; no effect when it exists. The same statuses.
 */
CFMAPI_EXPORT uint32_t CFM_StoreAddInstance(uint32_t object, uint32_t instance);

/*
 * Calls proc(value, user) for every value, ordered by area, object, instance and identifier, from
 * one consistent view of the store. The store may be used and changed by `proc`. Instances without
 * a parameter have no value; ORP_DBGetNumOfObjs and CFM_StoreObjects show them.
 *
 * Returns the first non-zero result of `proc`, CFM_OK or a status of ORP_DBGetNumOfObjs.
 */
CFMAPI_EXPORT uint32_t CFM_StoreWalk(CFM_VALUE_PROC proc, void *user);

/*
 * Lists the instances of every object, ordered by object and instance; ownership and statuses as
 * ORP_DBGetNumOfObjs.
 */
CFMAPI_EXPORT uint32_t CFM_StoreObjects(uint32_t *count, ORP_DB_KEY_ST **instances);

/* Writes everything through to the disk. CFM_OK, or a status of ORP_DBGetNumOfObjs. */
CFMAPI_EXPORT uint32_t CFM_StoreSave(void);

/* Verifies the whole database: CFM_OK, CFM_ERR_DAMAGED, or a status of ORP_DBGetNumOfObjs. */
CFMAPI_EXPORT uint32_t CFM_StoreCheck(void);

/*
 * Replaces all parameters, instances and application data with the defaults, in one step. Equipment
 * data stays, because it belongs to the device. Statuses of CFM_StoreDefine.
 */
CFMAPI_EXPORT uint32_t CFM_StoreRestoreDefaults(void);

/* The same for application data alone. */
CFMAPI_EXPORT uint32_t CFM_StoreRestoreAppData(void);

/*
 * Takes a consistent image of the store's parameters, instances and application data with their
 * defaults; equipment data is not in it. Sets *image and *size to null and 0 first; on CFM_OK the
 * caller releases *image with free(). Statuses of ORP_DBGetNumOfObjs.
 */
CFMAPI_EXPORT uint32_t CFM_StoreExport(void **image, uint32_t *size);

/*
 * Verifies an image that CFM_StoreExport made, and changes nothing: CFM_OK, CFM_ERR_DAMAGED,
 * CFM_ERR_VERSION, CFM_ERR_ARGUMENT or CFM_ERR_MEMORY. Works without a store.
 */
CFMAPI_EXPORT uint32_t CFM_StoreCheckImage(const void *image, uint32_t size);

/*
 * Replaces the contents of the store with those of an image, all or nothing; equipment data stays.
 * Creates the store when there is none. Statuses of CFM_StoreCheckImage and CFM_StoreDefine.
 */
CFMAPI_EXPORT uint32_t CFM_StoreImport(const void *image, uint32_t size);

/* Sets what ORP_CFM_GetCurrUser returns in this process. */
CFMAPI_EXPORT void CFM_SetCurrUser(uint32_t user);

#endif
