/* libtarn native interface: J1939 identifiers, diagnostic messages and
 * the transport protocol (BAM and RTS/CTS transfers of up to 1785 bytes).
 *
 * The conventions of db.h hold: tarn_status results, opaque objects owned by
 * the library, nothing printed. In addition:
 * - Time is always an argument, in microseconds from any fixed origin (a
 *   monotonic clock when live, the frames' own time stamps when a log is
 *   replayed). The core never reads a clock, sleeps or starts a thread; the
 *   optional timer thread (tarn_j1939_start_timer) is the one exception.
 * - A tarn_j1939 is used by one thread at a time: calls on one object must
 *   not overlap (lock around them if several threads share it). Different
 *   objects are independent. Once its timer thread runs, an object takes
 *   that lock itself (see tarn_j1939_start_timer).
 * - Callbacks run synchronously on the calling thread, from inside
 *   tarn_j1939_receive(), tarn_j1939_send() or tarn_j1939_poll() (or on the
 *   timer thread). They must not call tarn_j1939_receive(), _send(), _poll(),
 *   _start_timer(), _stop_timer() or _destroy() on the same object (the
 *   first five return TARN_ERR_STATE); they may read its statistics and use
 *   other objects.
 */
#ifndef TARN_J1939_H
#define TARN_J1939_H

#include <stddef.h>
#include <stdint.h>

#include "db.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Identifiers ------------------------------------------------------- */

#define TARN_J1939_GLOBAL 0xFF     /* destination of a broadcast */
#define TARN_J1939_NO_ADDRESS (-1) /* tarn_j1939_options.address: listen only */

/* Fields of a 29-bit identifier. The PGN of a PDU1 identifier (PDU format
 * below 240) has a zero low byte, the destination being carried there; a
 * PDU2 identifier's destination is TARN_J1939_GLOBAL. */
TARN_NATIVE_API uint8_t tarn_j1939_priority(uint32_t id);
TARN_NATIVE_API uint32_t tarn_j1939_pgn(uint32_t id);
TARN_NATIVE_API uint8_t tarn_j1939_source(uint32_t id);
TARN_NATIVE_API uint8_t tarn_j1939_destination(uint32_t id);

/* Builds an identifier. TARN_ERR_ARGUMENT when priority > 7, the PGN is
 * above 0x3FFFF, a PDU1 PGN has a non-zero low byte, or a PDU2 PGN is given
 * a destination other than TARN_J1939_GLOBAL. */
TARN_NATIVE_API int tarn_j1939_make_id(uint8_t priority, uint32_t pgn, uint8_t destination,
                                       uint8_t source, uint32_t* out);

/* ---- Diagnostic messages (DM1, DM2 and those of the same layout) ------ */

typedef enum tarn_j1939_lamp {
    TARN_J1939_LAMP_MIL = 0, /* malfunction indicator */
    TARN_J1939_LAMP_RED_STOP = 1,
    TARN_J1939_LAMP_AMBER_WARNING = 2,
    TARN_J1939_LAMP_PROTECT = 3
} tarn_j1939_lamp;

typedef struct tarn_j1939_dm {
    /* Indexed by tarn_j1939_lamp. status: 0 off, 1 on, 2 error, 3 not
     * available. flash: 0 slow, 1 fast, 2 reserved, 3 off or not available. */
    uint8_t lamp_status[4];
    uint8_t lamp_flash[4];
    uint32_t dtc_count; /* trouble codes in the payload */
} tarn_j1939_dm;

typedef struct tarn_j1939_dtc {
    uint32_t spn;        /* suspect parameter number, 19 bits */
    uint8_t fmi;         /* failure mode identifier, 0..31 */
    uint8_t occurrences; /* 0..126; 127 when not available */
    uint8_t conversion;  /* conversion method bit; when 1 the SPN was sent in an
                            older layout and is still read as the current one */
    uint8_t reserved;
} tarn_j1939_dtc;

