#include "j1939/transport_receiver.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace j1939 {

namespace {

uint64_t Duration(EndReason timer) {
    switch (timer) {
        case EndReason::T2:
            return kT2;
        case EndReason::T3:
            return kT3;
        case EndReason::T4:
            return kT4;
        default:
            return kT1;
    }
}

bool IsTimer(EndReason reason) {
    return reason == EndReason::T1 || reason == EndReason::T2 || reason == EndReason::T3 ||
           reason == EndReason::T4;
}

// Size and packet count of an announcement must agree and fit the transport.
AbortReason CheckSize(const uint8_t* d) {
    const size_t size = CmSize(d);
    if (size > kMaxTransferSize) return AbortReason::TooLarge;
    if (size == 0 || PacketsFor(size) != d[3]) return AbortReason::Other;
    return AbortReason::None;
}

}  // namespace

Receiver::Receiver(Wire& wire, const Options& options) : m_wire(wire), m_options(options) {}

Header Receiver::Announced(uint32_t id, const uint8_t* d) const {
    Header h;
    h.pgn = CmPgn(d);
    h.size = CmSize(d);
    h.priority = Priority(id);
    h.source = Source(id);
    h.destination = Destination(id);
    h.role = m_options.address == h.destination ? Role::Responder : Role::Listener;
    return h;
}

bool Receiver::Admit(uint64_t now, uint32_t id, const uint8_t* d, bool broadcast, Header& h) {
    if ((Destination(id) == kGlobalAddress) != broadcast) {
        ++m_wire.stats().malformed;
        return false;
    }
    h = Announced(id, d);
    const AbortReason bad = CheckSize(d);
    if (bad != AbortReason::None) {
        ++m_wire.stats().size_mismatches;
        Refuse(now, h, bad);
        return false;
    }
    return true;
}

void Receiver::OnBam(uint64_t now, uint32_t id, const uint8_t* d) {
    Header h;
    if (!Admit(now, id, d, true, h)) return;
    // A repeat of the announcement before any packet is the same broadcast.
    const auto it = m_sessions.find(Key(h.source, kGlobalAddress));
    if (it != m_sessions.end()) {
        const Header& old = it->second.header;
        if (it->second.next == 1 && old.pgn == h.pgn && old.size == h.size) {
            ++m_wire.stats().duplicates;
            return;
        }
        End(now, it, EndReason::Replaced, AbortReason::None);
    }
    if (Session* s = Open(now, h, true)) {
        s->windowEnd = s->packets;
        Arm(now, *s, EndReason::T1);
    }
}

void Receiver::OnRts(uint64_t now, uint32_t id, const uint8_t* d) {
    Header h;
    if (!Admit(now, id, d, false, h)) return;
    // The same group again means the originator started over; another group
    // while one is open is refused, as only one session per pair may exist.
    const auto it = m_sessions.find(Key(h.source, h.destination));
    if (it != m_sessions.end()) {
        if (it->second.header.pgn != h.pgn) {
            Refuse(now, h, AbortReason::Busy);
            return;
        }
        m_sessions.erase(it);
    }
    Session* s = Open(now, h, false);
    if (s == nullptr) return;
    s->maxPerCts = d[4] == 0 ? 0xFF : d[4];
    if (h.role == Role::Responder) {
        Grant(now, *s);
    } else {
        Arm(now, *s, EndReason::T3);
    }
}

// A listener follows the windows the destination grants.
void Receiver::OnCts(uint64_t now, uint32_t id, const uint8_t* d) {
    const auto it = m_sessions.find(Key(Destination(id), Source(id)));
    if (it == m_sessions.end() || it->second.header.role != Role::Listener ||
        it->second.header.pgn != CmPgn(d)) {
        ++m_wire.stats().stray;
        return;
    }
    Session& s = it->second;
    const unsigned count = d[1], next = d[2];
    if (count == 0) {
        s.windowEnd = static_cast<uint16_t>(s.next - 1);
        Arm(now, s, EndReason::T4);
        return;
    }
    if (next == 0 || next > s.packets) {
        ++m_wire.stats().out_of_range;
        End(now, it, EndReason::Aborted, AbortReason::BadSequence);
        return;
    }
    if (next > s.next) {  // the destination has packets this listener missed
        ++m_wire.stats().out_of_order;
        End(now, it, EndReason::Aborted, AbortReason::BadSequence);
        return;
    }
    s.windowEnd = static_cast<uint16_t>(std::min<unsigned>(s.packets, next + count - 1));
    Arm(now, s, EndReason::T2);
}

