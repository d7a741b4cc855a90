/*
 * The platform's utility library, as libmsgapi calls it. This is the host port; on a product the
 * product's own library takes its place. C99.
 */
#ifndef ORPUTIL_H
#define ORPUTIL_H

#include <stddef.h>
#include <stdint.h>

/* Marks what leaves the library. */
#ifdef __cplusplus
#define ORPUTIL_EXPORT extern "C" __attribute__((visibility("default")))
#else
#define ORPUTIL_EXPORT __attribute__((visibility("default")))
#endif

/*
 * Singly linked lists. A record that is chained begins with its link word; a list is held by a
 * pointer to its first record, null when empty. `head` is the address of that pointer and `node`
 * a record. Null arguments are ignored. Nothing here allocates.
 */

/* Called for a record that leaves its list, before the record itself is freed. */
typedef void (*ORP_LIST_RELEASE)(void *node);
/* Non-zero for the record that is looked for. */
typedef uint32_t (*ORP_LIST_MATCH)(const void *node, const void *key);

/* Chains `node` after the last record. */
ORPUTIL_EXPORT void ORP_ListAppend(void *head, void *node);
/* Unlinks `node`, calls `release` (when given) on it and frees it with free(). No effect, and no
 * call, when it is not in the list. */
ORPUTIL_EXPORT void ORP_ListDeleteItem(void *head, void *node, ORP_LIST_RELEASE release);
/* Unlinks `node`; the caller keeps its memory. No effect when it is not in the list. */
ORPUTIL_EXPORT void ORP_ListDeleteItemEx(void *head, void *node);
/* Empties the list, calling `release` (when given) on every record and freeing it. */
ORPUTIL_EXPORT void ORP_ListDeleteAll(void *head, ORP_LIST_RELEASE release);
/* The number of records in the list that starts at `first`. */
ORPUTIL_EXPORT uint32_t ORP_ListGetCount(const void *first);
/* The first record from `first` on for which match(record, key) is non-zero, or null. */
ORPUTIL_EXPORT void *ORP_ListFindItem(void *first, ORP_LIST_MATCH match, const void *key);

/*
 * Memory.
 */

/*
 * Tracked reallocation: a block of `new_size` bytes that begins with the first
 * min(old_size, new_size) bytes of `block`, the rest not cleared. `block` may be null. On failure
 * (`new_size` 0 included) returns null and leaves `block` as it is. `tag` and `line` name the
 * caller for the product's memory tracking.
 */
ORPUTIL_EXPORT void *OrpReallocInternal(void *block, size_t old_size, size_t new_size,
                                        const char *tag, uint32_t line);
/*
 * One cleared block: `size` bytes, then a buffer of `trailing_size` bytes, whose address is stored
 * in *trailing. Null when there is no memory or the sum wraps. Free it with free().
 */
ORPUTIL_EXPORT void *__ORP_UTIL_CallocVarg(size_t size, size_t trailing_size, void **trailing);

/*
 * Numbers, text and tables.
 */

/* Fills *value with a number that cannot be guessed. 0, or 1 when the system gives none. */
ORPUTIL_EXPORT uint32_t ORP_UTIL_GetRandomNumber(uint32_t *value);

/*
 * Base64 of RFC 4648 section 4: standard alphabet, padding, strict decoding (no white space, no
 * missing padding, no bits set behind the last byte). Returns the length of the result and hands
 * over a new NUL-terminated buffer in *out that the caller frees; 0 and a null *out on failure or
 * for empty input.
 */
ORPUTIL_EXPORT uint32_t ORP_UTIL_Base64Encode(const void *data, uint32_t size, char **out);
ORPUTIL_EXPORT uint32_t ORP_UTIL_Base64Decode(const char *text, uint32_t length, void **out);

/*
 * Names by index: `names` holds `count` names numbered from 0, `extension` (may be null) is a
 * null-terminated array of further names numbered from `count` on. Names are compared ignoring
 * ASCII case. An unknown or null name gives 0xFFFFFFFF, an unknown index null.
 */
ORPUTIL_EXPORT uint32_t ORP_UTIL_GetIdxFromStr(const char *name, const char *const *names,
                                               uint32_t count, const char *const *extension);
ORPUTIL_EXPORT const char *ORP_UTIL_GetStrFromIdx(uint32_t index, const char *const *names,
                                                  uint32_t count, const char *const *extension);

/* A row of a name and number table; the table ends with a null name, whose number stands for
 * "not found". */
typedef struct ORP_STR_IDX {
  const char *name; /* compared exactly; null in the row that ends the table */
  uint32_t index;   /* any number */
} ORP_STR_IDX;
/* The number of the first row with exactly this name, or the number of the ending row. */
ORPUTIL_EXPORT uint32_t ORP_UTIL_StrIdxArrayGetIdxByStr(const ORP_STR_IDX *table, const char *name);
/* The name of the first row with this number, or null. */
ORPUTIL_EXPORT const char *ORP_UTIL_StrIdxArrayGetStrByIdx(const ORP_STR_IDX *table,
                                                           uint32_t index);