/* Reads the lamp status (bytes 0 and 1) and the trouble codes (4 bytes each
 * from byte 2) of a payload of any length: one frame or a whole transfer.
 * Entries of all zeros (no active code), of all 0xFF (padding) and a trailing
 * partial entry are not codes. Up to `capacity` codes are written to `dtcs`
 * (NULL when capacity is 0); out->dtc_count is always the number present,
 * and with too little room the result is TARN_ERR_BUFFER after filling what
 * fits. TARN_ERR_ARGUMENT for a NULL `out`, or a payload shorter than the
 * two lamp bytes. */
TARN_NATIVE_API int tarn_j1939_dm_parse(const uint8_t* data, size_t length, tarn_j1939_dm* out,
                                        tarn_j1939_dtc* dtcs, size_t capacity);

/* ---- Transport sessions ----------------------------------------------- */

typedef struct tarn_j1939 tarn_j1939;

/* Reasons of an Abort frame, as the values on the wire. */
typedef enum tarn_j1939_abort_reason {
    TARN_J1939_ABORT_NONE = 0,
    TARN_J1939_ABORT_BUSY = 1,      /* already in a session, cannot take another */
    TARN_J1939_ABORT_RESOURCES = 2, /* resources needed elsewhere (session cap) */
    TARN_J1939_ABORT_TIMEOUT = 3,
    TARN_J1939_ABORT_CTS_DURING_DATA = 4,    /* CTS while a window was being sent */
    TARN_J1939_ABORT_RETRANSMIT_LIMIT = 5,   /* a packet asked for again too often */
    TARN_J1939_ABORT_UNEXPECTED_DATA = 6,    /* data packet outside the granted window */
    TARN_J1939_ABORT_BAD_SEQUENCE = 7,       /* sequence number out of range or skipped */
    TARN_J1939_ABORT_DUPLICATE_SEQUENCE = 8, /* a repeated packet with other bytes */
    TARN_J1939_ABORT_TOO_LARGE = 9,          /* more than 1785 bytes announced */
    TARN_J1939_ABORT_OTHER = 255             /* e.g. size and packet count disagree */
} tarn_j1939_abort_reason;

/* Why a session ended without a transfer. */
typedef enum tarn_j1939_end_reason {
    TARN_J1939_END_T1 = 1,      /* receiving: no data packet within 750 ms (broadcasts too) */
    TARN_J1939_END_T2 = 2,      /* receiving: no data packet within 1250 ms of a CTS */
    TARN_J1939_END_T3 = 3,      /* sending (or following): no CTS or EndOfMsgAck within 1250 ms */
    TARN_J1939_END_T4 = 4,      /* no CTS within 1050 ms of a CTS holding the transfer */
    TARN_J1939_END_ABORTED = 5, /* this end gave up: abort_reason says why */
    TARN_J1939_END_PEER_ABORTED = 6, /* an Abort frame from a party: abort_reason is its reason */
    TARN_J1939_END_REPLACED = 7,     /* a new BAM from the same source replaced it */
    TARN_J1939_END_REFUSED = 8       /* an RTS or BAM not taken: abort_reason says why */
} tarn_j1939_end_reason;

/* A static English text for an end reason ("no data packet within 750 ms",
 * ...); never NULL. */
TARN_NATIVE_API const char* tarn_j1939_end_reason_text(int reason);

/* This object's part in a transfer. */
typedef enum tarn_j1939_role {
    TARN_J1939_LISTENER = 0,  /* sent nothing: broadcasts, transfers between others,
                                 everything when listening only */
    TARN_J1939_RESPONDER = 1, /* the destination of an RTS/CTS transfer; it sent CTS,
                                 EndOfMsgAck or Abort */
    TARN_J1939_ORIGINATOR = 2 /* sent by tarn_j1939_send() */
} tarn_j1939_role;

/* A transfer reassembled (listener, responder) or sent to the end
 * (originator: the EndOfMsgAck arrived, or the last broadcast packet went). */