// Either party may abort, so both directions of the pair are candidates.
void Receiver::OnAbort(uint64_t now, uint32_t id, const uint8_t* d) {
    const uint32_t pgn = CmPgn(d);
    const uint8_t src = Source(id), dst = Destination(id);
    for (const uint16_t key : {Key(src, dst), Key(dst, src)}) {
        const auto it = m_sessions.find(key);
        if (it == m_sessions.end() || it->second.broadcast || it->second.header.pgn != pgn) {
            continue;
        }
        ++m_wire.stats().aborts_received;
        End(now, it, EndReason::PeerAborted, static_cast<AbortReason>(d[1]));
    }
}

void Receiver::OnData(uint64_t now, uint32_t id, const uint8_t* d) {
    const auto it = m_sessions.find(Key(Source(id), Destination(id)));
    if (it == m_sessions.end()) {
        ++m_wire.stats().stray;
        return;
    }
    Session& s = it->second;
    const unsigned seq = d[0];
    if (seq == 0 || seq > s.packets) {
        ++m_wire.stats().out_of_range;
        End(now, it, EndReason::Aborted, AbortReason::BadSequence);
    } else if (seq < s.next) {
        Duplicate(now, it, d);
    } else if (seq > s.windowEnd) {
        ++m_wire.stats().unexpected;
        End(now, it, EndReason::Aborted, AbortReason::UnexpectedData);
    } else if (seq > s.next) {
        Gap(now, it, seq);
    } else {
        Store(s, d);
        if (s.next > s.packets) {
            Complete(now, it);
        } else if (s.next <= s.windowEnd) {
            Arm(now, s, EndReason::T1);
        } else if (s.header.role == Role::Responder) {
            Grant(now, s);
        } else {
            Arm(now, s, EndReason::T3);
        }
    }
}

void Receiver::Poll(uint64_t now) {
    if (now < m_nextDeadline) return;
    uint64_t earliest = UINT64_MAX;
    for (auto it = m_sessions.begin(); it != m_sessions.end();) {
        if (it->second.deadline <= now) {
            ++m_wire.stats().timeouts;
            it = End(now, it, it->second.timer, AbortReason::Timeout);
        } else {
            earliest = std::min(earliest, it->second.deadline);
            ++it;
        }
    }
    m_nextDeadline = earliest;
}

Receiver::Session* Receiver::Open(uint64_t now, const Header& header, bool broadcast) {
    if (m_sessions.size() >= m_options.maxSessions) {
        Refuse(now, header, AbortReason::Resources);
        return nullptr;
    }
    std::vector<uint8_t> payload(header.size);  // allocated before anything changes
    Session& s = m_sessions[Key(header.source, broadcast ? kGlobalAddress : header.destination)];
    s.header = header;
    s.broadcast = broadcast;
    s.packets = static_cast<uint16_t>(PacketsFor(header.size));
    s.payload = std::move(payload);
    Stats& stats = m_wire.stats();
    stats.peak_sessions = std::max<uint64_t>(stats.peak_sessions, m_sessions.size());
    return &s;
}

void Receiver::Refuse(uint64_t now, const Header& header, AbortReason reason) {
    ++m_wire.stats().refused;
    ++m_wire.stats().ended;
    if (header.role == Role::Responder) {
        m_wire.Cm(kTpPriority, header.source, Abort(reason, header.pgn));
    }
    Ended e;
    e.header = header;
    e.reason = EndReason::Refused;
    e.abort = reason;
    e.now = now;
    m_wire.events().OnEnded(e);
}