/* The current UTC time as "%Y-%m-%dT%H:%M:%SZ", in a buffer that the next call overwrites; null on
 * failure. */
ORPUTIL_EXPORT const char *ORP_UTIL_GetUtcTimeWithFormat(void);

/*
 * Commands.
 */

/* 1 when `text` is safe as one argument of a shell command: not null, not empty, not beginning
 * with "-", and made only of letters, digits and "._-/:@%+=,"; else 0. */
ORPUTIL_EXPORT uint32_t ORP_VALID_CmdArgs(const char *text);
/*
 * Runs a command without waiting for what it leaves running. ORP_UTIL_ParseArgsEx's rules split it
 * into words, comments included. "> FILE" or ">> FILE" may follow the words, and then a "&".
 * Nothing is expanded, no shell is involved, and other shell syntax ("|", ";", "<", "2>", a second
 * line) is refused. A result file is created afresh for ">" and never reached through a symbolic
 * link; it exists even when the program then cannot be started. ORP_UTIL_GetExeFullPath looks the
 * program up. It starts with default signals and with no descriptor but 0, 1 and 2.
 *
 * Returns once the command has ended (with "&": once it has started): 0, whatever its exit status,
 * or 1 when it could not be started. The caller's other children are left alone, and a SIGCHLD
 * handler of the caller may reap this one. `tag` and `line` name the caller.
 *
 * This host port prints commands that would reboot or halt the system ("reboot", "busybox reboot
 * -f", ...) as "orputil: not run on this host: COMMAND" on standard output and never runs them.
 */
ORPUTIL_EXPORT uint32_t ORP_UTIL_ExecCmdNoHang(const char *tag, uint32_t line, const char *command);
/* The same for a printf-style format; 1 when the text does not fit 1024 bytes. */
ORPUTIL_EXPORT uint32_t ORP_UTIL_VExecCmdNoHang(const char *tag, uint32_t line, const char *format,
                                                ...) __attribute__((format(printf, 3, 4)));

/*
 * Splits a command line into an argument vector as a POSIX shell splits words: blanks separate,
 * single quotes keep everything, double quotes keep everything but \" \\ \$ \`, a backslash keeps
 * the next character or joins two lines, and a word that begins with "#" starts a comment up to
 * the end of the line. Nothing is expanded, and ">", "&" and the like are ordinary characters.
 *
 * Stores a null-terminated vector in *args and its length in *count; *symbols receives the
 * parser's scratch memory (null in this port, which needs none). Returns 0, or 1 (and stores null)
 * for null arguments, an unfinished quote or backslash, or no memory. Release *symbols with
 * UtilFreeSymbols, which leaves the vector valid, and *args with ORP_UTIL_FreeArgs.
 */
ORPUTIL_EXPORT uint32_t ORP_UTIL_ParseArgsEx(const char *command, char ***args, uint32_t *count,
                                             void **symbols);
ORPUTIL_EXPORT void UtilFreeSymbols(void *symbols);
ORPUTIL_EXPORT void ORP_UTIL_FreeArgs(char **args);
/*
 * Writes the full path of `program` to `out` (`size` bytes): a name with "/" unchanged, otherwise
 * the first executable regular file of that name in an absolute directory of PATH (never the
 * current directory). Returns 0; or 1, with an empty `out`, when there is none, it does not fit or
 * an argument is null.
 */
ORPUTIL_EXPORT uint32_t ORP_UTIL_GetExeFullPath(const char *program, char *out, uint32_t size);

/*
 * Files and privileges.
 */

/*
 * Reads the whole regular file `path` into a new NUL-terminated buffer that the caller frees.
 * 0; 0x10001 for null arguments; 0x10006 without memory; 0x10007 when it cannot be opened or read.
 */
ORPUTIL_EXPORT uint32_t ORP_UTIL_ReadFileToBuf(const char *path, char **out, uint32_t *size);
/* Creates or empties `path` and writes `size` bytes. 0, 0x10001 for null arguments, or 0x10007. */
ORPUTIL_EXPORT uint32_t ORP_UTIL_WriteBufToFile(const char *path, const void *data, uint32_t size);
/* Sets the permissions of `path` to the octal text `mode` ("775"); `mode_for_others` is the mode
 * where others may not write, and is what this host port sets. 0, or 1 on failure. */
ORPUTIL_EXPORT uint32_t ORP_UTIL_RemoveAndroidWPerm(const char *path, const char *mode,
                                                    const char *mode_for_others);
/* Takes back root rights that seteuid() gave up for a while. 0, or 1 when that is refused. */
ORPUTIL_EXPORT uint32_t ORP_UTIL_UpRootPrivileges(void);

#endif
