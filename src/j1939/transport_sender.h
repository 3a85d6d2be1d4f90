// Sends transfers from our own address: RTS/CTS to any number of
// destinations at once (one session per destination), sending each window a
// CTS grants, holding on a CTS of zero packets, sending again what a CTS asks
// for again and finishing on EndOfMsgAck; and one broadcast at a time, its
// packets paced by Poll.
#pragma once

#include <cstddef>
#include <cstdint>
#include <unordered_map>
#include <vector>

#include "j1939/transport.h"

namespace j1939 {

class Sender {
  public:
    Sender(Wire& wire, uint64_t bamGap) : m_wire(wire), m_bamGap(bamGap) {}

    // False when a session to that destination (or a broadcast, for the
    // global address) is still open. `size` is 9..1785.
    bool Start(uint64_t now, const Header& header, const uint8_t* data);

    // Frames from a destination to us.
    void OnCts(uint64_t now, uint32_t id, const uint8_t* d);
    void OnAck(uint64_t now, uint32_t id, const uint8_t* d);
    void OnAbort(uint64_t now, uint32_t id, const uint8_t* d);

    // Sends broadcast packets that are due and ends sessions whose timer ran out.
    void Poll(uint64_t now);
    uint64_t NextDeadline() const { return m_nextDeadline; }
    size_t OpenSessions() const { return m_sessions.size(); }

  private:
    enum class State : uint8_t { Waiting, Held, Broadcasting };
    struct Session {
        Header header;
        std::vector<uint8_t> payload;
        uint64_t deadline = 0;
        State state = State::Waiting;
        uint16_t packets = 0;
        uint16_t sent = 0;     // highest sequence number sent so far
        uint16_t asked = 0;    // sequence number last asked for again
        uint8_t requests = 0;  // times `asked` was asked for again
    };
    using Map = std::unordered_map<uint8_t, Session>;

    Map::iterator Find(uint32_t id, const uint8_t* d);
    void SendWindow(uint64_t now, Map::iterator it, unsigned count, unsigned next);
    bool AskedAgain(Session& s, unsigned next);
    void SendPacket(const Session& s, unsigned seq);
    Map::iterator Broadcast(uint64_t now, Map::iterator it);
    void Arm(uint64_t now, Session& s, State state, uint64_t after);
    Map::iterator Finish(uint64_t now, Map::iterator it);
    Map::iterator End(uint64_t now, Map::iterator it, EndReason reason, AbortReason abort);

    Wire& m_wire;
    uint64_t m_bamGap;
    Map m_sessions;
    uint64_t m_nextDeadline = UINT64_MAX;  // never later than the earliest deadline
};

}  // namespace j1939