// Grants the next window, as large as both ends allow.
void Receiver::Grant(uint64_t now, Session& s) {
    const unsigned window = std::min<unsigned>(
        {m_options.ctsWindow, s.maxPerCts, static_cast<unsigned>(s.packets - s.next + 1)});
    s.windowEnd = static_cast<uint16_t>(s.next + window - 1);
    m_wire.Cm(kTpPriority, s.header.source,
              Cts(static_cast<uint8_t>(window), static_cast<uint8_t>(s.next), s.header.pgn));
    Arm(now, s, EndReason::T2);
}

void Receiver::Arm(uint64_t now, Session& s, EndReason timer) {
    s.timer = timer;
    s.deadline = now + Duration(timer);
    m_nextDeadline = std::min(m_nextDeadline, s.deadline);
}

void Receiver::Store(Session& s, const uint8_t* d) {
    const size_t offset = (s.next - 1u) * kPacketBytes;
    std::memcpy(s.payload.data() + offset, d + 1,
                std::min(kPacketBytes, s.payload.size() - offset));
    ++s.next;
    s.requests = 0;
}

// A repeat is harmless unless its bytes differ from the first copy's.
void Receiver::Duplicate(uint64_t now, Map::iterator it, const uint8_t* d) {
    ++m_wire.stats().duplicates;
    const Session& s = it->second;
    const size_t offset = (d[0] - 1u) * kPacketBytes;
    const size_t n = std::min(kPacketBytes, s.payload.size() - offset);
    if (std::memcmp(s.payload.data() + offset, d + 1, n) != 0) {
        End(now, it, EndReason::Aborted, AbortReason::DuplicateSequence);
    }
}

// A packet was lost. A broadcast cannot recover and a listener waits for the
// destination to ask again. A responder asks again for everything from the
// lost packet once the window's last packet shows the originator is done
// with the window; a window's packets can then never arrive after it asked.
void Receiver::Gap(uint64_t now, Map::iterator it, unsigned seq) {
    ++m_wire.stats().out_of_order;
    Session& s = it->second;
    if (s.broadcast) {
        End(now, it, EndReason::Aborted, AbortReason::BadSequence);
    } else if (s.header.role == Role::Listener || seq != s.windowEnd) {
        return;
    } else if (s.requests >= kMaxRetransmitRequests) {
        End(now, it, EndReason::Aborted, AbortReason::RetransmitLimit);
    } else {
        ++s.requests;
        ++m_wire.stats().retransmit_requests;
        Grant(now, s);
    }
}

void Receiver::Complete(uint64_t now, Map::iterator it) {
    Session s = std::move(it->second);
    m_sessions.erase(it);
    if (s.header.role == Role::Responder) {
        m_wire.Cm(kTpPriority, s.header.source,
                  Announce(Control::EndOfMsgAck, s.header.size, s.packets, 0xFF, s.header.pgn));
    }
    ++m_wire.stats().received;
    Transfer t;
    t.header = s.header;
    t.data = s.payload.data();
    t.now = now;
    m_wire.events().OnTransfer(t);
}

// Ends a session without a transfer; a responder tells the originator why.
Receiver::Map::iterator Receiver::End(uint64_t now, Map::iterator it, EndReason reason,
                                      AbortReason abort) {
    const Session& s = it->second;
    Ended e;
    e.header = s.header;
    e.reason = reason;
    e.abort = abort;
    e.done =
        static_cast<uint32_t>(std::min<size_t>(s.payload.size(), (s.next - 1u) * kPacketBytes));
    e.now = now;
    if (s.header.role == Role::Responder && (reason == EndReason::Aborted || IsTimer(reason))) {
        m_wire.Cm(kTpPriority, s.header.source, Abort(abort, s.header.pgn));
    }
    const auto next = m_sessions.erase(it);
    ++m_wire.stats().ended;
    m_wire.events().OnEnded(e);
    return next;
}

}  // namespace j1939
