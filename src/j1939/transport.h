// Vocabulary of the native J1939 transport: timers, abort reasons, the
// connection-management frame layouts, what a session reports and the
// counters. Time is always an input in microseconds; nothing here reads a
// clock or sleeps.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "j1939/identifier.h"

namespace j1939 {

constexpr uint64_t kMicrosPerMs = 1000;

// Session timers.
constexpr uint64_t kT1 = 750 * kMicrosPerMs;   // receiver: between two data packets
constexpr uint64_t kT2 = 1250 * kMicrosPerMs;  // receiver: from its CTS to the first packet
constexpr uint64_t kT3 = 1250 * kMicrosPerMs;  // originator: from RTS or a window to CTS or ACK
constexpr uint64_t kT4 = 1050 * kMicrosPerMs;  // originator: from a hold CTS to the next CTS
constexpr uint64_t kBamPacketTimeout = kT1;    // broadcast receiver: between two packets

// Gap between the packets of a broadcast we send.
constexpr uint32_t kBamGapDefaultMs = 50;
constexpr uint32_t kBamGapMinMs = 50;
constexpr uint32_t kBamGapMaxMs = 200;

constexpr uint8_t kDefaultCtsWindow = 16;
constexpr uint32_t kDefaultMaxSessions = 4096;
// A packet asked for again more often than this ends the session.
constexpr uint8_t kMaxRetransmitRequests = 2;

constexpr size_t kPacketBytes = 7;
constexpr size_t kMaxPackets = 255;
constexpr size_t kMaxTransferSize = kPacketBytes * kMaxPackets;  // 1785

// The transport's own groups, as PDU format bytes (data page bits zero).
constexpr uint8_t kTpCmFormat = 0xEC;
constexpr uint8_t kTpDtFormat = 0xEB;
constexpr uint32_t kTpCmPgn = 0xEC00;
constexpr uint32_t kTpDtPgn = 0xEB00;
constexpr uint8_t kTpPriority = 7;

// Control byte (data byte 0) of a TP.CM frame.
enum class Control : uint8_t {
    Rts = 0x10,
    Cts = 0x11,
    EndOfMsgAck = 0x13,
    Bam = 0x20,
    Abort = 0xFF
};

// Reasons carried by an Abort frame; the values are the wire values.
enum class AbortReason : uint8_t {
    None = 0,
    Busy = 1,       // already in a session and cannot support another
    Resources = 2,  // system resources were needed elsewhere
    Timeout = 3,
    CtsDuringData = 4,    // CTS received while a window was being sent
    RetransmitLimit = 5,  // a packet was asked for again too often
    UnexpectedData = 6,   // a data packet outside the granted window
    BadSequence = 7,      // a sequence number that cannot be recovered from
    DuplicateSequence = 8,
    TooLarge = 9,  // more than 1785 bytes announced
    Other = 255,   // no reason above fits
};

// Why a session ended without delivering its payload.
enum class EndReason : uint8_t {
    T1 = 1,           // no data packet within T1 (broadcasts included)
    T2 = 2,           // no data packet within T2 of a CTS
    T3 = 3,           // no CTS or EndOfMsgAck within T3
    T4 = 4,           // no CTS within T4 of a hold CTS
    Aborted = 5,      // this end gave up; AbortReason says why
    PeerAborted = 6,  // an Abort frame from one of the parties
    Replaced = 7,     // a new BAM from the same source
    Refused = 8,      // an announcement this end would not take
};

// Part played in a session: sending nothing (broadcasts, transfers between
// others, listen-only), answering as the destination, or originating.
enum class Role : uint8_t { Listener = 0, Responder = 1, Originator = 2 };

// Who a transfer is between and what it carries.
struct Header {
    uint32_t pgn = 0;
    uint32_t size = 0;
    uint8_t priority = 0;
    uint8_t source = 0;
    uint8_t destination = 0;
    Role role = Role::Listener;
};

struct Transfer {
    Header header;
    const uint8_t* data = nullptr;  // header.size bytes, valid during the report only
    uint64_t now = 0;
};

struct Ended {
    Header header;
    EndReason reason = EndReason::Aborted;
    AbortReason abort = AbortReason::None;  // sent, received, or a listener's verdict
    uint32_t done = 0;                      // bytes received or sent before the end
    uint64_t now = 0;
};

struct Stats {
    uint64_t frames = 0;           // frames passed in
    uint64_t received = 0;         // transfers reassembled
    uint64_t sent = 0;             // transfers sent to the end
    uint64_t ended = 0;            // sessions ended without a transfer (refusals included)
    uint64_t refused = 0;          // announcements not taken
    uint64_t duplicates = 0;       // data packets received before
    uint64_t out_of_order = 0;     // data packets ahead of the next expected
    uint64_t out_of_range = 0;     // sequence 0 or past the announced packet count
    uint64_t unexpected = 0;       // data packets outside the granted window
    uint64_t size_mismatches = 0;  // size and packet count disagree, or too large
    uint64_t stray = 0;            // packets, CTS or ACK without an open session
    uint64_t malformed = 0;        // transport frames that are not 8 bytes, unknown control
    uint64_t timeouts = 0;
    uint64_t aborts_sent = 0;
    uint64_t aborts_received = 0;
    uint64_t retransmit_requests = 0;  // CTS asking again, sent or received
    uint64_t send_failures = 0;
    uint64_t open_sessions = 0;  // receiving sessions open now
    uint64_t peak_sessions = 0;
};

// What the core needs from its owner. Reports are made synchronously from
// the call that caused them and must not call back into the core.
class Events {
  public:
    virtual ~Events() = default;
    // False when the frame could not be queued for the bus.
    virtual bool SendFrame(uint32_t id, const uint8_t* data, size_t length) = 0;
    virtual void OnTransfer(const Transfer& transfer) = 0;
    virtual void OnEnded(const Ended& ended) = 0;
};

using CmFrame = std::array<uint8_t, 8>;

// Fields of a TP.CM frame.
inline uint32_t CmPgn(const uint8_t* d) {
    return d[5] | d[6] << 8 | uint32_t{d[7]} << 16;
}
inline uint16_t CmSize(const uint8_t* d) {
    return static_cast<uint16_t>(d[1] | d[2] << 8);
}

inline size_t PacketsFor(size_t size) {
    return (size + kPacketBytes - 1) / kPacketBytes;
}

// TP.CM layouts: control, two bytes of size or counts, two more, then the PGN.
inline CmFrame MakeCm(Control control, uint8_t b1, uint8_t b2, uint8_t b3, uint8_t b4,
                      uint32_t pgn) {
    return {static_cast<uint8_t>(control),
            b1,
            b2,
            b3,
            b4,
            static_cast<uint8_t>(pgn),
            static_cast<uint8_t>(pgn >> 8),
            static_cast<uint8_t>(pgn >> 16)};
}
inline CmFrame Announce(Control control, size_t size, size_t packets, uint8_t b4, uint32_t pgn) {
    return MakeCm(control, static_cast<uint8_t>(size), static_cast<uint8_t>(size >> 8),
                  static_cast<uint8_t>(packets), b4, pgn);
}
inline CmFrame Cts(uint8_t count, uint8_t next, uint32_t pgn) {
    return MakeCm(Control::Cts, count, next, 0xFF, 0xFF, pgn);
}
inline CmFrame Abort(AbortReason reason, uint32_t pgn) {
    return MakeCm(Control::Abort, static_cast<uint8_t>(reason), 0xFF, 0xFF, 0xFF, pgn);
}

// The outgoing side shared by both ends of a session: frames from our own
// address, failures and aborts counted.
class Wire {
  public:
    Wire(Events& events, Stats& stats, uint8_t own)
        : m_events(events), m_stats(stats), m_own(own) {}

    Events& events() { return m_events; }
    Stats& stats() { return m_stats; }
    uint8_t own() const { return m_own; }

    bool Cm(uint8_t priority, uint8_t destination, const CmFrame& frame) {
        if (frame[0] == static_cast<uint8_t>(Control::Abort)) ++m_stats.aborts_sent;
        return Frame(MakeId(priority, kTpCmPgn, destination, m_own), frame.data(), 8);
    }
    bool Dt(uint8_t priority, uint8_t destination, const uint8_t* data) {
        return Frame(MakeId(priority, kTpDtPgn, destination, m_own), data, 8);
    }
    bool Frame(uint32_t id, const uint8_t* data, size_t length) {
        if (m_events.SendFrame(id, data, length)) return true;
        ++m_stats.send_failures;
        return false;
    }

  private:
    Events& m_events;
    Stats& m_stats;
    uint8_t m_own;
};

}  // namespace j1939
