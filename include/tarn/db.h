/* libtarn native interface: DBC databases, decoding and encoding.
 *
 * Conventions of every tarn_* function:
 * - Functions that can fail return a tarn_status (0 is success, failures are
 *   negative); tarn_status_text() turns one into a message. Nothing is
 *   printed: messages go to the handler set with tarn_set_log_handler().
 * - Objects are opaque and owned by the library. A tarn_db and everything
 *   reached through it (messages, signals, texts) live until tarn_db_close().
 * - An open database is immutable: any number of threads may use one
 *   tarn_db at once without locking. Nothing here keeps hidden global state
 *   except the log handler.
 * - Texts are NUL-terminated UTF-8 and never truncated.
 */
#ifndef TARN_DB_H
#define TARN_DB_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#ifndef TARN_NATIVE_API
#if defined(__GNUC__)
#define TARN_NATIVE_API __attribute__((visibility("default")))
#else
#define TARN_NATIVE_API
#endif
#endif

/* ---- Status codes ------------------------------------------------------ */

typedef enum tarn_status {
    TARN_OK = 0,
    TARN_ERR_ARGUMENT = -1,   /* a null pointer, bad length or unknown flag */
    TARN_ERR_NO_MEMORY = -2,  /* an allocation failed */
    TARN_ERR_IO = -3,         /* a file could not be opened or read */
    TARN_ERR_NOT_DBC = -4,    /* the input has no DBC section at all */
    TARN_ERR_PARSE = -5,      /* strict open: the first problem found */
    TARN_ERR_TOO_LARGE = -6,  /* input of 2 GiB or more */
    TARN_ERR_NOT_FOUND = -7,  /* no message or signal with that identity */
    TARN_ERR_RANGE = -8,      /* a value does not fit its signal */
    TARN_ERR_NOT_FINITE = -9, /* NaN or an infinity where a number is needed */
    TARN_ERR_BUFFER = -10,    /* the caller's buffer is too small */
    TARN_ERR_MULTIPLEX = -11, /* a signal the multiplexer value does not select */
    TARN_ERR_STATE = -12,     /* the object cannot do that now */
    TARN_ERR_PROTOCOL = -13   /* a frame breaks the transport protocol */
} tarn_status;

/* A static English text for any status value; never NULL. */
TARN_NATIVE_API const char* tarn_status_text(int status);

/* The library version as "MAJOR.MINOR.PATCH". */
TARN_NATIVE_API const char* tarn_version(void);

/* ---- Log handler ------------------------------------------------------- */

typedef enum tarn_log_level {
    TARN_LOG_DEBUG = 0,
    TARN_LOG_INFO = 1,
    TARN_LOG_WARNING = 2,
    TARN_LOG_ERROR = 3
} tarn_log_level;

/* Receives one message without a trailing newline. It may be called from any
 * thread (for example a J1939 session's timer thread), so it must be
 * thread-safe; it must not call back into tarn_set_log_handler(). */
typedef void (*tarn_log_fn)(void* user, int level, const char* text);

/* Process-wide. NULL (the default) discards every message. Safe to call at
 * any time from any thread; a message in flight finishes on the handler it
 * started with. */
TARN_NATIVE_API void tarn_set_log_handler(tarn_log_fn fn, void* user);

/* ---- Opening a database ------------------------------------------------ */

typedef struct tarn_db tarn_db;
typedef struct tarn_message tarn_message;
typedef struct tarn_signal tarn_signal;

enum {
    TARN_OPEN_STRICT = 1u << 0, /* fail with TARN_ERR_PARSE on the first problem */
    TARN_OPEN_J1939 = 1u << 1   /* use J1939 rules whatever the file declares */
};

/* Opens a DBC file. On success *out is a new database and the result is
 * TARN_OK; lines the reader could not use are listed by
 * tarn_db_diagnostic(). On failure *out is NULL and, when `error` is not
 * NULL, a one-line explanation ("line 12: SG_: expected ':'") is written to
 * error[0..error_size) and NUL-terminated. */
TARN_NATIVE_API int tarn_db_open(const char* path, unsigned flags, tarn_db** out, char* error,
                                 size_t error_size);

/* As tarn_db_open, from `size` bytes of DBC text in memory (need not be
 * NUL-terminated; the library keeps no reference to it). */
TARN_NATIVE_API int tarn_db_open_buffer(const char* text, size_t size, unsigned flags,
                                        tarn_db** out, char* error, size_t error_size);

/* Frees the database and everything reached through it. NULL is ignored. */
TARN_NATIVE_API void tarn_db_close(tarn_db* db);

