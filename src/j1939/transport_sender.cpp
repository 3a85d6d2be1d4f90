#include "j1939/transport_sender.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace j1939 {

bool Sender::Start(uint64_t now, const Header& header, const uint8_t* data) {
    if (m_sessions.count(header.destination) != 0) return false;
    std::vector<uint8_t> payload(data, data + header.size);  // allocated before anything changes
    Session& s = m_sessions[header.destination];
    s.header = header;
    s.header.role = Role::Originator;
    s.payload = std::move(payload);
    s.packets = static_cast<uint16_t>(PacketsFor(header.size));
    if (header.destination == kGlobalAddress) {
        m_wire.Cm(header.priority, kGlobalAddress,
                  Announce(Control::Bam, header.size, s.packets, 0xFF, header.pgn));
        Arm(now, s, State::Broadcasting, m_bamGap);
    } else {
        m_wire.Cm(header.priority, header.destination,
                  Announce(Control::Rts, header.size, s.packets, 0xFF, header.pgn));
        Arm(now, s, State::Waiting, kT3);
    }
    return true;
}

// The session a CM frame from a destination belongs to, or end().
Sender::Map::iterator Sender::Find(uint32_t id, const uint8_t* d) {
    const auto it = m_sessions.find(Source(id));
    if (it == m_sessions.end() || it->second.state == State::Broadcasting ||
        it->second.header.pgn != CmPgn(d)) {
        return m_sessions.end();
    }
    return it;
}

void Sender::OnCts(uint64_t now, uint32_t id, const uint8_t* d) {
    const auto it = Find(id, d);
    if (it == m_sessions.end()) {
        ++m_wire.stats().stray;
        return;
    }
    Session& s = it->second;
    const unsigned count = d[1], next = d[2];
    if (count == 0) {
        Arm(now, s, State::Held, kT4);
    } else if (next == 0 || next > s.packets) {
        ++m_wire.stats().out_of_range;
        End(now, it, EndReason::Aborted, AbortReason::BadSequence);
    } else if (next <= s.sent && !AskedAgain(s, next)) {
        End(now, it, EndReason::Aborted, AbortReason::RetransmitLimit);
    } else {
        SendWindow(now, it, count, next);
    }
}

// The destination has everything once it acknowledges our size and count
// after we sent every packet.
void Sender::OnAck(uint64_t now, uint32_t id, const uint8_t* d) {
    const auto it = Find(id, d);
    if (it == m_sessions.end()) {
        ++m_wire.stats().stray;
        return;
    }
    const Session& s = it->second;
    if (CmSize(d) != s.header.size || d[3] != s.packets || s.sent < s.packets) {
        ++m_wire.stats().size_mismatches;
        End(now, it, EndReason::Aborted, AbortReason::Other);
        return;
    }
    Finish(now, it);
}

void Sender::OnAbort(uint64_t now, uint32_t id, const uint8_t* d) {
    const auto it = Find(id, d);
    if (it == m_sessions.end()) return;
    ++m_wire.stats().aborts_received;
    End(now, it, EndReason::PeerAborted, static_cast<AbortReason>(d[1]));
}

void Sender::Poll(uint64_t now) {
    if (now < m_nextDeadline) return;
    m_nextDeadline = UINT64_MAX;
    for (auto it = m_sessions.begin(); it != m_sessions.end();) {
        Session& s = it->second;
        if (s.deadline > now) {
            m_nextDeadline = std::min(m_nextDeadline, s.deadline);
            ++it;
        } else if (s.state == State::Broadcasting) {
            it = Broadcast(now, it);
        } else {
            ++m_wire.stats().timeouts;
            const EndReason timer = s.state == State::Held ? EndReason::T4 : EndReason::T3;
            it = End(now, it, timer, AbortReason::Timeout);
        }
    }
}

// Sends the packets a CTS grants, back to back.
void Sender::SendWindow(uint64_t now, Map::iterator it, unsigned count, unsigned next) {
    Session& s = it->second;
    const unsigned last = std::min<unsigned>(s.packets, next + count - 1);
    for (unsigned seq = next; seq <= last; ++seq) SendPacket(s, seq);
    s.sent = static_cast<uint16_t>(std::max<unsigned>(s.sent, last));
    Arm(now, s, State::Waiting, kT3);
}

// Counts a request for packets already sent; false once one packet was
// asked for more often than allowed.
bool Sender::AskedAgain(Session& s, unsigned next) {
    ++m_wire.stats().retransmit_requests;
    if (s.asked == next) {
        ++s.requests;
    } else {
        s.asked = static_cast<uint16_t>(next);
        s.requests = 1;
    }
    return s.requests <= kMaxRetransmitRequests;
}

// Packet `seq` carries payload bytes 7(seq-1) onwards; the last one is padded.
void Sender::SendPacket(const Session& s, unsigned seq) {
    uint8_t d[8];
    std::memset(d, 0xFF, sizeof d);
    d[0] = static_cast<uint8_t>(seq);
    const size_t offset = (seq - 1) * kPacketBytes;
    std::memcpy(d + 1, s.payload.data() + offset,
                std::min(kPacketBytes, s.payload.size() - offset));
    m_wire.Dt(s.header.priority, s.header.destination, d);
}

// One broadcast packet per gap; a lost one is not sent again, since nobody
// could ask for it.
Sender::Map::iterator Sender::Broadcast(uint64_t now, Map::iterator it) {
    Session& s = it->second;
    SendPacket(s, ++s.sent);
    if (s.sent == s.packets) return Finish(now, it);
    Arm(now, s, State::Broadcasting, m_bamGap);
    return std::next(it);
}

void Sender::Arm(uint64_t now, Session& s, State state, uint64_t after) {
    s.state = state;
    s.deadline = now + after;
    m_nextDeadline = std::min(m_nextDeadline, s.deadline);
}

Sender::Map::iterator Sender::Finish(uint64_t now, Map::iterator it) {
    Session s = std::move(it->second);
    const auto next = m_sessions.erase(it);
    ++m_wire.stats().sent;
    Transfer t;
    t.header = s.header;
    t.data = s.payload.data();
    t.now = now;
    m_wire.events().OnTransfer(t);
    return next;
}

// Ends a session without a transfer, telling the destination why unless it
// was the one that aborted.
Sender::Map::iterator Sender::End(uint64_t now, Map::iterator it, EndReason reason,
                                  AbortReason abort) {
    const Session& s = it->second;
    Ended e;
    e.header = s.header;
    e.reason = reason;
    e.abort = abort;
    e.done = static_cast<uint32_t>(std::min<size_t>(s.payload.size(), s.sent * kPacketBytes));
    e.now = now;
    if (reason != EndReason::PeerAborted) {
        m_wire.Cm(s.header.priority, s.header.destination, Abort(abort, s.header.pgn));
    }
    const auto next = m_sessions.erase(it);
    ++m_wire.stats().ended;
    m_wire.events().OnEnded(e);
    return next;
}

}  // namespace j1939
