/*
 * Small checks of input text, removal of substrings, the request path "/api/MODULE/FUNCTION", and
 * file copies. Nothing here keeps state.
 */
#ifndef MSGAPI_STR_H
#define MSGAPI_STR_H

#include <stdint.h>

#include "msgapi/export.h"

/* 1 if the port is 1..65535, else 0. */
MSGAPI_EXPORT uint32_t ORP_UTIL_ValidatePort(uint32_t port);

/* 1 if the text is not empty and made of digits 0-9 only, else 0. 0 for NULL. */
MSGAPI_EXPORT uint32_t ORP_UTIL_ValidateNumber(const char *text);

/* 1 if the text is not empty and at most `max` bytes long, else 0. 0 for NULL. */
MSGAPI_EXPORT uint32_t ORP_UTIL_ValidateLength(const char *text, uint32_t max);

/* 1 if every byte is 0x20..0x7F (0x7F included; empty text passes), else 0. 0 for NULL. */
MSGAPI_EXPORT uint32_t ORP_UTIL_ValidStr(const char *text);

/* 1 if a NUL occurs within the first `size` bytes, else 0. 0 for NULL. */
MSGAPI_EXPORT uint32_t ORP_UTIL_CheckStringTerminated(const char *buffer, uint32_t size);

/*
 * Copies `text` to `out` (`size` bytes) without the occurrences of `part`, which are
 * found from the left and do not overlap. What does not fit is cut off; the output is always
 * NUL-terminated. An empty substring removes nothing.
 *
 * Returns the number of occurrences in the text; 0 (and writes nothing) for NULL arguments or a
 * size of 0.
 */
MSGAPI_EXPORT uint32_t ORP_UTIL_DeleteSubStr(const char *text, const char *part, char *out,
                                             uint32_t size);

/*
 * Splits "/api/MODULE/FUNCTION"; FUNCTION is everything after the "/" that follows the module.
 *
 * The module is written only when `module` is given and `module_size` bytes hold it with its
 * NUL. The function is written when `function` is given; with `function_size` 1 it is always
 * empty, with 0 nothing is written.
 *
 * Returns 0; 1 for NULL or another form of path. With a `function_size` above 1 also 1 for an empty
 * function or one that does not fit; it is written as "".
 */
MSGAPI_EXPORT uint32_t ORP_UTIL_FindModuleAndFuncByUri(const char *uri, char *module,
                                                       uint32_t module_size, char *function,
                                                       uint32_t function_size);

/*
 * Copies a file with its attributes: the platform's command runner runs "cp -pf SOURCE TARGET", and
 * nobody learns how it went. Nothing happens when a path is NULL or not safe as an argument of a
 * command.
 */
MSGAPI_EXPORT void ORP_UTIL_CopyFile(const char *source, const char *target);

#endif