/* Writes the database as normalised DBC text: reading that text gives the
 * same database, and writing it again the same bytes. *needed is the text
 * length plus its NUL; the text is written (NUL-terminated) only when
 * size >= *needed, else the result is TARN_ERR_BUFFER. Call with size 0 to
 * ask for the length. */
TARN_NATIVE_API int tarn_db_write_dbc(const tarn_db* db, char* buffer, size_t size, size_t* needed);

/* ---- Diagnostics ------------------------------------------------------- */

typedef struct tarn_diagnostic {
    uint32_t line;       /* 1-based line number, 0 when not tied to a line */
    const char* section; /* keyword of the line: "SG_", "BA_", ... */
    const char* reason;
} tarn_diagnostic;

TARN_NATIVE_API size_t tarn_db_diagnostic_count(const tarn_db* db);
/* TARN_ERR_NOT_FOUND when index >= tarn_db_diagnostic_count(). */
TARN_NATIVE_API int tarn_db_diagnostic(const tarn_db* db, size_t index, tarn_diagnostic* out);

/* ---- Network, nodes and messages -------------------------------------- */

typedef struct tarn_db_info {
    const char* version; /* VERSION text, "" when none */
    const char* comment; /* network comment, "" when none */
    size_t message_count;
    size_t node_count;
    size_t attr_def_count;
    size_t attr_count; /* the network's own attribute values */
    size_t value_table_count;
    uint32_t max_signals; /* most signals of any message: a safe tarn_value capacity */
    int j1939;            /* 1 when J1939 rules apply */
} tarn_db_info;

TARN_NATIVE_API int tarn_db_get_info(const tarn_db* db, tarn_db_info* out);

typedef struct tarn_node_info {
    const char* name;
    const char* comment;
    size_t attr_count;
} tarn_node_info;

TARN_NATIVE_API int tarn_db_node(const tarn_db* db, size_t index, tarn_node_info* out);

/* Messages in file order, 0 <= index < message_count. */
TARN_NATIVE_API int tarn_db_message(const tarn_db* db, size_t index, const tarn_message** out);

/* Standard and extended identifiers are kept apart: `id` carries no flag
 * bits, `extended` says which space. */
TARN_NATIVE_API int tarn_db_find_message(const tarn_db* db, uint32_t id, int extended,
                                         const tarn_message** out);
TARN_NATIVE_API int tarn_db_find_message_by_name(const tarn_db* db, const char* name,
                                                 const tarn_message** out);
/* J1939 databases only (TARN_ERR_STATE otherwise): the first message whose
 * identifier carries that PGN. */
TARN_NATIVE_API int tarn_db_find_message_by_pgn(const tarn_db* db, uint32_t pgn,
                                                const tarn_message** out);

typedef struct tarn_message_info {
    const char* name;
    const char* comment;
    uint32_t id; /* without flag bits */
    int extended;
    uint32_t length; /* declared payload bytes */
    uint32_t index;  /* position in file order */
    size_t signal_count;
    size_t sender_count; /* the BO_ transmitter first, then BO_TX_BU_ ones */
    size_t attr_count;
    int32_t cycle_time_ms; /* GenMsgCycleTime, -1 when not declared */
    int multiplexed;       /* 1 when any signal is multiplexed */
    uint32_t pgn;          /* J1939 databases: the PGN of `id`; 0 otherwise */
} tarn_message_info;

TARN_NATIVE_API int tarn_message_get_info(const tarn_message* msg, tarn_message_info* out);
TARN_NATIVE_API int tarn_message_sender(const tarn_message* msg, size_t index, const char** out);
TARN_NATIVE_API int tarn_message_signal(const tarn_message* msg, size_t index,
                                        const tarn_signal** out);
TARN_NATIVE_API int tarn_message_find_signal(const tarn_message* msg, const char* name,
                                             const tarn_signal** out);

/* ---- Signals ----------------------------------------------------------- */

typedef enum tarn_value_type {
    TARN_VALUE_INTEGER = 0,
    TARN_VALUE_FLOAT = 1, /* IEEE single, 32 bits */
    TARN_VALUE_DOUBLE = 2 /* IEEE double, 64 bits */
} tarn_value_type;

typedef struct tarn_signal_info {
    const char* name;
    const char* unit;
    const char* comment;
    uint32_t index;     /* position within its message */
    uint32_t start_bit; /* as written in the DBC */
    uint32_t length;    /* 1..64 bits */
    int big_endian;     /* Motorola byte order */
    int is_signed;
    int value_type; /* tarn_value_type */
    double factor, offset, minimum, maximum;
    int is_switch;          /* a multiplexer switch */
    int32_t switch_index;   /* index of the switch that selects it, -1 when always present */
    size_t mux_range_count; /* switch value ranges that select it */
    size_t receiver_count;
    size_t value_count; /* value-table entries */
    size_t attr_count;
} tarn_signal_info;

