/*
 * URLs: encoding text for them and splitting them into protocol, host, port and path.
 *
 * Texts that are returned are new blocks that the caller releases with free(). Blocks above
 * 0x800000 bytes are refused with the line
 * "error: not host tool, but malloc 4M, return NULL, malloc len=%u\n" on standard output.
 */
#ifndef MSGAPI_URL_H
#define MSGAPI_URL_H

#include <stdint.h>

#include "msgapi/export.h"

/* Protocol indexes. */
#define ORP_URL_PROTOCOL_HTTP 0u  /* "HTTP", port 80 */
#define ORP_URL_PROTOCOL_HTTPS 1u /* "HTTPS", port 443 */
#define ORP_URL_PROTOCOL_FTP 2u   /* "FTP", port 21 */
#define ORP_URL_PROTOCOL_TFTP 3u  /* "TFTP", port 69 */
#define ORP_URL_PROTOCOL_FIRST_EXTENSION 4u
#define ORP_URL_PROTOCOL_UNKNOWN 0xFFFFFFFFu

/*
 * Further protocols of an application, NULL by default and read at every call: a NULL-terminated
 * array of names, numbered from 4 on, and a zero-terminated array of their default ports.
 */
MSGAPI_EXPORT_DATA const char *const *g_extendProtocols;
MSGAPI_EXPORT_DATA const uint32_t *g_extendPorts;

/*
 * Form encoding (application/x-www-form-urlencoded): a space becomes "+", ASCII letters, digits and
 * "-_.~*'()" stay, every other byte becomes "%" and two upper-case hex digits. NULL for NULL or
 * without memory.
 */
MSGAPI_EXPORT char *ORP_UTIL_UrlEncode(const char *text);

/*
 * URI escaping (percent-encoding, RFC 3986, section 2.1): ASCII letters, digits,
 * "!#$&'()*+,/:;=?@-._~" and existing escapes ("%" and two hex digits) stay; every other byte
 * becomes "%" and two lower-case hex digits. NULL and empty text give "/". NULL without memory and
 * when a work buffer of three times the text's length and a NUL exceeds the bound above.
 */
MSGAPI_EXPORT char *ORP_UTIL_GetEscapedUri(const char *path);

/* The index of a protocol name, in any case of its letters; ORP_URL_PROTOCOL_UNKNOWN if there is
 * none or it is NULL. */
MSGAPI_EXPORT uint32_t ORP_UTIL_GetProtocolTypeIdxFromStr(const char *name);

/* The name of a protocol index, not to be freed; NULL if there is none. */
MSGAPI_EXPORT const char *ORP_UTIL_GetProtocolTypeStrFromIdx(uint32_t index);

/* The default port of a protocol index; 0 if there is none. */
MSGAPI_EXPORT uint32_t ORP_UTIL_GetDftPortByProtocolIdx(int32_t index);

/*
 * Splits "PROTOCOL://HOST[:PORT][/PATH]"; white space in front is ignored. HOST may be "[...]" and
 * then holds colons; the brackets are not part of the host.
 *
 * The port is the number after the first ":" that follows, and the path begins at the first "/".
 * Each is looked for by itself: a URL without a port but with a ":" in the path takes its port from
 * there, and the path ends there. The number ends at the first character that is no digit; without
 * ":" the port is the protocol's default.
 *
 * The path is escaped as by ORP_UTIL_GetEscapedUri, query included; NULL for a URL without one.
 * Every output may be NULL. Outputs are set to 0 and NULL first.
 *
 * Returns 1 on success and 0 on failure: NULL, no "://", an unknown protocol, "[" without "]", a
 * port outside 1..65535, or no memory. On failure index and port keep what was found so far and the
 * texts are NULL.
 */
MSGAPI_EXPORT uint32_t ORP_UTIL_ParseUrl(const char *url, uint32_t *protocol, char **host,
                                         uint32_t *port, char **path);

/* The same; `reserved` is ignored. */
MSGAPI_EXPORT uint32_t ORP_UTIL_ParseUrlEx(const char *url, uint32_t *protocol, char **host,
                                           uint32_t *port, char **path, ORP_WORD reserved);

#endif
