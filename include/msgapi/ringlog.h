/*
 * Ring log files: a module's log in one file of bounded size.
 *
 * The file begins with a header of 63 ASCII characters,
 *
 *   "[overturn=%03ld][offset=%010ld][uploadoffset=%03ld^%010ld]\n"
 *
 * and goes on with log data. A buffer that would run past the size limit is written right after
 * the header instead, over the oldest data, and the overturn count goes up. After an overturn the
 * bytes from "offset" to the end of file are therefore the older part of the log, and those from 63
 * to "offset" the newer one. The older part begins with the rest of a buffer that was partly
 * overwritten. The number before "^" repeats the overturn count.
 *
 * Failures are reported on standard output in lines that begin with
 * "[MLOG][ERROR][<source line>]: ". One file belongs to one thread at a time.
 */
#ifndef MSGAPI_RINGLOG_H
#define MSGAPI_RINGLOG_H

#include <stdint.h>
#include <stdio.h>

#include "msgapi/export.h"

/* Bytes of the header in front of the log data. */
#define MLOG_FILE_HEADER_SIZE 63
#define MLOG_FILE_MAX_SIZE 0x200000u /* the largest size limit */

/* 1023: the upload offset of a file that MlogFileConstructor() may continue. */
MSGAPI_EXPORT_DATA const int32_t MLOG_NEW_FILE_FLAG;

/* An open ring file. */
typedef struct MlogFile {
  FILE *stream;      /* read and write, unbuffered; null when not open */
  long overturn;     /* how often the write position went back to the start */
  long offset;       /* where in the file the next write starts; at least 63 */
  long uploadOffset; /* what the uploader is told; MLOG_NEW_FILE_FLAG in a new file */
} MlogFile;

/* What MlogFileWrite() needs of a log server's target. */
typedef struct MlogTarget {
  uint32_t maxFileSize; /* limit of the whole file in bytes, header included */
  MlogFile *file;       /* from MlogFileConstructor() */
} MlogTarget;

/*
 * Opens the ring file `path`. An existing file is continued where its header says if the header can
 * be read, its offset lies between 63 and `maxFileSize`, and its upload offset is
 * MLOG_NEW_FILE_FLAG. Any other regular file, also one larger than `maxFileSize`, is replaced with
 * an empty ring.
 *
 * Returns the file, to be released with MlogFileDestructor(), or null: null path, a size limit of 0
 * or above MLOG_FILE_MAX_SIZE, something that is not a regular file, a failed system call, or no
 * memory.
 */
MSGAPI_EXPORT MlogFile *MlogFileConstructor(const char *path, uint32_t maxFileSize);

/* Closes and releases `file`; null is ignored. */
MSGAPI_EXPORT void MlogFileDestructor(MlogFile *file);

/*
 * Blurs personal data in `buf` (in place, up to its first NUL; see msgapi/blur.h), writes its
 * `size` bytes in one piece and brings the header up to date. Nothing beyond `size` bytes is read.
 * The bytes have left the process when the call returns.
 *
 * Returns 0, also when the data or the header could not be written completely (ferror() of the
 * stream tells), or -1 with nothing written: null target, file, stream or buffer, size 0, a buffer
 * that does not fit after the header as a whole, or a stream that cannot be positioned.
 *
 * From the 1000th overturn on the count does not fit the header: data are still written, but the
 * header in the file stays as it is, and every call reports that.
 */
MSGAPI_EXPORT int32_t MlogFileWrite(MlogTarget *target, char *buf, uint32_t size);

/* Opens the file that `path` resolves to for reading, without blocking. A descriptor for
 * MlogFileClose(), or -1. */
MSGAPI_EXPORT int32_t MlogFileOpen(const char *path);

/* Closes `fd` when it is not negative. */
MSGAPI_EXPORT void MlogFileClose(int32_t fd);

#endif