TARN_NATIVE_API int tarn_signal_get_info(const tarn_signal* sig, tarn_signal_info* out);
TARN_NATIVE_API int tarn_signal_receiver(const tarn_signal* sig, size_t index, const char** out);
/* Value-table entries ordered by raw value. */
TARN_NATIVE_API int tarn_signal_value_text(const tarn_signal* sig, size_t index, int64_t* raw,
                                           const char** text);
/* Inclusive ranges of switch values that select the signal. */
TARN_NATIVE_API int tarn_signal_mux_range(const tarn_signal* sig, size_t index, uint64_t* low,
                                          uint64_t* high);

/* ---- Attributes -------------------------------------------------------- */

typedef enum tarn_attr_object {
    TARN_ATTR_NETWORK = 0,
    TARN_ATTR_NODE = 1,
    TARN_ATTR_MESSAGE = 2,
    TARN_ATTR_SIGNAL = 3,
    TARN_ATTR_ENV = 4
} tarn_attr_object;

typedef enum tarn_attr_type {
    TARN_ATTR_INT = 0,
    TARN_ATTR_HEX = 1,
    TARN_ATTR_FLOAT = 2,
    TARN_ATTR_STRING = 3,
    TARN_ATTR_ENUM = 4
} tarn_attr_type;

typedef struct tarn_attr_def {
    const char* name;
    int object; /* tarn_attr_object */
    int type;   /* tarn_attr_type */
    double minimum, maximum;
    size_t enum_count; /* ENUM: its texts through tarn_db_attr_enum() */
    int has_default;
    double default_number;
    const char* default_text;
} tarn_attr_def;

/* One attribute value: `number` for INT, HEX, FLOAT and an ENUM's index,
 * `text` for STRING and an ENUM's chosen text ("" otherwise). */
typedef struct tarn_attr {
    const char* name;
    int type;
    double number;
    const char* text;
} tarn_attr;

TARN_NATIVE_API int tarn_db_attr_def(const tarn_db* db, size_t index, tarn_attr_def* out);
TARN_NATIVE_API int tarn_db_attr_enum(const tarn_db* db, size_t def_index, size_t index,
                                      const char** out);
/* The values set by BA_ lines, in file order per object. */
TARN_NATIVE_API int tarn_db_attr(const tarn_db* db, size_t index, tarn_attr* out);
TARN_NATIVE_API int tarn_node_attr(const tarn_db* db, size_t node, size_t index, tarn_attr* out);
TARN_NATIVE_API int tarn_message_attr(const tarn_message* msg, size_t index, tarn_attr* out);
TARN_NATIVE_API int tarn_signal_attr(const tarn_signal* sig, size_t index, tarn_attr* out);

/* ---- Value tables (VAL_TABLE_) ---------------------------------------- */

TARN_NATIVE_API int tarn_db_value_table(const tarn_db* db, size_t index, const char** name,
                                        size_t* count);
TARN_NATIVE_API int tarn_db_value_table_entry(const tarn_db* db, size_t table, size_t index,
                                              int64_t* raw, const char** text);

/* ---- Decoding ---------------------------------------------------------- */

enum {
    TARN_RAW_SIGNED = 1u << 0, /* raw.i holds the value */
    TARN_RAW_FLOAT = 1u << 1   /* raw.f holds the float or double value */
    /* neither: raw.u holds the unsigned value */
};

/* One decoded signal: 32 bytes, no pointers to free. */
typedef struct tarn_value {
    uint32_t signal; /* index of the signal within its message */
    uint32_t flags;  /* TARN_RAW_* */
    union {
        uint64_t u;
        int64_t i;
        double f;
    } raw;
    double physical;  /* raw * factor + offset */
    const char* text; /* value-table text of the raw value, NULL when none */
} tarn_value;

/* What tarn_decode() found besides the values. */
typedef struct tarn_decoded {
    const tarn_message* message;
    uint32_t message_index; /* its position in file order (tarn_db_message) */
    uint32_t count;  /* values written */
    uint32_t absent; /* selected signals that did not fit a short frame */
    /* J1939 databases: fields of the frame's identifier; 0 otherwise. */
    uint32_t pgn;
    uint8_t priority;
    uint8_t source;
    uint8_t destination; /* 0xFF for PDU2 (broadcast) groups */
    uint8_t j1939;       /* 1 when the fields above are set */
} tarn_decoded;