typedef struct tarn_j1939_transfer {
    uint64_t time_us; /* `now` of the call that completed it */
    uint32_t pgn;
    uint32_t size;       /* bytes in data, 1..1785 */
    const uint8_t* data; /* valid until the callback returns */
    uint8_t priority;    /* that of the RTS or BAM frame */
    uint8_t source;
    uint8_t destination; /* TARN_J1939_GLOBAL for a broadcast */
    uint8_t role;        /* tarn_j1939_role */
} tarn_j1939_transfer;

/* A session that ended without a transfer. */
typedef struct tarn_j1939_ended {
    uint64_t time_us;
    uint32_t pgn;
    uint32_t size; /* bytes announced */
    uint32_t done; /* bytes received or sent before it ended */
    uint8_t priority;
    uint8_t source;
    uint8_t destination;
    uint8_t role;         /* tarn_j1939_role */
    uint8_t reason;       /* tarn_j1939_end_reason */
    uint8_t abort_reason; /* tarn_j1939_abort_reason: the one sent or received; for a
                             listener the one a party would give; 0 when replaced */
} tarn_j1939_ended;

/* Sends one frame of `length` bytes (8 for transport frames). Returns 0 when
 * the frame was queued for the bus. A failed transport frame is counted and
 * left to the protocol's timers; a failed single frame fails the send. */
typedef int (*tarn_j1939_send_fn)(void* user, uint32_t id, const uint8_t* data, size_t length);
typedef void (*tarn_j1939_transfer_fn)(void* user, const tarn_j1939_transfer* transfer);
typedef void (*tarn_j1939_ended_fn)(void* user, const tarn_j1939_ended* ended);

typedef struct tarn_j1939_options {
    int address;                        /* own source address 0..253, or TARN_J1939_NO_ADDRESS to
                                           listen only (never sending a frame) */
    unsigned cts_window;                /* packets granted per CTS, 1..255 (16) */
    unsigned bam_gap_ms;                /* gap between the broadcast packets sent, 50..200 (50) */
    unsigned max_sessions;              /* receiving sessions open at once, at least 1 (4096); an
                                           announcement beyond it is refused and counted */
    tarn_j1939_send_fn send;            /* required with an address */
    tarn_j1939_transfer_fn on_transfer; /* may be NULL */
    tarn_j1939_ended_fn on_ended;       /* may be NULL */
    void* user;                         /* passed to the three callbacks */
} tarn_j1939_options;

/* Fills in the defaults (in parentheses above): listen only, no callbacks. */
TARN_NATIVE_API void tarn_j1939_options_init(tarn_j1939_options* options);

/* Creates a transport end point. TARN_ERR_ARGUMENT for an option out of
 * range or an address without a send callback; *out is NULL on failure. */
TARN_NATIVE_API int tarn_j1939_create(const tarn_j1939_options* options, tarn_j1939** out);

/* Stops the timer thread if one runs, then frees the object and its open
 * sessions without sending or reporting anything. NULL is ignored. */
TARN_NATIVE_API void tarn_j1939_destroy(tarn_j1939* j);

/* Hands over one received frame: `id` is the 29-bit identifier (no flag
 * bits), `length` 0..64. Timers due by `now_us` fire first. Transport frames
 * (TP.CM, TP.DT) advance the sessions, others are ignored. One broadcast per
 * source and one RTS/CTS session per (source, destination) pair may be open,
 * any number of them at once up to max_sessions; each packet counts only for
 * its own session. With an own address, an RTS to it is answered (CTS
 * windows, EndOfMsgAck, Abort when it cannot be taken). TARN_ERR_ARGUMENT
 * for an identifier above 29 bits, a length above 64 or NULL data with a
 * length. Protocol faults are not errors: they are counted in the
 * statistics and end sessions through on_ended. */
