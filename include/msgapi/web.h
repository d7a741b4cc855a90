/*
 * Decisions that the web interface and the set-up programs share: access levels, the first login,
 * the set-up guide, language codes, stored addresses and the privacy notice.
 *
 * Everything is read from the configuration store at each call and nothing is kept. A status of the
 * store is one of cfmapi.h (0x300xx) of the platform's configuration library.
 */
#ifndef MSGAPI_WEB_H
#define MSGAPI_WEB_H

#include <stdint.h>

#include "msgapi/export.h"

/*
 * Stores the access level of the user who is logged in. Returns 0; 0, with *levelOut untouched,
 * when there are no accounts; 0x30000 for null; 1 when no account has the user's name; or the
 * status of the store. *levelOut is untouched on failure.
 */
MSGAPI_EXPORT uint32_t ORP_WEB_GetCurAccountLevel(uint32_t *levelOut);

/*
 * 1 when no first login is awaited: the first account with level 2 does not have its first-login
 * flag at 1, or there is no such account. 0 otherwise, and when the store cannot be read.
 */
MSGAPI_EXPORT uint32_t ORP_WEB_CheckFirstLogin(void);

/* 1 when the device's software is "K7210-402-CUST 10.0.5.1(C233)", whatever follows; else 0. */
MSGAPI_EXPORT uint32_t ORP_WEB_IsSpecifiedIniVersion(void);

/* 1 when the set-up guide is forced. On the version above it never is: this call sets the switch to
 * 0 there. */
MSGAPI_EXPORT uint32_t ORP_WEB_ForceGuideIsEnabled(void);

/* 1 when the device is in the set-up guide. */
MSGAPI_EXPORT uint32_t ORP_WEB_IsGuideStatus(void);

/* 1, with a line on standard output, when the web login does not ask for the password: the guide is
 * forced and on. */
MSGAPI_EXPORT uint32_t ORP_WEB_IsSkipCheckPwd(void);

/*
 * The device's language code for a browser's `language`: the code that equals it ignoring case,
 * otherwise the first that begins with the same two letters, otherwise (and for null) "en_us". The
 * text is the library's and never changes.
 */
MSGAPI_EXPORT const char *ORP_SYSINFO_GetStandLangStr(const char *language);

/*
 * Copies the stored address with the number `urlNumber` into `buffer`. ORP_OK; ORP_ERR_ARGUMENT for
 * a null buffer; ORP_ERR_SYSTEM for a number without an address (all but 7); or the status of the
 * store. `buffer` is untouched on failure.
 */
MSGAPI_EXPORT uint32_t ORP_URLSTORE_GetUrl(uint32_t urlNumber, char *buffer, uint32_t bufferSize);

/*
 * Stores a text parameter of up to 67 characters unless it has that value already. 0, also when
 * nothing had to be written; 1 for null; or the status of the write. Failures are printed.
 */
MSGAPI_EXPORT uint32_t SetCHARParamToDB(uint32_t parameter, const char *value);

/* 1 when the privacy notice has not been handled yet; 0 when it has, or if that cannot be read. */
MSGAPI_EXPORT uint32_t DeviceGDPRcheckfirststatus(void);

/*
 * Stores "2016-10" as the accepted version of the privacy notice when none is stored and the notice
 * has not been handled. 0 when there was nothing to do, otherwise the result of SetCHARParamToDB or
 * the status of the store.
 */
MSGAPI_EXPORT uint32_t DeviceGDPRfirestVersion(void);

#endif
