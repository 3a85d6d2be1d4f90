/* libtarn native interface: reading CAN logs.
 *
 * A tarn_log_reader turns a log file or stream into tarn_frame records:
 * candump log lines ("(1436509052.249713) can0 123#0102"), candump's screen
 * output (with or without time stamps and extra columns), Vector ASC and
 * PEAK TRC (1.x and 2.x). The format is told from the first lines unless the
 * caller names it. Reading streams: a frame is returned as soon as its line
 * is complete, and memory stays bounded whatever the input.
 *
 * Conventions are those of db.h: status codes, opaque handles, nothing
 * printed. A reader is used by one thread at a time; different readers are
 * independent.
 */
#ifndef TARN_LOG_H
#define TARN_LOG_H

#include <stddef.h>
#include <stdint.h>

#include "db.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct tarn_log_reader tarn_log_reader;

typedef enum tarn_log_format {
    TARN_LOG_FORMAT_AUTO = 0,           /* detect from the content */
    TARN_LOG_FORMAT_CANDUMP = 1,        /* candump -l / -L log lines */
    TARN_LOG_FORMAT_CANDUMP_SCREEN = 2, /* candump screen output, any -t and -x */
    TARN_LOG_FORMAT_ASC = 3,            /* Vector ASC */
    TARN_LOG_FORMAT_TRC1 = 4,           /* PEAK TRC 1.x */
    TARN_LOG_FORMAT_TRC2 = 5            /* PEAK TRC 2.x */
} tarn_log_format;

/* A short static name: "auto", "candump", "candump-screen", "asc", "trc1",
 * "trc2"; "unknown" for any other value. Never NULL. */
TARN_NATIVE_API const char* tarn_log_format_name(int format);

/* Opens a log file for reading. `format` is a tarn_log_format; AUTO tells it
 * from the content. On success *out is a new reader; on failure *out is NULL
 * and the result is TARN_ERR_IO (the path cannot be opened, or is a
 * directory) or TARN_ERR_ARGUMENT. The reader closes the file. A FIFO or
 * character device path is read as a stream, like a pipe (opening a FIFO
 * waits for its writer, as open(2) does). */
TARN_NATIVE_API int tarn_log_open(const char* path, int format, tarn_log_reader** out);

/* As tarn_log_open, on a descriptor open for reading (a pipe, a terminal, a
 * regular file). The reader does not close it: the caller does, after
 * tarn_log_close(). Reading starts at the descriptor's current position. A
 * non-blocking descriptor is supported (see tarn_log_read). */
TARN_NATIVE_API int tarn_log_open_fd(int fd, int format, tarn_log_reader** out);

/* Frees the reader (and closes the file it opened itself). NULL is ignored. */
TARN_NATIVE_API void tarn_log_close(tarn_log_reader* reader);

/* Reads up to `capacity` frames into frames[0..*count).
 * - From a regular file the batch is filled unless the input ends first.
 * - From a pipe or terminal the call waits for the first complete line that
 *   yields a frame, then returns as soon as no further complete line is
 *   already buffered: a frame is never held back waiting for more input.
 * - *count is 0 only when the input has ended (tarn_log_at_end() then
 *   returns 1 and every later call gives 0 again), or when a non-blocking
 *   descriptor has no complete line yet.
 * Each frame gets its time in seconds (NaN when the line has none; epoch
 * seconds when the log gives absolute times or a start date, read as UTC;
 * otherwise seconds from the log's start), its interface as a channel index
 * (see tarn_log_channel), identifier without flag bits, `extended`, flags
 * TARN_FRAME_FD / _REMOTE / _ERROR, length and data (zero past the length).
 * Lines without a frame (headers, comments, events) are skipped silently;
 * malformed and overlong lines are counted and passed to the problem
 * handler. TARN_ERR_IO when reading failed: frames read before the failure
 * are returned first, the failure by the next call; the reader is then at
 * its end. TARN_ERR_ARGUMENT for a NULL pointer or a zero capacity. */
TARN_NATIVE_API int tarn_log_read(tarn_log_reader* reader, tarn_frame* frames, size_t capacity,
                                  size_t* count);

/* 1 once the input has ended (or failed) and every frame has been returned,
 * else 0. */
TARN_NATIVE_API int tarn_log_at_end(const tarn_log_reader* reader);

typedef struct tarn_log_info {
    int format;           /* tarn_log_format: as forced, or detected; AUTO until known */
    size_t channel_count; /* interfaces seen so far */
    uint64_t lines;       /* lines read so far, blank and skipped ones included */
    uint64_t frames;      /* frames returned */
    uint64_t malformed;   /* lines that should have held a frame but could not be read */
    uint64_t overlong;    /* lines longer than 1 MiB, skipped unread */
} tarn_log_info;

TARN_NATIVE_API int tarn_log_get_info(const tarn_log_reader* reader, tarn_log_info* out);

/* The name of channel `index` as the log writes it ("can0", "1"; "" for a
 * log that names no interface). It lives until tarn_log_close(). Channels are
 * numbered in the order first seen; a log can name at most 256 interfaces
 * of at most 64 bytes each, lines naming others are malformed.
 * TARN_ERR_NOT_FOUND when index >= channel_count. */
TARN_NATIVE_API int tarn_log_channel(const tarn_log_reader* reader, size_t index,
                                     const char** name);

typedef enum tarn_log_problem_kind {
    TARN_LOG_LINE_MALFORMED = 0,
    TARN_LOG_LINE_OVERLONG = 1
} tarn_log_problem_kind;

/* One line that could not be read. */
typedef struct tarn_log_problem {
    uint64_t line;       /* 1-based line number */
    int kind;            /* tarn_log_problem_kind */
    const char* reason;  /* static English text, e.g. "bad identifier" */
    const char* excerpt; /* the line's first 80 bytes, control bytes, non-ASCII
                            bytes and '\' written as \xNN, "..." appended when
                            cut; valid only during the call */
} tarn_log_problem;

typedef void (*tarn_log_problem_fn)(void* user, const tarn_log_problem* problem);

/* Sets the function told of each malformed or overlong line, in line order.
 * It is called from inside tarn_log_read() on the calling thread and must
 * not call tarn_log_read() or tarn_log_close() on the same reader. NULL (the
 * default) only counts them. */
TARN_NATIVE_API int tarn_log_set_problem_handler(tarn_log_reader* reader, tarn_log_problem_fn fn,
                                                 void* user);

#ifdef __cplusplus
}
#endif

#endif /* TARN_LOG_H */
