/*
 * DNS messages (RFC 1035): reading names and records, building queries and answers, reverse names.
 *
 * Functions that return a packet return a new block that the caller releases with free(). Nothing
 * here logs, keeps state or touches memory outside the packet and the given buffers, whatever the
 * packet holds. Blocks above 0x800000 bytes are refused with the line
 * "error: not host tool, but malloc 4M, return NULL, malloc len=%u\n" on standard output.
 *
 * To walk the records of a reply:
 *
 *     const uint8_t *at = ORP_DNS_PacketGetFirstRR(packet);
 *     while (at != NULL) {
 *       if (ORP_DNS_PacketGetValuesOfRR(packet, at, &record, NULL) != ORP_DNS_OK) break;
 *       at = ORP_DNS_PacketGetNextRR(packet, at);
 *     }
 */
#ifndef MSGAPI_DNS_H
#define MSGAPI_DNS_H

#include <stdint.h>

#include "msgapi/export.h"

/* Statuses of this family. */
#define ORP_DNS_OK 0u
#define ORP_DNS_ERR_ARGUMENT 0x360000u  /* bad argument or unusable input text */
#define ORP_DNS_ERR_MALFORMED 0x360009u /* out of bounds, bad label or pointer, chain too long */

/* Room for every name as dotted text with its NUL. */
#define ORP_DNS_NAME_SIZE 256

/* A DNS message with its length, in one block: ulLength bytes of message, the 12-byte header first,
 * follow this record. */
typedef struct ORP_DNS_PACKET_ST {
  uint32_t ulLength; /* host order */
} ORP_DNS_PACKET_ST;

/* The first byte of a packet's message. */
#define ORP_DNS_PACKET_MESSAGE(packet) ((uint8_t *)(packet) + sizeof(ORP_DNS_PACKET_ST))

/* A resource record; numbers in host order. */
typedef struct ORP_DNS_RR_ST {
  char aucName[ORP_DNS_NAME_SIZE]; /* dotted, no trailing dot; "" is the root */
  uint32_t ulType;                 /* from and to 16 bits */
  uint32_t ulClass;                /* from and to 16 bits */
  uint32_t ulTtl;                  /* seconds */
  uint32_t ulRdLength;             /* bytes at pucRdata */
  const uint8_t *pucRdata;         /* read: inside the packet, valid as long as it is; to build an
                                      answer: the caller's bytes */
} ORP_DNS_RR_ST;

/*
 * A copy of the first `max_length` bytes of the message, or of all of it when it is shorter or
 * `max_length` is 0. NULL if `packet` is NULL, if the copy would exceed 0xFFFFFFFA bytes, or
 * without memory.
 */
MSGAPI_EXPORT ORP_DNS_PACKET_ST *ORP_DNS_PacketCopy(const ORP_DNS_PACKET_ST *packet,
                                                    uint32_t max_length);

/*
 * Bytes that the name at `position` occupies on the wire; a compression pointer ends it (RFC 1035,
 * section 4.1.4), so a name that is only a pointer gives 2. 0 if the name is malformed or not
 * followed by another byte of the packet.
 */
MSGAPI_EXPORT uint32_t ORP_DNS_PacketGetNameLen(const ORP_DNS_PACKET_ST *packet,
                                                const uint8_t *position);

/*
 * Reads the name at `position` as dotted text into `text` (`size` bytes): at most size - 2
 * characters and the NUL. `*consumed` (may be NULL) receives the bytes that the name occupies at
 * `position`: all of it, 2 for a name that is only a pointer, and 0 for labels that end in a
 * pointer.
 *
 * Returns ORP_DNS_OK; ORP_DNS_ERR_ARGUMENT for a NULL packet, position or buffer or a size of 0;
 * ORP_DNS_ERR_MALFORMED for a name outside the packet or not followed by another byte of it, a
 * label above 63 bytes or with a "." in it, a name too long for the buffer, a pointer that leads
 * straight to another pointer, or more than 9 pointers. On failure the text is "" and *consumed
 * is without meaning.
 */
MSGAPI_EXPORT uint32_t ORP_DNS_PacketGetName(const ORP_DNS_PACKET_ST *packet,
                                             const uint8_t *position, char *text, uint32_t size,
                                             uint32_t *consumed);

/*
 * Reads name, type and class of the question at `position`; the other fields of `*record`
 * keep their values. `*consumed` (may be NULL) receives what ORP_DNS_PacketGetName consumed plus
 * 4; type and class are read after what it consumed, so a name of labels ending in a pointer
 * yields the name's own first bytes.
 *
 * Returns the statuses of ORP_DNS_PacketGetName; ORP_DNS_ERR_ARGUMENT also for a NULL record and
 * ORP_DNS_ERR_MALFORMED for a question that the packet cuts short. On failure the name may have
 * been written and *consumed is 0.
 */
MSGAPI_EXPORT uint32_t ORP_DNS_PacketGetValuesOfQuestion(const ORP_DNS_PACKET_ST *packet,
                                                         const uint8_t *position,
                                                         ORP_DNS_RR_ST *record, uint32_t *consumed);

/*
 * The same for the resource record at `position`, all fields. `*consumed` receives what the
 * name consumed plus 10 plus the data length. A record may end exactly where the packet ends.
 */
MSGAPI_EXPORT uint32_t ORP_DNS_PacketGetValuesOfRR(const ORP_DNS_PACKET_ST *packet,
                                                   const uint8_t *position, ORP_DNS_RR_ST *record,
                                                   uint32_t *consumed);

