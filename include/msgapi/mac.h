/*
 * MAC addresses: reading an interface's own, checking, converting and printing them, and masking
 * them before they are shown or logged.
 *
 * The text form is six two-digit hexadecimal octets separated by ":", 17 characters and the NUL
 * (ORP_MAC_TEXT_SIZE). Unless a function says otherwise it keeps nothing and may be called from any
 * thread, and null pointers are treated as bad arguments.
 */
#ifndef MSGAPI_MAC_H
#define MSGAPI_MAC_H

#include <stdint.h>

#include "msgapi/export.h"

/* Bytes of an address, and of its text "00:11:22:33:44:55" with the NUL. */
#define ORP_MAC_SIZE 6
#define ORP_MAC_TEXT_SIZE 18

/*
 * Copies the hardware address of the interface `ifName` (1 to 15 characters) to `mac`.
 *
 * Returns 0; or 1, with `mac` untouched, for bad arguments, when there is no such interface or when
 * its hardware type is not Ethernet.
 */
MSGAPI_EXPORT uint32_t ORP_UTIL_GetBytesMacAddress(const char *ifName, uint8_t mac[ORP_MAC_SIZE]);

/*
 * The same with an output of `size` bytes: the first 6 are written. Returns 1 also when `size` is
 * below 6.
 */
MSGAPI_EXPORT uint32_t ORP_UTIL_GetMacAddressByInterfaceName(const char *ifName, uint8_t *mac,
                                                             uint32_t size);

/*
 * Writes the hardware address of `ifName` to `out` in upper case ("00:1A:2B:3C:4D:5E"). `out` is
 * empty after any of the failures above and when `size` is below 18.
 */
MSGAPI_EXPORT void ORP_UTIL_GetWanMacAddr(const char *ifName, char *out, uint32_t size);

/* 1 when `text` is exactly six two-digit hexadecimal octets (either case) separated by ":"; else 0,
 * also for null. */
MSGAPI_EXPORT uint32_t ORP_UTIL_ValidateMacAddress(const char *text);

/*
 * Copies `text` to `out` with the 2nd, 3rd and 5th octets replaced: "00:**:**:33:**:55". `out` may
 * be `text` itself.
 *
 * Returns 0; or 1, with `out` untouched, when `text` is not a valid address or `size` is below 18.
 */
MSGAPI_EXPORT uint32_t ORP_UTIL_GetSecureMacAddress(const char *text, char *out, uint32_t size);

/*
 * Masks every octet. With `maskAll` non-zero `out` becomes "**:**:**:**:**:**" and `text` is not
 * read. Otherwise `text` must have 17 characters; it is copied and the two characters at each
 * octet's place are overwritten, so its separators stay ("**-**-**-**-**-**"). `out` may be `text`
 * itself. Nothing happens when `out` is null, `size` is below 18, or `text` has another length.
 */
MSGAPI_EXPORT void ORP_UTIL_DisguiseMacAddress(uint32_t maskAll, const char *text, char *out,
                                               uint32_t size);

/*
 * Writes the first four octets of `text` in upper case and masks the last two:
 * "00:1A:22:33:**:**". The ":" are taken out first; octets that are then no hexadecimal digits are
 * shown as 00. `out` may be `text` itself. Nothing happens unless `text` has 17 characters and
 * `size` is at least 18.
 */
MSGAPI_EXPORT void ORP_UTIL_BIDisguiseMacAddress(const char *text, char *out, uint32_t size);

/*
 * Reads the hexadecimal digits of `text` into `mac`, as ORP_UTIL_HexStr2Bin does. A `separator`
 * other than 0 is taken out first (only 17 characters of what is left count); with 0 the text must
 * have at most 17 characters. `mac` stays as it was from the first pair that does not read, and as
 * a whole when there are no digits or an odd number of them.
 */
MSGAPI_EXPORT void ORP_UTIL_MacStrToByte(const char *text, char separator,
                                         uint8_t mac[ORP_MAC_SIZE]);

/*
 * Prints the address `mac` in lower case to `out`. `count` is the number of bytes at `mac`. Returns
 * `out`; or null, with `out` untouched, when `count` is below 6 or `size` below 18.
 */
MSGAPI_EXPORT char *ORP_UTIL_Macntoa(const uint8_t *mac, uint32_t count, char *out, uint32_t size);

/*
 * Reads pairs of hexadecimal digits from `text` into `out` until the text ends or `size` bytes are
 * filled. The text's length must be even and not 0. Pairs are read as scanf's "%2X" reads them; the
 * first that does not read ends the conversion, and the rest of `out` stays as it was.
 */
MSGAPI_EXPORT void ORP_UTIL_HexStr2Bin(uint8_t *out, uint32_t size, const char *text);

/*
 * Copies `text` to `out` (`size` bytes, NUL included) without the character `separator`. What does
 * not fit is cut off silently. `out` may be `text` itself.
 */
MSGAPI_EXPORT void ORP_UTIL_StripSeparator(const char *text, char separator, char *out,
                                           uint32_t size);

/*
 * The same without silent cutting: returns 0, or 1 with all of `out` cleared when the result does
 * not fit. 1 with nothing written for bad arguments (null, or `size` 0).
 */
MSGAPI_EXPORT uint32_t ORP_UTIL_SaveStripSeparator(const char *text, char separator, char *out,
                                                   uint32_t size);

#endif
