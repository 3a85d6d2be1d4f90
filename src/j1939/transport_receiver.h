// Reassembles transport transfers seen on the bus: one broadcast per source
// and one RTS/CTS session per (source, destination) pair, any number at once
// up to a cap, each holding only its own payload. A data packet counts only
// for the session of its own source and destination. With an address of its
// own the receiver answers RTS frames addressed to it (CTS windows, asking
// again for lost packets, EndOfMsgAck, Abort); every other session it only
// follows, sending nothing.
#pragma once

#include <cstdint>
#include <unordered_map>
#include <vector>

#include "j1939/transport.h"

namespace j1939 {

class Receiver {
  public:
    struct Options {
        int address = -1;  // own address, or -1 to listen only
        uint8_t ctsWindow = kDefaultCtsWindow;
        uint32_t maxSessions = kDefaultMaxSessions;
    };

    Receiver(Wire& wire, const Options& options);

    // Each takes a TP.CM or TP.DT frame's identifier and its 8 data bytes.
    void OnRts(uint64_t now, uint32_t id, const uint8_t* d);
    void OnBam(uint64_t now, uint32_t id, const uint8_t* d);
    void OnCts(uint64_t now, uint32_t id, const uint8_t* d);  // between two others
    void OnAbort(uint64_t now, uint32_t id, const uint8_t* d);
    void OnData(uint64_t now, uint32_t id, const uint8_t* d);

    // Ends the sessions whose timer ran out by `now`.
    void Poll(uint64_t now);
    uint64_t NextDeadline() const { return m_nextDeadline; }
    size_t OpenSessions() const { return m_sessions.size(); }

  private:
    struct Session {
        Header header;
        std::vector<uint8_t> payload;
        uint64_t deadline = 0;
        EndReason timer = EndReason::T1;  // what running out of time means
        uint16_t packets = 0;
        uint16_t next = 1;         // sequence number expected next
        uint16_t windowEnd = 0;    // last granted; below `next` while no window is open
        uint8_t maxPerCts = 0xFF;  // the originator's limit from its RTS
        uint8_t requests = 0;      // times `next` was asked for again
        bool broadcast = false;
    };
    using Map = std::unordered_map<uint16_t, Session>;

    static uint16_t Key(uint8_t source, uint8_t destination) {
        return static_cast<uint16_t>(source << 8 | destination);
    }

    Header Announced(uint32_t id, const uint8_t* d) const;
    // Checks an announcement's addressing (broadcast or not) and size, and
    // refuses it when they are wrong; true when it may open a session.
    bool Admit(uint64_t now, uint32_t id, const uint8_t* d, bool broadcast, Header& h);
    Session* Open(uint64_t now, const Header& header, bool broadcast);
    void Refuse(uint64_t now, const Header& header, AbortReason reason);
    void Grant(uint64_t now, Session& s);
    void Arm(uint64_t now, Session& s, EndReason timer);
    void Store(Session& s, const uint8_t* d);
    void Duplicate(uint64_t now, Map::iterator it, const uint8_t* d);
    void Gap(uint64_t now, Map::iterator it, unsigned seq);
    void Complete(uint64_t now, Map::iterator it);
    Map::iterator End(uint64_t now, Map::iterator it, EndReason reason, AbortReason abort);

    Wire& m_wire;
    Options m_options;
    Map m_sessions;
    uint64_t m_nextDeadline = UINT64_MAX;  // never later than the earliest deadline
};

}  // namespace j1939
