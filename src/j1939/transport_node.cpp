#include "j1939/transport_node.h"

#include <algorithm>

namespace j1939 {

namespace {

Receiver::Options ReceiverOptions(const Node::Options& o) {
    Receiver::Options r;
    r.address = o.address;
    r.ctsWindow = o.ctsWindow;
    r.maxSessions = o.maxSessions;
    return r;
}

}  // namespace

Node::Node(const Options& options, Events& events)
    : m_options(options),
      m_wire(events, m_stats, static_cast<uint8_t>(options.address)),
      m_receiver(m_wire, ReceiverOptions(options)),
      m_sender(m_wire, uint64_t{options.bamGapMs} * kMicrosPerMs) {}

bool Node::Valid(const Options& o) {
    return o.address >= -1 && o.address < kNullAddress && o.ctsWindow >= 1 &&
           o.bamGapMs >= kBamGapMinMs && o.bamGapMs <= kBamGapMaxMs && o.maxSessions >= 1;
}

Node::Result Node::Receive(uint64_t now, uint32_t id, const uint8_t* data, size_t length) {
    if (id > kIdMask || (data == nullptr && length > 0)) return Result::Argument;
    ++m_stats.frames;
    Poll(now);
    const uint8_t format = PduFormat(id);
    const bool dataPage = (id >> 24) & 3u;
    if (dataPage || (format != kTpCmFormat && format != kTpDtFormat)) return Result::Ok;
    if (length != 8) {
        ++m_stats.malformed;
    } else if (m_options.address >= 0 && Source(id) == m_options.address) {
        // our own frames echoed back
    } else if (format == kTpDtFormat) {
        m_receiver.OnData(now, id, data);
    } else {
        OnCm(now, id, data);
    }
    return Result::Ok;
}

// CTS, EndOfMsgAck and Abort addressed to us concern our own sends (an Abort
// may also end a transfer to us); everything else is the receiver's.
void Node::OnCm(uint64_t now, uint32_t id, const uint8_t* d) {
    switch (static_cast<Control>(d[0])) {
        case Control::Rts:
            return m_receiver.OnRts(now, id, d);
        case Control::Bam:
            return m_receiver.OnBam(now, id, d);
        case Control::Cts:
            if (ToUs(id)) return m_sender.OnCts(now, id, d);
            return m_receiver.OnCts(now, id, d);
        case Control::EndOfMsgAck:
            if (ToUs(id)) m_sender.OnAck(now, id, d);
            return;  // a listener is done at the last packet
        case Control::Abort:
            if (ToUs(id)) m_sender.OnAbort(now, id, d);
            return m_receiver.OnAbort(now, id, d);
        default:
            ++m_stats.malformed;
    }
}

Node::Result Node::Send(uint64_t now, uint8_t priority, uint32_t pgn, uint8_t destination,
                        const uint8_t* data, size_t size) {
    if (priority > 7 || !IsValidPgn(pgn) || size > kMaxTransferSize ||
        (data == nullptr && size > 0)) {
        return Result::Argument;
    }
    if (m_options.address < 0) return Result::Busy;  // listening only
    Poll(now);
    if (size <= 8) {
        if (!CanAddress(pgn, destination)) return Result::Argument;
        const uint32_t id = MakeId(priority, pgn, destination, m_wire.own());
        static const uint8_t kEmpty[1] = {0};
        return m_wire.Frame(id, size ? data : kEmpty, size) ? Result::Ok : Result::SendFailed;
    }
    if (destination == kNullAddress || destination == m_wire.own()) return Result::Argument;
    Header h;
    h.pgn = pgn;
    h.size = static_cast<uint32_t>(size);
    h.priority = priority;
    h.source = m_wire.own();
    h.destination = destination;
    return m_sender.Start(now, h, data) ? Result::Ok : Result::Busy;
}

void Node::Poll(uint64_t now) {
    m_receiver.Poll(now);
    m_sender.Poll(now);
}

uint64_t Node::NextDeadline() const {
    return std::min(m_receiver.NextDeadline(), m_sender.NextDeadline());
}

Stats Node::GetStats() const {
    Stats s = m_stats;
    s.open_sessions = m_receiver.OpenSessions();
    return s;
}

}  // namespace j1939