/* Decodes one frame. The message is looked up by identifier (by PGN as well
 * in a J1939 database). Signals are written in message order, multiplexing
 * applied. A frame shorter than the message yields the signals that fit and
 * counts the others in `absent`. `values` needs room for the message's
 * signal count (tarn_db_info.max_signals always suffices); with too little
 * room the result is TARN_ERR_BUFFER and out->count tells what was needed.
 * TARN_ERR_NOT_FOUND when no message matches. Allocation-free. */
TARN_NATIVE_API int tarn_decode(const tarn_db* db, uint32_t id, int extended, const uint8_t* data,
                                size_t length, tarn_value* values, size_t capacity,
                                tarn_decoded* out);

/* As tarn_decode, for a message already looked up. */
TARN_NATIVE_API int tarn_decode_message(const tarn_message* msg, const uint8_t* data, size_t length,
                                        tarn_value* values, size_t capacity, tarn_decoded* out);

/* A frame in caller memory, for the batch call. */
typedef struct tarn_frame {
    double time; /* seconds; carried through, not interpreted */
    uint32_t id; /* without flag bits */
    uint8_t extended;
    uint8_t length;  /* payload bytes, 0..64 */
    uint8_t flags;   /* TARN_FRAME_* */
    uint8_t channel; /* interface index given by a log reader, else 0 */
    uint8_t data[64];
} tarn_frame;

enum { TARN_FRAME_FD = 1u << 0, TARN_FRAME_REMOTE = 1u << 1, TARN_FRAME_ERROR = 1u << 2 };

/* One frame's outcome in a batch: its values are values[first, first+count). */
typedef struct tarn_batch_result {
    const tarn_message* message; /* NULL when no message matched */
    uint32_t message_index;      /* its position in file order; UINT32_MAX when none */
    uint32_t first;
    uint32_t count;
} tarn_batch_result;

/* Decodes frames[0..frame_count) into `values` and `results` (one result
 * per frame). Stops early when `values` would overflow; *decoded says how
 * many frames were done, so the caller continues from there. Remote and
 * error frames get a NULL message. */
TARN_NATIVE_API int tarn_decode_batch(const tarn_db* db, const tarn_frame* frames,
                                      size_t frame_count, tarn_value* values, size_t capacity,
                                      tarn_batch_result* results, size_t* decoded);

/* ---- Encoding ---------------------------------------------------------- */

enum {
    TARN_ENCODE_STRICT = 1u << 0 /* physical values must lie in [minimum, maximum] */
};

typedef enum tarn_input_kind {
    TARN_INPUT_PHYSICAL = 0, /* value.physical, scaled to raw and rounded */
    TARN_INPUT_RAW = 1,      /* value.raw: i for signed, u for unsigned integers */
    TARN_INPUT_RAW_FLOAT = 2 /* value.physical is the float/double signal's raw value */
} tarn_input_kind;

/* One signal value to encode, named or by index. */
typedef struct tarn_input {
    const char* name; /* NULL: use `signal` */
    uint32_t signal;  /* index within the message when name is NULL */
    int kind;         /* tarn_input_kind */
    union {
        uint64_t u;
        int64_t i;
    } raw;
    double physical;
} tarn_input;

/* Encodes a message into out[0..length) where length is the message's
 * declared length (*written says it; out_size must be at least that).
 * Signals not given take their GenSigStartValue raw value when the database
 * declares one, else raw 0. The switch's value (given or default) decides
 * which multiplexed signals are written; giving a signal it does not select
 * is TARN_ERR_MULTIPLEX. A raw value that does not fit, a non-finite value
 * and, with TARN_ENCODE_STRICT, a physical value outside [minimum, maximum]
 * (when minimum < maximum) are errors, never wrapped: then *failed, when not
 * NULL, is the index of the offending input. */
TARN_NATIVE_API int tarn_encode(const tarn_message* msg, const tarn_input* inputs,
                                size_t input_count, unsigned flags, uint8_t* out, size_t out_size,
                                size_t* written, size_t* failed);

/* Converts a physical value to the raw integer that encoding would store,
 * with the same checks (TARN_ERR_RANGE, TARN_ERR_NOT_FINITE). */
TARN_NATIVE_API int tarn_signal_physical_to_raw(const tarn_signal* sig, double physical,
                                                unsigned flags, tarn_value* out);

#ifdef __cplusplus
}
#endif

#endif /* TARN_DB_H */
