/*
 * The platform's configuration library, as libmsgapi and the applications call it. This is the
 * host port on an SQLite database; on a product the product's own library takes its place. C99.
 *
 * The store holds values under 32-bit identifiers:
 *
 *   parameters   either one for the whole device, or one in each instance of an object;
 *   objects      lists of instances numbered from 1, each a set of parameters;
 *   application data and equipment items, each with numbers of their own.
 *
 * A value has a type and a size. A number is one uint32_t in the host's byte order. The size of a
 * text includes its NUL; a bytes value is as long as it was stored. The type and the largest size
 * of an identifier are fixed when it is defined, from a file of defaults or with cfmctl
 * (cfmstore.h).
 *
 * The database is CFM_STORE_PATH, with a write-ahead log. It is opened at the first call, closed
 * before a fork() and reopened after it. Every call is one transaction, so several processes and
 * threads may use the store at once. A reader never waits for a writer; a writer waits up to
 * CFM_BUSY_TIMEOUT_MS for another one. When a process dies while it writes, the store is as it was
 * before that call.
 */
#ifndef CFMAPI_H
#define CFMAPI_H

#include <stdint.h>

/* Marks what leaves the library. */
#ifdef __cplusplus
#define CFMAPI_EXPORT extern "C" __attribute__((visibility("default")))
#else
#define CFMAPI_EXPORT __attribute__((visibility("default")))
#endif

/* Where the database is, and how long a writer waits for another one. */
#define CFM_STORE_DIRECTORY "/var/cfm"
#define CFM_STORE_PATH "/var/cfm/cfm.db"
#define CFM_BUSY_TIMEOUT_MS 5000

/* Statuses. Unless a function says otherwise, outputs are untouched after any but CFM_OK. */
#define CFM_OK 0u
#define CFM_ERR_ARGUMENT 0x30000u    /* a null pointer, or an instance number of 0 */
#define CFM_ERR_NOT_FOUND 0x30001u   /* no such identifier, instance or item */
#define CFM_ERR_TOO_SMALL 0x30002u   /* the caller's buffer does not hold the value */
#define CFM_ERR_TYPE 0x30003u        /* the value is not of the identifier's type */
#define CFM_ERR_DAMAGED 0x30004u     /* the database, or an image of it, is damaged or foreign */
#define CFM_ERR_BUSY 0x30005u        /* another writer did not finish in CFM_BUSY_TIMEOUT_MS */
#define CFM_ERR_UNAVAILABLE 0x30006u /* no store, or no access to it */
#define CFM_ERR_MEMORY 0x30007u      /* no memory */
#define CFM_ERR_TOO_LONG 0x30008u    /* the value is longer than its identifier allows */
#define CFM_ERR_VERSION 0x3000Au     /* the store was made by a newer release */

/* Identifiers that the library and the reference programs use. */
#define CFM_PARA_CURRENT_USER_NAME 0x40A2230Bu  /* text, 68: the user who is logged in */
#define CFM_PARA_FORCE_GUIDE 0x62211704u        /* number: 1 while the set-up guide is forced */
#define CFM_PARA_GUIDE_STATUS 0x61A0B20Fu       /* number: 1 while the device is in the guide */
#define CFM_PARA_LOGIN_WAIT 0x61A11703u         /* number: seconds between logins, 0 to 10 */
#define CFM_PARA_PRIVACY_VERSION 0x60A01901u    /* text, 68: privacy notice that was accepted */
#define CFM_PARA_STORED_ADDRESS 0x00C01901u     /* text, 256: the address with the number 7 */
#define CFM_PARA_RESOLVE_ANY_FAMILY 0x6A205A01u /* number: 1 resolves names to IPv6 as well */
#define CFM_OBJ_WEB_USER 0xA8622400u            /* object: accounts of the web interface */
#define CFM_PARA_WEB_USER_NAME 0x40A22401u  /* text, 68, in CFM_OBJ_WEB_USER (this port's own) */
#define CFM_PARA_WEB_USER_LEVEL 0xA9A02404u /* number, in CFM_OBJ_WEB_USER */
#define CFM_PARA_WEB_USER_FIRST_LOGIN 0xE2222406u /* number, in CFM_OBJ_WEB_USER: 1 pending */
#define CFM_APPDATA_PRIVACY_HANDLED 271u          /* bytes, 1: the privacy notice was handled */
#define CFM_EQUIP_SOFTWARE_VERSION 0x80000337u    /* text, 32 */

/* Names one instance of an object. */
typedef struct ORP_DB_KEY_ST {
  uint32_t ulObject;   /* the object's identifier */
  uint32_t ulInstance; /* from 1 */
} ORP_DB_KEY_ST;

