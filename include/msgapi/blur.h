/*
 * Blurring of personal data: MAC and IP addresses, serial numbers, UUIDs, accounts and SSIDs are
 * masked with "*" before they are logged or shown.
 *
 * Values are found as POSIX extended regular expressions find them (leftmost, then longest; each
 * search begins after the last match):
 *
 *   MAC       ([0-9A-Fa-f]{2}[:-]){5}([0-9A-Fa-f]{2})
 *   IPv4      ([0-9]{1,3}[.]){3}[0-9]{1,3}
 *   serial    ([0-9A-Z]{16})
 *   UUID      ([0-9A-Fa-f]{8}[-])([0-9A-Fa-f]{4}[-]){3}([0-9A-Fa-f]{12})
 *   hwaddr    (hwaddr: )([0-9A-Fa-f]{12})
 *   UUID tail (([0-9A-Fa-f]{4}[-]){3})([0-9A-Fa-f]{12})
 *   IPv6      full and "::"-compressed forms of up to eight groups
 *
 * The functions that mask a caller's buffer may be called from any thread. Those that return text
 * keep it in a static buffer: the next call overwrites it, and they are not safe between threads.
 * ORP_BLUR_Mac, _Ipv6, _Ip and _Uuid and the _Byte forms share one buffer; the others have one
 * each.
 */
#ifndef MSGAPI_BLUR_H
#define MSGAPI_BLUR_H

#include <netinet/in.h>
#include <stdint.h>

#include "msgapi/export.h"

/* Results of ORP_BLUR_File(); 0 is success. */
#define ORP_BLUR_ERR_ARGUMENT 0x10001u /* null path, or the file cannot be opened for update */
#define ORP_BLUR_ERR_SEEK 0x10007u
#define ORP_BLUR_ERR_WRITE 0x1000du
#define ORP_BLUR_ERR_PATH 0x1000fu     /* the path does not resolve */
#define ORP_BLUR_ERR_TOO_LONG 0x10010u /* a path of more than 4096 characters */

/* Positions that are masked within a match, ended by -1. */
MSGAPI_EXPORT_DATA const int32_t g_macAddressBlurPos[7];
MSGAPI_EXPORT_DATA const int32_t g_uuidBlurPos[7];
MSGAPI_EXPORT_DATA const int32_t g_hwAddressBlurPos[7];

/*
 * Masks `buf`, a NUL-terminated text, for a log file: "AA:**:**:DD:**:FF", "192.***.*.10",
 * "A*C*E*G*I*K*M*O*", twelve digits of a UUID or hardware address as "00****33**55". No search
 * begins at a position above `len`.
 *
 * Returns 0, or -1 for a null `buf` or `len` 0.
 */
MSGAPI_EXPORT int32_t MlogBlurString(char *buf, uint32_t len);

/* The same for IPv6 addresses: every character of them is masked. */
MSGAPI_EXPORT int32_t MlogBlurIpv6String(char *buf, uint32_t len);

/*
 * Masks the text file `path` in place: MAC and IPv4 addresses partly, the last group of UUIDs and
 * IPv6 addresses whole. The file is handled in blocks of 2048 bytes: a value that lies across two
 * blocks, or after a NUL byte in its block, is not found.
 *
 * Returns 0 or an ORP_BLUR_ERR_ value; the blocks before the failure are masked.
 */
MSGAPI_EXPORT uint32_t ORP_BLUR_File(const char *path);

/*
 * A masked copy of `str`; "" for null and for a text of more than 259 characters. What is masked:
 *   _Mac    every character but ":", from the first MAC address on
 *   _Ipv6   IPv6 addresses
 *   _Ip     IPv6 addresses, and every character but "." of IPv4 addresses
 *   _Uuid   the last twelve digits of UUIDs
 */
MSGAPI_EXPORT const char *ORP_BLUR_Mac(const char *str);
MSGAPI_EXPORT const char *ORP_BLUR_Ipv6(const char *str);
MSGAPI_EXPORT const char *ORP_BLUR_Ip(const char *str);
MSGAPI_EXPORT const char *ORP_BLUR_Uuid(const char *str);

/* ORP_BLUR_Mac() of six bytes; "" for null. */
MSGAPI_EXPORT const char *ORP_BLUR_MacByte(const uint8_t *mac);

/* ORP_BLUR_Ip() of an address in network byte order. */
MSGAPI_EXPORT const char *ORP_BLUR_Ipv4Byte(struct in_addr addr);

/* "a******n" for "admin", "a******" for "a", "" for "" and null. */
MSGAPI_EXPORT const char *ORP_BLUR_UsbAccount(const char *name);

/*
 * "h**e" for "home": at most 35 characters; the first and the last are shown. An SSID of one or two
 * characters is returned as it is; "" for null.
 */
MSGAPI_EXPORT const char *ORP_BLUR_Ssid(const char *ssid);

#endif
