/*
 * Character sets: codecs between UCS-2, UTF-8, big-endian byte pairs and hex text on the caller's
 * buffers, and whole-string conversion between named encodings by the kernel's conversion device.
 */
#ifndef MSGAPI_CHARSET_H
#define MSGAPI_CHARSET_H

#include <stdint.h>

#include "msgapi/export.h"

/* ---- Codecs --------------------------------------------------------------------------------
 *
 * `size` points to the capacity of the output, in units of the output. Whatever the status, it
 * receives the amount that was produced, without a terminating zero. Nothing is allocated and
 * nothing beyond the capacity is written. Each codec has a second name with the same arguments.
 */

/* Statuses of the codecs. */
#define CL_OK 0u
#define CL_ERR_ARGUMENT 1u /* a required argument is NULL or a length is 0 */
#define CL_ERR_UTF8 4u     /* a byte that begins no sequence, or a sequence cut short */
#define CL_ERR_ROOM 6u     /* the output buffer is too small */
#define CL_ERR_BASE 8u     /* a number base other than 10 and 16 */

/*
 * UCS-2 to UTF-8, each unit by itself (surrogates are not paired), up to a zero unit or `count`
 * units. The text is NUL-terminated after the last whole character that fits with the NUL.
 *
 * Returns CL_OK, CL_ERR_ARGUMENT (NULL arguments, a count of 0), or CL_ERR_ROOM: a character did
 * not fit, or there are more units than the capacity (then nothing is written).
 */
MSGAPI_EXPORT uint32_t CL_Ucs2ToUtf8(const uint16_t *units, uint32_t count, char *text,
                                     uint32_t *size);
MSGAPI_EXPORT uint32_t cl_ucs2ToUTF8(const uint16_t *units, uint32_t count, char *text,
                                     uint32_t *size);

/* The same, but `size` is the capacity itself and no amount is returned. Converts as much as fits,
 * even when there are more units than bytes. */
MSGAPI_EXPORT uint32_t CL_Ucs2ToUtf8ByLen(const uint16_t *units, uint32_t count, char *text,
                                          uint32_t size);
MSGAPI_EXPORT uint32_t cl_ucs2ToUTF8ByLen(const uint16_t *units, uint32_t count, char *text,
                                          uint32_t size);

/*
 * UTF-8 to UCS-2, up to a zero byte or `count` bytes. Sequences of up to 6 bytes are read, with the
 * low 16 bits of their value kept; continuation bytes are not checked. A zero unit follows the
 * output where there is room for it.
 *
 * Returns CL_OK, CL_ERR_ARGUMENT (NULL arguments, a count of 0), CL_ERR_UTF8 (what comes before the
 * bad sequence is converted), or CL_ERR_ROOM (the output is full).
 */
MSGAPI_EXPORT uint32_t CL_Utf8ToUcs2(const char *text, uint32_t count, uint16_t *units,
                                     uint32_t *size);
MSGAPI_EXPORT uint32_t cl_utf8ToUCS2(const char *text, uint32_t count, uint16_t *units,
                                     uint32_t *size);

/*
 * `count` 16-bit units in host order, at any alignment, to big-endian byte pairs. Returns CL_OK,
 * CL_ERR_ARGUMENT (NULL arguments, a count of 0), or CL_ERR_ROOM for less than 2 * count bytes.
 */
MSGAPI_EXPORT uint32_t CL_WideCharToByteOrder(const uint8_t *units, uint32_t count, uint8_t *bytes,
                                              uint32_t *size);
MSGAPI_EXPORT uint32_t cl_widecharToByteOrder(const uint8_t *units, uint32_t count, uint8_t *bytes,
                                              uint32_t *size);

/*
 * Big-endian byte pairs to 16-bit units and a zero unit; an odd last byte is ignored. Returns
 * CL_OK, CL_ERR_ARGUMENT (NULL arguments, a count of 0), or CL_ERR_ROOM for less than
 * count / 2 + 1 units.
 */
MSGAPI_EXPORT uint32_t CL_ByteOrderToWideChar(const uint8_t *bytes, uint32_t count, uint16_t *units,
                                              uint32_t *size);
MSGAPI_EXPORT uint32_t cl_byteOrderToWideChar(const uint8_t *bytes, uint32_t count, uint16_t *units,
                                              uint32_t *size);

/*
 * Bytes to NUL-terminated upper-case hex text. Returns CL_OK, CL_ERR_ARGUMENT (NULL arguments, a
 * count of 0), or CL_ERR_ROOM for less than 2 * count + 1 characters.
 */
MSGAPI_EXPORT uint32_t CL_BytesToString(const uint8_t *bytes, uint32_t count, char *text,
                                        uint32_t *size);
MSGAPI_EXPORT uint32_t cl_bytesToString(const uint8_t *bytes, uint32_t count, char *text,
                                        uint32_t *size);

/*
 * Hex text to bytes, in pairs of digits up to a NUL or `count` characters. Characters that are no
 * hex digits are not refused and give meaningless bytes. With an odd count the character after the
 * last one is taken as the low digit; it must be readable (a NUL, say).
 *
 * Returns CL_OK, CL_ERR_ARGUMENT (NULL arguments, a count of 0), or CL_ERR_ROOM: for less than
 * count / 2 bytes nothing is written, and the byte of an odd last digit may find no room.
 */