/*
 * Reads a parameter: of the instance `key`, or of the whole device with a null key.
 *
 * `value` has `size` bytes. A number needs 4, a text its length and the NUL, a bytes value its
 * length; the rest of the buffer is zeroed.
 *
 * Returns CFM_OK, CFM_ERR_ARGUMENT, CFM_ERR_NOT_FOUND, CFM_ERR_TOO_SMALL, CFM_ERR_DAMAGED,
 * CFM_ERR_BUSY, CFM_ERR_UNAVAILABLE, CFM_ERR_MEMORY or CFM_ERR_VERSION.
 */
CFMAPI_EXPORT uint32_t ORP_DBGetPara(const ORP_DB_KEY_ST *key, uint32_t para, void *value,
                                     uint32_t size);

/*
 * Stores a parameter that is defined already: of the instance `key`, or of the whole device with a
 * null key.
 *
 * `value` has `size` bytes: exactly 4 for a number; a text ends at the first NUL within them or at
 * their end; a bytes value is all of them. When the call returns, every other process reads the new
 * value. It survives a loss of power after the store was saved (CFM_StoreSave).
 *
 * Returns the statuses of ORP_DBGetPara except CFM_ERR_TOO_SMALL, and CFM_ERR_TYPE (a number that
 * is not 4 bytes long) or CFM_ERR_TOO_LONG.
 */
CFMAPI_EXPORT uint32_t ORP_DBSetPara(const ORP_DB_KEY_ST *key, uint32_t para, const void *value,
                                     uint32_t size);

/*
 * Lists the instances of `object` in ascending order of their numbers.
 *
 * Sets *count and *instances to 0 and null first. On CFM_OK *instances is a block of *count keys
 * that the caller releases with free(), or null when the object has no instance.
 *
 * Returns CFM_OK (also for an object that nobody defined), CFM_ERR_ARGUMENT, CFM_ERR_DAMAGED,
 * CFM_ERR_BUSY, CFM_ERR_UNAVAILABLE, CFM_ERR_MEMORY or CFM_ERR_VERSION.
 */
CFMAPI_EXPORT uint32_t ORP_DBGetNumOfObjs(uint32_t object, uint32_t *count,
                                          ORP_DB_KEY_ST **instances);

/*
 * Reads a whole instance as a record of pointer-wide words.
 *
 * Word n (from 1) belongs to the parameter whose identifier ends in the byte n. It holds a number
 * itself, or a pointer to a text (with its NUL) or a bytes value. Parameters that the instance does
 * not have are 0. There are at least CFM_OBJ_MIN_WORDS words, and always enough for the instance's
 * last parameter.
 *
 * Sets *record to null first. On CFM_OK *record belongs to the caller, who releases it with
 * ORP_CFM_FreeObj. It is one block, so its texts are valid as long as the record.
 *
 * Returns what ORP_DBGetNumOfObjs returns, or CFM_ERR_NOT_FOUND.
 */
#define CFM_OBJ_MIN_WORDS 16
CFMAPI_EXPORT uint32_t ORP_DBGetObj(const ORP_DB_KEY_ST *key, void **record);

/* Releases what ORP_DBGetObj handed out; null is ignored. */
CFMAPI_EXPORT void ORP_CFM_FreeObj(void *record);

/* The record of a CFM_OBJ_WEB_USER instance, as far as programs know it. */
typedef struct ORP_WEB_USERINFO_ST {
  char *pcUserName;       /* may be null */
  uintptr_t ulReserved2;  /* this port gives it no meaning */
  uintptr_t ulReserved3;  /* nor this */
  uintptr_t ulUserLevel;  /* CFM_PARA_WEB_USER_LEVEL */
  uintptr_t ulReserved5;  /* nor this */
  uintptr_t ulFirstLogin; /* CFM_PARA_WEB_USER_FIRST_LOGIN */
} ORP_WEB_USERINFO_ST;

/* ORP_CFM_FreeObj for the record of a web user. */
CFMAPI_EXPORT void ORP_WEB_Free_UserInfoObj(ORP_WEB_USERINFO_ST *user);

/*
 * The configuration user on whose behalf this process acts. It goes into requests to the
 * configuration manager. 0 (the system itself) until CFM_SetCurrUser sets another.
 */
CFMAPI_EXPORT uint32_t ORP_CFM_GetCurrUser(void);

/*
 * Read one item of application data or of equipment data into the `size` bytes at `value`.
 * Conditions and statuses are those of ORP_DBGetPara.
 */
CFMAPI_EXPORT uint32_t ORP_APPDATA_ReadAppData(uint32_t item, void *value, uint32_t size);
CFMAPI_EXPORT uint32_t ORP_APPDATA_ReadEquip(uint32_t item, void *value, uint32_t size);

#endif