TARN_NATIVE_API int tarn_j1939_receive(tarn_j1939* j, uint64_t now_us, uint32_t id,
                                       const uint8_t* data, size_t length);

/* Sends `length` bytes of group `pgn` from the own address: up to 8 bytes as
 * one frame at once; 9 to 1785 bytes as a broadcast (BAM, packets paced by
 * tarn_j1939_poll) when `destination` is TARN_J1939_GLOBAL, else by RTS/CTS.
 * The data is copied. The outcome of a transfer arrives later through
 * on_transfer (role ORIGINATOR) or on_ended. Results: TARN_ERR_ARGUMENT (see
 * tarn_j1939_make_id; also a length above 1785 or a destination that is the
 * null address or the own one); TARN_ERR_STATE when listening only or when a
 * transfer to that destination (or a broadcast) is still open; TARN_ERR_IO
 * when the send callback refused a single frame. */
TARN_NATIVE_API int tarn_j1939_send(tarn_j1939* j, uint64_t now_us, uint8_t priority, uint32_t pgn,
                                    uint8_t destination, const uint8_t* data, size_t length);

/* Fires the timers due by `now_us` and sends the broadcast packets due.
 * When `next_us` is not NULL it receives the time by which poll should be
 * called again (never later than needed; UINT64_MAX when nothing waits).
 * Calling it every 10 ms or so is also fine. */
TARN_NATIVE_API int tarn_j1939_poll(tarn_j1939* j, uint64_t now_us, uint64_t* next_us);

/* Starts a thread that polls the object with tarn_j1939_clock_us() time
 * whenever a timer or a broadcast packet is due, so the application only
 * feeds frames and starts sends. From then on the object serializes its own
 * calls: receive, send, poll and get_stats may come from any thread, every
 * now_us passed in must be tarn_j1939_clock_us() time, and callbacks may run
 * on the timer thread as well. TARN_ERR_STATE when it already runs. */
TARN_NATIVE_API int tarn_j1939_start_timer(tarn_j1939* j);

/* Stops and joins the timer thread (tarn_j1939_destroy() does it too); the
 * object is single-threaded again afterwards. Nothing happens when none runs.
 * Not to be called while another thread is inside the object. */
TARN_NATIVE_API int tarn_j1939_stop_timer(tarn_j1939* j);

/* The monotonic clock (CLOCK_MONOTONIC) in microseconds, as the timer
 * thread reads it. */
TARN_NATIVE_API uint64_t tarn_j1939_clock_us(void);

typedef struct tarn_j1939_stats {
    uint64_t frames;          /* frames passed to tarn_j1939_receive */
    uint64_t received;        /* transfers reassembled */
    uint64_t sent;            /* transfers sent to the end */
    uint64_t ended;           /* sessions ended without a transfer, refusals included */
    uint64_t refused;         /* announcements not taken */
    uint64_t duplicates;      /* data packets received before */
    uint64_t out_of_order;    /* data packets ahead of the next expected one */
    uint64_t out_of_range;    /* sequence 0 or past the announced count */
    uint64_t unexpected;      /* data packets outside the granted window */
    uint64_t size_mismatches; /* size and packet count disagree, too large, wrong ACK */
    uint64_t stray;           /* packets, CTS or ACK for no open session */
    uint64_t malformed;       /* transport frames not 8 bytes long, unknown control */
    uint64_t timeouts;
    uint64_t aborts_sent;
    uint64_t aborts_received;
    uint64_t retransmit_requests; /* CTS asking for packets again, sent or received */
    uint64_t send_failures;       /* frames the send callback refused */
    uint64_t open_sessions;       /* receiving sessions open now */
    uint64_t peak_sessions;       /* most receiving sessions open at once */
} tarn_j1939_stats;

TARN_NATIVE_API int tarn_j1939_get_stats(const tarn_j1939* j, tarn_j1939_stats* out);

#ifdef __cplusplus
}
#endif

#endif /* TARN_J1939_H */