/*
 * Bytes of the question at `position`, 0 if its name is malformed. A question that reaches the
 * end of the packet is counted without its type and class.
 */
MSGAPI_EXPORT uint32_t ORP_DNS_PacketGetQuestionLen(const ORP_DNS_PACKET_ST *packet,
                                                    const uint8_t *position);

/* Bytes of the record at `position`; 0 if it is malformed or reaches the end of the packet. */
MSGAPI_EXPORT uint32_t ORP_DNS_PacketGetRRLen(const ORP_DNS_PACKET_ST *packet,
                                              const uint8_t *position);

/*
 * The position after all questions, where the first answer stands. It may be the end of the packet.
 * NULL for a NULL packet, one without a whole header, or a malformed question. In a packet that
 * ends with its only question the result points to that question's type field.
 */
MSGAPI_EXPORT const uint8_t *ORP_DNS_PacketGetFirstRR(const ORP_DNS_PACKET_ST *packet);

/* The position after the record at `position`; NULL if ORP_DNS_PacketGetRRLen gives 0. */
MSGAPI_EXPORT const uint8_t *ORP_DNS_PacketGetNextRR(const ORP_DNS_PACKET_ST *packet,
                                                     const uint8_t *position);

/*
 * The position after the answers, and after answers and authority records (the two counts are
 * added in 16 bits). NULL on failure and when a skipped record reaches the end of the packet.
 */
MSGAPI_EXPORT const uint8_t *ORP_DNS_PacketGetFirstAuthorityRecord(const ORP_DNS_PACKET_ST *packet);
MSGAPI_EXPORT const uint8_t *ORP_DNS_PacketGetFirstAddtionalRecord(const ORP_DNS_PACKET_ST *packet);

/*
 * A query (recursion desired) for the address (type 1, class 1) of the dotted name `name`. Empty
 * labels are skipped; labels above 63 characters are not refused. The identifier is 0; the caller
 * sets it. The question count is 1 in host byte order, so a little-endian sender that puts the
 * packet on the wire must store 0x0001 in network order first. The message is strlen(name) + 18
 * bytes long, with zeros at its end when labels were skipped.
 *
 * NULL for NULL, a name without a label, one of 260 characters or more, or without memory.
 */
MSGAPI_EXPORT ORP_DNS_PACKET_ST *ORP_DNS_PacketBuildRequest(const char *name);

/*
 * An answer to `query` with the one record `*record`. It is a copy of the query, records and all,
 * with flags 0x8100, one answer and no additional records counted; the record follows, under the
 * name of the first question. (To answer a query that carries records, such as EDNS, first copy it
 * up to the end of its question.)
 *
 * `cached_at` is the uptime in seconds at which the record was cached: the time since then is
 * taken off the TTL. 0 leaves the TTL as it is.
 *
 * NULL for NULL arguments (NULL data with a length other than 0 included), a query without a whole
 * header, a query or data above 0x7FFFFFF6 bytes, a record whose TTL has run out, or without
 * memory.
 */
MSGAPI_EXPORT ORP_DNS_PACKET_ST *ORP_DNS_PacketBuildResponse(const ORP_DNS_PACKET_ST *query,
                                                             const ORP_DNS_RR_ST *record,
                                                             uint32_t cached_at);

/*
 * The query with flags 0x8100 + `response_code` and no answer, authority or additional records
 * counted; its bytes after the question stay. NULL for NULL, a query without a whole header, or
 * without memory.
 */
MSGAPI_EXPORT ORP_DNS_PACKET_ST *ORP_DNS_PacketBuildErrorResponse(const ORP_DNS_PACKET_ST *query,
                                                                  uint32_t response_code);

/*
 * The empty success reply for a name that has no address of the family asked for: the query with
 * flags 0x8180 and no additional records counted. NULL as above and for a query of 0x7FFFFFF7 bytes
 * or more.
 */
MSGAPI_EXPORT ORP_DNS_PACKET_ST *ORP_DNS_IpTypeMismatchResponse(const ORP_DNS_PACKET_ST *query);

/*
 * 1 if the reply carries a response code other than 0, or no record at all (a message without a
 * whole header carries none); else 0, also for NULL.
 */
MSGAPI_EXPORT uint32_t ORP_DNS_PacketCheckIfErrorRely(const ORP_DNS_PACKET_ST *reply);

/*
 * Turns a reverse-lookup name ("4.3.2.1.in-addr.arpa", or 32 nibbles and ".ip6.arpa", lower case;
 * what follows the suffix is ignored) into its address text ("1.2.3.4", or eight groups of four
 * digits).
 *
 * `address` must be filled with zeros and hold at least two bytes more than the part before the
 * suffix: the text may end by those zeros, because only the byte after its NUL is written.
 * `*is_ipv4` (may be NULL) receives 1 for IPv4 and 0 for IPv6.
 *
 * Returns ORP_DNS_OK; ORP_DNS_ERR_ARGUMENT for a NULL name or buffer, a name above 255 characters,
 * not exactly one of the suffixes, the wrong number of labels or digits, a buffer too small, or
 * text that is no address; 1 for an empty label. On failure the buffer is without meaning and
 * *is_ipv4 is 0.
 */
MSGAPI_EXPORT uint32_t ORP_DNS_PacketPTRName2Addr(const char *name, char *address, uint32_t size,
                                                  uint32_t *is_ipv4);

#endif
