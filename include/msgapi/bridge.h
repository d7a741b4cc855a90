/*
 * Bridges and interfaces: which Linux bridges exist, which interfaces they have, where an address
 * was learnt, an interface's counters and its IPv6 link-local address.
 *
 * Bridges are queried through the program "brctl". Its output goes to a result file under /var that
 * is made afresh and removed again. "brctl showmacs" must print the interface's name as a fifth
 * column. A word is a bridge's name when it holds "br", has a digit right after the first "br"
 * ("br0", "lanbr2") and holds no ":". Names that hold anything but letters, digits and "._-:", or
 * that begin with "-", never reach a command and are treated as not found.
 *
 * The result files have fixed names: only one caller on the device may use these functions at a
 * time. Lines longer than 127 characters are read as several.
 */
#ifndef MSGAPI_BRIDGE_H
#define MSGAPI_BRIDGE_H

#include <stdint.h>

#include "msgapi/export.h"

/* A text of the forwarding table did not fit its field. */
#define ORP_ERR_BRIDGE_TEXT 0x10015u

/* An interface's name and the NUL. */
#define ORP_IF_NAME_SIZE 16

/* Where an address was learnt; 43 bytes. Texts are NUL-terminated. */
typedef struct ORP_UTIL_BR_FDB_ST {
  uint8_t ucPort;                   /* the low 8 bits of the port's number in its bridge */
  char aucMac[18];                  /* "00:11:22:33:44:55" */
  char aucIfName[ORP_IF_NAME_SIZE]; /* the interface of the port */
  char aucLocal[8];                 /* "yes" for the port's own address, else "no" */
} ORP_UTIL_BR_FDB_ST;

/* The traffic counters of an interface; every counter wraps at 2^32. */
typedef struct ORP_UTIL_IFC_STAT_ST {
  /* What the interface received: bytes, packets, bad packets, packets it had no room for. */
  uint32_t ulRxBytes;
  uint32_t ulRxPackets;
  uint32_t ulRxErrors;
  uint32_t ulRxDrops;
  /* What it sent, and what it failed to send, likewise. */
  uint32_t ulTxBytes;
  uint32_t ulTxPackets;
  uint32_t ulTxErrors;
  uint32_t ulTxDrops;
} ORP_UTIL_IFC_STAT_ST;

/*
 * Writes the names of all bridges to `out` (`outSize` bytes), separated by ",". A name that no
 * longer fits is left out, but counted. Returns the number of bridges; 0, with `out` empty, when
 * the listing cannot be read; 0 for a null `out`.
 */
MSGAPI_EXPORT uint32_t ORP_UTIL_GetBridgeAllNames(char *out, uint32_t outSize);

/*
 * Writes to `out` the name of the bridge to which the interface `ifName` belongs. Here any name
 * that "brctl show" lists in a bridge's place is accepted.
 *
 * `showFile` is null, or a file with the output of "brctl show" that is read in place of a new
 * listing and left where it is.
 *
 * Returns 0; 1, with `out` untouched, when `ifName` or `out` is null, `outSize` is below 2, or the
 * listing cannot be read or has no such interface; 1, with `out` empty, when the name does not fit.
 */
MSGAPI_EXPORT uint32_t ORP_UTIL_GetBrByLanInterface(const char *ifName, char *out, uint32_t outSize,
                                                    const char *showFile);

/*
 * Writes to `out` the name of the interface on which a bridge has learnt the address `mac` (text
 * with ":", case ignored).
 *
 * Returns 0 with the name; 0 with `out` untouched when there is no bridge with an interface:
 * callers must treat that as not found; 1, with `out` untouched, for null arguments, an `outSize`
 * below 2, or when no bridge knows the address; 1, with `out` empty, when the name does not fit.
 */
MSGAPI_EXPORT uint32_t ORP_UTIL_GetInterfaceNameByMacAddr(const char *mac, char *out,
                                                          uint32_t outSize);

/*
 * Stores the names of the interfaces of `bridge` (at most 7 characters) in `names`, an array of
 * `maxCount` entries, in the order of "brctl show". When entries remain, the one after the last
 * name is made empty. An interface whose name begins with "br" ends the list.
 *
 * Returns 0 when the bridge exists, has an interface and `maxCount` is not 0; else 1, also for null
 * arguments, a `bridge` that is no bridge's name, and a name that does not fit its entry.
 */
MSGAPI_EXPORT uint32_t ORP_UTIL_GetAllInterfaceOnBr(const char *bridge, uint32_t maxCount,
                                                    char (*names)[ORP_IF_NAME_SIZE]);

/*
 * Fills `record` with the forwarding-table entry of the address `mac` (text with ":", case ignored)
 * in `bridge` or, when that is null, in any bridge.
 *
 * Returns 0 with the entry; 0 with `record` untouched when no bridge with an interface was
 * selected: callers must treat that as not found; 1, with `record` untouched, for null arguments or
 * an address that is not known; ORP_ERR_BRIDGE_TEXT when a text did not fit: that field is empty,
 * the others are filled.
 */
MSGAPI_EXPORT uint32_t ORP_UTIL_GetBrFdbInfoByMacSpecBr(const char *mac, ORP_UTIL_BR_FDB_ST *record,
                                                        const char *bridge);

/* The same over all bridges. */
MSGAPI_EXPORT uint32_t ORP_UTIL_GetBrFdbInfoByMac(const char *mac, ORP_UTIL_BR_FDB_ST *record);

/*
 * Fills `counters` from the first line of /proc/net/dev that holds `ifName` directly before a ":",
 * so "th0" also finds "eth0". Leaves it untouched when there is no such line. May be called from
 * any thread. Returns 0.
 */
MSGAPI_EXPORT uint32_t ORP_UTIL_GetIfcStatInfoEx(const char *ifName,
                                                 ORP_UTIL_IFC_STAT_ST *counters);

/*
 * Writes the first link-local IPv6 address (fe80::/10) of the interface `ifName` to `out` in the
 * text form of RFC 5952. May be called from any thread. Returns 1; 0, with `out` untouched, for
 * null arguments or when there is none; 0, with `out` empty, when it does not fit `outSize` bytes.
 */
MSGAPI_EXPORT uint32_t ORP_UTIL_GetIpv6LinkAddress(const char *ifName, char *out, uint32_t outSize);

#endif