MSGAPI_EXPORT uint32_t CL_StringToBytes(const char *text, uint32_t count, uint8_t *bytes,
                                        uint32_t *size);
MSGAPI_EXPORT uint32_t cl_stringToBytes(const char *text, uint32_t count, uint8_t *bytes,
                                        uint32_t *size);

/*
 * The number that exactly `count` characters make in base 10 or 16, modulo 2^32; characters that
 * are no digits are skipped. `*value` is set to 0 first.
 *
 * Returns CL_OK; CL_ERR_ARGUMENT for NULL, for a count of 0, in base 10 for any character that is
 * no digit, and in base 16 when the last character is no digit; CL_ERR_BASE.
 */
MSGAPI_EXPORT uint32_t CL_StringToNumeric(const char *text, uint32_t count, uint32_t base,
                                          uint32_t *value);
MSGAPI_EXPORT uint32_t cl_stringToNumeric(const char *text, uint32_t count, uint32_t base,
                                          uint32_t *value);

/* ---- Whole-string conversion ---------------------------------------------------------------
 *
 * The kernel's conversion device knows the encodings; where it is absent every conversion fails.
 * It is opened at the first conversion and stays open for the life of the process. These functions
 * are not safe for concurrent callers. Texts that are returned are new blocks that the caller
 * releases with free(), except where said. Encoding names have at most 31 characters; a longer one
 * fails with a line on standard output ("ORP_NLS_ConvertGetLength copy inputEncoding error.", and
 * the like for outputEncoding).
 */

/* The conversion device: its file and its one request, which names encodings in fields of
 * ORP_NLS_NAME_SIZE bytes. */
#define ORP_NLS_DEVICE "/proc/convert"
#define ORP_NLS_DEVICE_REQUEST 0xC018470Au /* the ioctl number of an ORP_NLS_REQUEST_ST */
#define ORP_NLS_NAME_SIZE 32

/* ulOperation: convert, or only tell the length of the result. */
#define ORP_NLS_CONVERT 0u
#define ORP_NLS_MEASURE 1u

/* What the device takes, in native byte order; 88 bytes on 32-bit targets. */
typedef struct ORP_NLS_REQUEST_ST {
  uint32_t ulOperation;   /* ORP_NLS_CONVERT or ORP_NLS_MEASURE */
  uint32_t ulUnclean;     /* set by the device: the input held what it could not convert cleanly */
  const void *pvInput;    /* the text to convert */
  uint32_t ulInputLength; /* bytes */
  /* Names of the encodings, NUL-terminated. */
  char aucInputEncoding[ORP_NLS_NAME_SIZE];
  char aucOutputEncoding[ORP_NLS_NAME_SIZE];

  uint32_t ulOutputLength; /* bytes; returned by measure, given to convert */
  void *pvOutput;          /* convert only */
} ORP_NLS_REQUEST_ST;

/* What ORP_NLS_ConvertGetLength returns when the length cannot be told. */
#define ORP_NLS_NO_LENGTH 0xFFFFFFFFu

/*
 * How many bytes the `length` bytes at `input` become. ORP_NLS_NO_LENGTH for NULL arguments, for
 * names too long, without the device, when it refuses, and, unless `accept_partial` is non-zero,
 * when it cannot convert the input cleanly.
 */
MSGAPI_EXPORT uint32_t ORP_NLS_ConvertGetLength(const char *input_encoding, const char *input,
                                                uint32_t length, const char *output_encoding,
                                                uint32_t accept_partial);

/*
 * Converts `length` bytes at `input`. A NUL follows the result; `*output_length` receives its
 * length without the NUL (`output_length` may be NULL). NULL, and a length of 0, for NULL
 * arguments, for names too long, for an empty result or one above 0x7FFFFF bytes (with the
 * allocator's line on standard output), without the device, when it refuses, or without memory.
 */
MSGAPI_EXPORT char *ORP_NLS_ConvertString(const char *input_encoding, const char *input,
                                          uint32_t length, const char *output_encoding,
                                          uint32_t *output_length);

/* ORP_NLS_ConvertString of a NUL-terminated text and its NUL; NULL for NULL. All three do the
 * same. */
MSGAPI_EXPORT char *ORP_NLS_GbConvert(const char *text, const char *output_encoding,
                                      const char *input_encoding);
MSGAPI_EXPORT char *ORP_NLS_GB2312Convert(const char *text, const char *output_encoding,
                                          const char *input_encoding);
MSGAPI_EXPORT char *ORP_NLS_IconvConvert(const char *text, const char *output_encoding,
                                         const char *input_encoding);

/* 1 if the text is UTF-8 (RFC 3629, section 3) in sequences of up to three bytes, else 0; 1 for
 * NULL. Overlong forms and surrogates are not looked for. */
MSGAPI_EXPORT uint32_t ORP_NLS_IsStringUtf8(const char *text);

/* The text as UTF-8. Its encoding is taken to be the first of "utf8", "cp936", "cp950" and
 * "iso8859-1" from which the device can convert it. NULL for NULL and if none fits. */
MSGAPI_EXPORT char *ORP_NLS_TryConvertToUtf8(const char *text);

/* The same, kept by the library until the next call that succeeds; `text` itself if no encoding
 * fits. Not to be freed. */
MSGAPI_EXPORT const char *ORP_NLS_TryConvertToUtf8NoFree(const char *text);

#endif
